#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include <sys/stat.h>

#include "common/box/param_table.h"
#include "tests/support/temp_dir.h"

namespace
{
std::string Param(const std::string &i_strName, const std::string &i_strText)
{
    return "<PARAM NAME=\"" + i_strName + "\" TYPE=\"string\">" + i_strText + "</PARAM>";
}

std::string InChannel1(const std::string &i_strParams)
{
    return "<CONFIGURATION><CHANNEL_1>" + i_strParams + "</CHANNEL_1></CONFIGURATION>";
}

class ParamTest : public testing::Test
{
protected:
    ParamTest() : m_strPath(m_objDir.Path("param.xml")) {}

    void SetUp() override
    {
        /* No rule may lean on what an earlier load left behind. */
        for (const PARAM_S &stRow : g_aParams) {
            memset(stRow.buffer, 'x', stRow.capacity - 1);
        }
    }

    /* Loads the text as the daemon does at its start. */
    void Load(const std::string &i_strText, Bool i_bWriteBack = false)
    {
        WriteFile(m_strPath, i_strText);
        RQ_XMLParser objParser(m_strPath.c_str());
        EXPECT_EQ(objParser.Parse(), 0U);
        ReadTheXML(objParser, i_bWriteBack);
    }

    static void ExpectDefaults()
    {
        for (const PARAM_S &stRow : g_aParams) {
            EXPECT_STREQ(stRow.buffer, stRow.default_value) << stRow.name;
        }
    }

