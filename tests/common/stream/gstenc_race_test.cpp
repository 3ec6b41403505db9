/*
 * Many rounds: nothing is left behind, and a stop ends a start whenever it comes.
 */
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include <malloc.h>
#include <unistd.h>

#include "common/stream/gstenc.h"
#include "tests/common/stream/gst_start.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MV3300_SANITIZED 1
#else
#define MV3300_SANITIZED 0
#endif

namespace
{
constexpr int kRounds = MV3300_SANITIZED ? 1000 : 10000;
constexpr int kRaces = MV3300_SANITIZED ? 500 : 4000;

struct FOOTPRINT_S {
    long s64Descriptors;
    long s64Threads;
    long s64HeapBytes;
    long s64ResidentBytes;
};

FOOTPRINT_S Footprint()
{
    malloc_trim(0);
    long s64Total = 0;
    long s64Resident = 0;
    std::ifstream("/proc/self/statm") >> s64Total >> s64Resident;
    return {EntriesIn("/proc/self/fd"), EntriesIn("/proc/self/task"),
            static_cast<long>(mallinfo2().uordblks), s64Resident * sysconf(_SC_PAGESIZE)};
}

class GstEncRaceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        moved_time::DivideSleeps(1000);
        /* The cast of an end of stream is refused by GLib, which would print it every time. */
        g_log_set_default_handler([](const gchar *, GLogLevelFlags, const gchar *, gpointer) {},
                                  nullptr);
    }

    void NewWorker()
    {
        m_pWorker.reset();
        m_pWorker = std::make_unique<CGstEnc>("gst-h264");
        m_pWorker->Start();
    }

    void SendStart(const char *i_pText)
    {
        MSG_DESC_INFO_S stMsg = StartMsg(i_pText);
        ASSERT_EQ(m_pWorker->PushMsg(&stMsg), 1);
    }

    /* False if the worker has not taken the start after half a minute: the run before hangs. */
    bool WaitUntilTaken()
    {
        return WaitUntil([this] { return m_pWorker->GetStartStatus() == 1; },
                         std::chrono::seconds(30), std::chrono::microseconds(1));
    }

    /* With the worker idle and the threads of past pipelines gone. */
    FOOTPRINT_S SettledFootprint()
    {
        SendStart(kUnknown);
        EXPECT_TRUE(WaitUntilTaken());
        m_pWorker->HandleStopMsgEnc(nullptr, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return Footprint();
    }

    std::unique_ptr<CGstEnc> m_pWorker;
};

TEST_F(GstEncRaceTest, RoundsLeaveNothingBehind)
{
    if (MV3300_SANITIZED) {
        printf("sanitizer build: only %d rounds, and memory is not compared\n", kRounds);
    }
    struct {
        const char *pText;
        const char *pLine;
    } const stRounds[] = {{kEndless, "Let's run"},
                          {kUnknown, "pipeline could not be constructed"},
                          {kFailing, "Received error"},
                          {kDry, "got dry"}};
    CLogCapture objLog;
    NewWorker();
    FOOTPRINT_S stBefore = {};
    for (int i = -kRounds / 10; i < kRounds; i++) {
        if (i == 0) {
            stBefore = SettledFootprint();
        }
        const auto &stRound = stRounds[static_cast<unsigned>(i) % 4];
        objLog.Clear();
        SendStart(stRound.pText);
        ASSERT_TRUE(objLog.WaitFor(stRound.pLine)) << "round " << i;
        m_pWorker->HandleStopMsgEnc(nullptr, nullptr);
    }
    objLog.Clear();
    FOOTPRINT_S stAfter = SettledFootprint();
    for (const FOOTPRINT_S &stAt : {stBefore, stAfter}) {
        printf("%ld descriptors, %ld threads, heap %ld, resident %ld\n", stAt.s64Descriptors,
               stAt.s64Threads, stAt.s64HeapBytes, stAt.s64ResidentBytes);
    }
    EXPECT_LE(stAfter.s64Descriptors, stBefore.s64Descriptors);
    /* GLib's pools keep a few idle threads of changing number. */
    EXPECT_LE(stAfter.s64Threads, stBefore.s64Threads + 4);
    if (!MV3300_SANITIZED) {
        /* Less than 30 bytes a round. */
        EXPECT_LT(stAfter.s64HeapBytes, stBefore.s64HeapBytes + 300000);
        EXPECT_LT(stAfter.s64ResidentBytes, stBefore.s64ResidentBytes + 4000000);
    }
}

TEST_F(GstEncRaceTest, AStopAtAnyMomentEndsTheStart)
{
    unsigned u32Seed = std::random_device{}();
    if (const char *pSeed = getenv("MV3300_SEED")) {
        u32Seed = static_cast<unsigned>(strtoul(pSeed, nullptr, 0));
    }
    printf("seed %u (MV3300_SEED repeats it)\n", u32Seed);
    std::mt19937 objRandom(u32Seed);
    /* Delays whoever logs at random, so that the two sides meet at other points every time. */
    CLogCapture objLog([objJitter = std::mt19937(u32Seed)]() mutable {
        for (unsigned u32Turns = objJitter() % 64; u32Turns > 0; u32Turns--) {
            std::this_thread::yield();
        }
    });
    const char *const pTexts[] = {kEndless, kEndless, kEndless, kFailing, kDry, kUnknown};
    NewWorker();
    const auto objEnd = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int i = 0;
    for (; i < kRaces && std::chrono::steady_clock::now() < objEnd; i++) {
        objLog.Clear();
        SendStart(pTexts[objRandom() % std::size(pTexts)]);
        /* Most of the steps of a start lie in its first moments. */
        std::chrono::microseconds objMoment(objRandom() % 2 == 0 ? 0 : objRandom() % 2001);
        if (objRandom() % 100 == 0) {
            /* Destroyed at any moment, also before the start is taken. */
            std::this_thread::sleep_for(objMoment);
            NewWorker();
            continue;
        }
        /* A start that was not taken yet is none of the stop's business, hence the wait; the next
         * round's wait then proves that this round's run has ended. */
        ASSERT_TRUE(WaitUntilTaken()) << "seed " << u32Seed << ", round " << i;
        auto objUntil = std::chrono::steady_clock::now() + objMoment;
        while (std::chrono::steady_clock::now() < objUntil) {
        }
        m_pWorker->HandleStopMsgEnc(nullptr, nullptr);
    }
    printf("%d of %d races\n", i, kRaces); /* a busy machine does fewer */
    m_pWorker.reset();
}
} // namespace
