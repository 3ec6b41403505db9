/*
 * The shell around the HTTP library: connections, their limits, and TLS.
 *
 * The library parses requests, routes them and writes the answers. It reads from a socket with a
 * pause limit alone, though, so that a sender of one byte every few seconds holds a thread for
 * ever, and its pool of threads is used up by connections that say nothing. Here a request is read
 * whole first, under limits of size and time, and only then shown to the library. Every connection
 * has a thread; when there are too many, the one that has been idle longest gives way.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <httplib.h>

#include "framework/types.h"

struct HTTP_LIMITS_S {
    UInt32 u32Connections = 128;
    std::size_t u64HeadBytes = 8192; /* request line and headers; more is answered with 431 */
    std::size_t u64BodyBytes = 4096; /* more is answered with 413 */
    std::chrono::milliseconds objRequestTime{10000}; /* for one request to arrive as a whole */
    std::chrono::milliseconds objIdleTime{15000};    /* from one request to the next */
    std::chrono::milliseconds objWriteTime{10000};   /* for a client to take a byte */
};

/* The bytes of one connection, plain or encrypted. Both calls wait until the given time at most
 * and answer the number of bytes, 0 at the other's end (Read), -1 on an error or when time is up.
 */
class CTransport
{
public:
    using CTime = std::chrono::steady_clock::time_point;
    virtual ~CTransport() = default;
    virtual ssize_t Read(char *o_pData, std::size_t i_u64Size, CTime i_objUntil) = 0;
    virtual ssize_t Write(const char *i_pData, std::size_t i_u64Size, CTime i_objUntil) = 0;
    virtual std::string GetRemoteAddress() const = 0;
};

/* What a connection is busy with, for the choice of who gives way. */
struct CONNECTION_S {
    bool bBusy = false;
    std::chrono::steady_clock::time_point objSince = std::chrono::steady_clock::now();
};

class CHttpServer : public httplib::Server
{
public:
    explicit CHttpServer(const HTTP_LIMITS_S &i_stLimits);
    ~CHttpServer() override;
    /* Encrypts from now on, TLS 1.2 at least; the text says what is wrong with the files, or is
     * empty. Before the server listens. */
    std::string UseTls(const std::string &i_strCertificate, const std::string &i_strKey);
    bool IsTls() const { return m_pTls != nullptr; }
    /* False with errno if the address cannot be had. */
    Bool Open(const std::string &i_strAddress, UInt16 i_u16Port);
    /* Ends listening and every connection. Any thread but a connection's. */
    void End();
    bool IsEnding() const { return m_bEnding; }
    /* Answers what comes over a transport until it is closed; public for the fuzz target. */
    void Serve(CTransport &io_objTransport, CONNECTION_S &io_stConnection);

private:
    bool process_and_close_socket(socket_t i_s32Socket) override;
    void Enter(int i_s32Fd, CONNECTION_S &io_stConnection);
    void Leave(int i_s32Fd);
    void SetBusy(CONNECTION_S &io_stConnection, bool i_bBusy);

    const HTTP_LIMITS_S m_stLimits;
    void *m_pTls = nullptr; /* SSL_CTX */
    std::atomic<bool> m_bEnding{false};
    std::mutex m_objMutex; /* guards the table and the records in it */
    std::map<int, CONNECTION_S *> m_objConnections;
};

/* One request out of a stream of bytes, as far as the limits need to know it. */
enum class RequestState { Incomplete, Complete, Refused };
struct REQUEST_EXTENT_S {
    RequestState eState = RequestState::Incomplete;
    int s32Status = 0;       /* of a refused one */
    std::size_t u64Size = 0; /* of a complete one: head and body */
};
/* Looks whether a whole request stands at the beginning. A body must have a plain Content-Length
 * (411, 415 otherwise): nothing here sends another. */
REQUEST_EXTENT_S MeasureRequest(const std::string &i_strBytes, const HTTP_LIMITS_S &i_stLimits);