    CTempDir m_objDir;
    std::string m_strPath;
};

TEST_F(ParamTest, NothingUsableInTheFileYieldsTheDefaultsAndLeavesTheFile)
{
    const std::string strTexts[] = {
        "",
        "<CONFIGURATION><CHANNEL_1>" + Param("h264_stream_gop", "30"),
        "<OTHER><CHANNEL_1>" + Param("h264_stream_gop", "30") + "</CHANNEL_1></OTHER>",
        "<CONFIGURATION><CHANNEL_2>" + Param("h264_stream_gop", "30") +
            "</CHANNEL_2></CONFIGURATION>",
        std::string(150000, '<'),
    };
    for (const std::string &strText : strTexts) {
        SetUp();
        Load(strText);
        ExpectDefaults();
        EXPECT_EQ(ReadFile(m_strPath), strText);
    }
    EXPECT_STREQ(g_szH264Bitrate, "1000000");
    EXPECT_STREQ(g_szch_select + 512, "");

    WriteFile(m_strPath, strTexts[1]);
    RQ_XMLParser objParser(m_strPath.c_str());
    EXPECT_EQ(objParser.Parse(), 0U);
    objParser.UpdateFile();
    EXPECT_EQ(ReadFile(m_strPath), "<CONFIGURATION/>\n") << "unless it is saved";
}

TEST_F(ParamTest, MissingFileIsCreatedEmpty)
{
    umask(0);
    RQ_XMLParser objParser(m_strPath.c_str());
    EXPECT_EQ(objParser.Parse(), 0U);
    EXPECT_STRNE(objParser.LoadError(), "");
    ReadTheXML(objParser, false);
    ExpectDefaults();
    struct stat stStat = {};
    ASSERT_EQ(stat(m_strPath.c_str(), &stStat), 0);
    EXPECT_EQ(stStat.st_mode & 07777, 0770U);
    EXPECT_EQ(stStat.st_size, 0);

    RQ_XMLParser objNowhere(m_objDir.Path("no/such/param.xml").c_str());
    EXPECT_EQ(objNowhere.Parse(), 0U);
    EXPECT_NE(std::string(objNowhere.LoadError()).find("FILE_NOT_FOUND"), std::string::npos);
}

TEST_F(ParamTest, LookupFollowsTheDocumentsOrder)
{
    const std::string strPort = "media_cast_port";
    const struct {
        const char *pRule;
        std::string strText;
        const char *pPort;
    } stCases[] = {
        {"longest", InChannel1(Param(strPort, "1234567")), "1234567"},
        {"one too long", InChannel1(Param(strPort, "12345678")), "59202"},
        {"no text", InChannel1(Param(strPort, "")), "59202"},
        {"text after a comment", InChannel1(Param(strPort, "<!-- c -->7")), "7"},
        {"entities and blanks", InChannel1(Param(strPort, " &lt;&amp; ")), " <& "},
        {"first of two", InChannel1(Param(strPort, "1") + Param(strPort, "2")), "1"},
        {"sibling of any name", InChannel1("<PARAM/><X NAME=\"media_cast_port\">3</X>"), "3"},
        {"sibling ahead of the first PARAM",
         InChannel1("<X NAME=\"media_cast_port\">3</X><PARAM/>"), "59202"},
        {"only the first section",
         "<CONFIGURATION><CHANNEL_1/><CHANNEL_1>" + Param(strPort, "4") +
             "</CHANNEL_1></CONFIGURATION>",
         "59202"},
    };
    for (const auto &stCase : stCases) {
        SetUp();
        Load(stCase.strText);
        EXPECT_STREQ(g_szMediaCastPort, stCase.pPort) << stCase.pRule;
    }
}

TEST_F(ParamTest, LookupEmptiesWhatDoesNotFitAndLeavesWhatIsNotThere)
{
    WriteFile(m_strPath, InChannel1(Param("a", "1234") + Param("b", "")));
    RQ_XMLParser objParser(m_strPath.c_str());
    ASSERT_EQ(objParser.Load(), 0U);
    const struct {
        const char *pSection, *pName;
        UInt32 u32Capacity, u32Found;
        const char *pOut;
    } stCases[] = {
        {"CHANNEL_1", "c", 4, 0, "xxxxx"}, {"CHANNEL_2", "a", 4, 0, "xxxxx"},
        {"CHANNEL_1", "a", 4, 0, ""},      {"CHANNEL_1", "b", 4, 0, ""},
        {"CHANNEL_1", "a", 5, 1, "1234"},
    };
    for (const auto &stCase : stCases) {
        char szValue[6] = "xxxxx";
        EXPECT_EQ(
            objParser.GetXMLParamVal(stCase.pSection, stCase.pName, szValue, stCase.u32Capacity),
            stCase.u32Found);
        EXPECT_STREQ(szValue, stCase.pOut);
    }
}

TEST_F(ParamTest, ATextBecomesAValueOfItsKindOrTheDefault)
{
    using enum PARAM_NOTE;
    struct CASE_S {
        PARAM_ROW eRow;
        std::string strText, strValue;
        PARAM_NOTE eNote;
    };
    std::vector<CASE_S> stCases = {
        {PARAM_H264_GOP, "fast", "60", NOT_IN_RANGE},
        {PARAM_H264_GOP, "", "60", NOT_IN_RANGE},
        {PARAM_H264_GOP, "4294967326", "60", NOT_IN_RANGE},
        {PARAM_H264_GOP, std::string(64, '1'), "60", TOO_LONG},
        {PARAM_PREV_HEIGHT, " 480 ", "480", AS_GIVEN},
        {PARAM_PREV_HEIGHT, "480p", "480", TAIL_IGNORED},
        {PARAM_H264_MODE, "CBR", "cbr", AS_GIVEN},
        {PARAM_H264_MODE, "cbr2", "vbr", UNKNOWN_WORD},
        {PARAM_H264_ENABLE, "TRUE", "true", AS_GIVEN},
        {PARAM_H264_ENABLE, "", "true", AS_GIVEN},
        {PARAM_H264_ENABLE, "False", "false", AS_GIVEN},
        {PARAM_PREV_ENABLE, "1", "false", COUNTS_AS_OFF},
        {PARAM_SRC_DEVICE_ID, "12345678901", "", TOO_SHORT},
        {PARAM_SRC_DEVICE_ID, "", "", AS_GIVEN},
        {PARAM_SRC_DEVICE_ID, "123456789012", "123456789012", AS_GIVEN},
        {PARAM_ADDR_URL, std::string(1023, 'u'), std::string(511, 'u'), CUT},
    };
    const struct {
        PARAM_ROW eRow;
        int s32Least, s32Most;
        const char *pDefault;
    } stRanges[] = {{PARAM_H264_GOP, 1, 65535, "60"},
                    {PARAM_H264_BITRATE, 100000, 10000000, "1000000"},
                    {PARAM_PREV_HEIGHT, 270, 1080, "720"},
                    {PARAM_PREV_REFRESHRATE, 1, 10, "1"}};
    for (const auto &[eRow, s32Least, s32Most, pDefault] : stRanges) {
        for (int s32Value : {s32Least, s32Most}) {
            stCases.push_back({eRow, std::to_string(s32Value), std::to_string(s32Value), AS_GIVEN});
        }
        for (int s32Value : {s32Least - 1, s32Most + 1}) {
            stCases.push_back({eRow, std::to_string(s32Value), pDefault, NOT_IN_RANGE});
        }
        EXPECT_EQ(EvaluateParam(g_aParams[eRow], nullptr).strText, pDefault);
    }
    for (const auto &[eRow, strText, strValue, eNote] : stCases) {
        const PARAM_VALUE_S stValue = EvaluateParam(g_aParams[eRow], strText.c_str());
        EXPECT_EQ(stValue.strText, strValue) << g_aParams[eRow].name << strText;
        EXPECT_EQ(stValue.eNote, eNote) << g_aParams[eRow].name << strText;
        const bool bNumber = g_aParams[eRow].kind == PARAM_KIND::NUMBER;
        EXPECT_EQ(stValue.s32Number, bNumber ? std::stoi(strValue) : strValue == "true");
    }
}

/* The loader walks the section once and looks each name up; the reload asks for one row. */
TEST_F(ParamTest, EveryRowGetsItsOwnText)
{
    std::string strParams;
    for (int i = 36; i >= 0; i--) {
        strParams += Param("unknown" + std::to_string(i), "x") +
                     Param(g_aParams[i].name, "v" + std::to_string(i));
    }
    Load(InChannel1(strParams));
    for (int i = 0; i < 37; i++) {
        EXPECT_EQ(g_aParams[i].buffer, "v" + std::to_string(i));
    }
    SetUp();
    RQ_XMLParser objParser(m_strPath.c_str());
    ASSERT_EQ(objParser.Load(), 0U);
    EXPECT_EQ(ReadTheParamFromXML(objParser, "channel_1", "stream_mode"), 37);
    EXPECT_EQ(ReadTheParamFromXML(objParser, "CHANNEL_1", "media_cast_type"), 37);
    EXPECT_EQ(*g_szStreamMode, 'x');
    EXPECT_STREQ(g_szMediaCastType, "v28");
}

TEST_F(ParamTest, WriteBackAppendsWhatIsMissingInTableOrder)
{
    Load(InChannel1(Param("media_cast_port", "123456789") + Param("h264_stream_gop", "30") +
                    "<PARAM NAME=\"mine\" TYPE=\"int\">1</PARAM>" +
                    "<PARAM NAME=\"stream_mode\" TYPE=\"int\"/>"),
         true);
    std::string strExpected = "<CONFIGURATION>\n    <CHANNEL_1>\n";
    auto Expect = [&](const std::string &strParam) { strExpected += "        " + strParam + "\n"; };
    Expect(Param("media_cast_port", "59202"));
    Expect(Param("h264_stream_gop", "30"));
    Expect("<PARAM NAME=\"mine\" TYPE=\"int\">1</PARAM>");
    Expect(Param("stream_mode", "auto"));
    for (const PARAM_S &stRow : g_aParams) {
        if (strExpected.find("\"" + std::string(stRow.name) + "\"") == std::string::npos) {
            Expect(Param(stRow.name, stRow.default_value));
        }
    }
    const std::string strSaved = ReadFile(m_strPath);
    EXPECT_EQ(strSaved, strExpected + "    </CHANNEL_1>\n</CONFIGURATION>\n");
    Load(strSaved, true);
    EXPECT_EQ(ReadFile(m_strPath), strSaved);
}

TEST_F(ParamTest, EditsAreSavedOnlyByUpdateFile)
{
    const std::string strBefore = InChannel1(Param("a", "1") + Param("a", "2"));
    WriteFile(m_strPath, strBefore);
    RQ_XMLParser objParser(m_strPath.c_str());
    ASSERT_EQ(objParser.Parse(), 0U);
    EXPECT_EQ(objParser.SetXMLParamVal("CHANNEL_1", "a", "int", "<3>"), 1);
    EXPECT_EQ(objParser.SetXMLParamVal("CHANNEL_2", "c", "string", "5"), 1);
    EXPECT_EQ(objParser.DelXMLParam("CHANNEL_3", "a"), 0);
    EXPECT_EQ(objParser.DelXMLParam("CHANNEL_1", "none"), 1);
    EXPECT_EQ(ReadFile(m_strPath), strBefore);
    objParser.UpdateFile();
    EXPECT_EQ(ReadFile(m_strPath), "<CONFIGURATION>\n"
                                   "    <CHANNEL_1>\n"
                                   "        <PARAM NAME=\"a\" TYPE=\"int\">&lt;3&gt;</PARAM>\n"
                                   "        <PARAM NAME=\"a\" TYPE=\"string\">2</PARAM>\n"
                                   "    </CHANNEL_1>\n"
                                   "    <CHANNEL_2>\n"
                                   "        <PARAM NAME=\"c\" TYPE=\"string\">5</PARAM>\n"
                                   "    </CHANNEL_2>\n"
                                   "</CONFIGURATION>\n");
    EXPECT_EQ(objParser.DelXMLParam("CHANNEL_1", "a"), 1);
    char szValue[8];
    EXPECT_EQ(objParser.GetXMLParamVal("CHANNEL_1", "a", szValue, 8), 1U);
    EXPECT_STREQ(szValue, "2") << "only the first one was deleted";
    EXPECT_EQ(objParser.Flush(), 0);
    EXPECT_EQ(objParser.DelXMLParam("CHANNEL_1", "a"), 0);
}

TEST_F(ParamTest, PassesComeOneAfterTheOther)
{
    WriteFile(m_strPath, InChannel1(Param("h264_stream_gop", "30")));
    const std::ptrdiff_t s64Descriptors = EntriesIn("/proc/self/fd");
    auto pFirst = std::make_unique<RQ_XMLParser>(m_strPath.c_str());
    auto pSecond = std::make_unique<RQ_XMLParser>(m_strPath.c_str());
    ASSERT_EQ(pFirst->Parse(), 0U);
    ASSERT_EQ(pFirst->Parse(), 0U) << "a second parse does not wait for its own lock";
    int s32Rounds = 0;
    EXPECT_EQ(pSecond->Parse([&] { return ++s32Rounds < 3; }), 4U) << "given up";
    EXPECT_EQ(s32Rounds, 3);
    EXPECT_EQ(pSecond->Parse([&] {
        pFirst->SetXMLParamVal("CHANNEL_1", "h264_stream_gop", "string", "25");
        pFirst->UpdateFile();
        pFirst.reset();
        return true;
    }),
              0U);
    ReadTheXML(*pSecond, false);
    EXPECT_STREQ(g_szH264Gop, "25") << "what the first pass saved";

    pSecond.reset();
    EXPECT_EQ(EntriesIn("/proc/self/fd"), s64Descriptors);
}

TEST_F(ParamTest, SampleFileHoldsEveryParameterAtItsDefault)
{
    const std::string strSample = ReadFile(MV3300_SOURCE_DIR "/packaging/param.xml");
    WriteFile(m_strPath, strSample);
    RQ_XMLParser objParser(m_strPath.c_str());
    EXPECT_EQ(objParser.Load(), 0U);
    EXPECT_STREQ(objParser.LoadError(), "");
    for (const PARAM_S &stRow : g_aParams) {
        EXPECT_NE(strSample.find(Param(stRow.name, stRow.default_value)), std::string::npos)
            << stRow.name;
    }
}
} // namespace
