/*
 * A connection's socket as a transport, plain or under TLS.
 */
#pragma once

#include <memory>

#include "panel/http_server.h"

/* Both take over nothing: the socket stays the caller's and is non-blocking from here on. */
std::unique_ptr<CTransport> MakePlainTransport(int i_s32Fd);
/* i_pContext is an SSL_CTX; none if the handshake does not come about by the given time. */
std::unique_ptr<CTransport> MakeTlsTransport(int i_s32Fd, void *i_pContext,
                                             CTransport::CTime i_objUntil);
