/*
 * Handlers of the stream commands.
 */
#include "app/stream_cmd.h"

#include <cstring>
#include <memory>

#include <strings.h>

#include "common/bus/log.h"
#include "common/bus/msg_queue.h"
#include "framework/udpsocket.h"
#include "tlv/tlv_box.h"

namespace
{
/* Record types. A command's settings are numbered in the upper half of the type; the lower half
 * is 1 where the setting is asked for and 2 where it is set. */
constexpr UInt32 kStreamCommand = 4;
enum : UInt32 {
    kGetH264Enable = 0x10001,
    kGetH264Gop = 0x20001,
    kGetH264Mode = 0x30001,
    kGetH264Bitrate = 0x40001,
    kGetPrevEnable = 0x50001,
    kGetPrevHeight = 0x60001,
    kGetPrevRefreshrate = 0x70001,
    kSetH264Enable = 0x10002,
    kSetH264Gop = 0x20002,
    kSetH264Mode = 0x30002,
    kSetH264Bitrate = 0x40002,
    kSetPrevEnable = 0x50002,
    kSetPrevHeight = 0x60002,
    kSetPrevRefreshrate = 0x70002,
};

constexpr int kNotGiven = -1;
constexpr UInt32 kReplyAddress = 0x7F000001;
constexpr UInt16 kReplyPort = 8365;

struct BoxDeleter {
    void operator()(tlv_box *i_pBox) const { tlv_box_destroy(i_pBox); }
};
using Box = std::unique_ptr<tlv_box, BoxDeleter>;

int Asked(const tlv_box *i_pCommand, UInt32 i_u32Type)
{
    return tlv_box_get_node(i_pCommand, i_u32Type) != nullptr ? 1 : 0;
}

int Given(const tlv_box *i_pCommand, UInt32 i_u32Type)
{
    int s32Value = kNotGiven;
    tlv_box_get_int(i_pCommand, i_u32Type, &s32Value);
    return s32Value;
}

int GivenMode(const tlv_box *i_pCommand)
{
    char szMode[128 + 1] = "";
    int s32Length = 128;
    if (tlv_box_get_string(i_pCommand, kSetH264Mode, szMode, &s32Length) != 0) {
        return kNotGiven;
    }
    if (strcasecmp(szMode, "cbr") == 0) {
        return 0;
    }
    return strcasecmp(szMode, "vbr") == 0 ? 1 : kNotGiven;
}

const char *EnableText(UInt32 i_u32Enable)
{
    return i_u32Enable == 1 ? "true" : "false";
}

bool InRange(int i_s32Value, int i_s32Least, int i_s32Most)
{
    return i_s32Value == kNotGiven || (i_s32Value >= i_s32Least && i_s32Value <= i_s32Most);
}

STREAM_STATUS_S FetchStreamStatus()
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_STREAM_STATUS);
    STREAM_STATUS_S stStatus = {};
    SendSyncAndAsyncMsg(&stMsg, &stStatus);
    return stStatus;
}

void SendReply(const tlv_box *i_pReply)
{
    CUDPSocket objSocket(nullptr, 0);
    OS_Error s32Err = objSocket.Open();
    if (s32Err != 0) {
        LOG_ERROR("open socket err:%d", s32Err);
        return;
    }
    s32Err = objSocket.SendTo(kReplyAddress, kReplyPort, tlv_box_get_buffer(i_pReply),
                              static_cast<UInt32>(tlv_box_get_size(i_pReply)));
    if (s32Err != 0) {
        LOG_ERROR("udp socket send err:%d", s32Err);
    }
}
} // namespace

int EventCallBack(char *i_pReceived, int i_s32Length, char *, int, int &)
{
    Box pBoxes(tlv_box_parse(i_pReceived, i_s32Length));
    LOG_INFO("boxes parse success, %d bytes ", tlv_box_get_size(pBoxes.get()));
    tlv_box *pNested = nullptr;
    if (tlv_box_get_object(pBoxes.get(), kStreamCommand, &pNested) != 0) {
        LOG_ERROR("tlv_box_get_object h264 tag1 failed");
        return -1;
    }
    Box pCommand(pNested);
    HandleH264PrevGetCmd(Asked(pNested, kGetH264Enable), Asked(pNested, kGetH264Gop),
                         Asked(pNested, kGetH264Mode), Asked(pNested, kGetH264Bitrate),
                         Asked(pNested, kGetPrevEnable), Asked(pNested, kGetPrevHeight),
                         Asked(pNested, kGetPrevRefreshrate));
    HandleH264PrevSetCmd(Given(pNested, kSetH264Enable), Given(pNested, kSetH264Gop),
                         GivenMode(pNested), Given(pNested, kSetH264Bitrate),
                         Given(pNested, kSetPrevEnable), Given(pNested, kSetPrevHeight),
                         Given(pNested, kSetPrevRefreshrate));
    return 0;
}

