/*
 * Counted string: a pointer and a length, viewing bytes that somebody else owns.
 *
 * The bytes need no terminator and may be any; a null pointer is an empty string. Operations that
 * change text change the viewed bytes. Unsynchronised: the owner of the bytes locks.
 */
#pragma once

#include <array>
#include <cstring>

#include "framework/types.h"

class CPLString
{
public:
    CPLString() : m_pPtr(nullptr), m_u32Len(0) {}
    CPLString(char *i_pPtr, UInt32 i_u32Len) : m_pPtr(i_pPtr), m_u32Len(i_u32Len) {}
    CPLString(const CPLString &) = default;
    CPLString &operator=(const CPLString &) = default;
    virtual ~CPLString() = default;

    /* Null equals null only. */
    Bool Equal(const CPLString &i_refCompare) const
    {
        if (m_pPtr == nullptr || i_refCompare.m_pPtr == nullptr) {
            return m_pPtr == i_refCompare.m_pPtr;
        }
        return m_u32Len == i_refCompare.m_u32Len &&
               memcmp(m_pPtr, i_refCompare.m_pPtr, m_u32Len) == 0;
    }

    char *m_pPtr;
    UInt32 m_u32Len;

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* i_pPtr: NUL-terminated, or null. */
    explicit CPLString(char *i_pPtr);
    void Set(char *i_pPtr, UInt32 i_u32Len)
    {
        m_pPtr = i_pPtr;
        m_u32Len = i_u32Len;
    }

    /* A NUL-terminated copy for the caller to delete[]. */
    char *GetAsCString() const;

    /* i_pCompare: NUL-terminated, or null. */
    Bool Equal(const char *i_pCompare) const;
    /* Letters A to Z equal a to z; i_u32Len bytes of i_pCompare, which must not be null, against
     * the whole string or against its beginning. */
    Bool EqualIgnoreCase(const char *i_pCompare, UInt32 i_u32Len) const;
    Bool NumEqualIgnoreCase(const char *i_pCompare, UInt32 i_u32Len) const;

    /* The first place of the query, which must not be null, in the text up to its first NUL; null
     * if there is none. o_pMatch may be null; it is set to the hit, or to the empty string. */
    char *FindStringCase(const char *i_pQueryCharStr, CPLString *o_pMatch,
                         Bool i_bCaseSensitive) const;

    /* Blanks and tabs only. The length left is returned. */
    UInt32 RemoveWhitespace();
    UInt32 TrimLeadingWhitespace();
    UInt32 TrimTrailingWhitespace();

    /* toupper(3) on every byte in place; returns the pointer. */
    char *ToUpper();

    /* To standard output: the bytes up to the first that is marked in s_aNonPrintChars, between
     * prefix and suffix, each of which may be null. */
    void PrintStr() const;
    void PrintStr(const char *i_pSuffix) const;
    void PrintStr(const char *i_pPrefix, const char *i_pSuffix) const;
    /* To standard output for a log: line ends made visible, lone percent signs replaced by dollar
     * signs, nothing after the stop text. Stop text and suffix may be null. */
    void PrintStrEOL(const char *i_pStopStr, const char *i_pSuffix) const;

    /* Lower case of the bytes 0 to 129; every other byte is its own. */
    static const std::array<UInt8, 130> s_aCaseInsensitiveMask;
    /* 1 for bytes that are not printed. Kept: the tab counts as such, so that a text ends before
     * the columns behind it; NUL does not, since it ends a copy by itself. */
    static const std::array<UInt8, 256> s_aNonPrintChars;

private:
    UInt32 PrintableLen() const;
};
