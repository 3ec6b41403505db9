/*
 * The table of parameters, their buffers, what a text comes to, and the loaders.
 *
 * A load walks the section once, however many parameters the table has: each element's name is
 * looked up in an index of the rows, and the first element of a name is the one that counts.
 */
#include "common/box/param_table.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <strings.h>

using tinyxml2::XMLElement;

char g_szAddrList[512];
char g_szAddrUrl[1024];
char g_szH264Enable[64];
char g_szH264Gop[64];
char g_szH264Mode[64];
char g_szH264Bitrate[64];
char g_szPrevEnable[64];
char g_szPrevHeight[64];
char g_szPrevRefreshrate[64];
char g_szSrcDeviceId[64];
char g_szHDStreamIP[300];
char g_szHDStreamPort[120];
char g_szMediaCastIp[64];
char g_szMediaCastPort[8];
char g_szStreamEnable[11];
char g_szMediaSendLocalIp[64];
char g_szMediaSendLocalPort[8];
char g_szNewMediaTransportType[64];
char g_szMediaTransportType[64];
char g_szRateLimitEnable[11];
char g_szVBRMaxBitRate[11];
char g_szAACBitRate[11];
char g_szAudioEncType[16];
char g_szRateLimitRatio[11];
char g_szRateLimitWeight[11];
char g_szMaxConnections[11];
char g_szMaxBandwidth[11];
char g_szStreamMode[32];
char g_szMediaCastType[64];
char g_szTransportType[64];
char g_szRTSPEnable[11];
char g_szRAWAudioIP[300];
char g_szRAWAudioPort[120];
char g_szch_select[2 * 512];
char g_szOverTimeSecs[11];
char g_szPreTransMode[16];

namespace
{
constexpr char kSection[] = "CHANNEL_1";

template <UInt32 N>
constexpr PARAM_S Row(const char *i_pName, const char *i_pDefault, char (&o_szBuffer)[N],
                      UInt32 i_u32Capacity = N, UInt32 i_u32Offset = 0)
{
    return PARAM_S{
        kSection,      i_pName,          i_pDefault, o_szBuffer + i_u32Offset,
        i_u32Capacity, PARAM_KIND::TEXT, 0,          static_cast<SInt32>(i_u32Capacity) - 1};
}

constexpr PARAM_S As(PARAM_KIND i_eKind, SInt32 i_s32Min, SInt32 i_s32Max, PARAM_S i_stRow)
{
    i_stRow.kind = i_eKind;
    i_stRow.min = i_s32Min;
    i_stRow.max = i_s32Max;
    return i_stRow;
}
} // namespace

constexpr PARAM_S g_aParams[PARAM_COUNT] = {
    Row("addr_list", "", g_szAddrList),
    /* The record has room for half of it. */
    As(PARAM_KIND::TEXT, 0, 511, Row("addr_url", "", g_szAddrUrl)),
    As(PARAM_KIND::SWITCH, 0, 1, Row("h264_stream_enable", "true", g_szH264Enable)),
    As(PARAM_KIND::NUMBER, 1, 65535, Row("h264_stream_gop", "60", g_szH264Gop)),
    As(PARAM_KIND::MODE, 0, 0, Row("h264_stream_mode", "vbr", g_szH264Mode)),
    As(PARAM_KIND::NUMBER, 100000, 10000000,
       Row("h264_stream_bitrate", "1000000", g_szH264Bitrate)),
    As(PARAM_KIND::SWITCH, 0, 1, Row("preview_stream_enable", "true", g_szPrevEnable)),
    As(PARAM_KIND::NUMBER, 270, 1080, Row("preview_stream_height", "720", g_szPrevHeight)),
    As(PARAM_KIND::NUMBER, 1, 10, Row("preview_stream_refreshrate", "1", g_szPrevRefreshrate)),
    As(PARAM_KIND::TEXT, 12, 63, Row("src_device_id", "", g_szSrcDeviceId)),
    Row("hd_stream_ip", "127.0.0.1", g_szHDStreamIP),
    Row("hd_stream_port", "12347", g_szHDStreamPort),
    Row("media_cast_ip", "", g_szMediaCastIp),
    Row("media_cast_port", "59202", g_szMediaCastPort),
    Row("stream_enable", "y", g_szStreamEnable),
    Row("media_send_local_ip", "", g_szMediaSendLocalIp),
    Row("media_send_local_port", "30000", g_szMediaSendLocalPort),
    Row("new_media_transport_type", "RTP/RTSP", g_szNewMediaTransportType),
    Row("media_transport_type", "h264overrtp", g_szMediaTransportType),
    Row("rate_limit_enable", "n", g_szRateLimitEnable),
    Row("vbr_max_bit_rate", "20000", g_szVBRMaxBitRate),
    Row("aac_enc_bitrate", "240", g_szAACBitRate),
    Row("audio_enc_type", "lpcm", g_szAudioEncType),
    Row("rate_limit_ratio", "1.15", g_szRateLimitRatio),
    Row("rate_limit_weight", "1.2", g_szRateLimitWeight),
    Row("max_connections", "10", g_szMaxConnections),
    Row("max_bandwidth_kbps", "80000", g_szMaxBandwidth),
    Row("stream_mode", "auto", g_szStreamMode),
    Row("media_cast_type", "multicast", g_szMediaCastType),
    Row("transport_type", "raw", g_szTransportType, 32),
    Row("rtsp_enable", "y", g_szRTSPEnable),
    Row("raw_audio_ip", "", g_szRAWAudioIP),
    Row("raw_audio_port", "", g_szRAWAudioPort),
    Row("source_select", "", g_szch_select, 512),
    Row("source_select2", "", g_szch_select, 512, 512),
    Row("overtime_secs", "8", g_szOverTimeSecs),
    Row("preferred_transport_mode", "udp", g_szPreTransMode),
};

