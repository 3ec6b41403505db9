/*
 * A capture device that delivers pictures, for programs that are started with this library
 * preloaded: what takes its pictures from a V4L2 device runs in the bench box with it.
 *
 * Takes the place of open(2), ioctl(2) and mmap(2) for /run/mv3300-sim/video0; everything else goes
 * to the system. The device is a timer's descriptor, which becomes readable with every picture as a
 * camera's does (linux/videodev2.h, streaming by memory mapping). It knows one format, UYVY, takes
 * the size and the rate it is asked for, and draws the picture of the stand-in source, stamp
 * included, when it is fetched. One device at a time, one thread.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include <deque>
#include <vector>

#include <dlfcn.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "sim/gst/test_picture.h"

namespace
{
/* The order file of the stand-in source, which is there in every box; only its name counts here. */
constexpr char kDevice[] = "/run/mv3300-sim/video0";
constexpr UInt32 kMostBuffers = 8;
constexpr UInt32 kWidest = 4096, kHighest = 2160;

struct DEVICE_S {
    int s32Fd = -1;
    CTestPicture objPicture;
    v4l2_pix_format stFormat = {};
    UInt32 u32Fps = 30;
    UInt64 u64Number = 0;
    std::vector<UInt8 *> objBuffers;
    std::deque<UInt32> objQueued;
};
DEVICE_S s_stDevice;

template <typename Function> Function System(const char *i_pName)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, i_pName));
}

int Refuse(int i_s32Error)
{
    errno = i_s32Error;
    return -1;
}

UInt64 NowMs()
{
    timespec stNow = {};
    clock_gettime(CLOCK_REALTIME, &stNow);
    return static_cast<UInt64>(stNow.tv_sec) * 1000 + static_cast<UInt64>(stNow.tv_nsec) / 1000000;
}

int SetFormat(v4l2_pix_format *io_pFormat)
{
    if (io_pFormat->width < 2 || io_pFormat->width > kWidest || io_pFormat->height < 16 ||
        io_pFormat->height > kHighest) {
        return Refuse(EINVAL);
    }
    io_pFormat->pixelformat = V4L2_PIX_FMT_UYVY;
    io_pFormat->field = V4L2_FIELD_NONE;
    io_pFormat->bytesperline = io_pFormat->width * 2;
    io_pFormat->sizeimage = io_pFormat->bytesperline * io_pFormat->height;
    io_pFormat->colorspace = V4L2_COLORSPACE_SMPTE170M;
    s_stDevice.stFormat = *io_pFormat;
    s_stDevice.objPicture.SetFormat(io_pFormat->width, io_pFormat->height,
                                    io_pFormat->bytesperline);
    return 0;
}

int SetRate(v4l2_captureparm *io_pParm)
{
    const v4l2_fract &stInterval = io_pParm->timeperframe;
    if (stInterval.numerator == 1 && stInterval.denominator > 0 && stInterval.denominator <= 100) {
        s_stDevice.u32Fps = stInterval.denominator;
    }
    io_pParm->capability = V4L2_CAP_TIMEPERFRAME;
    io_pParm->timeperframe = {1, s_stDevice.u32Fps};
    return 0;
}

int RequestBuffers(v4l2_requestbuffers *io_pRequest)
{
    if (io_pRequest->memory != V4L2_MEMORY_MMAP) {
        return Refuse(EINVAL);
    }
    io_pRequest->count = io_pRequest->count < kMostBuffers ? io_pRequest->count : kMostBuffers;
    s_stDevice.objBuffers.assign(io_pRequest->count, nullptr);
    s_stDevice.objQueued.clear();
    return 0;
}

/* The place of a buffer is its number, in pages. */
int DescribeBuffer(v4l2_buffer *io_pBuffer)
{
    if (io_pBuffer->index >= s_stDevice.objBuffers.size()) {
        return Refuse(EINVAL);
    }
    io_pBuffer->length = s_stDevice.stFormat.sizeimage;
    io_pBuffer->m.offset = io_pBuffer->index * static_cast<UInt32>(getpagesize());
    return 0;
}

int Run(bool i_bRun)
{
    const long s32Pause = i_bRun ? 1000000000L / static_cast<long>(s_stDevice.u32Fps) : 0;
    const itimerspec stTimes = {{0, s32Pause}, {0, s32Pause}};
    if (!i_bRun) {
        s_stDevice.objQueued.clear();
    }
    return timerfd_settime(s_stDevice.s32Fd, 0, &stTimes, nullptr);
}

int Queue(const v4l2_buffer *i_pBuffer)
{
    if (i_pBuffer->index >= s_stDevice.objBuffers.size() ||
        s_stDevice.objBuffers[i_pBuffer->index] == nullptr) {
        return Refuse(EINVAL);
    }
    s_stDevice.objQueued.push_back(i_pBuffer->index);
    return 0;
}

