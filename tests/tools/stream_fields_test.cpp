#include <gtest/gtest.h>

#include "tools/stream_command.h"
#include "tools/stream_fields.h"

namespace
{
TEST(StreamFieldsTest, ValuesAreReadAsPeopleWriteThem)
{
    struct CASE_S {
        std::size_t u64Field;
        const char *pText;
        std::optional<CFieldValue> objValue;
        const char *pShown;
    };
    const CASE_S stCases[] = {
        {0, "on", true, "on"},
        {4, "FALSE", false, "off"},
        {0, "2", std::nullopt, ""},
        {1, "30", 30, "30"},
        {1, "1", 1, "1"}, /* out of range, but a number: the daemon's to refuse */
        {1, "30x", std::nullopt, ""},
        {1, "-1", std::nullopt, ""}, /* "not given" on the wire */
        {1, "4294967295", std::nullopt, ""},
        {2, "CBR", "cbr", "cbr"},
        {2, "abr", std::nullopt, ""},
        {3, "2M", 2000000, "2M"},
        {3, "2.5m", 2500000, "2.5M"},
        {3, "1.5005M", 1500500, "1500500"},
        {3, "2mbit/s", 2000000, "2M"},
        {3, "1.0000001M", std::nullopt, ""}, /* a tenth of a bit */
        {3, "2.5", std::nullopt, ""},
        {3, "2147483647", 2147483647, "2147483647"},
        {3, "2147483648", std::nullopt, ""},
        {3, "999999999999M", std::nullopt, ""},
        {3, "1.2.3M", std::nullopt, ""},
    };
    for (const CASE_S &stCase : stCases) {
        SCOPED_TRACE(stCase.pText);
        std::string strError;
        const auto objValue = ParseField(stCase.u64Field, stCase.pText, strError);
        EXPECT_EQ(objValue, stCase.objValue);
        EXPECT_EQ(strError.empty(), objValue.has_value());
        if (objValue) {
            EXPECT_EQ(FormatField(stCase.u64Field, *objValue), stCase.pShown);
        }
    }
    EXPECT_EQ(FormatField(2, "v\x1b[2J\n"), "v?[2J?");
}

TEST(StreamCommandTest, ARequestHasTheseBytes)
{
    CFieldAsks objAsks = {};
    objAsks[0] = objAsks[1] = true;
    CFieldValues objSets;
    objSets[2] = "cbr";
    objSets[3] = 2000000;
    objSets[4] = false;
    const std::string strExpected("\x04\0\0\0\x3C\0\0\0"
                                  "\x01\0\x01\0\x04\0\0\0\x01\0\0\0"
                                  "\x01\0\x02\0\x04\0\0\0\x01\0\0\0"
                                  "\x02\0\x03\0\x04\0\0\0cbr\0"
                                  "\x02\0\x04\0\x04\0\0\0\x80\x84\x1E\0"
                                  "\x02\0\x05\0\x04\0\0\0\0\0\0\0",
                                  68);
    EXPECT_EQ(EncodeStreamCommand(objAsks, objSets), strExpected);
}

TEST(StreamCommandTest, AReplyIsTakenOrNotButNeverGuessed)
{
    const std::string strGood("\x04\0\0\0\x25\0\0\0"
                              "\x01\0\x01\0\x05\0\0\0true\0"
                              "\x01\0\x03\0\x04\0\0\0vbr\0"
                              "\x01\0\x02\0\x04\0\0\0\x3C\0\0\0",
                              45);
    const auto objReply = DecodeStreamReply(strGood);
    ASSERT_TRUE(objReply);
    CFieldValues objExpected;
    objExpected[0] = true;
    objExpected[1] = 60;
    objExpected[2] = "vbr";
    EXPECT_EQ(*objReply, objExpected);

    EXPECT_FALSE(DecodeStreamReply(""));
    EXPECT_FALSE(DecodeStreamReply(std::string("\x05\0\0\0\0\0\0\0", 8)));
    EXPECT_FALSE(DecodeStreamReply(std::string("\x04\0\0\0\0\0\0\0", 8)));
    EXPECT_FALSE(DecodeStreamReply(strGood.substr(0, 44)));
    std::string strFlag = strGood;
    strFlag[16] = 'T';
    EXPECT_FALSE(DecodeStreamReply(strFlag)) << "a flag that is neither true nor false";
    std::string strShort = strGood;
    strShort[4] = 0x24;
    strShort[37] = 3;
    EXPECT_FALSE(DecodeStreamReply(strShort.substr(0, 44))) << "a number of three bytes";
}
} // namespace
