/*
 * The shell around the HTTP library: connections, their limits, and TLS.
 */
#include "panel/http_server.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <thread>

#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "framework/unique_fd.h"
#include "panel/transport.h"

namespace
{
using CClock = std::chrono::steady_clock;

/* A thread for each connection, and no more than the given number at a time; beyond that the
 * listener waits, and the system's own queue of connections with it. */
class CConnectionThreads : public httplib::TaskQueue
{
public:
    explicit CConnectionThreads(UInt32 i_u32Most) : m_u32Most(i_u32Most) {}

    void enqueue(std::function<void()> i_pTask) override
    {
        std::unique_lock objLock(m_objMutex);
        m_objChanged.wait(objLock, [this] { return m_u32Running < m_u32Most; });
        m_u32Running++;
        objLock.unlock();
        try {
            std::thread([this, i_pTask] { Run(i_pTask); }).detach();
        } catch (const std::system_error &) {
            Run(i_pTask); /* no more threads: one after the other, then */
        }
    }

    void shutdown() override
    {
        std::unique_lock objLock(m_objMutex);
        m_objChanged.wait(objLock, [this] { return m_u32Running == 0; });
    }

private:
    void Run(const std::function<void()> &i_pTask)
    {
        i_pTask();
        const std::lock_guard objLock(m_objMutex);
        m_u32Running--;
        m_objChanged.notify_all();
    }

    const UInt32 m_u32Most;
    std::mutex m_objMutex;
    std::condition_variable m_objChanged;
    UInt32 m_u32Running = 0;
};

/* A request that is there as a whole, for the library to read; its answer goes to the transport. */
class CRequestStream : public httplib::Stream
{
public:
    CRequestStream(std::string i_strRequest, CTransport &io_objTransport,
                   std::chrono::milliseconds i_objWriteTime)
        : m_strRequest(std::move(i_strRequest)), m_objTransport(io_objTransport),
          m_objWriteTime(i_objWriteTime)
    {
    }

    bool is_readable() const override { return true; }
    bool is_writable() const override { return !m_bFailed; }

    ssize_t read(char *o_pData, size_t i_u64Size) override
    {
        const size_t u64Size = m_strRequest.copy(o_pData, i_u64Size, m_u64Read);
        m_u64Read += u64Size;
        return static_cast<ssize_t>(u64Size);
    }

    ssize_t write(const char *i_pData, size_t i_u64Size) override
    {
        size_t u64Sent = 0;
        while (u64Sent < i_u64Size && !m_bFailed) {
            const ssize_t s64Sent = m_objTransport.Write(i_pData + u64Sent, i_u64Size - u64Sent,
                                                         CClock::now() + m_objWriteTime);
            m_bFailed = s64Sent <= 0;
            u64Sent += static_cast<size_t>(std::max<ssize_t>(s64Sent, 0));
        }
        return m_bFailed ? -1 : static_cast<ssize_t>(i_u64Size);
    }

