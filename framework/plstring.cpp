/*
 * Counted string.
 */
#include "framework/plstring.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>

#include "framework/assertion.h"

namespace
{
constexpr std::array<UInt8, 130> MakeCaseInsensitiveMask()
{
    std::array<UInt8, 130> aMask{};
    for (size_t i = 0; i < aMask.size(); i++) {
        aMask[i] = static_cast<UInt8>(i >= 'A' && i <= 'Z' ? i - 'A' + 'a' : i);
    }
    return aMask;
}

constexpr std::array<UInt8, 256> MakeNonPrintChars()
{
    std::array<UInt8, 256> aMarks{};
    for (size_t i = 1; i < aMarks.size(); i++) {
        aMarks[i] = (i < 32 && i != '\n' && i != '\r') || i >= 178;
    }
    return aMarks;
}

UInt8 FoldCase(char i_s8Char)
{
    UInt8 u8Char = static_cast<UInt8>(i_s8Char);
    return u8Char < CPLString::s_aCaseInsensitiveMask.size()
               ? CPLString::s_aCaseInsensitiveMask[u8Char]
               : u8Char;
}

Bool IsWhitespace(char i_s8Char)
{
    return i_s8Char == ' ' || i_s8Char == '\t';
}

void PrintIfGiven(const char *i_pText)
{
    if (i_pText != nullptr) {
        fputs(i_pText, stdout);
    }
}
} // namespace

constexpr std::array<UInt8, 130> CPLString::s_aCaseInsensitiveMask = MakeCaseInsensitiveMask();
constexpr std::array<UInt8, 256> CPLString::s_aNonPrintChars = MakeNonPrintChars();

CPLString::CPLString(char *i_pPtr)
    : m_pPtr(i_pPtr), m_u32Len(i_pPtr != nullptr ? static_cast<UInt32>(strlen(i_pPtr)) : 0)
{
}

char *CPLString::GetAsCString() const
{
    size_t u64Len = m_u32Len;
    char *pCopy = new char[u64Len + 1]();
    if (m_pPtr != nullptr) {
        memcpy(pCopy, m_pPtr, u64Len);
    }
    return pCopy;
}

Bool CPLString::Equal(const char *i_pCompare) const
{
    return Equal(CPLString(const_cast<char *>(i_pCompare)));
}

Bool CPLString::EqualIgnoreCase(const char *i_pCompare, UInt32 i_u32Len) const
{
    assert(i_pCompare != NULL);
    return i_u32Len == m_u32Len && NumEqualIgnoreCase(i_pCompare, i_u32Len);
}

Bool CPLString::NumEqualIgnoreCase(const char *i_pCompare, UInt32 i_u32Len) const
{
    assert(i_pCompare != NULL);
    if (i_u32Len > m_u32Len || (m_pPtr == nullptr && i_u32Len > 0)) {
        return false;
    }
    for (UInt32 i = 0; i < i_u32Len; i++) {
        if (FoldCase(m_pPtr[i]) != FoldCase(i_pCompare[i])) {
            return false;
        }
    }
    return true;
}

char *CPLString::FindStringCase(const char *i_pQueryCharStr, CPLString *o_pMatch,
                                Bool i_bCaseSensitive) const
{
    if (o_pMatch != nullptr) {
        o_pMatch->Set(nullptr, 0);
    }
    assert(NULL != i_pQueryCharStr);
    if (m_pPtr == nullptr || m_u32Len == 0) {
        return nullptr;
    }
    UInt32 u32QueryLen = static_cast<UInt32>(strlen(i_pQueryCharStr));
    const char *pText = m_pPtr;
    std::unique_ptr<char[]> pTextCopy, pQueryCopy;
    if (!i_bCaseSensitive || m_pPtr[m_u32Len - 1] != '\0') {
        pTextCopy.reset(GetAsCString());
        pText = pTextCopy.get();
    }
    if (!i_bCaseSensitive) {
        CPLString objQuery(const_cast<char *>(i_pQueryCharStr), u32QueryLen);
        pQueryCopy.reset(objQuery.GetAsCString());
        i_pQueryCharStr = CPLString(pQueryCopy.get(), u32QueryLen).ToUpper();
        CPLString(pTextCopy.get(), m_u32Len).ToUpper();
    }
    const char *pFound = strstr(pText, i_pQueryCharStr);
    if (pFound == nullptr || pFound - pText > static_cast<ptrdiff_t>(m_u32Len)) {
        return nullptr;
    }
    char *pHit = m_pPtr + (pFound - pText);
    if (o_pMatch != nullptr) {
        o_pMatch->Set(pHit, u32QueryLen);
    }
    return pHit;
}

