/*
 * A capture device that can be asked for the timing of its input, for programs that are started
 * with this library preloaded.
 *
 * Takes the place of open(2) for the device and of ioctl(2) for the one request
 * (VIDIOC_QUERY_DV_TIMINGS); everything else goes to the system. What the device answers is the
 * second line of the order file of the stand-in source (sim/gst/source_control.h), read anew at
 * each request:
 *
 *   input WxH@F-I       this timing (the "-I" may be missing)
 *   input no-link       nothing is plugged in
 *   input no-lock       there is a cable, but no signal
 *   input out-of-range  there is a signal that the bridge cannot take
 *   input busy          the device is in another's hands
 *
 * Without that line the device knows no such request, except that a first line "switch WxH@F" tells
 * its timing; while the first line is "absent" it cannot be opened.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <dlfcn.h>
#include <linux/videodev2.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace
{
constexpr char kDevice[] = "/dev/video0";
constexpr char kOrders[] = "/run/mv3300-sim/video0";

/* First and second line; empty where there is none. */
struct ORDERS_S {
    char szFirst[128] = "";
    char szSecond[128] = "";
};

template <typename Function> Function System(const char *i_pName)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, i_pName));
}

ORDERS_S ReadOrders()
{
    ORDERS_S stOrders;
    if (FILE *pFile = fopen(kOrders, "re")) {
        (void)!fgets(stOrders.szFirst, sizeof(stOrders.szFirst), pFile);
        (void)!fgets(stOrders.szSecond, sizeof(stOrders.szSecond), pFile);
        fclose(pFile);
    }
    stOrders.szFirst[strcspn(stOrders.szFirst, "\n")] = '\0';
    stOrders.szSecond[strcspn(stOrders.szSecond, "\n")] = '\0';
    return stOrders;
}

/* A descriptor of the order file stands for one of the device. */
bool IsDevice(int i_s32Fd)
{
    struct stat stFd = {};
    struct stat stOrders = {};
    return fstat(i_s32Fd, &stFd) == 0 && stat(kOrders, &stOrders) == 0 &&
           stFd.st_dev == stOrders.st_dev && stFd.st_ino == stOrders.st_ino;
}

int Refuse(int i_s32Error)
{
    errno = i_s32Error;
    return -1;
}

int TellTiming(const char *i_pText, v4l2_dv_timings *o_pTimings)
{
    unsigned u32Width = 0;
    unsigned u32Height = 0;
    unsigned u32Fps = 0;
    unsigned u32Interlaced = 0;
    if (sscanf(i_pText, "%5ux%5u@%3u-%1u", &u32Width, &u32Height, &u32Fps, &u32Interlaced) < 3) {
        return Refuse(ENOTTY);
    }
    v4l2_bt_timings stBt = {};
    stBt.width = u32Width;
    stBt.height = u32Height;
    /* The blanking of a usual 1080p: nobody may take the picture for the whole frame. */
    stBt.interlaced = u32Interlaced;
    stBt.hfrontporch = 88;
    stBt.hsync = 44;
    stBt.hbackporch = 148;
    stBt.vfrontporch = 4;
    stBt.vsync = 5;
    stBt.vbackporch = 36;
    stBt.pixelclock =
        1ULL * V4L2_DV_BT_FRAME_WIDTH(&stBt) * V4L2_DV_BT_FRAME_HEIGHT(&stBt) * u32Fps;
    *o_pTimings = {};
    o_pTimings->type = V4L2_DV_BT_656_1120;
    o_pTimings->bt = stBt;
    return 0;
}

int Answer(v4l2_dv_timings *o_pTimings)
{
    constexpr struct {
        const char *pOrder;
        int s32Error;
    } kErrors[] = {{"input no-link", ENOLINK},
                   {"input no-lock", ENOLCK},
                   {"input out-of-range", ERANGE},
                   {"input busy", EBUSY}};
    const ORDERS_S stOrders = ReadOrders();
    for (const auto &stError : kErrors) {
        if (strcmp(stOrders.szSecond, stError.pOrder) == 0) {
            return Refuse(stError.s32Error);
        }
    }
    if (strncmp(stOrders.szSecond, "input ", 6) == 0) {
        return TellTiming(stOrders.szSecond + 6, o_pTimings);
    }
    if (strncmp(stOrders.szFirst, "switch ", 7) == 0) {
        return TellTiming(stOrders.szFirst + 7, o_pTimings);
    }
    return Refuse(ENOTTY);
}

int Open(const char *i_pSystem, const char *i_pPath, int i_s32Flags, mode_t i_u32Mode)
{
    const auto pOpen = System<int (*)(const char *, int, ...)>(i_pSystem);
    if (strcmp(i_pPath, kDevice) != 0) {
        return pOpen(i_pPath, i_s32Flags, i_u32Mode);
    }
    if (strcmp(ReadOrders().szFirst, "absent") == 0) {
        return Refuse(ENOENT);
    }
    constexpr int kCloseOnExec = 02000000; /* O_CLOEXEC; <fcntl.h> would declare open() itself */
    return pOpen(kOrders, i_s32Flags & kCloseOnExec, 0);
}
} // namespace

extern "C" {
int open(const char *i_pPath, int i_s32Flags, ...)
{
    va_list stArgs;
    va_start(stArgs, i_s32Flags);
    const auto u32Mode = static_cast<mode_t>(va_arg(stArgs, int));
    va_end(stArgs);
    return Open("open", i_pPath, i_s32Flags, u32Mode);
}

int open64(const char *i_pPath, int i_s32Flags, ...)
{
    va_list stArgs;
    va_start(stArgs, i_s32Flags);
    const auto u32Mode = static_cast<mode_t>(va_arg(stArgs, int));
    va_end(stArgs);
    return Open("open64", i_pPath, i_s32Flags, u32Mode);
}

int ioctl(int i_s32Fd, unsigned long i_u64Request, ...)
{
    va_list stArgs;
    va_start(stArgs, i_u64Request);
    void *pArg = va_arg(stArgs, void *);
    va_end(stArgs);
    if (i_u64Request == VIDIOC_QUERY_DV_TIMINGS && IsDevice(i_s32Fd)) {
        return Answer(static_cast<v4l2_dv_timings *>(pArg));
    }
    return System<int (*)(int, unsigned long, ...)>("ioctl")(i_s32Fd, i_u64Request, pArg);
}
}
