/*
 * The live picture.
 */
#include "panel/live.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <gst/gst.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "panel/metrics.h"

namespace
{
constexpr std::size_t kBatch = 32;
constexpr std::size_t kMostPacket = 2048;
/* With nobody watching the packets wait in the socket, which holds the most that may come in that
 * time: 10 Mbit/s are 63 kB. It saves a wake-up for each packet. */
constexpr std::chrono::milliseconds kIdlePause(50);
constexpr int kReceiveBuffer = 2 * 1024 * 1024;
constexpr int kWatchPause = 200; /* ms, at most, when nothing comes */
constexpr std::chrono::seconds kRetry(1);
/* The end of a stream and the beginning of the next are no two pictures of one. */
constexpr double kMostInterval = 10;

struct BATCH_S {
    std::array<std::array<UInt8, kMostPacket>, kBatch> objBytes;
    std::array<std::array<char, 64>, kBatch> objControl;
    std::array<iovec, kBatch> stVectors;
    std::array<mmsghdr, kBatch> stMessages;

    void Prepare()
    {
        for (std::size_t i = 0; i < kBatch; i++) {
            stVectors[i] = {objBytes[i].data(), objBytes[i].size()};
            stMessages[i] = {};
            stMessages[i].msg_hdr.msg_iov = &stVectors[i];
            stMessages[i].msg_hdr.msg_iovlen = 1;
            stMessages[i].msg_hdr.msg_control = objControl[i].data();
            stMessages[i].msg_hdr.msg_controllen = objControl[i].size();
        }
    }
};

/* When the kernel received it, in seconds; 0 if it does not say. */
double ArrivalTime(msghdr &i_stMessage)
{
    for (cmsghdr *pControl = CMSG_FIRSTHDR(&i_stMessage); pControl != nullptr;
         pControl = CMSG_NXTHDR(&i_stMessage, pControl)) {
        if (pControl->cmsg_level == SOL_SOCKET && pControl->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stTime = {};
            memcpy(&stTime, CMSG_DATA(pControl), sizeof(stTime));
            return static_cast<double>(stTime.tv_sec) + 1e-9 * static_cast<double>(stTime.tv_nsec);
        }
    }
    return 0;
}
} // namespace

CLive::CLive(UInt16 i_u16Port, UInt32 i_u32MostViewers)
    : m_u16Port(i_u16Port), m_u32MostViewers(i_u32MostViewers), m_objIntervals(INTERVAL_BOUNDS),
      m_objRemux(m_objFragments), m_objThread([this] { Run(); })
{
}

CLive::~CLive()
{
    End();
    m_objThread.join();
}

void CLive::End()
{
    m_bEnd = true;
    m_objFragments.Close();
    const std::lock_guard objLock(m_objMutex);
    m_objWake.notify_all();
}

CLive::CViewer::CViewer(CLive &io_objLive, Bool i_bStream)
    : m_objLive(io_objLive), m_bStream(i_bStream)
{
    m_objLive.m_u64Viewed++;
    m_objLive.m_u32StreamViewers += m_bStream ? 1 : 0;
    const std::lock_guard objLock(m_objLive.m_objMutex);
    m_objLive.m_objWake.notify_all();
}

CLive::CViewer::~CViewer()
{
    m_objLive.m_u32Viewers--;
    m_objLive.m_u32StreamViewers -= m_bStream ? 1 : 0;
}

std::unique_ptr<CLive::CViewer> CLive::Enter(Bool i_bStream)
{
    UInt32 u32Viewers = m_u32Viewers;
    do {
        if (u32Viewers >= m_u32MostViewers) {
            return nullptr;
        }
    } while (!m_u32Viewers.compare_exchange_weak(u32Viewers, u32Viewers + 1));
    return std::make_unique<CViewer>(*this, i_bStream);
}

std::string CLive::Trouble() const
{
    const std::lock_guard objLock(m_objMutex);
    return m_strTrouble;
}

