/*
 * Utilities that the daemon uses: the addresses of its interface. utils_offered.h has those that it
 * does not.
 *
 * Free functions without state; any thread may call them. Interface names are those of
 * netdevice(7), never null unless said otherwise. Addresses are IPv4; an address as a number is
 * in host byte order.
 */
#pragma once

#include <cstddef>
#include <string>

#include <sys/socket.h>

#include "framework/types.h"

struct ifreq;

/* Characters of a dotted text with its NUL. */
constexpr std::size_t IP_TEXT_SIZE = 16;

/* Address of the first interface whose name begins with i_pIfName, as dotted text in o_pOut (16
 * characters); "0.0.0.0" if there is none. False if the interfaces could not be listed. */
Bool GetLocalIPStr(const char *i_pIfName, char *o_pOut);
/* The same as a number, 0 if there is none. */
Bool GetLocalIP(const char *i_pIfName, UInt32 *o_pIp);
UInt32 GetLocalIP(const char *i_pIfName);

/* The interface's hardware address in o_pMac (6 bytes). 0; -1 for a null argument or when the
 * interface cannot be asked. */
SInt32 getMac(UInt8 *o_pMac, const char *i_pIfName);

/* Appends the box's own multicast group, OwnGroup() of the interface's hardware address, to
 * o_strIp. 0; -1 on failure, with o_strIp as it was. */
SInt32 get_multicast_ip(std::string &o_strIp, const std::string &i_strIfName);
/* The group of 234.24.0.0/13 with the low 19 bits of the address that ends in these bytes. */
std::string OwnGroup(UInt8 i_u8Byte3, UInt8 i_u8Byte4, UInt8 i_u8Byte5);

/* --- Shared with utils_offered.cpp ----------------------------------------------------------- */

/* Asks the kernel about the interface of exactly this name (netdevice(7)). False, too, for a name
 * too long for an interface: cut short it could be another's. */
bool QueryInterface(int i_s32Fd, unsigned long i_u64Request, const char *i_pIfName,
                    struct ifreq *o_pRequest);
/* i_pAddr: of family AF_INET, at any alignment. o_pOut: IP_TEXT_SIZE characters. */
void IpToText(const struct sockaddr *i_pAddr, char *o_pOut);
UInt32 TextToIp(const char *i_pText);
