/*
 * Process start-up, signals and orderly shutdown.
 *
 * main makes the process the one running instance, starts the modules in a fixed order, sleeps
 * until a signal clears the run flag, and stops everything in a fixed order. Only the main thread
 * starts and stops; the signal handler clears the flag and prints.
 */
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "app/modules.h"
#include "app/stream_cmd.h"
#include "common/box/eventmonitor.h"
#include "common/bus/log.h"
#include "common/bus/log_config.h"
#include "common/stream/gstobj.h"
#include "framework/assertion.h"
#include "framework/ev.h"
#include "framework/idletask.h"
#include "framework/socket.h"
#include "framework/task.h"
#include "framework/thread.h"
#include "framework/timeouttask.h"
#include "framework/unique_fd.h"
#include "framework/watchdog.h"

namespace
{
constexpr char kPidFile[] = "/var/run/mv3300.pid";
constexpr char kLogConf[] = "/config/logconf/mvx3300.conf";
constexpr char kFallbackLog[] = "/var/run/mv3300.log";
constexpr char kPreviewDir[] = "/tmp/image";
constexpr unsigned int kThreadStackSize = 0x80000;
constexpr unsigned int kTaskThreads = 2;
constexpr long kTimeoutIntervalMs = 100;
constexpr char kControlAddress[] = "127.0.0.1";
constexpr UInt16 kControlPort = 8366;

/* Cleared by the signal handler on whatever thread it runs. */
std::atomic<bool> g_bRunFlag{true};
static_assert(std::atomic<bool>::is_always_lock_free);

void help(const char *i_pProgram)
{
    printf("%s [options]\n", i_pProgram);
    printf("    -h --help           show this help\n");
    printf("    -D --daemonize      Daemonize after startup\n");
    fflush(stdout);
}

int HandleInputParam(int argc, char **argv)
{
    static const struct option stOptions[] = {{"help", no_argument, nullptr, 'h'},
                                              {"daemonize", no_argument, nullptr, 'D'},
                                              {"force", no_argument, nullptr, 'f'},
                                              {nullptr, 0, nullptr, 0}};
    for (;;) {
        switch (getopt_long(argc, argv, "hDf", stOptions, nullptr)) {
        case -1:
            return 1;
        case 'h':
            help(argv[0]);
            break;
        case 'D':
            if (daemon(0, 0) != 0) {
                LOG_ERROR("daemon failed: %s", strerror(errno));
            }
            CreateWatchdog(argv[0]);
            break;
        case 'f':
            break;
        default:
            /* Kept: the daemon starts all the same, with the options read so far; a box with a
             * wrong option in its start script has to stream. */
            help(argv[0]);
            return 1;
        }
    }
}

/* write(2), not printf: only async-signal-safe calls are allowed here (signal-safety(7)). */
template <std::size_t Size> void PrintFromHandler(const char (&i_szText)[Size])
{
    [[maybe_unused]] ssize_t s64Written = write(STDOUT_FILENO, i_szText, Size - 1);
}

void HandleSig(int i_s32Sig)
{
    const int s32SavedErrno = errno;
    switch (i_s32Sig) {
    case SIGINT:
    case SIGTERM:
        g_bRunFlag.store(false, std::memory_order_relaxed);
        PrintFromHandler("\033[0;31mprogram will exit now!\033[0;39m");
        break;
    case SIGUSR1:
        /* Kept: never reached, since the handler is not installed for this signal; a version that
         * switches streams by it installs it. */
        PrintFromHandler("\033[0;31mstream will switch now!\033[0;39m");
        break;
    default:
        assert(FALSE);
    }
    errno = s32SavedErrno;
}

/* A descriptor that whoever started the daemon has closed would be given to one of its files, and
 * what is printed would end up there. */
void OpenStandardStreams()
{
    for (int s32Fd = STDIN_FILENO; s32Fd <= STDERR_FILENO; s32Fd++) {
        if (fcntl(s32Fd, F_GETFD) == -1) {
            open("/dev/null", O_RDWR);
        }
    }
}

/* Opens and locks the pid file; none when this process is not to start. */
UniqueFd LockPidFile()
{
    /* Kept: a second instance truncates the first one's file before it finds the lock taken, so an
     * empty file says that a second start was tried. */
    UniqueFd objFile(open(kPidFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0770));
    if (!objFile) {
        LOG_ERROR("open pid file failed: %s", strerror(errno));
    } else if (flock(objFile.Get(), LOCK_EX | LOCK_NB) != 0) {
        printf("process allready started");
        objFile.Reset();
    }
    return objFile;
}

void WritePid(int i_s32Fd, const char *i_pPid)
{
    const std::size_t u64Length = strlen(i_pPid);
    errno = 0;
    if (write(i_s32Fd, i_pPid, u64Length) != static_cast<ssize_t>(u64Length)) {
        LOG_ERROR("write pid file failed: %s", strerror(errno));
    }
}

void InitializeFramework()
{
    CThread::Initialize(kThreadStackSize);
    CTaskThreadPool::AddThreads(kTaskThreads);
    CTimeoutTask::Initialize(kTimeoutIntervalMs);
    select_startevents();
    CSocket::Initialize();
    CSocket::StartThread();
    CIdleTask::Initialize();
    CGstObj::Initialize();
}

void StartModules()
{
    RegisterModules();
    g_objConfig.Start();
    g_objTimer.Start();
    g_objCapture.Start();
    g_objEncoder.Start();
    g_objMonitor.Start();
}

void StopModules()
{
    /* A file lock that another process holds must not hold up the stop. */
    g_objConfig.AbandonLockWait();
    LOG_INFO("encoder stop run");
    g_objMonitor.StopAndWaitForThread();
    LOG_INFO("g_objMonitor stop run");
    g_objCapture.StopAndWaitForThread();
    LOG_INFO("g_objCapture stop run");
    g_objTimer.StopAndWaitForThread();
    LOG_INFO("g_objTimer stop run");
    g_objEncoder.StopAndWaitForThread();
    LOG_INFO("g_objEncoder stop run");
    g_objConfig.StopAndWaitForThread();
    LOG_INFO("g_objConfig stop run");
}
} // namespace

int main(int argc, char **argv)
{
    OpenStandardStreams();
    /* A service manager reads a pipe, and what is printed there is to be seen at once. */
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    LogUntilConfigured();
    HandleInputParam(argc, argv);
    LogUntilConfigured(); /* the streams may be others now */

    /* Stays open, and locked, until the process has ended. */
    const int s32PidFd = LockPidFile().Release();
    if (s32PidFd < 0) {
        return 1;
    }
    char szPid[16] = "";
    snprintf(szPid, sizeof(szPid), "%d", getpid());
    ConfigureLog(kLogConf, kFallbackLog);
    WritePid(s32PidFd, szPid);
    signal(SIGINT, HandleSig);
    signal(SIGTERM, HandleSig);
    mkdir(kPreviewDir, 0777);

    InitializeFramework();
    StartModules();
    /* Owned by the task pool, which deletes it when it answers the kill. */
    CTask *pControlTask = new CEventMonitorTask(EventCallBack, kControlAddress, kControlPort);
    pControlTask->Signal(CTask::kStartEvent);

    LOG_THREAD_INFO("main");
    while (g_bRunFlag.load(std::memory_order_relaxed)) {
        CThread::Sleep(1000);
    }

    StopModules();
    pControlTask->Signal(CTask::kKillEvent);
    CTaskThreadPool::RemoveThreads();
    CGstObj::Deinitialize();
    log4cpp::Category::shutdown();
    return 0;
}
