#include "tests/tools/fake_daemon.h"

#include <sys/socket.h>

#include "tests/support/loopback.h"
#include "tlv/tlv_box_ptr.h"

namespace
{
constexpr std::array<int, STREAM_SETTING_COUNT> kNone = {-1, -1, -1, -1, -1, -1, -1};

bool IsRefused(const std::array<int, STREAM_SETTING_COUNT> &i_objSets)
{
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objSets[i] != -1 && !STREAM_SETTINGS[i].Takes(i_objSets[i])) {
            return true;
        }
    }
    return false;
}

} // namespace

CFakeDaemon::CFakeDaemon() : m_objFd(BindLoopback(0, &m_stEndpoint.u16RequestPort))
{
    (void)BindLoopback(0, &m_stEndpoint.u16ReplyPort);
    m_stEndpoint.strPidFile = "/nonexistent/mv3300.pid";
    timeval stTimeout = {0, 20000};
    setsockopt(m_objFd.Get(), SOL_SOCKET, SO_RCVTIMEO, &stTimeout, sizeof(stTimeout));
    m_objThread = std::thread([this] { Run(); });
}

CFakeDaemon::~CFakeDaemon()
{
    m_bStop = true;
    m_objThread.join();
}

int CFakeDaemon::Value(std::size_t i_u64Field) const
{
    const std::lock_guard objLock(m_objMutex);
    return m_s32Values[i_u64Field];
}

void CFakeDaemon::SetValue(std::size_t i_u64Field, int i_s32Value)
{
    const std::lock_guard objLock(m_objMutex);
    m_s32Values[i_u64Field] = i_s32Value;
}

void CFakeDaemon::SendBeforeReply(const std::string &i_strBytes)
{
    const std::lock_guard objLock(m_objMutex);
    m_strBefore = i_strBytes;
}

void CFakeDaemon::Run()
{
    while (!m_bStop) {
        std::string strRequest(4096, '\0');
        const ssize_t s64Length = recv(m_objFd.Get(), strRequest.data(), strRequest.size(), 0);
        if (s64Length >= 0) {
            strRequest.resize(static_cast<std::size_t>(s64Length));
            m_s32Requests++;
            Handle(strRequest);
        }
    }
}

void CFakeDaemon::Handle(const std::string &i_strRequest)
{
    const std::lock_guard objLock(m_objMutex);
    const CBoxPtr pOuter(tlv_box_parse(i_strRequest.data(), static_cast<int>(i_strRequest.size())));
    tlv_box *pObject = nullptr;
    if (m_s32Requests > m_s32Answers || tlv_box_get_object(pOuter.get(), 4, &pObject) != 0) {
        return;
    }
    const CBoxPtr pCommand(pObject);
    for (std::size_t i = 0; m_s32PendingLag-- <= 0 && i < STREAM_SETTING_COUNT; i++) {
        m_s32Values[i] = m_s32Pending[i] != -1 ? m_s32Pending[i] : m_s32Values[i];
        m_s32Pending[i] = -1;
    }
    const CBoxPtr pReply(tlv_box_create());
    auto s32Sets = kNone;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const STREAM_SETTING_S &stSetting = STREAM_SETTINGS[i];
        if (stSetting.eKind != SettingKind::Mode) {
            tlv_box_get_int(pCommand.get(), stSetting.u32Set, &s32Sets[i]);
        }
        if (tlv_box_get_node(pCommand.get(), stSetting.u32Ask) == nullptr) {
            continue;
        }
        if (stSetting.eKind == SettingKind::Number) {
            tlv_box_put_int(pReply.get(), stSetting.u32Ask, m_s32Values[i]);
        } else {
            tlv_box_put_string(pReply.get(), stSetting.u32Ask,
                               stSetting.eKind == SettingKind::Mode ? "vbr"
                               : m_s32Values[i] == 1                ? "true"
                                                                    : "false");
        }
    }
    const CBoxPtr pReplyOuter(tlv_box_create());
    tlv_box_serialize(pReply.get());
    tlv_box_put_object(pReplyOuter.get(), 4, pReply.get());
    tlv_box_serialize(pReplyOuter.get());
    if (!m_strBefore.empty()) {
        Reply(m_strBefore);
    }
    Reply({reinterpret_cast<const char *>(tlv_box_get_buffer(pReplyOuter.get())),
           static_cast<std::size_t>(tlv_box_get_size(pReplyOuter.get()))});
    if (s32Sets != kNone && !IsRefused(s32Sets)) {
        m_s32Pending = s32Sets;
        m_s32PendingLag = m_s32Lag;
    }
}

void CFakeDaemon::Reply(const std::string &i_strBytes) const
{
    SendLoopback(BindLoopback(0).Get(), m_stEndpoint.u16ReplyPort, i_strBytes);
}
