/*
 * --- Offered: the daemon uses nothing of what follows. ---
 *
 * Utilities for callers to come: the broadcast address, the version, hardware-address ids in text,
 * multicast groups of ids, short delays, the shell runner. As in utils.h these are free functions
 * without state, for any thread.
 */
#pragma once

#include <string>

#include "common/box/utils.h"
#include "framework/types.h"

/* Characters of a hardware-address id: six bytes as hexadecimal digits, without separators. */
constexpr int MAC_ID_LEN = 12;

/* Broadcast address of the interface of exactly this name, as dotted text in o_pOut (16
 * characters); "255.255.255.255" if there is none. False if no socket could be had. */
Bool GetLocalBcastIPStr(const char *i_pIfName, char *o_pOut);
/* The same as a number. */
Bool GetLocalBcastIP(const char *i_pIfName, UInt32 *o_pIp);
UInt32 GetLocalBcastIP(const char *i_pIfName);

/* --- Version and files ----------------------------------------------------------------------- */

/* First line of the version file, without its newline and cut to i_s32Len - 1 characters. A file
 * that cannot be opened leaves o_pBuf as it is. 1; 0 for a null buffer or a length below 1. */
int GetLocalDevVersion(char *o_pBuf, int i_s32Len, const char *i_pPath = "/etc/version");

/* The recording directory, cut to i_s32Len - 1 characters; the rest of the buffer is zeroed.
 * 1; 0 for a null buffer or a length below 2. */
int GetRecordDir(char *o_pBuf, int i_s32Len);

/* Whether the path leads to a directory or a regular file (links are followed). Null: false. */
Bool IS_DIR(const char *i_pPath);
Bool IS_FILE(const char *i_pPath);

/* Comparison functions for qsort(3) over SInt32. The difference wraps: values more than 2^31 - 1
 * apart compare the wrong way round. */
int cmp_desc(const void *i_pA, const void *i_pB);
int cmp_asc(const void *i_pA, const void *i_pB);

/* --- Hardware-address ids in text ------------------------------------------------------------ */

/* An id is a run of exactly 12 hexadecimal digits; shorter and longer runs are none. */

/* Whether the character is a hexadecimal digit. Null: false. */
Bool mac_char_check(const char *i_pChar);
/* Number of ids in the text; -1 for a null text. */
SInt32 get_num_mac(const char *i_pText);
/* Copies the first i_s32Max ids into the rows of o_pRows, 12 characters each and no terminator:
 * the caller zeroes the rows. Returns the number of rows filled; -1 for a null text, null rows or
 * a negative maximum. */
SInt32 get_mac_addr(const char *i_pText, SInt32 i_s32Max, char (*o_pRows)[32]);

/* --- Multicast groups ------------------------------------------------------------------------ */

/* As get_multicast_ip(), of an id of exactly 12 characters; null is refused. */
SInt32 get_multicast_ip_by_id(std::string &o_strIp, const char *i_pId);

/* Writes the group of an id and a group index to o_pOut (at least 16 characters) and returns it:
 * 224., the index in the high nibble of the second octet, below it the low 20 bits of the address.
 * Asserts that the id has at least 12 characters. */
char *MakeMulticastIP(const char *i_pId, UInt8 i_u8Index, char *o_pOut);

/* Takes up to i_s32Max ids out of an address list ("id[:suffix]" entries between ";") into o_pIds
 * and writes their groups to o_pAddrs. i_u8Index: group index; 0 chooses 1 for a single id and 2
 * for more. Entries without room for an id are skipped. Returns the number of ids. */
SInt32 GetMulticastIPAddrs(const char *i_pList, char (*o_pAddrs)[32], char (*o_pIds)[13],
                           SInt32 i_s32Max, UInt8 i_u8Index);

/* Takes up to i_s32Max source names (what stands before an entry's last ":", at least 12
 * characters) out of an address list into o_pNames. Only entries of 12 to 31 characters count.
 * Returns the number of names. */
SInt32 GetSrcName(const char *i_pList, char (*o_pNames)[32], SInt32 i_s32Max);

/* --- Delays ---------------------------------------------------------------------------------- */

/* Spin on the monotonic clock. Milliseconds above 0 and below 2147483, else no delay. */
void busy_delay(SInt32 i_s32Milliseconds);
/* Microseconds; below 1 no delay. */
void delay_microsecond_busy(SInt32 i_s32Microseconds);
/* One system call, no wait: see the definition. */
void delay_millisecond_10();
/* At least this many microseconds; the last 10 ms by spinning. Below 1 no delay. */
void delay_microsecond(SInt32 i_s32Microseconds);

/* --- Shell ----------------------------------------------------------------------------------- */

/* Runs the command by /bin/sh and waits for its end. Returns the status as waitpid(2) gives it
 * (exit code 3 is 768), 1 for a null command, -1 if no child could be made or waited for. */
SInt32 system_vfork(const char *i_pCmd);
