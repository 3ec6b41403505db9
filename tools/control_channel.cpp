/*
 * The way to the daemon and back.
 */
#include "tools/control_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "framework/unique_fd.h"

namespace
{
using CClock = std::chrono::steady_clock;

/* The daemon's own limit on a datagram. */
constexpr std::size_t kMaxDatagram = 4096;
/* Another client holds the reply port for the time of its request, which the daemon may take 2.9 s
 * to answer; past this it is taken. */
constexpr std::chrono::milliseconds kPortPatience(3500);
constexpr std::chrono::milliseconds kPortRetry(20);

UniqueFd OpenSocket()
{
    return UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

sockaddr_in Loopback(UInt16 i_u16Port)
{
    sockaddr_in stAddress = {};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddress.sin_port = htons(i_u16Port);
    return stAddress;
}

/* 0 or errno. */
int Bind(int i_s32Fd, UInt16 i_u16Port, CClock::time_point i_objUntil)
{
    const sockaddr_in stAddress = Loopback(i_u16Port);
    while (bind(i_s32Fd, reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) != 0) {
        if (errno != EADDRINUSE || CClock::now() >= i_objUntil) {
            return errno;
        }
        std::this_thread::sleep_for(kPortRetry);
    }
    return 0;
}

/* 0 or errno; ECONNREFUSED when nobody listens there. Connected, so that the system tells that. */
int Send(int i_s32Fd, UInt16 i_u16Port, const std::string &i_strBytes)
{
    const sockaddr_in stAddress = Loopback(i_u16Port);
    if (connect(i_s32Fd, reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) != 0 ||
        send(i_s32Fd, i_strBytes.data(), i_strBytes.size(), 0) < 0) {
        return errno;
    }
    return 0;
}

int PendingError(int i_s32Fd)
{
    int s32Error = 0;
    socklen_t u32Size = sizeof(s32Error);
    return getsockopt(i_s32Fd, SOL_SOCKET, SO_ERROR, &s32Error, &u32Size) == 0 ? s32Error : errno;
}

bool IsComplete(const CFieldValues &i_objValues, const CFieldAsks &i_objAsks)
{
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objValues[i].has_value() != i_objAsks[i]) {
            return false;
        }
    }
    return true;
}

ANSWER_S Failed(int i_s32Error)
{
    ANSWER_S stAnswer;
    stAnswer.eResult = i_s32Error == ECONNREFUSED ? AskResult::NotRunning : AskResult::SystemError;
    stAnswer.s32Error = i_s32Error;
    return stAnswer;
}

/* Takes one datagram off the reply socket, if there is one. */
void TakeReply(int i_s32Fd, const CFieldAsks &i_objAsks, ANSWER_S &io_stAnswer)
{
    std::string strBytes(kMaxDatagram, '\0');
    const ssize_t s64Length = recv(i_s32Fd, strBytes.data(), strBytes.size(), 0);
    if (s64Length < 0) {
        return;
    }
    strBytes.resize(static_cast<std::size_t>(s64Length));
    const std::optional<CFieldValues> objValues = DecodeStreamReply(strBytes);
    if (objValues && IsComplete(*objValues, i_objAsks)) {
        io_stAnswer.eResult = AskResult::Answered;
        io_stAnswer.objValues = *objValues;
    } else {
        io_stAnswer.bGarbled = true;
    }
}

ANSWER_S Await(int i_s32ReplyFd, int i_s32RequestFd, const CFieldAsks &i_objAsks,
               CClock::time_point i_objUntil)
{
    ANSWER_S stAnswer;
    stAnswer.eResult = AskResult::NoAnswer;
    while (stAnswer.eResult == AskResult::NoAnswer) {
        const auto objLeft =
            std::chrono::ceil<std::chrono::milliseconds>(i_objUntil - CClock::now()).count();
        if (objLeft <= 0) {
            break;
        }
        pollfd stFds[] = {{i_s32ReplyFd, POLLIN, 0}, {i_s32RequestFd, 0, 0}};
        if (poll(stFds, 2, static_cast<int>(objLeft)) < 0 && errno != EINTR) {
            return Failed(errno);
        }
        if ((stFds[0].revents & POLLIN) != 0) {
            TakeReply(i_s32ReplyFd, i_objAsks, stAnswer);
        } else if ((stFds[1].revents & POLLERR) != 0) {
            return Failed(PendingError(i_s32RequestFd));
        }
    }
    return stAnswer;
}
std::string Seconds(std::chrono::milliseconds i_objTime)
{
    char szText[32];
    snprintf(szText, sizeof(szText), "%g s", static_cast<double>(i_objTime.count()) / 1000);
    return szText;
}

