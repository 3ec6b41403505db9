/*
 * Watchdog parent.
 */
#include "framework/watchdog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "framework/assertion.h"
#include "framework/types.h"

namespace
{
bool IsCrash(int i_s32Signal)
{
    return i_s32Signal == SIGABRT || i_s32Signal == SIGBUS || i_s32Signal == SIGFPE ||
           i_s32Signal == SIGSEGV;
}

/* Waits until the child is to be started again; ends the process where it is not. */
void WaitForChild(pid_t i_s32Child)
{
    int s32Status = 0;
    while (s32Status == 0) {
        pid_t s32PID = wait(&s32Status);
        /* Any other failure would come back at once, for ever. */
        const bool bInterrupted = s32PID == -1 && s32Status == 0 && errno == EINTR;
        /* Read as signed: 255 is -1. NOLINTNEXTLINE(bugprone-signed-char-misuse) */
        const int s32ExitCode = static_cast<SInt8>(s32Status >> 8);
        const int s32Signal = s32Status & 0x7F;
        printf("Child Process %d wait exited with s32PID=%d s32Status=%d exit s32Status=%d\n",
               i_s32Child, s32PID, s32Status, s32ExitCode);
        if (s32Signal == 0 && s32PID > 0 && s32Status != 0) {
            printf("child exited with s32Status=%d\n", s32ExitCode);
            if (s32ExitCode == -1) {
                fprintf(stderr, "child exited with -1 fatal error so parent is exiting too.\n");
                exit(1);
            }
        } else if (IsCrash(s32Signal)) {
            printf("child was signalled, %d.\n", s32Signal);
        } else if (bInterrupted) {
            printf("handled signal continue waiting");
        } else if (s32PID > 0 && s32Status == 0) {
            printf("child exited cleanly so parent is exiting");
            exit(0);
        } else {
            exit(1);
        }
        /* The next child would print what is still buffered here once more. */
        fflush(stdout);
    }
}
} // namespace

int CreateWatchdog(const char *)
{
    /* An ignored SIGCHLD is inherited over exec and would keep the child's end from wait(2). */
    signal(SIGCHLD, SIG_DFL);
    for (;;) {
        pid_t processID = fork();
        assert(processID >= 0);
        if (processID == 0) {
            return 0;
        }
        WaitForChild(processID);
        sleep(1);
    }
}