namespace
{
struct ROW_NAME_S {
    std::string_view strName;
    std::size_t u64Row;
};

/* Any strict order will do for the index; lengths tell most names apart at once. */
constexpr bool NameLess(std::string_view i_strA, std::string_view i_strB)
{
    return i_strA.size() != i_strB.size() ? i_strA.size() < i_strB.size() : i_strA < i_strB;
}

constexpr auto kRowsByName = [] {
    std::array<ROW_NAME_S, PARAM_COUNT> stRows = {};
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        stRows[i] = {g_aParams[i].name, i};
    }
    std::sort(stRows.begin(), stRows.end(), [](const ROW_NAME_S &i_stA, const ROW_NAME_S &i_stB) {
        return NameLess(i_stA.strName, i_stB.strName);
    });
    return stRows;
}();

/* The row of that name; PARAM_COUNT for none. */
std::size_t RowOf(std::string_view i_strName)
{
    const auto *pRow =
        std::lower_bound(kRowsByName.begin(), kRowsByName.end(), i_strName,
                         [](const ROW_NAME_S &i_stRow, std::string_view i_strSought) {
                             return NameLess(i_stRow.strName, i_strSought);
                         });
    return pRow != kRowsByName.end() && pRow->strName == i_strName ? pRow->u64Row : PARAM_COUNT;
}

void TakeDefault(const PARAM_S &i_stRow)
{
    rq_strncpy(i_stRow.buffer, i_stRow.default_value, i_stRow.capacity);
}

bool SameWord(const char *i_pText, const char *i_pWord)
{
    return strcasecmp(i_pText, i_pWord) == 0;
}

/* The note that the text earns by its row's kind, with the value where it is used; the caller puts
 * the default in place of the others. */
PARAM_VALUE_S EvaluateText(const PARAM_S &i_stRow, const std::string &i_strText)
{
    if (i_strText.size() < static_cast<std::size_t>(i_stRow.min) && !i_strText.empty()) {
        return {"", 0, PARAM_NOTE::TOO_SHORT};
    }
    const std::size_t u64Max = static_cast<std::size_t>(i_stRow.max);
    return {i_strText.substr(0, u64Max), 0,
            i_strText.size() > u64Max ? PARAM_NOTE::CUT : PARAM_NOTE::AS_GIVEN};
}

PARAM_VALUE_S EvaluateSwitch(const char *i_pText)
{
    if (i_pText[0] == '\0' || SameWord(i_pText, "true")) {
        return {"true", 1, PARAM_NOTE::AS_GIVEN};
    }
    return {"false", 0,
            SameWord(i_pText, "false") ? PARAM_NOTE::AS_GIVEN : PARAM_NOTE::COUNTS_AS_OFF};
}