std::string Address(UInt16 i_u16Port)
{
    return "127.0.0.1:" + std::to_string(i_u16Port);
}
} // namespace

ANSWER_S AskDaemon(const CONTROL_ENDPOINT_S &i_stEndpoint, const CFieldAsks &i_objAsks,
                   const CFieldValues &i_objSets, std::chrono::milliseconds i_objTimeout)
{
    const UniqueFd objReply = OpenSocket();
    const UniqueFd objRequest = OpenSocket();
    if (!objReply || !objRequest) {
        return Failed(errno);
    }
    const auto objBindUntil = CClock::now() + std::min(i_objTimeout, kPortPatience);
    const int s32Bind = Bind(objReply.Get(), i_stEndpoint.u16ReplyPort, objBindUntil);
    if (s32Bind != 0) {
        ANSWER_S stAnswer = Failed(s32Bind);
        if (s32Bind == EADDRINUSE) {
            stAnswer.eResult = AskResult::ReplyPortTaken;
        }
        return stAnswer;
    }
    const auto objUntil = CClock::now() + i_objTimeout;
    const int s32Send = Send(objRequest.Get(), i_stEndpoint.u16RequestPort,
                             EncodeStreamCommand(i_objAsks, i_objSets));
    if (s32Send != 0) {
        return Failed(s32Send);
    }
    return Await(objReply.Get(), objRequest.Get(), i_objAsks, objUntil);
}

std::optional<SInt32> FindDaemon(const std::string &i_strPidFile)
{
    struct stat stStat = {};
    std::ifstream objLocks("/proc/locks");
    if (stat(i_strPidFile.c_str(), &stStat) != 0 || !objLocks) {
        return std::nullopt;
    }
    return FindLockHolder(objLocks, major(stStat.st_dev), minor(stStat.st_dev), stStat.st_ino);
}

std::optional<SInt32> FindLockHolder(std::istream &io_objLocks, UInt32 i_u32Major,
                                     UInt32 i_u32Minor, UInt64 i_u64Inode)
{
    std::string strLine;
    while (std::getline(io_objLocks, strLine)) {
        int s32Pid = 0;
        unsigned u32Major = 0;
        unsigned u32Minor = 0;
        unsigned long u64Inode = 0;
        /* A waiter's line has "->" after its number and does not match. */
        if (sscanf(strLine.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &s32Pid, &u32Major,
                   &u32Minor, &u64Inode) == 4 &&
            u32Major == i_u32Major && u32Minor == i_u32Minor && u64Inode == i_u64Inode) {
            return s32Pid;
        }
    }
    return std::nullopt;
}

std::string ExplainFailure(const ANSWER_S &i_stAnswer, const CONTROL_ENDPOINT_S &i_stEndpoint,
                           std::chrono::milliseconds i_objTimeout,
                           const std::optional<SInt32> &i_objHolder)
{
    const std::string strProcess = i_objHolder
                                       ? "process " + std::to_string(*i_objHolder) + " holds "
                                       : "no process is seen to hold ";
    const std::string strLock = strProcess + i_stEndpoint.strPidFile;
    switch (i_stAnswer.eResult) {
    case AskResult::NotRunning:
        if (i_objHolder) {
            return "nobody listens on " + Address(i_stEndpoint.u16RequestPort) + ", but " +
                   strLock + ": the daemon is starting or stopping, or cannot have its port";
        }
        return "the daemon is not running: nobody listens on " +
               Address(i_stEndpoint.u16RequestPort) + " and " + strLock;
    case AskResult::ReplyPortTaken:
        return "the daemon cannot be asked: the reply port " + Address(i_stEndpoint.u16ReplyPort) +
               " is taken, most likely by another reader of the daemon's replies (a management "
               "front end, or another mv3300ctl that waits for one); 'ss -lunp' names it";
    case AskResult::NoAnswer: {
        std::string strText = "no answer within " + Seconds(i_objTimeout);
        if (i_stAnswer.bGarbled) {
            strText += ", only something that is not the reply";
        }
        return strText + (i_objHolder ? ": the daemon runs (" + strLock +
                                            ") but is busy or stuck; try a longer --timeout"
                                      : ": " + strLock + ", so something else may have the port");
    }
    default:
        return std::string("the system refused: ") + strerror(i_stAnswer.s32Error);
    }
}
