/*
 * The query and its answers.
 */
#include "guard/capture_query.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/ioctl.h>

#include "framework/unique_fd.h"

namespace
{
constexpr int kMostSubDevices = 16;

Link LinkOfError(int i_s32Error)
{
    switch (i_s32Error) {
    case ENOLINK:
        return Link::NoLink;
    case ENOLCK:
        return Link::NoLock;
    case ERANGE:
        return Link::OutOfRange;
    default:
        return Link::Unknown;
    }
}

QUERY_S AskDevice(const std::string &i_strDevice)
{
    QUERY_S stQuery;
    const UniqueFd objFd(open(i_strDevice.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!objFd) {
        stQuery.strFact = i_strDevice + " cannot be opened: " + strerror(errno);
        return stQuery;
    }
    v4l2_dv_timings stTimings = {};
    if (ioctl(objFd.Get(), VIDIOC_QUERY_DV_TIMINGS, &stTimings) != 0) {
        stQuery.eLink = LinkOfError(errno);
        stQuery.strFact = i_strDevice + " says: " +
                          (errno == ENOTTY                  ? "no such request"
                           : stQuery.eLink == Link::Unknown ? strerror(errno)
                                                            : LinkText(stQuery.eLink));
        return stQuery;
    }
    if (stTimings.type != V4L2_DV_BT_656_1120) {
        stQuery.strFact = i_strDevice + " tells timings of another kind";
        return stQuery;
    }
    stQuery.eLink = Link::Ok;
    stQuery.stTiming = TimingOfBt(stTimings.bt);
    stQuery.strFact = i_strDevice + " says: " + TimingText(stQuery.stTiming);
    return stQuery;
}
} // namespace

TIMING_S TimingOfBt(const v4l2_bt_timings &i_stBt)
{
    const UInt64 u64Pixels = static_cast<UInt64>(V4L2_DV_BT_FRAME_WIDTH(&i_stBt)) *
                             static_cast<UInt64>(V4L2_DV_BT_FRAME_HEIGHT(&i_stBt));
    const UInt64 u64Fps = u64Pixels == 0 ? 0 : (i_stBt.pixelclock + u64Pixels / 2) / u64Pixels;
    return {static_cast<SInt32>(i_stBt.width & 0xFFFF), static_cast<SInt32>(i_stBt.height & 0xFFFF),
            static_cast<SInt32>(u64Fps & 0xFFFF), i_stBt.interlaced != 0 ? 1 : 0};
}

QUERY_S QueryCapture(const std::string &i_strDevice)
{
    const QUERY_S stFirst = AskDevice(i_strDevice);
    if (stFirst.eLink != Link::Unknown) {
        return stFirst;
    }
    for (int i = 0; i < kMostSubDevices; i++) {
        const QUERY_S stQuery = AskDevice("/dev/v4l-subdev" + std::to_string(i));
        if (stQuery.eLink != Link::Unknown) {
            return stQuery;
        }
    }
    return stFirst;
}
