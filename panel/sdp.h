/*
 * The stream's session description (RFC 8866, RFC 6184) for players of the group. Any thread.
 */
#pragma once

#include <string>

#include "framework/types.h"

/* The box's own group, 234.x.y.z, by the interface's hardware address (netdevice(7)); empty if
 * there is no such interface. */
std::string GroupOf(const std::string &i_strInterface);
/* The parameter sets in base64 may be empty. */
std::string FormatSdp(const std::string &i_strGroup, UInt32 u32PayloadType,
                      const std::string &i_strSps, const std::string &i_strPps);