UInt32 CPLString::RemoveWhitespace()
{
    if (m_pPtr == nullptr) {
        return m_u32Len = 0;
    }
    UInt32 u32Kept = 0;
    for (UInt32 i = 0; i < m_u32Len; i++) {
        if (!IsWhitespace(m_pPtr[i])) {
            m_pPtr[u32Kept++] = m_pPtr[i];
        }
    }
    return m_u32Len = u32Kept;
}

UInt32 CPLString::TrimLeadingWhitespace()
{
    while (m_pPtr != nullptr && m_u32Len > 0 && IsWhitespace(m_pPtr[0])) {
        m_pPtr++;
        m_u32Len--;
    }
    return m_u32Len;
}

UInt32 CPLString::TrimTrailingWhitespace()
{
    while (m_pPtr != nullptr && m_u32Len > 0 && IsWhitespace(m_pPtr[m_u32Len - 1])) {
        m_u32Len--;
    }
    return m_u32Len;
}

char *CPLString::ToUpper()
{
    for (UInt32 i = 0; m_pPtr != nullptr && i < m_u32Len; i++) {
        m_pPtr[i] = static_cast<char>(toupper(static_cast<UInt8>(m_pPtr[i])));
    }
    return m_pPtr;
}

UInt32 CPLString::PrintableLen() const
{
    UInt32 u32Len = 0;
    while (m_pPtr != nullptr && u32Len < m_u32Len &&
           s_aNonPrintChars[static_cast<UInt8>(m_pPtr[u32Len])] == 0) {
        u32Len++;
    }
    return u32Len;
}

void CPLString::PrintStr() const
{
    if (m_pPtr != nullptr) {
        fwrite(m_pPtr, 1, PrintableLen(), stdout);
    }
}

void CPLString::PrintStr(const char *i_pSuffix) const
{
    PrintStr(nullptr, i_pSuffix);
}

void CPLString::PrintStr(const char *i_pPrefix, const char *i_pSuffix) const
{
    PrintIfGiven(i_pPrefix);
    PrintStr();
    PrintIfGiven(i_pSuffix);
}

void CPLString::PrintStrEOL(const char *i_pStopStr, const char *i_pSuffix) const
{
    std::unique_ptr<char[]> pCopy(GetAsCString());
    pCopy[PrintableLen()] = '\0';
    /* Kept: tests one byte ahead only, so of a pair of percent signs the second is replaced; a
     * reader of the log tells the pair from a lone sign by that. */
    for (char *pChar = pCopy.get(); *pChar != '\0'; pChar++) {
        if (pChar[0] == '%' && pChar[1] != '%') {
            *pChar = '$';
        }
    }
    if (i_pStopStr != nullptr && i_pStopStr[0] != '\0') {
        char *pStop = strstr(pCopy.get(), i_pStopStr);
        if (pStop != nullptr) {
            pStop[strlen(i_pStopStr)] = '\0';
        }
    }
    for (const char *pChar = pCopy.get(); *pChar != '\0'; pChar++) {
        if (*pChar == '\r') {
            fputs("\\r", stdout);
        } else if (*pChar == '\n') {
            fputs("\\n\n", stdout);
        } else {
            putchar(*pChar);
        }
    }
    PrintIfGiven(i_pSuffix);
}
