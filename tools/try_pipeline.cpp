/*
 * Trying a pipeline description.
 */
#include "tools/try_pipeline.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gst/gst.h>

#include "framework/unique_fd.h"

namespace
{
using CClock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(10); /* for loading, parsing and the state changes */

/* The library's functions by name. */
class CGst
{
public:
    CGst() : m_pLibrary(dlopen("libgstreamer-1.0.so.0", RTLD_NOW)) {}
    explicit operator bool() const { return m_pLibrary != nullptr; }
    template <typename F> F *Get(F *, const char *i_pName) const
    {
        return reinterpret_cast<F *>(dlsym(m_pLibrary, i_pName));
    }

private:
    void *m_pLibrary;
};

/* Calls a function of the library; its type comes from the header. */
#define GST(function) objGst.Get(&function, #function)

std::string Message(GError *i_pError)
{
    return i_pError != nullptr ? i_pError->message : "no reason given";
}

std::string Play(const CGst &objGst, GstElement *i_pPipeline, std::chrono::milliseconds i_objPlay)
{
    GstBus *pBus = GST(gst_element_get_bus)(i_pPipeline);
    const GstStateChangeReturn eChange = GST(gst_element_set_state)(i_pPipeline, GST_STATE_PLAYING);
    const auto eKinds = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);
    GstMessage *pMessage = GST(gst_bus_timed_pop_filtered)(
        pBus, static_cast<GstClockTime>(i_objPlay.count()) * GST_MSECOND, eKinds);
    std::string strProblem;
    if (pMessage != nullptr && GST_MESSAGE_TYPE(pMessage) == GST_MESSAGE_ERROR) {
        GError *pError = nullptr;
        GST(gst_message_parse_error)(pMessage, &pError, nullptr);
        strProblem = Message(pError);
    } else if (pMessage != nullptr) {
        strProblem = "it ends by itself";
    } else if (eChange == GST_STATE_CHANGE_FAILURE) {
        strProblem = "it does not start";
    }
    GST(gst_element_set_state)(i_pPipeline, GST_STATE_NULL);
    return strProblem;
}

/* In the process that tries; what is allocated goes with it. */
std::string Try(const std::string &i_strDescription, std::chrono::milliseconds i_objPlay)
{
    const CGst objGst;
    if (!objGst) {
        return "cannot be tried: GStreamer is not installed";
    }
    GError *pError = nullptr;
    if (!GST(gst_init_check)(nullptr, nullptr, &pError)) {
        return "cannot be tried: " + Message(pError);
    }
    GstElement *pPipeline = GST(gst_parse_launch)(i_strDescription.c_str(), &pError);
    if (pPipeline == nullptr || pError != nullptr) {
        return Message(pError);
    }
    return i_objPlay.count() > 0 ? Play(objGst, pPipeline, i_objPlay) : "";
}

/* What the process wrote until its end; false when the time is up. */
bool ReadUntil(int i_s32Fd, CClock::time_point i_objUntil, std::string *o_pText)
{
    while (true) {
        const auto objLeft =
            std::chrono::ceil<std::chrono::milliseconds>(i_objUntil - CClock::now()).count();
        pollfd stFd = {i_s32Fd, POLLIN, 0};
        if (objLeft <= 0 || poll(&stFd, 1, static_cast<int>(objLeft)) == 0) {
            return false;
        }
        char szText[512];
        const ssize_t s64Length = read(i_s32Fd, szText, sizeof(szText));
        if (s64Length == 0) {
            return true;
        }
        o_pText->append(szText, s64Length > 0 ? static_cast<std::size_t>(s64Length) : 0);
    }
}
} // namespace

std::string TryPipeline(const std::string &i_strDescription, std::chrono::milliseconds i_objPlay)
{
    int s32Pipe[2];
    if (pipe2(s32Pipe, O_CLOEXEC) != 0) {
        return std::string("cannot be tried: ") + strerror(errno);
    }
    const UniqueFd objRead(s32Pipe[0]);
    UniqueFd objWrite(s32Pipe[1]);
    const pid_t s32Child = fork();
    if (s32Child < 0) {
        return std::string("cannot be tried: ") + strerror(errno);
    }
    if (s32Child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string strProblem = Try(i_strDescription, i_objPlay);
        const ssize_t s64Written = write(objWrite.Get(), strProblem.data(), strProblem.size());
        _exit(s64Written == static_cast<ssize_t>(strProblem.size()) ? 0 : 1);
    }
    objWrite.Reset();
    std::string strProblem;
    const bool bInTime =
        ReadUntil(objRead.Get(), CClock::now() + i_objPlay + kPatience, &strProblem);
    if (!bInTime) {
        kill(s32Child, SIGKILL);
    }
    int s32Status = 0;
    waitpid(s32Child, &s32Status, 0);
    if (!bInTime) {
        return "an element hangs";
    }
    return WIFSIGNALED(s32Status)
               ? std::string("an element crashes: ") + strsignal(WTERMSIG(s32Status))
               : strProblem;
}