int HandleH264PrevSetCmd(int i_s32H264Enable, int i_s32H264Gop, int i_s32H264Mode,
                         int i_s32H264Bitrate, int i_s32PrevEnable, int i_s32PrevHeight,
                         int i_s32PrevRefreshrate)
{
    LOG_INFO("set h264 enable:%d, gop:%d, mode:%d, bitrate:%d,  preview enable:%d, height:%d, "
             "refreshrate:%d",
             i_s32H264Enable, i_s32H264Gop, i_s32H264Mode, i_s32H264Bitrate, i_s32PrevEnable,
             i_s32PrevHeight, i_s32PrevRefreshrate);
    /* Kept: the mode alone is no change, and it is not carried to the encoder. */
    const bool bH264 =
        i_s32H264Enable != kNotGiven || i_s32H264Gop != kNotGiven || i_s32H264Bitrate != kNotGiven;
    const bool bPreview = i_s32PrevEnable != kNotGiven || i_s32PrevHeight != kNotGiven ||
                          i_s32PrevRefreshrate != kNotGiven;
    if (!InRange(i_s32H264Gop, 2, 120)) {
        LOG_ERROR("invalid h264 gop :%d, valid [2,120]", i_s32H264Gop);
        return -1;
    }
    if (!InRange(i_s32H264Bitrate, 100000, 10000000)) {
        LOG_ERROR("invalid h264 bitrate :%d", i_s32H264Bitrate);
        return -1;
    }
    if (!InRange(i_s32PrevHeight, 270, 1080)) {
        LOG_ERROR("invalid preview height :%d", i_s32PrevHeight);
        return -1;
    }
    if (!InRange(i_s32PrevRefreshrate, 1, 10)) {
        LOG_ERROR("invalid preview refreshrate :%d", i_s32PrevRefreshrate);
        return -1;
    }
    if (!bH264 && !bPreview) {
        LOG_ERROR("cmd error");
        return -1;
    }

    STREAM_STATUS_S stStatus = {};
    stStatus.u32Type = bH264 && bPreview ? STREAM_STATUS_BOTH
                       : bPreview        ? STREAM_STATUS_PREVIEW
                                         : STREAM_STATUS_H264;
    stStatus.u32H264Enable = static_cast<UInt32>(i_s32H264Enable);
    stStatus.u32H264Gop = static_cast<UInt32>(i_s32H264Gop);
    stStatus.u32H264Bitrate = static_cast<UInt32>(i_s32H264Bitrate);
    stStatus.u32PrevEnable = static_cast<UInt32>(i_s32PrevEnable);
    stStatus.u32PrevHeight = static_cast<UInt32>(i_s32PrevHeight);
    stStatus.u32PrevRefreshrate = static_cast<UInt32>(i_s32PrevRefreshrate);
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_ENCODER, MSG_ENC_SET_STREAM_STATUS);
    memcpy(stMsg.payload, &stStatus, sizeof(stStatus));
    SendSyncAndAsyncMsg(&stMsg, nullptr);
    return 0;
}

int HandleH264PrevGetCmd(int i_s32H264Enable, int i_s32H264Gop, int i_s32H264Mode,
                         int i_s32H264Bitrate, int i_s32PrevEnable, int i_s32PrevHeight,
                         int i_s32PrevRefreshrate)
{
    LOG_DEBUG("get h264 enable:%d,gop:%d,mode:%d,bitrate:%d,  preview enable:%d, height:%d, "
              "refreshrate:%d",
              i_s32H264Enable, i_s32H264Gop, i_s32H264Mode, i_s32H264Bitrate, i_s32PrevEnable,
              i_s32PrevHeight, i_s32PrevRefreshrate);
    if (!i_s32H264Enable && !i_s32PrevEnable) {
        return -1;
    }
    const STREAM_STATUS_S stStatus = FetchStreamStatus();
    Box pReply(tlv_box_create());
    auto PutInt = [&](int i_s32Asked, UInt32 i_u32Type, UInt32 i_u32Value) {
        if (i_s32Asked) {
            tlv_box_put_int(pReply.get(), i_u32Type, static_cast<SInt32>(i_u32Value));
        }
    };
    auto PutText = [&](int i_s32Asked, UInt32 i_u32Type, const char *i_pText) {
        if (i_s32Asked) {
            tlv_box_put_string(pReply.get(), i_u32Type, i_pText);
        }
    };
    char szMode[sizeof(stStatus.szH264Mode) + 1] = "";
    memcpy(szMode, stStatus.szH264Mode, sizeof(stStatus.szH264Mode));
    PutText(i_s32H264Enable, kGetH264Enable, EnableText(stStatus.u32H264Enable));
    PutInt(i_s32H264Gop, kGetH264Gop, stStatus.u32H264Gop);
    PutText(i_s32H264Mode, kGetH264Mode, szMode);
    PutInt(i_s32H264Bitrate, kGetH264Bitrate, stStatus.u32H264Bitrate);
    PutText(i_s32PrevEnable, kGetPrevEnable, EnableText(stStatus.u32PrevEnable));
    PutInt(i_s32PrevHeight, kGetPrevHeight, stStatus.u32PrevHeight);
    PutInt(i_s32PrevRefreshrate, kGetPrevRefreshrate, stStatus.u32PrevRefreshrate);
    if (tlv_box_serialize(pReply.get()) != 0) {
        LOG_ERROR("box serialize failed");
        return -1;
    }
    Box pOuter(tlv_box_create());
    tlv_box_put_object(pOuter.get(), kStreamCommand, pReply.get());
    if (tlv_box_serialize(pOuter.get()) != 0) {
        LOG_ERROR("boxes serialize failed");
        return -1;
    }
    SendReply(pOuter.get());
    return 0;
}
