/*
 * A connection's socket as a transport. All waits are in poll(2), with the caller's end.
 */
#include "panel/transport.h"

#include <cerrno>

#include <fcntl.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

namespace
{
using CClock = std::chrono::steady_clock;

bool WaitFor(int i_s32Fd, short i_s16Events, CTransport::CTime i_objUntil)
{
    while (true) {
        const auto s64Left =
            std::chrono::ceil<std::chrono::milliseconds>(i_objUntil - CClock::now()).count();
        if (s64Left <= 0) {
            return false;
        }
        pollfd stFd = {i_s32Fd, i_s16Events, 0};
        const int s32Ready = poll(&stFd, 1, static_cast<int>(s64Left));
        if (s32Ready > 0) {
            return true;
        }
        if (s32Ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

class CPlainTransport : public CTransport
{
public:
    explicit CPlainTransport(int i_s32Fd) : m_s32Fd(i_s32Fd)
    {
        fcntl(i_s32Fd, F_SETFL, fcntl(i_s32Fd, F_GETFL) | O_NONBLOCK);
    }

    ssize_t Read(char *o_pData, std::size_t i_u64Size, CTime i_objUntil) override
    {
        return WaitFor(m_s32Fd, POLLIN, i_objUntil) ? recv(m_s32Fd, o_pData, i_u64Size, 0) : -1;
    }

    ssize_t Write(const char *i_pData, std::size_t i_u64Size, CTime i_objUntil) override
    {
        while (true) {
            const ssize_t s64Sent = send(m_s32Fd, i_pData, i_u64Size, MSG_NOSIGNAL);
            if (s64Sent >= 0 || (errno != EAGAIN && errno != EINTR) ||
                !WaitFor(m_s32Fd, POLLOUT, i_objUntil)) {
                return s64Sent;
            }
        }
    }

    std::string GetRemoteAddress() const override
    {
        sockaddr_storage stAddress = {};
        socklen_t u32Size = sizeof(stAddress);
        char szHost[NI_MAXHOST] = "";
        if (getpeername(m_s32Fd, reinterpret_cast<sockaddr *>(&stAddress), &u32Size) == 0) {
            getnameinfo(reinterpret_cast<sockaddr *>(&stAddress), u32Size, szHost, sizeof(szHost),
                        nullptr, 0, NI_NUMERICHOST);
        }
        return szHost;
    }

protected:
    const int m_s32Fd;
};

class CTlsTransport final : public CPlainTransport
{
public:
    CTlsTransport(int i_s32Fd, SSL_CTX *i_pContext)
        : CPlainTransport(i_s32Fd), m_pSsl(SSL_new(i_pContext), SSL_free)
    {
        if (m_pSsl && SSL_set_fd(m_pSsl.get(), i_s32Fd) != 1) {
            m_pSsl.reset();
        }
    }
    ~CTlsTransport() override
    {
        if (m_pSsl && SSL_is_init_finished(m_pSsl.get()) && !m_bFailed) {
            SSL_shutdown(m_pSsl.get());
        }
    }

    bool Accept(CTime i_objUntil)
    {
        return m_pSsl && Repeat([this] { return SSL_accept(m_pSsl.get()); }, i_objUntil) == 1;
    }

    ssize_t Read(char *o_pData, std::size_t i_u64Size, CTime i_objUntil) override
    {
        return Repeat([&] { return SSL_read(m_pSsl.get(), o_pData, Limited(i_u64Size)); },
                      i_objUntil);
    }

    ssize_t Write(const char *i_pData, std::size_t i_u64Size, CTime i_objUntil) override
    {
        return Repeat([&] { return SSL_write(m_pSsl.get(), i_pData, Limited(i_u64Size)); },
                      i_objUntil);
    }

private:
    static int Limited(std::size_t i_u64Size)
    {
        return static_cast<int>(std::min<std::size_t>(i_u64Size, 1 << 20));
    }

    template <typename CALL> ssize_t Repeat(CALL i_pCall, CTime i_objUntil)
    {
        while (!m_bFailed) {
            const int s32Result = i_pCall();
            if (s32Result > 0) {
                return s32Result;
            }
            const int s32Error = SSL_get_error(m_pSsl.get(), s32Result);
            if (s32Error == SSL_ERROR_ZERO_RETURN) {
                return 0;
            }
            const bool bWaits = s32Error == SSL_ERROR_WANT_READ || s32Error == SSL_ERROR_WANT_WRITE;
            m_bFailed =
                !bWaits ||
                !WaitFor(m_s32Fd, s32Error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, i_objUntil);
        }
        return -1;
    }

    std::unique_ptr<SSL, decltype(&SSL_free)> m_pSsl;
    bool m_bFailed = false; /* after a fatal error not even a farewell may be sent */
};
} // namespace

std::unique_ptr<CTransport> MakePlainTransport(int i_s32Fd)
{
    return std::make_unique<CPlainTransport>(i_s32Fd);
}

std::unique_ptr<CTransport> MakeTlsTransport(int i_s32Fd, void *i_pContext,
                                             CTransport::CTime i_objUntil)
{
    auto pTransport = std::make_unique<CTlsTransport>(i_s32Fd, static_cast<SSL_CTX *>(i_pContext));
    if (!pTransport->Accept(i_objUntil)) {
        return nullptr;
    }
    return pTransport;
}
