/*
 * The table of known parameters: names, defaults, what a value may be, and the buffers that a load
 * of the parameter file fills.
 *
 * The table is constant, and what a text of the file comes to is a function of its row alone. The
 * buffers are unsynchronised: only the configuration module writes and reads them, under its module
 * mutex.
 */
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "common/box/param.h"
#include "framework/types.h"

enum class PARAM_KIND : UInt32 {
    TEXT,   /* shorter than min characters: the default; longer than max: cut */
    SWITCH, /* "true", ignoring case, or an empty text is on, anything else off */
    NUMBER, /* leading decimal digits; beyond min..max: the default */
    MODE,   /* rate control, "vbr" or "cbr", ignoring case; anything else: the default */
};

/* A known parameter. */
struct PARAM_S {
    const char *section;
    const char *name;
    const char *default_value;
    char *buffer;    /* receives the text */
    UInt32 capacity; /* longest text with its NUL; for a longer one the default is taken */
    PARAM_KIND kind;
    SInt32 min;
    SInt32 max;

    constexpr bool Has(long i_s64Value) const { return i_s64Value >= min && i_s64Value <= max; }
};

/* The rows that become the configuration record. The others are loaded and kept, but nothing reads
 * them. */
enum PARAM_ROW : std::size_t {
    PARAM_ADDR_LIST,
    PARAM_ADDR_URL,
    PARAM_H264_ENABLE,
    PARAM_H264_GOP, /* frames */
    PARAM_H264_MODE,
    PARAM_H264_BITRATE, /* bit/s */
    PARAM_PREV_ENABLE,
    PARAM_PREV_HEIGHT,      /* lines */
    PARAM_PREV_REFRESHRATE, /* pictures per second */
    PARAM_SRC_DEVICE_ID,
    PARAM_CONFIG_ROWS,
};
constexpr std::size_t PARAM_COUNT = 37;
extern const PARAM_S g_aParams[PARAM_COUNT];

/* What became of a parameter's text. */
enum class PARAM_NOTE : UInt32 {
    AS_GIVEN,
    /* The default took its place: */
    NO_TEXT,
    TOO_LONG, /* for the row's capacity */
    TOO_SHORT,
    NOT_IN_RANGE,
    UNKNOWN_WORD,
    /* Used, but not as it stands: */
    CUT,
    COUNTS_AS_OFF, /* a switch that is neither "true" nor "false" */
    TAIL_IGNORED,  /* a number that goes on with something else */
};
/* "is not in its range" and so on, to stand behind a parameter's name; "" for AS_GIVEN. */
const char *ParamNoteText(PARAM_NOTE i_eNote);

/* The value that the daemon works with. */
struct PARAM_VALUE_S {
    std::string strText; /* a switch is "true" or "false", a number decimal without more */
    SInt32 s32Number;    /* of a number; of a switch 1 or 0; else 0 */
    PARAM_NOTE eNote;

    bool IsDefault() const
    {
        return eNote > PARAM_NOTE::AS_GIVEN && eNote <= PARAM_NOTE::UNKNOWN_WORD;
    }
};

/* What the text comes to in that row. i_pText: as it stands in the file; null if the parameter is
 * missing there or has no text. */
PARAM_VALUE_S EvaluateParam(const PARAM_S &i_stRow, const char *i_pText);

/* The element of each row in the parser's document; null for one that is missing. */
using PARAM_ELEMENTS = std::array<const tinyxml2::XMLElement *, PARAM_COUNT>;
PARAM_ELEMENTS FindParams(const RQ_XMLParser &i_objParser);

/* Fills every row's buffer from the parsed document, with the row's default where the text is
 * missing or too long. i_bWriteBack, which the daemon never asks for: puts those defaults into the
 * document and saves it. */
void ReadTheXML(RQ_XMLParser &i_objParser, Bool i_bWriteBack);

/* Destinations of the table's texts, in its order. */
extern char g_szAddrList[512];
extern char g_szAddrUrl[1024];
extern char g_szH264Enable[64];
extern char g_szH264Gop[64];
extern char g_szH264Mode[64];
extern char g_szH264Bitrate[64];
extern char g_szPrevEnable[64];
extern char g_szPrevHeight[64];
extern char g_szPrevRefreshrate[64];
extern char g_szSrcDeviceId[64];
extern char g_szHDStreamIP[300];
extern char g_szHDStreamPort[120];
extern char g_szMediaCastIp[64];
extern char g_szMediaCastPort[8];
extern char g_szStreamEnable[11];
extern char g_szMediaSendLocalIp[64];
extern char g_szMediaSendLocalPort[8];
extern char g_szNewMediaTransportType[64];
extern char g_szMediaTransportType[64];
extern char g_szRateLimitEnable[11];
extern char g_szVBRMaxBitRate[11];
extern char g_szAACBitRate[11];
extern char g_szAudioEncType[16];
extern char g_szRateLimitRatio[11];
extern char g_szRateLimitWeight[11];
extern char g_szMaxConnections[11];
extern char g_szMaxBandwidth[11];
extern char g_szStreamMode[32];
extern char g_szMediaCastType[64];
/* Kept: twice as long as its row admits, so that code which counts on 64 goes on working. */
extern char g_szTransportType[64];
extern char g_szRTSPEnable[11];
extern char g_szRAWAudioIP[300];
extern char g_szRAWAudioPort[120];
extern char g_szch_select[2 * 512]; /* source_select, then source_select2 */
extern char g_szOverTimeSecs[11];
extern char g_szPreTransMode[16];

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */

/* Fills the buffers of the rows of exactly that section and name, without a write-back. Returns
 * the number of rows of the table. */
SInt32 ReadTheParamFromXML(RQ_XMLParser &i_objParser, const char *i_pSection, const char *i_pName);
