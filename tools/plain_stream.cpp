/*
 * Passing text on.
 */
#include "tools/plain_stream.h"

#include <string>

namespace
{
constexpr char kLead = '\xC2'; /* in front of U+0080 to U+00BF */
} // namespace

std::streambuf::int_type CPlainBuf::overflow(int_type i_s32Char)
{
    if (traits_type::eq_int_type(i_s32Char, traits_type::eof())) {
        return traits_type::not_eof(i_s32Char);
    }
    const char cOne = traits_type::to_char_type(i_s32Char);
    return xsputn(&cOne, 1) == 1 ? i_s32Char : traits_type::eof();
}

std::streamsize CPlainBuf::xsputn(const char *i_pText, std::streamsize i_s64Length)
{
    std::string strPlain;
    for (std::streamsize i = 0; i < i_s64Length; i++) {
        const auto u8One = static_cast<unsigned char>(i_pText[i]);
        const char cHeld = m_cHeld;
        m_cHeld = 0;
        if (cHeld == kLead && u8One >= 0x80 && u8One < 0xA0) {
            strPlain += '?';
            continue;
        }
        if (cHeld != 0) {
            strPlain += cHeld == kLead || u8One == '\n' ? cHeld : '?';
        }
        if (u8One == '\r' || i_pText[i] == kLead) {
            m_cHeld = i_pText[i];
        } else {
            const bool bControl = (u8One < 0x20 && u8One != '\n' && u8One != '\t') || u8One == 0x7F;
            strPlain += bControl ? '?' : i_pText[i];
        }
    }
    m_objTarget.write(strPlain.data(), static_cast<std::streamsize>(strPlain.size()));
    return m_objTarget ? i_s64Length : 0;
}

int CPlainBuf::sync()
{
    return m_objTarget.flush() ? 0 : -1;
}
