#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/box/monitor.h"
#include "tests/support/fake_router.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace
{
namespace fs = std::filesystem;

constexpr char kDescriptors[] = "/proc/self/fd";

/* A monitor on a directory of the test's own, its thread and real files. */
class MonitorTest : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directory(m_objRoot / "image");
        fs::create_directory(m_objRoot / "made");
        m_pMonitor = std::make_unique<CMonitor>((m_objRoot / "image/").string(), m_objPicture);
        fake_router::OnMessage([this](const MSG_DESC_INFO_S &i_stMsg, void *) {
            return i_stMsg.dst == MODULE_MONITOR ? m_pMonitor->PushMsg(&i_stMsg) : 1;
        });
    }

    /* Starts the thread and returns when its loop runs: it has sent a report. */
    void Start()
    {
        m_pMonitor->Start();
        ASSERT_TRUE(m_objLog.WaitFor("INFO start loop of monitor --["));
        NextReport();
    }

    static std::vector<JPEG_FILE_STATUS_S> Reports()
    {
        std::vector<JPEG_FILE_STATUS_S> stReports;
        for (const MSG_DESC_INFO_S &stMsg : fake_router::Sent(MSG_ENC_JPEG_FILE_STATUS)) {
            stReports.push_back(PayloadOf<JPEG_FILE_STATUS_S>(stMsg));
        }
        return stReports;
    }

    /* Moves the time until one more report has come; its count. */
    static UInt32 NextReport()
    {
        std::size_t u64Before = Reports().size();
        for (int i = 0; i < 20; i++) {
            moved_time::Advance(3000);
            if (fake_router::WaitForSent(MSG_ENC_JPEG_FILE_STATUS, u64Before + 1,
                                         std::chrono::milliseconds(1500))) {
                return Reports().back().count;
            }
        }
        ADD_FAILURE() << "no report";
        return 0;
    }

    void MoveIn(const std::string &i_strName, const std::string &i_strContents)
    {
        std::ofstream(m_objRoot / "made" / "f") << i_strContents;
        fs::rename(m_objRoot / "made" / "f", m_objRoot / "image" / i_strName);
    }

    bool WaitForPicture(const std::string &i_strContents)
    {
        return WaitUntil([&] { return ReadFile(m_objPicture) == i_strContents; });
    }

    CLogCapture m_objLog;
    CTempDir m_objDir;
    const fs::path m_objRoot = m_objDir.Path("");
    const fs::path m_objPicture = m_objDir.Path("image.jpeg");
    std::unique_ptr<CMonitor> m_pMonitor;
};

TEST_F(MonitorTest, PublishesWhatIsMovedInAndReportsTheCount)
{
    Start();
    EXPECT_EQ(Reports().back().count, 0U);
    std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    MoveIn("1.jpeg", "one");
    EXPECT_TRUE(WaitForPicture("one"));
    EXPECT_TRUE(m_objLog.Has("DEBUG file name: 1.jpeg --["));
    EXPECT_GE(moved_time::SleptMicroseconds() - u64Slept, 20000U);

    /* Made in place, and moved out: no pictures. */
    std::ofstream(m_objRoot / "image" / "here") << "here";
    fs::rename(m_objRoot / "image" / "here", m_objRoot / "made" / "away");
    /* The loop sleeps over the first one, so that the rest queue up behind it. Names over the
     * path buffer count, too, but stay. */
    for (int i = 2; i <= 10; i++) {
        MoveIn(std::string(200, 'n') + std::to_string(i), "long");
        MoveIn(std::to_string(i), "picture " + std::to_string(i));
    }
    EXPECT_TRUE(WaitForPicture("picture 10"));
    EXPECT_EQ(NextReport(), 19U);
    EXPECT_FALSE(fs::exists(m_objPicture)); /* stale at the report */
    EXPECT_EQ(EntriesIn(m_objRoot / "image"), 9);
    EXPECT_EQ(m_objLog.Count("DEBUG file name too long: nnn"), 9);

    MSG_DESC_INFO_S stMsg = fake_router::Sent(MSG_ENC_JPEG_FILE_STATUS).back();
    MSG_DESC_INFO_S stExpected = {1, 12, 2, 0, 0x80A, {}, {}};
    memcpy(stExpected.payload, stMsg.payload, 8);
    stExpected.payload[8] = 19;
    EXPECT_EQ(memcmp(&stMsg, &stExpected, sizeof(stMsg)), 0);
}

