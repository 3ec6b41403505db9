#include "tests/tools/fake_daemon.h"

#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/loopback.h"
#include "tlv/tlv_box.h"

namespace
{
std::uint32_t Type(std::size_t i_u64Field, std::uint32_t i_u32Use)
{
    return static_cast<std::uint32_t>(i_u64Field + 1) << 16 | i_u32Use;
}

bool IsRefused(const std::array<int, 7> &i_objSets)
{
    constexpr int kRanges[7][2] = {{-1, 0x7FFFFFFF}, {2, 120},    {-1, 0}, {100000, 10000000},
                                   {-1, 0x7FFFFFFF}, {270, 1080}, {1, 10}};
    for (std::size_t i = 0; i < 7; i++) {
        if (i_objSets[i] != -1 && (i_objSets[i] < kRanges[i][0] || i_objSets[i] > kRanges[i][1])) {
            return true;
        }
    }
    return false;
}
} // namespace

CFakeDaemon::CFakeDaemon() : m_s32Fd(BindLoopback(0, &m_stEndpoint.u16RequestPort))
{
    close(BindLoopback(0, &m_stEndpoint.u16ReplyPort));
    m_stEndpoint.strPidFile = "/nonexistent/mv3300.pid";
    timeval stTimeout = {0, 20000};
    setsockopt(m_s32Fd, SOL_SOCKET, SO_RCVTIMEO, &stTimeout, sizeof(stTimeout));
    m_objThread = std::thread([this] { Run(); });
}

CFakeDaemon::~CFakeDaemon()
{
    m_bStop = true;
    m_objThread.join();
    close(m_s32Fd);
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
        const ssize_t s64Length = recv(m_s32Fd, strRequest.data(), strRequest.size(), 0);
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
    tlv_box *pOuter = tlv_box_parse(i_strRequest.data(), static_cast<int>(i_strRequest.size()));
    tlv_box *pNested = nullptr;
    if (m_s32Requests > m_s32Answers || tlv_box_get_object(pOuter, 4, &pNested) != 0) {
        tlv_box_destroy(pOuter);
        return;
    }
    for (std::size_t i = 0; m_s32PendingLag-- <= 0 && i < 7; i++) {
        m_s32Values[i] = m_s32Pending[i] != -1 ? m_s32Pending[i] : m_s32Values[i];
        m_s32Pending[i] = -1;
    }
    tlv_box *pReply = tlv_box_create();
    std::array<int, 7> s32Sets{};
    for (std::size_t i = 0; i < 7; i++) {
        const std::uint32_t u32Type = Type(i, 1);
        if (tlv_box_get_node(pNested, u32Type) != nullptr) {
            if (i == 0 || i == 4) {
                tlv_box_put_string(pReply, u32Type, m_s32Values[i] == 1 ? "true" : "false");
            } else if (i == 2) {
                tlv_box_put_string(pReply, u32Type, "vbr");
            } else {
                tlv_box_put_int(pReply, u32Type, m_s32Values[i]);
            }
        }
        s32Sets[i] = -1;
        if (i != 2) {
            tlv_box_get_int(pNested, Type(i, 2), &s32Sets[i]);
        }
    }
    tlv_box_serialize(pReply);
    tlv_box *pReplyOuter = tlv_box_create();
    tlv_box_put_object(pReplyOuter, 4, pReply);
    tlv_box_serialize(pReplyOuter);
    if (!m_strBefore.empty()) {
        Reply(m_strBefore);
    }
    Reply({reinterpret_cast<const char *>(tlv_box_get_buffer(pReplyOuter)),
           static_cast<std::size_t>(tlv_box_get_size(pReplyOuter))});
    if (s32Sets != std::array<int, 7>{-1, -1, -1, -1, -1, -1, -1} && !IsRefused(s32Sets)) {
        m_s32Pending = s32Sets;
        m_s32PendingLag = m_s32Lag;
    }
    for (tlv_box *pBox : {pOuter, pNested, pReply, pReplyOuter}) {
        tlv_box_destroy(pBox);
    }
}

void CFakeDaemon::Reply(const std::string &i_strBytes) const
{
    const int s32Fd = BindLoopback(0);
    SendLoopback(s32Fd, m_stEndpoint.u16ReplyPort, i_strBytes);
    close(s32Fd);
}
