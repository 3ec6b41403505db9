/*
 * Request and answer.
 */
#include "guard/settings_ask.h"

#include <cerrno>

#include <sys/socket.h>

#include "guard/loopback.h"
#include "tools/control_channel.h"

namespace
{
constexpr SInt64 kPortMs = 3500;
constexpr SInt64 kAnswerMs = 4000; /* the daemon may take 2.9 s */
constexpr std::size_t kLongestAnswer = 4096;
constexpr int kMostAnswers = 32; /* looked at in one go: anybody may send some */

SInt32 Number(const CFieldValues &i_objValues, StreamSetting i_eSetting)
{
    const SInt32 *pNumber = std::get_if<SInt32>(&*i_objValues[i_eSetting]);
    return pNumber == nullptr ? 0 : *pNumber;
}

Bool Flag(const CFieldValues &i_objValues, StreamSetting i_eSetting)
{
    const Bool *pFlag = std::get_if<Bool>(&*i_objValues[i_eSetting]);
    return pFlag != nullptr && *pFlag;
}

std::optional<SETTINGS_S> ReadAnswer(const std::string &i_strBytes)
{
    const std::optional<CFieldValues> objValues = DecodeStreamReply(i_strBytes);
    if (!objValues) {
        return std::nullopt;
    }
    for (const auto &objValue : *objValues) {
        if (!objValue) {
            return std::nullopt; /* the answer to somebody else's ask */
        }
    }
    SETTINGS_S stSettings;
    stSettings.bH264 = Flag(*objValues, SETTING_H264);
    stSettings.s32Gop = Number(*objValues, SETTING_GOP);
    stSettings.s32Bitrate = Number(*objValues, SETTING_BITRATE);
    stSettings.bPreview = Flag(*objValues, SETTING_PREVIEW);
    stSettings.s32PreviewHeight = Number(*objValues, SETTING_HEIGHT);
    stSettings.s32PreviewRefreshrate = Number(*objValues, SETTING_REFRESHRATE);
    return stSettings;
}
} // namespace

void CSettingsAsk::Start(SInt64 i_s64NowMs)
{
    m_objReply.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    m_objRequest.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    m_bUnderWay = true;
    m_bSent = false;
    m_s64UntilMs = i_s64NowMs + kPortMs;
}

CSettingsAsk::RESULT_S CSettingsAsk::Finish(const std::optional<SETTINGS_S> &i_stSettings)
{
    const RESULT_S stResult = {m_bSent, i_stSettings};
    m_objReply.Reset();
    m_objRequest.Reset();
    m_bUnderWay = false;
    m_bSent = false;
    return stResult;
}

Bool CSettingsAsk::SendRequest()
{
    const CONTROL_ENDPOINT_S stEndpoint;
    const sockaddr_in stTo = LoopbackAddress(stEndpoint.u16RequestPort);
    const std::string strRequest = EncodeStreamCommand(ASK_ALL, {});
    return sendto(m_objRequest.Get(), strRequest.data(), strRequest.size(), 0,
                  reinterpret_cast<const sockaddr *>(&stTo), sizeof(stTo)) >= 0;
}

std::optional<CSettingsAsk::RESULT_S> CSettingsAsk::Go(SInt64 i_s64NowMs)
{
    if (!m_bUnderWay) {
        return std::nullopt;
    }
    if (!m_bSent) {
        const sockaddr_in stOwn = LoopbackAddress(CONTROL_ENDPOINT_S{}.u16ReplyPort);
        const int s32Bound =
            bind(m_objReply.Get(), reinterpret_cast<const sockaddr *>(&stOwn), sizeof(stOwn));
        if (s32Bound != 0 && errno == EADDRINUSE && i_s64NowMs < m_s64UntilMs) {
            return std::nullopt;
        }
        if (s32Bound != 0 || !SendRequest()) {
            return Finish(std::nullopt);
        }
        m_bSent = true;
        m_s64UntilMs = i_s64NowMs + kAnswerMs;
    }
    std::string strBytes(kLongestAnswer, '\0');
    for (int i = 0; i < kMostAnswers; i++) {
        const ssize_t s64Length =
            recv(m_objReply.Get(), strBytes.data(), strBytes.size(), MSG_DONTWAIT);
        if (s64Length < 0) {
            break;
        }
        if (const auto stSettings =
                ReadAnswer(strBytes.substr(0, static_cast<std::size_t>(s64Length)))) {
            return Finish(stSettings);
        }
    }
    return i_s64NowMs < m_s64UntilMs ? std::nullopt : std::optional(Finish(std::nullopt));
}