void CLive::SetTrouble(const std::string &i_strTrouble)
{
    const std::lock_guard objLock(m_objMutex);
    if (!i_strTrouble.empty() && i_strTrouble != m_strTrouble) {
        fprintf(stderr, "live picture: %s\n", i_strTrouble.c_str());
    }
    m_strTrouble = i_strTrouble;
}

std::string CLive::Open()
{
    m_objSocket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int s32On = 1;
    setsockopt(m_objSocket.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &s32On, sizeof(s32On));
    setsockopt(m_objSocket.Get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer));
    sockaddr_in stAddress = {};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddress.sin_port = htons(m_u16Port);
    if (bind(m_objSocket.Get(), reinterpret_cast<sockaddr *>(&stAddress), sizeof(stAddress)) == 0) {
        return {};
    }
    const std::string strReason = strerror(errno);
    m_objSocket.Reset();
    return "port " + std::to_string(m_u16Port) +
           " of 127.0.0.1, where the stream comes in: " + strReason;
}

void CLive::Pause()
{
    if (m_u32StreamViewers > 0 && m_objSocket) {
        pollfd stFd = {m_objSocket.Get(), POLLIN, 0};
        poll(&stFd, 1, kWatchPause);
        return;
    }
    std::unique_lock objLock(m_objMutex);
    const auto objPause = m_objSocket ? kIdlePause : std::chrono::milliseconds(kRetry);
    m_objWake.wait_for(objLock, objPause,
                       [this] { return m_bEnd || (m_objSocket && m_u32StreamViewers > 0); });
}

void CLive::Run()
{
    gst_init(nullptr, nullptr);
    while (!m_bEnd) {
        if (!m_objSocket) {
            SetTrouble(Open());
        }
        if (m_objSocket) {
            Receive();
            Feed();
        }
        Pause();
    }
    m_objRemux.Stop();
}

void CLive::Receive()
{
    static thread_local BATCH_S stBatch;
    int s32Count = 0;
    do {
        stBatch.Prepare();
        s32Count =
            recvmmsg(m_objSocket.Get(), stBatch.stMessages.data(), kBatch, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < s32Count; i++) {
            const auto u64Index = static_cast<std::size_t>(i);
            mmsghdr &stMessage = stBatch.stMessages[u64Index];
            if ((stMessage.msg_hdr.msg_flags & MSG_TRUNC) == 0) {
                TakePacket({stBatch.objBytes[u64Index].data(), stMessage.msg_len},
                           ArrivalTime(stMessage.msg_hdr));
            }
        }
    } while (s32Count == static_cast<int>(kBatch) && !m_bEnd);
}

void CLive::TakePacket(Bytes i_objPacket, double i_f64Time)
{
    m_objStore.Add(i_objPacket, [&](const CPicture &i_pPicture) {
        const double f64Interval = i_f64Time - m_f64LastPicture;
        if (m_f64LastPicture > 0 && f64Interval > 0 && f64Interval < kMostInterval) {
            m_objIntervals.Observe(f64Interval);
        }
        m_f64LastPicture = i_f64Time;
        if (m_objRemux.IsRunning() && m_u64Epoch == m_objStore.Epoch()) {
            m_objRemux.Push(*i_pPicture);
        }
    });
    if (m_objRemux.IsRunning() && m_u64Epoch != m_objStore.Epoch()) {
        m_objRemux.Stop();
    }
}

void CLive::Feed()
{
    if (m_u32StreamViewers == 0) {
        m_objRemux.Stop();
        return;
    }
    const std::string strError = m_objRemux.TakeError();
    if (!strError.empty()) {
        SetTrouble("the stream cannot be shown: " + strError);
        m_objRemux.Stop();
    }
    if (m_objRemux.IsRunning() || m_objStore.Group().empty() || m_objStore.Codec().empty()) {
        return;
    }
    const std::string strFailed = m_objRemux.Start(m_objStore);
    SetTrouble(strFailed);
    m_u64Epoch = m_objStore.Epoch();
    for (const CPicture &pPicture : m_objStore.Group()) {
        if (m_objRemux.IsRunning()) {
            m_objRemux.Push(*pPicture);
        }
    }
}
