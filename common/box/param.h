/*
 * The XML parameter file: access to it, the table of known parameters and the loaders that fill
 * the parameters' buffers.
 *
 * The file's root element is CONFIGURATION; its children are sections; a section holds one PARAM
 * element per parameter, with the attributes NAME and TYPE and the value as its text. An
 * RQ_XMLParser lives for one pass over the file, on the stack of its user, and holds the file's
 * exclusive flock(2) from Parse() to its end, so that passes of any process come one after the
 * other. The buffers are unsynchronised: only the configuration module writes and reads them,
 * under its module mutex.
 */
#pragma once

#include <atomic>
#include <bitset>
#include <cstddef>
#include <string>

#include <tinyxml2.h>

#include "framework/types.h"

/* The document that a missing or damaged file is read as. */
extern const char FLUSHED_XML[];

class RQ_XMLParser
{
public:
    /* Told once, with the file's name, when Parse() has to wait for another holder's lock. */
    using LOCK_WAIT_NOTICE = void (*)(const char *i_pPath);

    /* i_pPath: at most 255 characters are kept. Opens nothing yet. */
    explicit RQ_XMLParser(const char *i_pPath);
    /* Closes the file, which releases the lock. */
    ~RQ_XMLParser();
    RQ_XMLParser(const RQ_XMLParser &) = delete;
    RQ_XMLParser &operator=(const RQ_XMLParser &) = delete;

    /* Opens the file (creating it), waits for its lock and loads it. A file that cannot be loaded
     * reads as the empty configuration, see LoadError(). Returns tinyxml2's error code, 0 for
     * success; XML_ERROR_FILE_COULD_NOT_BE_OPENED, with nothing loaded, when the wait for the
     * lock was abandoned. i_pNotice may be null. */
    UInt32 Parse(LOCK_WAIT_NOTICE i_pNotice = nullptr);
    /* Ends every wait for a lock in this process, those to come too: for the time when the
     * process stops, which another holder of the lock must not delay. Any thread may call it. */
    static void AbandonLockWait() { s_bLockWaitAbandoned.store(true); }
    /* Why Parse() fell back to the empty configuration, in tinyxml2's words; "" if it did not. */
    const char *LoadError() const { return m_strLoadError.c_str(); }

    /* Empties the document. Returns the result of the parse. */
    SInt32 Flush();
    /* Copies the value of the first parameter of that name to o_pOut, which holds i_u32Capacity
     * characters. 1 found; 0 not: o_pOut is then as it was, or empty when the parameter has no
     * text or one that does not fit with its NUL. */
    UInt32 GetXMLParamVal(const char *i_pSection, const char *i_pName, char *o_pOut,
                          UInt32 i_u32Capacity) const;
    /* Sets type and value of the first parameter of that name; what is missing is appended.
     * 1 done, 0 an element could not be created. */
    SInt32 SetXMLParamVal(const char *i_pSection, const char *i_pName, const char *i_pType,
                          const char *i_pValue);
    /* Deletes the first parameter of that name, if any. 0 when there is no such section, else 1.
     */
    SInt32 DelXMLParam(const char *i_pSection, const char *i_pName);
    /* Saves the document over the file, indented; a failure is ignored. */
    void UpdateFile();

    /* The first PARAM of the first section of that name; null if there is none. The parameters
     * are this element and its following siblings, whatever they are called. */
    const tinyxml2::XMLElement *FirstParam(const char *i_pSection) const;

protected:
    Bool WaitForLock(LOCK_WAIT_NOTICE i_pNotice) const;
    tinyxml2::XMLElement *Section(const char *i_pSection);
    const tinyxml2::XMLElement *Section(const char *i_pSection) const;

    char path[256];
    tinyxml2::XMLDocument doc;
    SInt32 fd; /* carries the lock; -1 until Parse() */

private:
    std::string m_strLoadError;

    static std::atomic<Bool> s_bLockWaitAbandoned;
};

/* The parser with a look inside, for debugging. */
class RQ_EXXMLParser : public RQ_XMLParser
{
public:
    using RQ_XMLParser::RQ_XMLParser;

    /* Writes every section's name and its parameters' names and values to standard output. */
    void dump() const;
};

/* Constant text for an error number of the parameter file's own list. The list is older than the
 * installed tinyxml2, whose numbers differ from 6 on. */
const char *XML_StrError(UInt32 i_u32Error);

/* strncpy(3) that always terminates: at most i_u64Size - 1 characters, padded with NULs; nothing
 * is written for a size of 0. Returns o_pDst. */
char *rq_strncpy(char *o_pDst, const char *i_pSrc, std::size_t i_u64Size);

/* Copies the element's text to o_pOut, which holds i_u32Capacity characters. False, with o_pOut
 * empty, when there is no text or it does not fit with its NUL. */
Bool CopyParamText(const tinyxml2::XMLElement *i_pParam, char *o_pOut, UInt32 i_u32Capacity);

/* A known parameter. */
struct PARAM_S {
    const char *section;
    const char *name;
    const char *default_value;
    char *buffer;    /* receives the value */
    UInt32 capacity; /* longest value with its NUL; longer ones are refused */
};

constexpr std::size_t PARAM_COUNT = 37;
extern const PARAM_S g_aParams[PARAM_COUNT];

/* Destinations of the table's values, in its order. The first ten become the configuration
 * record; the others are loaded and kept, but nothing reads them. */
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
extern char g_szTransportType[64]; /* kept: longer than the 32 that its row admits */
extern char g_szRTSPEnable[11];
extern char g_szRAWAudioIP[300];
extern char g_szRAWAudioPort[120];
extern char g_szch_select[2 * 512]; /* source_select, then source_select2 */
extern char g_szOverTimeSecs[11];
extern char g_szPreTransMode[16];

/* Rows of the table, by their index. */
using PARAM_ROWS = std::bitset<PARAM_COUNT>;

/* Fills every row's buffer from the parsed document, with the row's default where the value is
 * missing, empty or too long. i_bWriteBack: puts those defaults into the document and saves it.
 * Returns the rows whose value stood in the file but was too long. */
PARAM_ROWS ReadTheXML(RQ_XMLParser &i_objParser, Bool i_bWriteBack);
/* Fills the buffers of the rows of exactly that section and name, without a write-back. Returns
 * the number of rows of the table. */
SInt32 ReadTheParamFromXML(RQ_XMLParser &i_objParser, const char *i_pSection, const char *i_pName);
