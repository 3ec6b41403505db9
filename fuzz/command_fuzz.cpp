/*
 * Command callback on arbitrary datagrams: whatever was received, only acceptable values go on to
 * the encoder, and an answer holds the asked fields and nothing else. No datagram leaves.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "app/stream_cmd.h"
#include "framework/assertion.h"
#include "fuzz/router.h"
#include "tlv/tlv_box.h"

namespace
{
constexpr std::size_t kMaxDatagram = 4096;

std::string g_strReply;
int g_s32Replies;
int g_s32Changes;

bool IsAcceptable(std::uint32_t i_u32Value, std::uint32_t i_u32Least, std::uint32_t i_u32Most)
{
    return i_u32Value == STREAM_STATUS_UNCHANGED ||
           (i_u32Value >= i_u32Least && i_u32Value <= i_u32Most);
}

void CheckChange(const MSG_DESC_INFO_S &i_stMsg)
{
    assert(i_stMsg.msgtype == MSG_TYPE_ASYNC && i_stMsg.dst == MODULE_ENCODER);
    STREAM_STATUS_S stStatus;
    memcpy(&stStatus, i_stMsg.payload, sizeof(stStatus));
    assert(stStatus.u32Type <= STREAM_STATUS_BOTH && stStatus.szH264Mode[0] == '\0');
    assert(IsAcceptable(stStatus.u32H264Gop, 2, 120));
    assert(IsAcceptable(stStatus.u32H264Bitrate, 100000, 10000000));
    assert(IsAcceptable(stStatus.u32PrevHeight, 270, 1080));
    assert(IsAcceptable(stStatus.u32PrevRefreshrate, 1, 10));
    g_s32Changes++;
}

/* The stored mode fills its field, which then has no terminating zero. */
void Fetch(void *o_pResult)
{
    STREAM_STATUS_S stStatus = {STREAM_STATUS_BOTH, 1, 60, {}, 1000000, 0, 720, 1};
    memset(stStatus.szH264Mode, 'v', sizeof(stStatus.szH264Mode));
    memcpy(o_pResult, &stStatus, sizeof(stStatus));
}

void CheckReply(const tlv_box *i_pCommand)
{
    const auto s32Size = static_cast<int>(g_strReply.size());
    tlv_box *pOuter = tlv_box_parse(g_strReply.data(), s32Size);
    tlv_box *pReply = nullptr;
    assert(tlv_box_get_object(pOuter, 4, &pReply) == 0);
    assert(tlv_box_get_size(pReply) + 8 == s32Size);
    for (std::uint32_t u32Type = 0x10001; u32Type <= 0x70001; u32Type += 0x10000) {
        assert((tlv_box_get_node(i_pCommand, u32Type) != nullptr) ==
               (tlv_box_get_node(pReply, u32Type) != nullptr));
    }
    tlv_box_destroy(pReply);
    tlv_box_destroy(pOuter);
}
} // namespace

int OnFuzzedMessage(const MSG_DESC_INFO_S &i_stMsg, void *o_pResult)
{
    if (i_stMsg.msgno == MSG_GET_STREAM_STATUS) {
        assert(i_stMsg.msgtype == MSG_TYPE_SYNC && o_pResult != nullptr);
        Fetch(o_pResult);
    } else {
        assert(i_stMsg.msgno == MSG_ENC_SET_STREAM_STATUS);
        CheckChange(i_stMsg);
    }
    return 1;
}

/* Linked in place of sendto(2). */
extern "C" ssize_t __wrap_sendto(int, const void *i_pBuffer, std::size_t i_u64Length, int,
                                 const sockaddr *i_pAddress, socklen_t)
{
    sockaddr_in stAddress;
    memcpy(&stAddress, i_pAddress, sizeof(stAddress));
    assert(ntohs(stAddress.sin_port) == 8365 && ntohl(stAddress.sin_addr.s_addr) == 0x7F000001);
    g_strReply.assign(static_cast<const char *>(i_pBuffer), i_u64Length);
    g_s32Replies++;
    return static_cast<ssize_t>(i_u64Length);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    std::string strDatagram(reinterpret_cast<const char *>(i_pData),
                            i_u64Size < kMaxDatagram ? i_u64Size : kMaxDatagram);
    const auto s32Length = static_cast<int>(strDatagram.size());
    tlv_box *pOuter = tlv_box_parse(strDatagram.data(), s32Length);
    tlv_box *pCommand = nullptr;
    tlv_box_get_object(pOuter, 4, &pCommand);

    g_s32Replies = 0;
    g_s32Changes = 0;
    char szReply[1] = {'\x5A'};
    int s32ReplyLength = 0;
    const int s32Result = EventCallBack(strDatagram.data(), s32Length, szReply, 1, s32ReplyLength);
    assert(s32Result == (pCommand != nullptr ? 0 : -1));
    assert(szReply[0] == '\x5A' && s32ReplyLength == 0);
    const bool bAsked = tlv_box_get_node(pCommand, 0x10001) != nullptr ||
                        tlv_box_get_node(pCommand, 0x50001) != nullptr;
    assert(g_s32Replies == (bAsked ? 1 : 0) && g_s32Changes <= 1);
    if (bAsked) {
        CheckReply(pCommand);
    }
    tlv_box_destroy(pCommand);
    tlv_box_destroy(pOuter);
    return 0;
}
