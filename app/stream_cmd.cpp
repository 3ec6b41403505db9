/*
 * Handlers of the stream commands.
 */
#include "app/stream_cmd.h"

#include <array>
#include <cstring>
#include <tuple>

#include <strings.h>

#include "common/bus/log.h"
#include "common/bus/msg_queue.h"
#include "common/bus/router.h"
#include "framework/udpsocket.h"
#include "tlv/stream_settings.h"
#include "tlv/tlv_box_ptr.h"

namespace
{
constexpr int kNotGiven = -1;
constexpr UInt32 kReplyAddress = 0x7F000001;
constexpr UInt16 kReplyPort = 8365;

/* One number per setting, in the table's order. */
using CSettingInts = std::array<int, STREAM_SETTING_COUNT>;

int GivenNumber(const tlv_box *i_pCommand, UInt32 i_u32Type)
{
    int s32Value = kNotGiven;
    const tlv *pRecord = tlv_box_get_node(i_pCommand, i_u32Type);
    /* The box fills a short number up with zeros, and a zero switches the stream off. */
    if (pRecord != nullptr && pRecord->length >= sizeof(s32Value)) {
        tlv_box_get_int(i_pCommand, i_u32Type, &s32Value);
    }
    return s32Value;
}

int GivenMode(const tlv_box *i_pCommand, UInt32 i_u32Type)
{
    char szMode[128 + 1] = "";
    int s32Length = 128;
    if (tlv_box_get_string(i_pCommand, i_u32Type, szMode, &s32Length) != 0) {
        return kNotGiven;
    }
    if (strcasecmp(szMode, "cbr") == 0) {
        return 0;
    }
    return strcasecmp(szMode, "vbr") == 0 ? 1 : kNotGiven;
}

CSettingInts Asked(const tlv_box *i_pCommand)
{
    CSettingInts s32Asked;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        s32Asked[i] = tlv_box_get_node(i_pCommand, STREAM_SETTINGS[i].u32Ask) != nullptr ? 1 : 0;
    }
    return s32Asked;
}

CSettingInts Given(const tlv_box *i_pCommand)
{
    CSettingInts s32Given;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const STREAM_SETTING_S &stSetting = STREAM_SETTINGS[i];
        s32Given[i] = stSetting.eKind == SettingKind::Mode
                          ? GivenMode(i_pCommand, stSetting.u32Set)
                          : GivenNumber(i_pCommand, stSetting.u32Set);
    }
    return s32Given;
}

const char *EnableText(UInt32 i_u32Enable)
{
    return i_u32Enable == 1 ? "true" : "false";
}

bool IsRefused(StreamSetting i_eSetting, int i_s32Value)
{
    return i_s32Value != kNotGiven && !STREAM_SETTINGS[i_eSetting].Takes(i_s32Value);
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
    CBoxPtr pBoxes(tlv_box_parse(i_pReceived, i_s32Length));
    LOG_INFO("boxes parse success, %d bytes ", tlv_box_get_size(pBoxes.get()));
    tlv_box *pNested = nullptr;
    if (tlv_box_get_object(pBoxes.get(), STREAM_COMMAND_RECORD, &pNested) != 0) {
        LOG_ERROR("tlv_box_get_object h264 tag1 failed");
        return -1;
    }
    CBoxPtr pCommand(pNested);
    std::apply(HandleH264PrevGetCmd, Asked(pNested));
    std::apply(HandleH264PrevSetCmd, Given(pNested));
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
    /* Kept: the mode is read and dropped, and alone it is no change. Clients in the field send it
     * along with other values, and the encoder has always had it from the parameter file. */
    const bool bH264 =
        i_s32H264Enable != kNotGiven || i_s32H264Gop != kNotGiven || i_s32H264Bitrate != kNotGiven;
    const bool bPreview = i_s32PrevEnable != kNotGiven || i_s32PrevHeight != kNotGiven ||
                          i_s32PrevRefreshrate != kNotGiven;
    if (IsRefused(SETTING_GOP, i_s32H264Gop)) {
        LOG_ERROR("invalid h264 gop :%d, valid [2,120]", i_s32H264Gop);
        return -1;
    }
    if (IsRefused(SETTING_BITRATE, i_s32H264Bitrate)) {
        LOG_ERROR("invalid h264 bitrate :%d", i_s32H264Bitrate);
        return -1;
    }
    if (IsRefused(SETTING_HEIGHT, i_s32PrevHeight)) {
        LOG_ERROR("invalid preview height :%d", i_s32PrevHeight);
        return -1;
    }
    if (IsRefused(SETTING_REFRESHRATE, i_s32PrevRefreshrate)) {
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
    PutPayload(&stMsg, stStatus);
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
    CBoxPtr pReply(tlv_box_create());
    auto PutInt = [&](int i_s32Asked, StreamSetting i_eSetting, UInt32 i_u32Value) {
        if (i_s32Asked) {
            tlv_box_put_int(pReply.get(), STREAM_SETTINGS[i_eSetting].u32Ask,
                            static_cast<SInt32>(i_u32Value));
        }
    };
    auto PutText = [&](int i_s32Asked, StreamSetting i_eSetting, const char *i_pText) {
        if (i_s32Asked) {
            tlv_box_put_string(pReply.get(), STREAM_SETTINGS[i_eSetting].u32Ask, i_pText);
        }
    };
    char szMode[sizeof(stStatus.szH264Mode) + 1] = "";
    memcpy(szMode, stStatus.szH264Mode, sizeof(stStatus.szH264Mode));
    PutText(i_s32H264Enable, SETTING_H264, EnableText(stStatus.u32H264Enable));
    PutInt(i_s32H264Gop, SETTING_GOP, stStatus.u32H264Gop);
    PutText(i_s32H264Mode, SETTING_MODE, szMode);
    PutInt(i_s32H264Bitrate, SETTING_BITRATE, stStatus.u32H264Bitrate);
    PutText(i_s32PrevEnable, SETTING_PREVIEW, EnableText(stStatus.u32PrevEnable));
    PutInt(i_s32PrevHeight, SETTING_HEIGHT, stStatus.u32PrevHeight);
    PutInt(i_s32PrevRefreshrate, SETTING_REFRESHRATE, stStatus.u32PrevRefreshrate);
    if (tlv_box_serialize(pReply.get()) != 0) {
        LOG_ERROR("box serialize failed");
        return -1;
    }
    CBoxPtr pOuter(tlv_box_create());
    tlv_box_put_object(pOuter.get(), STREAM_COMMAND_RECORD, pReply.get());
    if (tlv_box_serialize(pOuter.get()) != 0) {
        LOG_ERROR("boxes serialize failed");
        return -1;
    }
    SendReply(pOuter.get());
    return 0;
}
