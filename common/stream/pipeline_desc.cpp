/*
 * Texts of the two pipelines.
 */
#include "common/stream/pipeline_desc.h"

#include <cstdio>

namespace
{
constexpr std::size_t kCmdSize = 1024;
constexpr std::size_t kClientsSize = 768;

/* Kept: the stream's local copy goes to one port and the preview listens on another, so that no
 * preview comes by itself; a relay on the box, which knows both ports, carries the packets across.
 */
constexpr char kLocalHop[] = "127.0.0.1:12350";
constexpr char kPreviewSource[] = "127.0.0.1:12345";
} // namespace

SInt32 PreviewWidth(const INPUT_TIMING_S &i_stTiming, UInt32 i_u32PrevHeight)
{
    if (i_stTiming.height == 0) {
        return 0;
    }
    /* 64 bits: the timing comes from outside and may be anything. */
    return static_cast<SInt32>(static_cast<SInt64>(i_stTiming.width) *
                               static_cast<SInt32>(i_u32PrevHeight) / i_stTiming.height);
}

std::string BuildClients(const STREAM_STATUS_S &i_stStatus, const std::string &i_strAddrList,
                         const std::string &i_strMulticastIp)
{
    char szClients[kClientsSize] = "";
    /* A change request may carry any number as a flag: all but 0 is on. Only a preview with 1 is
     * restarted when it stalls. */
    const bool bH264 = i_stStatus.u32H264Enable != 0;
    const bool bPreview = i_stStatus.u32PrevEnable != 0;
    if (bH264 && !i_strAddrList.empty()) {
        snprintf(szClients, sizeof(szClients), bPreview ? "%s,%s" : "%s", i_strAddrList.c_str(),
                 kLocalHop);
    } else if (bH264) {
        snprintf(szClients, sizeof(szClients), bPreview ? "%s:%d,%s" : "%s:%d",
                 i_strMulticastIp.c_str(), kStreamPort, kLocalHop);
    } else if (bPreview) {
        snprintf(szClients, sizeof(szClients), "%s", kLocalHop);
    }
    return szClients;
}

std::string BuildH264Cmd(const INPUT_TIMING_S &i_stTiming, const STREAM_STATUS_S &i_stStatus,
                         const std::string &i_strClients)
{
    char szCmd[kCmdSize];
    snprintf(szCmd, sizeof(szCmd),
             "v4l2src device=/dev/video0 ! video/x-raw, format=(string)UYVY, width=%d, height=%d, "
             "framerate=%d/1 ! videoconvert ! vpuenc_h264 bitrate=%d gop-size=%d ! "
             "rtph264pay mtu=1024 ! queue ! multiudpsink clients=\"%s\" buffer-size=1000000",
             i_stTiming.width, i_stTiming.height, i_stTiming.fps,
             static_cast<SInt32>(i_stStatus.u32H264Bitrate / 1000),
             static_cast<SInt32>(i_stStatus.u32H264Gop), i_strClients.c_str());
    return szCmd;
}

std::string BuildJpegCmd(const INPUT_TIMING_S &i_stTiming, const STREAM_STATUS_S &i_stStatus)
{
    char szCmd[kCmdSize];
    snprintf(szCmd, sizeof(szCmd),
             "udpsrc uri=udp://%s caps=\"application/x-rtp\" ! rtph264depay ! "
             "capsfilter caps=\"video/x-h264\" ! h264parse ! avdec_h264 ! queue ! videoconvert ! "
             "videoscale ! video/x-raw,width=%d,height=%d ! jpegenc ! "
             "multifilesink max-files=5 location=/tmp/image/image-%%d.jpeg",
             kPreviewSource, PreviewWidth(i_stTiming, i_stStatus.u32PrevHeight),
             static_cast<SInt32>(i_stStatus.u32PrevHeight));
    return szCmd;
}

std::string BuildPlainCmd(const std::string &i_strAddrList)
{
    char szCmd[kCmdSize];
    snprintf(szCmd, sizeof(szCmd),
             "v4l2src ! video/x-raw ! videoconvert ! vpuenc_h264 ! rtph264pay ! "
             "multiudpsink clients=\"%s\"",
             i_strAddrList.c_str());
    return szCmd;
}