/* As atoi(3), but a number beyond the type's range is out of every range here too. */
PARAM_VALUE_S EvaluateNumber(const PARAM_S &i_stRow, const char *i_pText)
{
    char *pEnd = nullptr;
    const long s64Value = strtol(i_pText, &pEnd, 10);
    if (!i_stRow.Has(s64Value)) {
        return {"", 0, PARAM_NOTE::NOT_IN_RANGE};
    }
    while (isspace(static_cast<unsigned char>(*pEnd))) {
        pEnd++;
    }
    return {std::to_string(s64Value), static_cast<SInt32>(s64Value),
            *pEnd == '\0' ? PARAM_NOTE::AS_GIVEN : PARAM_NOTE::TAIL_IGNORED};
}

PARAM_VALUE_S EvaluateMode(const char *i_pText)
{
    for (const char *pMode : {"vbr", "cbr"}) {
        if (SameWord(i_pText, pMode)) {
            return {pMode, 0, PARAM_NOTE::AS_GIVEN};
        }
    }
    return {"", 0, PARAM_NOTE::UNKNOWN_WORD};
}

PARAM_VALUE_S EvaluateByKind(const PARAM_S &i_stRow, const char *i_pText)
{
    switch (i_stRow.kind) {
    case PARAM_KIND::SWITCH:
        return EvaluateSwitch(i_pText);
    case PARAM_KIND::NUMBER:
        return EvaluateNumber(i_stRow, i_pText);
    case PARAM_KIND::MODE:
        return EvaluateMode(i_pText);
    default:
        return EvaluateText(i_stRow, i_pText);
    }
}
} // namespace

const char *ParamNoteText(PARAM_NOTE i_eNote)
{
    static const char *const pTexts[] = {
        "",
        "has no text",
        "is too long",
        "is too short",
        "is not in its range",
        "is an unknown word",
        "is cut",
        "counts as off",
        "is used up to the end of its digits",
    };
    return pTexts[static_cast<std::size_t>(i_eNote)];
}

PARAM_VALUE_S EvaluateParam(const PARAM_S &i_stRow, const char *i_pText)
{
    PARAM_VALUE_S stValue = {"", 0, PARAM_NOTE::NO_TEXT};
    if (i_pText != nullptr && strlen(i_pText) >= i_stRow.capacity) {
        stValue.eNote = PARAM_NOTE::TOO_LONG;
    } else if (i_pText != nullptr) {
        stValue = EvaluateByKind(i_stRow, i_pText);
    }
    if (stValue.IsDefault()) {
        const PARAM_NOTE eNote = stValue.eNote;
        stValue = EvaluateByKind(i_stRow, i_stRow.default_value);
        stValue.eNote = eNote;
    }
    return stValue;
}

PARAM_ELEMENTS FindParams(const RQ_XMLParser &i_objParser)
{
    PARAM_ELEMENTS pFound = {};
    std::size_t u64Missing = PARAM_COUNT;
    const XMLElement *pParam = i_objParser.FirstParam(kSection);
    for (; pParam != nullptr && u64Missing > 0; pParam = pParam->NextSiblingElement()) {
        const char *pName = pParam->Attribute("NAME");
        std::size_t u64Row = pName != nullptr ? RowOf(pName) : PARAM_COUNT;
        if (u64Row < PARAM_COUNT && pFound[u64Row] == nullptr) {
            pFound[u64Row] = pParam;
            u64Missing--;
        }
    }
    return pFound;
}

void ReadTheXML(RQ_XMLParser &i_objParser, Bool i_bWriteBack)
{
    /* Looking everything up before the first write-back is the same as row by row: what is
     * written back carries a name of its own row only. */
    const PARAM_ELEMENTS pFound = FindParams(i_objParser);
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        const PARAM_S &stRow = g_aParams[i];
        if (pFound[i] != nullptr && CopyParamText(pFound[i], stRow.buffer, stRow.capacity)) {
            continue;
        }
        TakeDefault(stRow);
        if (i_bWriteBack) {
            i_objParser.SetXMLParamVal(stRow.section, stRow.name, "string", stRow.buffer);
        }
    }
    if (i_bWriteBack) {
        i_objParser.UpdateFile();
    }
}

SInt32 ReadTheParamFromXML(RQ_XMLParser &i_objParser, const char *i_pSection, const char *i_pName)
{
    for (const PARAM_S &stRow : g_aParams) {
        if (strcmp(stRow.section, i_pSection) == 0 && strcmp(stRow.name, i_pName) == 0 &&
            i_objParser.GetXMLParamVal(stRow.section, stRow.name, stRow.buffer, stRow.capacity) ==
                0) {
            TakeDefault(stRow);
        }
    }
    return PARAM_COUNT;
}
