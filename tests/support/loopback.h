/*
 * Datagram sockets on 127.0.0.1, for the far end of what is under test.
 */
#pragma once

#include <string>

#include <netinet/in.h>

#include "framework/types.h"
#include "framework/unique_fd.h"

sockaddr_in Loopback(UInt16 i_u16Port);

/* A socket bound to the port (0: any), or an exception; its port is in *o_pPort. */
UniqueFd BindLoopback(UInt16 i_u16Port, UInt16 *o_pPort = nullptr);

void SendLoopback(int i_s32Fd, UInt16 i_u16Port, const std::string &i_strBytes);

/* The next datagram; "none" if none comes within the limit. */
std::string ReceiveLoopback(int i_s32Fd, int i_s32LimitMs);
