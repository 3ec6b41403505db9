/*
 * A stop of the process must be clean whatever the threads that never end are doing.
 */
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
int RunProbe(const char *i_pMode, int i_s32Milliseconds)
{
    std::string strMilliseconds = std::to_string(i_s32Milliseconds);
    pid_t s32Child = fork();
    if (s32Child == 0) {
        /* Nobody reads what the threads say about themselves. */
        if (freopen("/dev/null", "w", stdout) != nullptr) {
            execl(MV3300_EXIT_PROBE, "exit_probe", i_pMode, strMilliseconds.c_str(), nullptr);
        }
        _exit(127);
    }
    int s32Status = -1;
    return waitpid(s32Child, &s32Status, 0) == s32Child ? s32Status : -1;
}
} // namespace

class CExitTest : public testing::TestWithParam<const char *>
{
};

TEST_P(CExitTest, IsCleanWhileThreadsThatNeverEndAreBusy)
{
    for (int i = 0; i < 25; i++) {
        ASSERT_EQ(RunProbe(GetParam(), i % 5), 0) << "run " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Exit, CExitTest, testing::Values("stop", "leave"));
