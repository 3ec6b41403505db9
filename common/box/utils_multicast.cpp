/*
 * Utilities that are offered: multicast groups of ids, and the parsers that pick ids out of an
 * address list.
 *
 * Kept: two families, because switches are set up for either. 234.24.0.0/13 is for a box's own
 * group, 224. with a group index for the entries of a list.
 */
#include "common/box/utils_offered.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/bus/log.h"
#include "framework/assertion.h"

namespace
{
constexpr std::size_t kIdLen = MAC_ID_LEN;
constexpr std::size_t kMaxNameEntry = 31;

/* Byte i_u64Byte (0 to 5) of the address that the id writes out. A pair that is no number reads
 * as strtoul(3) has it. */
UInt8 IdByte(const char *i_pId, std::size_t i_u64Byte)
{
    const char szPair[3] = {i_pId[i_u64Byte * 2], i_pId[i_u64Byte * 2 + 1], '\0'};
    return static_cast<UInt8>(strtoul(szPair, nullptr, 16));
}

/* Cuts the first entry, and the ";" behind it, off the list. */
std::string_view TakeEntry(std::string_view *io_pList)
{
    std::string_view strEntry = io_pList->substr(0, io_pList->find(';'));
    io_pList->remove_prefix(std::min(strEntry.size() + 1, io_pList->size()));
    return strEntry;
}

/* What stands before the entry's last ":", or the whole entry. */
std::string_view WithoutSuffix(std::string_view i_strEntry)
{
    return i_strEntry.substr(0, i_strEntry.rfind(':'));
}
} // namespace

SInt32 get_multicast_ip_by_id(std::string &o_strIp, const char *i_pId)
{
    if (i_pId == nullptr || strlen(i_pId) != kIdLen) {
        LOG_ERROR("input param err");
        return -1;
    }
    o_strIp += OwnGroup(IdByte(i_pId, 3), IdByte(i_pId, 4), IdByte(i_pId, 5));
    return 0;
}

char *MakeMulticastIP(const char *i_pId, UInt8 i_u8Index, char *o_pOut)
{
    assert(i_pId != nullptr && strlen(i_pId) >= kIdLen);
    UInt8 u8Octet = static_cast<UInt8>((i_u8Index << 4) | (IdByte(i_pId, 3) & 15));
    snprintf(o_pOut, 16, "224.%d.%d.%d", u8Octet, IdByte(i_pId, 4), IdByte(i_pId, 5));
    return o_pOut;
}

SInt32 GetMulticastIPAddrs(const char *i_pList, char (*o_pAddrs)[32], char (*o_pIds)[13],
                           SInt32 i_s32Max, UInt8 i_u8Index)
{
    if (i_pList == nullptr || i_s32Max < 1) {
        return 0;
    }
    SInt32 s32Count = 0;
    std::string_view strList(i_pList);
    while (!strList.empty() && s32Count < i_s32Max) {
        std::string_view strAddr = WithoutSuffix(TakeEntry(&strList));
        if (strAddr.size() < kIdLen) {
            continue;
        }
        strAddr.copy(o_pIds[s32Count], kIdLen, strAddr.size() - kIdLen);
        o_pIds[s32Count][kIdLen] = '\0';
        s32Count++;
    }
    UInt8 u8Index = i_u8Index;
    if (u8Index == 0) {
        u8Index = s32Count > 1 ? 2 : 1;
    }
    for (SInt32 i = 0; i < s32Count; i++) {
        MakeMulticastIP(o_pIds[i], u8Index, o_pAddrs[i]);
    }
    return s32Count;
}

SInt32 GetSrcName(const char *i_pList, char (*o_pNames)[32], SInt32 i_s32Max)
{
    if (i_pList == nullptr || i_s32Max < 1) {
        return 0;
    }
    SInt32 s32Count = 0;
    std::string_view strList(i_pList);
    while (!strList.empty() && s32Count < i_s32Max) {
        std::string_view strEntry = TakeEntry(&strList);
        std::string_view strName = WithoutSuffix(strEntry);
        if (strName.size() < kIdLen || strEntry.size() > kMaxNameEntry) {
            continue;
        }
        strName.copy(o_pNames[s32Count], strName.size());
        o_pNames[s32Count][strName.size()] = '\0';
        LOG_INFO("got a SRC: %s", o_pNames[s32Count]);
        s32Count++;
    }
    return s32Count;
}
