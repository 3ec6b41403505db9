/*
 * The table of parameters, their buffers and the loaders.
 *
 * A load walks the section once, however many parameters the table has: each element's name is
 * looked up in an index of the rows, and the first element of a name is the one that counts.
 */
#include "common/box/param.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

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
    return PARAM_S{kSection, i_pName, i_pDefault, o_szBuffer + i_u32Offset, i_u32Capacity};
}
} // namespace

constexpr PARAM_S g_aParams[PARAM_COUNT] = {
    Row("addr_list", "", g_szAddrList),
    Row("addr_url", "", g_szAddrUrl),
    Row("h264_stream_enable", "true", g_szH264Enable),
    Row("h264_stream_gop", "60", g_szH264Gop),
    Row("h264_stream_mode", "vbr", g_szH264Mode),
    Row("h264_stream_bitrate", "1000000", g_szH264Bitrate),
    Row("preview_stream_enable", "true", g_szPrevEnable),
    Row("preview_stream_height", "720", g_szPrevHeight),
    Row("preview_stream_refreshrate", "1", g_szPrevRefreshrate),
    Row("src_device_id", "", g_szSrcDeviceId),
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

using ROW_ELEMENTS = std::array<const XMLElement *, PARAM_COUNT>;

/* The first element of every row's name from i_pParam on, null for a row that has none. */
ROW_ELEMENTS FindRows(const XMLElement *i_pParam)
{
    ROW_ELEMENTS pFound = {};
    std::size_t u64Missing = PARAM_COUNT;
    for (; i_pParam != nullptr && u64Missing > 0; i_pParam = i_pParam->NextSiblingElement()) {
        const char *pName = i_pParam->Attribute("NAME");
        std::size_t u64Row = pName != nullptr ? RowOf(pName) : PARAM_COUNT;
        if (u64Row < PARAM_COUNT && pFound[u64Row] == nullptr) {
            pFound[u64Row] = i_pParam;
            u64Missing--;
        }
    }
    return pFound;
}

void TakeDefault(const PARAM_S &i_stRow)
{
    rq_strncpy(i_stRow.buffer, i_stRow.default_value, i_stRow.capacity);
}
} // namespace

PARAM_ROWS ReadTheXML(RQ_XMLParser &i_objParser, Bool i_bWriteBack)
{
    PARAM_ROWS objTooLong;
    /* Looking everything up before the first write-back is the same as row by row: what is
     * written back carries a name of its own row only. */
    const ROW_ELEMENTS pFound = FindRows(i_objParser.FirstParam(kSection));
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        const PARAM_S &stRow = g_aParams[i];
        if (pFound[i] != nullptr && CopyParamText(pFound[i], stRow.buffer, stRow.capacity)) {
            continue;
        }
        objTooLong[i] = pFound[i] != nullptr && pFound[i]->GetText() != nullptr;
        TakeDefault(stRow);
        if (i_bWriteBack) {
            i_objParser.SetXMLParamVal(stRow.section, stRow.name, "string", stRow.buffer);
        }
    }
    if (i_bWriteBack) {
        i_objParser.UpdateFile();
    }
    return objTooLong;
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