    void get_remote_ip_and_port(std::string &o_strIp, int &o_s32Port) const override
    {
        o_strIp = m_objTransport.GetRemoteAddress();
        o_s32Port = 0;
    }
    void get_local_ip_and_port(std::string &, int &) const override {}
    socket_t socket() const override { return 0; }

private:
    const std::string m_strRequest;
    CTransport &m_objTransport;
    const std::chrono::milliseconds m_objWriteTime;
    size_t m_u64Read = 0;
    bool m_bFailed = false;
};

const char *Reason(int i_s32Status)
{
    switch (i_s32Status) {
    case 408:
        return "Request Timeout";
    case 411:
        return "Length Required";
    case 413:
        return "Payload Too Large";
    case 415:
        return "Unsupported Media Type";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return "Bad Request";
    }
}

/* The answer to a request that the library never gets to see. What the client still sends is
 * taken for a moment, since a close with unread bytes would take the answer back. */
void Refuse(CTransport &io_objTransport, int i_s32Status)
{
    const std::string strReason = Reason(i_s32Status);
    const std::string strAnswer = "HTTP/1.1 " + std::to_string(i_s32Status) + " " + strReason +
                                  "\r\nConnection: close\r\nContent-Type: text/plain\r\n"
                                  "X-Content-Type-Options: nosniff\r\nContent-Length: " +
                                  std::to_string(strReason.size() + 1) + "\r\n\r\n" + strReason +
                                  "\n";
    const auto objUntil = CClock::now() + std::chrono::milliseconds(500);
    io_objTransport.Write(strAnswer.data(), strAnswer.size(), objUntil);
    char szRest[4096];
    while (io_objTransport.Read(szRest, sizeof(szRest), objUntil) > 0) {
    }
}

/* Reads until a request is whole in io_strBytes; false when the connection is done with. */
bool ReadRequest(CTransport &io_objTransport, std::string &io_strBytes,
                 const HTTP_LIMITS_S &i_stLimits, bool i_bFirst, REQUEST_EXTENT_S &o_stExtent)
{
    const auto objWait = i_bFirst ? i_stLimits.objRequestTime : i_stLimits.objIdleTime;
    auto objUntil = CClock::now() + objWait;
    bool bBegun = i_bFirst || !io_strBytes.empty();
    while (true) {
        o_stExtent = MeasureRequest(io_strBytes, i_stLimits);
        if (o_stExtent.eState == RequestState::Complete) {
            return true;
        }
        if (o_stExtent.eState == RequestState::Refused) {
            Refuse(io_objTransport, o_stExtent.s32Status);
            return false;
        }
        char szBytes[4096];
        const ssize_t s64Read = io_objTransport.Read(szBytes, sizeof(szBytes), objUntil);
        if (s64Read <= 0) {
            if (!io_strBytes.empty() && CClock::now() >= objUntil) {
                Refuse(io_objTransport, 408);
            }
            return false;
        }
        if (!bBegun) {
            bBegun = true;
            objUntil = CClock::now() + i_stLimits.objRequestTime;
        }
        io_strBytes.append(szBytes, static_cast<std::size_t>(s64Read));
    }
}

void SetSocketOptions(socket_t i_s32Socket)
{
    const int s32On = 1;
    setsockopt(i_s32Socket, SOL_SOCKET, SO_REUSEADDR, &s32On, sizeof(s32On));
}

/* What waits in the system for a slow viewer is old when it arrives. */
constexpr int kSendBuffer = 128 * 1024;
constexpr int kBacklog = 256;
constexpr UInt32 kSpareThreads = 32;
constexpr UInt32 kMostRequests = 1000; /* of a connection */
} // namespace

CHttpServer::CHttpServer(const HTTP_LIMITS_S &i_stLimits) : m_stLimits(i_stLimits)
{
    /* The spare ones are of connections that have just been told to give way. */
    new_task_queue = [this] {
        return new CConnectionThreads(m_stLimits.u32Connections + kSpareThreads);
    };
    /* Not the library's own choice, which lets a second panel share the port unseen. */
    set_socket_options(SetSocketOptions);
    set_payload_max_length(i_stLimits.u64BodyBytes);
    /* What the answers' Keep-Alive header says. */
    set_keep_alive_timeout(
        std::chrono::duration_cast<std::chrono::seconds>(i_stLimits.objIdleTime).count());
    set_keep_alive_max_count(kMostRequests);
}

CHttpServer::~CHttpServer()
{
    SSL_CTX_free(static_cast<SSL_CTX *>(m_pTls));
}

