/*
 * Counted strings: every view here ends where its bytes end, so that the address sanitizer sees
 * a read past it.
 */
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "framework/plstring.h"

namespace
{
/* A view of exactly these bytes, without a terminator. */
class CText
{
public:
    explicit CText(const std::string &i_strText)
        : m_pBytes(new char[i_strText.size()]), m_objString(m_pBytes.get(), i_strText.size())
    {
        i_strText.copy(m_pBytes.get(), i_strText.size());
    }
    CPLString *operator->() { return &m_objString; }

private:
    std::unique_ptr<char[]> m_pBytes;
    CPLString m_objString;
};
} // namespace

TEST(PLString, NullEqualsNullOnlyAndCaseIsIgnoredForLettersOnly)
{
    const char *const pNull = nullptr;
    CPLString objNull;
    EXPECT_TRUE(objNull.Equal(CPLString(static_cast<char *>(nullptr))));
    EXPECT_TRUE(objNull.Equal(pNull));
    EXPECT_FALSE(objNull.Equal(""));
    EXPECT_FALSE(CText("")->Equal(pNull));
    EXPECT_TRUE(CText("")->Equal(""));
    EXPECT_TRUE(CText("abc")->Equal("abc"));
    EXPECT_FALSE(CText("abc")->Equal("ab"));

    EXPECT_TRUE(CText("abc")->EqualIgnoreCase("ABC", 3));
    EXPECT_FALSE(CText("abc")->EqualIgnoreCase("ABC", 2));
    EXPECT_TRUE(CText("abc")->NumEqualIgnoreCase("AB", 2));
    EXPECT_FALSE(CText("ab")->NumEqualIgnoreCase("ABC", 3));
    EXPECT_FALSE(CText("@[`{")->EqualIgnoreCase("`{@[", 4));
    EXPECT_FALSE(CPLString(nullptr, 2).EqualIgnoreCase("AB", 2));
    EXPECT_DEATH(CPLString().NumEqualIgnoreCase(nullptr, 0), "`i_pCompare != NULL'");
}

TEST(PLString, FindsTextWithAndWithoutTerminator)
{
    const struct {
        std::string strText;
        const char *pQuery;
        bool bCaseSensitive;
        int s32Offset; /* -1: not found */
    } stCases[] = {
        {"one two", "two", true, 4},
        {"one two", "TWO", true, -1},
        {"one two", "TWO", false, 4},
        {std::string("one\0", 4), "one", true, 0},
        {std::string("a\0one\0", 6), "one", true, -1},
        {std::string("ONE\0", 4), "ne", false, 1},
        {"one", "", true, 0},
        {"", "", true, -1},
    };
    for (const auto &stCase : stCases) {
        SCOPED_TRACE(stCase.strText + " / " + stCase.pQuery);
        CText objText(stCase.strText);
        CPLString objMatch(objText->m_pPtr, 99);
        char *pHit = objText->FindStringCase(stCase.pQuery, &objMatch, stCase.bCaseSensitive);
        EXPECT_EQ(pHit, stCase.s32Offset < 0 ? nullptr : objText->m_pPtr + stCase.s32Offset);
        EXPECT_EQ(objMatch.m_pPtr, pHit);
        EXPECT_EQ(objMatch.m_u32Len, pHit != nullptr ? strlen(stCase.pQuery) : 0);
        EXPECT_EQ(std::string(objText->m_pPtr, objText->m_u32Len), stCase.strText);
    }
    EXPECT_DEATH(CPLString().FindStringCase(nullptr, nullptr, true), "`NULL != i_pQueryCharStr'");
}
