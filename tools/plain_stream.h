/*
 * A stream's buffer that passes text on to another stream, for a terminal, and puts "?" in the
 * place of control characters, which files and programs of others may hold and a terminal would
 * obey.
 *
 * Line feeds, tabs and carriage returns in front of a line feed stay; of UTF-8 the controls from
 * U+0080 to U+009F go, too. A text's last
 * byte is kept back where it may begin either. One thread.
 */
#pragma once

#include <ostream>
#include <streambuf>

class CPlainBuf : public std::streambuf
{
public:
    explicit CPlainBuf(std::ostream &o_objTarget) : m_objTarget(o_objTarget) {}

private:
    int_type overflow(int_type i_s32Char) override;
    std::streamsize xsputn(const char *i_pText, std::streamsize i_s64Length) override;
    int sync() override;

    std::ostream &m_objTarget;
    char m_cHeld = 0; /* what the next one decides about */
};
