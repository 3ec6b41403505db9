/*
 * An address on 127.0.0.1.
 */
#pragma once

#include <netinet/in.h>

#include "framework/types.h"

inline sockaddr_in LoopbackAddress(UInt16 i_u16Port)
{
    sockaddr_in stAddress = {};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddress.sin_port = htons(i_u16Port);
    return stAddress;
}