TEST_F(MonitorTest, ReportsComeWhenMoreThanTwoSecondsHavePassed)
{
    Start();
    moved_time::DivideSleeps(20);
    std::size_t u64First = Reports().size();
    for (int i = 0; i < 60; i++) {
        moved_time::Advance(200);
        MoveIn("p", std::to_string(i)); /* wakes the loop */
        ASSERT_TRUE(WaitForPicture(std::to_string(i)));
    }
    const std::vector<JPEG_FILE_STATUS_S> stReports = Reports();
    ASSERT_GE(stReports.size(), u64First + 3);
    for (std::size_t i = u64First; i < stReports.size(); i++) {
        EXPECT_GE(stReports[i].time - stReports[i - 1].time, 3);
    }

    moved_time::Advance(-3600000);
    NextReport();
    EXPECT_LT(Reports().back().time, stReports.back().time);
}

TEST_F(MonitorTest, DirectoriesAndALostWatchDoNotStopTheReports)
{
    Start();
    fs::create_directory(m_objRoot / "made" / "dir");
    fs::rename(m_objRoot / "made" / "dir", m_objRoot / "image" / "dir");
    ASSERT_TRUE(m_objLog.WaitFor("file name: dir"));
    EXPECT_TRUE(WaitUntil([] { return NextReport() == 1; }));
    EXPECT_FALSE(fs::exists(m_objPicture));
    fs::create_symlink(m_objRoot / "nowhere", m_objPicture);
    NextReport();
    EXPECT_FALSE(fs::is_symlink(m_objPicture));
    MoveIn("p", "after");
    EXPECT_TRUE(WaitForPicture("after"));

    /* What cannot be deleted is logged, and the reports go on. */
    fs::remove(m_objPicture);
    fs::create_directories(m_objPicture / "full");
    EXPECT_EQ(NextReport(), 2U);
    EXPECT_TRUE(m_objLog.Has("DEBUG remove " + m_objPicture.string() +
                             " errno:" + std::to_string(ENOTEMPTY) + " --["));

    fs::remove_all(m_objRoot / "image");
    EXPECT_EQ(NextReport(), 2U);
    EXPECT_EQ(NextReport(), 2U);
    EXPECT_FALSE(m_objLog.Has("ERROR"));
}

TEST_F(MonitorTest, AReportIsMadeWhilePicturesKeepComing)
{
    Start();
    const std::size_t u64Before = Reports().size();
    for (int i = 0; i < 150; i++) { /* three seconds of the loop's pauses, in two reads */
        MoveIn(std::to_string(i), "picture");
    }
    moved_time::Advance(3000);
    ASSERT_TRUE(fake_router::WaitForSent(MSG_ENC_JPEG_FILE_STATUS, u64Before + 1));
    EXPECT_LT(Reports().back().count, 100U);
    moved_time::DivideSleeps(1000);
    EXPECT_TRUE(WaitUntil([] { return NextReport() == 150; }));
}

/* A reader of the published path gets a whole picture or none, whenever it reads. */
TEST_F(MonitorTest, EveryPictureReadIsWhole)
{
    Start();
    moved_time::DivideSleeps(1000);
    std::atomic<bool> bStop{false};
    std::thread objMaker([&] {
        for (int i = 0; !bStop; i++) {
            MoveIn(std::to_string(i % 26), std::string(20000, static_cast<char>('a' + i % 26)));
        }
    });
    int s32Read = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const std::string strPicture = ReadFile(m_objPicture);
        s32Read += !strPicture.empty();
        EXPECT_TRUE(strPicture.empty() || strPicture == std::string(20000, strPicture[0]));
        return s32Read > 200;
    }));
    bStop = true;
    objMaker.join();
}

TEST_F(MonitorTest, LeavesNoDescriptorAfterAStopOrAFailedWatch)
{
    const std::ptrdiff_t s64Before = EntriesIn(kDescriptors);
    Start();
    EXPECT_EQ(EntriesIn(kDescriptors), s64Before + 1);
    m_pMonitor->StopAndWaitForThread();
    EXPECT_TRUE(m_objLog.Has("INFO stop loop of monitor --["));
    EXPECT_EQ(EntriesIn(kDescriptors), s64Before);

    fs::remove_all(m_objRoot / "image");
    EXPECT_EQ(m_pMonitor->main_loop(), -1);
    EXPECT_EQ(m_objLog.Count("stop loop"), 1);
    EXPECT_EQ(EntriesIn(kDescriptors), s64Before);
}
} // namespace