std::string CHttpServer::UseTls(const std::string &i_strCertificate, const std::string &i_strKey)
{
    SSL_CTX *pContext = SSL_CTX_new(TLS_server_method());
    m_pTls = pContext;
    if (pContext == nullptr) {
        return "no memory for TLS";
    }
    SSL_CTX_set_min_proto_version(pContext, TLS1_2_VERSION);
    SSL_CTX_set_mode(pContext, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    std::string strWrong;
    if (SSL_CTX_use_certificate_chain_file(pContext, i_strCertificate.c_str()) != 1) {
        strWrong = "the certificate " + i_strCertificate + " cannot be used: ";
    } else if (SSL_CTX_use_PrivateKey_file(pContext, i_strKey.c_str(), SSL_FILETYPE_PEM) != 1) {
        strWrong = "the key " + i_strKey + " cannot be used: ";
    } else if (SSL_CTX_check_private_key(pContext) != 1) {
        strWrong = "the key " + i_strKey + " is not the certificate's: ";
    }
    const unsigned long u64Error = ERR_peek_error();
    const char *pReason = ERR_SYSTEM_ERROR(u64Error) ? strerror(ERR_GET_REASON(u64Error))
                                                     : ERR_reason_error_string(u64Error);
    return strWrong.empty() ? strWrong : strWrong + (pReason == nullptr ? "?" : pReason);
}

Bool CHttpServer::Open(const std::string &i_strAddress, UInt16 i_u16Port)
{
    /* The library lets five connections wait, and a burst of more takes seconds of retries. */
    return bind_to_port(i_strAddress, i_u16Port) && ::listen(svr_sock_, kBacklog) == 0;
}

void CHttpServer::End()
{
    m_bEnding = true;
    stop();
    const std::lock_guard objLock(m_objMutex);
    for (const auto &[s32Fd, pConnection] : m_objConnections) {
        shutdown(s32Fd, SHUT_RDWR);
    }
}

void CHttpServer::Enter(int i_s32Fd, CONNECTION_S &io_stConnection)
{
    const std::lock_guard objLock(m_objMutex);
    if (m_objConnections.size() >= m_stLimits.u32Connections) {
        const auto itOldest = std::min_element(
            m_objConnections.begin(), m_objConnections.end(), [](const auto &l, const auto &r) {
                return std::pair(l.second->bBusy, l.second->objSince) <
                       std::pair(r.second->bBusy, r.second->objSince);
            });
        /* With all of them busy it is the new one that goes. */
        if (itOldest->second->bBusy) {
            shutdown(i_s32Fd, SHUT_RDWR);
        } else {
            shutdown(itOldest->first, SHUT_RDWR);
            m_objConnections.erase(itOldest);
        }
    }
    m_objConnections[i_s32Fd] = &io_stConnection;
    if (m_bEnding) {
        shutdown(i_s32Fd, SHUT_RDWR);
    }
}

void CHttpServer::Leave(int i_s32Fd)
{
    const std::lock_guard objLock(m_objMutex);
    m_objConnections.erase(i_s32Fd);
}

void CHttpServer::SetBusy(CONNECTION_S &io_stConnection, bool i_bBusy)
{
    const std::lock_guard objLock(m_objMutex);
    io_stConnection.bBusy = i_bBusy;
    io_stConnection.objSince = CClock::now();
}

void CHttpServer::Serve(CTransport &io_objTransport, CONNECTION_S &io_stConnection)
{
    std::string strBytes;
    REQUEST_EXTENT_S stExtent;
    bool bLast = false;
    for (UInt32 u32Count = 0;
         u32Count < kMostRequests && !bLast && !m_bEnding &&
         ReadRequest(io_objTransport, strBytes, m_stLimits, u32Count == 0, stExtent);
         u32Count++) {
        SetBusy(io_stConnection, true);
        CRequestStream objStream(strBytes.substr(0, stExtent.u64Size), io_objTransport,
                                 m_stLimits.objWriteTime);
        strBytes.erase(0, stExtent.u64Size);
        const bool bDone =
            process_request(objStream, false, bLast, [](httplib::Request &io_objRequest) {
                /* Nothing here is worth a part or a compression. */
                io_objRequest.ranges.clear();
                io_objRequest.headers.erase("Accept-Encoding");
            });
        bLast = bLast || !bDone || !objStream.is_writable();
        SetBusy(io_stConnection, false);
    }
}

bool CHttpServer::process_and_close_socket(socket_t i_s32Socket)
{
    const UniqueFd objFd(i_s32Socket);
    const int s32On = 1;
    setsockopt(i_s32Socket, IPPROTO_TCP, TCP_NODELAY, &s32On, sizeof(s32On));
    setsockopt(i_s32Socket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    CONNECTION_S stConnection;
    Enter(i_s32Socket, stConnection);
    {
        const std::unique_ptr<CTransport> pTransport =
            m_pTls == nullptr
                ? MakePlainTransport(i_s32Socket)
                : MakeTlsTransport(i_s32Socket, m_pTls, CClock::now() + m_stLimits.objRequestTime);
        if (pTransport) {
            Serve(*pTransport, stConnection);
        }
    }
    Leave(i_s32Socket);
    return true;
}