/* A picture for which there was no buffer is lost, as with a camera. */
int Fetch(v4l2_buffer *o_pBuffer)
{
    UInt64 u64Passed = 0;
    if (read(s_stDevice.s32Fd, &u64Passed, sizeof(u64Passed)) != sizeof(u64Passed) ||
        s_stDevice.objQueued.empty()) {
        return Refuse(EAGAIN);
    }
    s_stDevice.u64Number += u64Passed;
    const UInt32 u32Index = s_stDevice.objQueued.front();
    s_stDevice.objQueued.pop_front();
    s_stDevice.objPicture.Paint(s_stDevice.u64Number, NowMs(), s_stDevice.objBuffers[u32Index]);
    *o_pBuffer = {};
    o_pBuffer->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    o_pBuffer->memory = V4L2_MEMORY_MMAP;
    o_pBuffer->index = u32Index;
    o_pBuffer->sequence = static_cast<UInt32>(s_stDevice.u64Number);
    o_pBuffer->bytesused = s_stDevice.stFormat.sizeimage;
    timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    o_pBuffer->timestamp = {stNow.tv_sec, stNow.tv_nsec / 1000};
    o_pBuffer->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    return DescribeBuffer(o_pBuffer);
}

/* 32 bits of a request count, as for the system: some callers keep it in an int. */
int Answer(UInt32 i_u32Request, void *io_pArg)
{
    switch (i_u32Request) {
    case VIDIOC_QUERYCAP: {
        auto *pCapability = static_cast<v4l2_capability *>(io_pArg);
        *pCapability = {};
        strcpy(reinterpret_cast<char *>(pCapability->driver), "sim");
        pCapability->capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        return 0;
    }
    case VIDIOC_S_INPUT:
        return *static_cast<int *>(io_pArg) == 0 ? 0 : Refuse(EINVAL);
    case VIDIOC_S_FMT:
        return SetFormat(&static_cast<v4l2_format *>(io_pArg)->fmt.pix);
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
        return SetRate(&static_cast<v4l2_streamparm *>(io_pArg)->parm.capture);
    case VIDIOC_REQBUFS:
        return RequestBuffers(static_cast<v4l2_requestbuffers *>(io_pArg));
    case VIDIOC_QUERYBUF:
        return DescribeBuffer(static_cast<v4l2_buffer *>(io_pArg));
    case VIDIOC_QBUF:
        return Queue(static_cast<v4l2_buffer *>(io_pArg));
    case VIDIOC_DQBUF:
        return Fetch(static_cast<v4l2_buffer *>(io_pArg));
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
        return Run(i_u32Request == VIDIOC_STREAMON);
    default:
        return Refuse(ENOTTY);
    }
}
} // namespace

extern "C" {
/* <fcntl.h> would declare it itself. */
int open(const char *i_pPath, int i_s32Flags, ...)
{
    va_list stArgs;
    va_start(stArgs, i_s32Flags);
    const auto u32Mode = static_cast<mode_t>(va_arg(stArgs, int));
    va_end(stArgs);
    if (strcmp(i_pPath, kDevice) != 0) {
        return System<int (*)(const char *, int, ...)>("open")(i_pPath, i_s32Flags, u32Mode);
    }
    s_stDevice.s32Fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    return s_stDevice.s32Fd;
}

int ioctl(int i_s32Fd, unsigned long i_u64Request, ...)
{
    va_list stArgs;
    va_start(stArgs, i_u64Request);
    void *pArg = va_arg(stArgs, void *);
    va_end(stArgs);
    if (i_s32Fd >= 0 && i_s32Fd == s_stDevice.s32Fd) {
        return Answer(static_cast<UInt32>(i_u64Request), pArg);
    }
    return System<int (*)(int, unsigned long, ...)>("ioctl")(i_s32Fd, i_u64Request, pArg);
}

void *mmap(void *i_pWhere, size_t i_u64Size, int i_s32Protection, int i_s32Flags, int i_s32Fd,
           off_t i_s64Offset) noexcept
{
    const auto pMap = System<void *(*)(void *, size_t, int, int, int, off_t)>("mmap");
    if (i_s32Fd < 0 || i_s32Fd != s_stDevice.s32Fd) {
        return pMap(i_pWhere, i_u64Size, i_s32Protection, i_s32Flags, i_s32Fd, i_s64Offset);
    }
    const auto u64Index = static_cast<size_t>(i_s64Offset / getpagesize());
    if (u64Index >= s_stDevice.objBuffers.size() || i_u64Size < s_stDevice.stFormat.sizeimage) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    void *pMemory = pMap(nullptr, i_u64Size, i_s32Protection, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory != MAP_FAILED) {
        s_stDevice.objBuffers[u64Index] = static_cast<UInt8 *>(pMemory);
    }
    return pMemory;
}
}
