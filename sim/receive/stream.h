/*
 * Receives and decodes the stream, with nothing of the daemon's own in it.
 *
 * CStreamReceiver owns a GStreamer pipeline; the counters are written by its streaming threads
 * under the mutex and read by the owner's thread. gst_init() comes first.
 */
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <gst/gst.h>

#include "framework/types.h"
#include "sim/receive/rtp_counter.h"

/* A run of decoded pictures of one size. */
struct PICTURE_RUN_S {
    SInt32 s32Width = 0;
    SInt32 s32Height = 0;
    UInt64 u64Pictures = 0;
    SInt64 s64FirstUs = 0; /* monotonic clock, microseconds */
    SInt64 s64LastUs = 0;

    /* Pictures per second, 0 while there are fewer than two. */
    double Rate() const;
};

struct STREAM_STATS_S {
    RTP_COUNTS_S stRtp;
    SInt64 s64FirstPacketUs = 0;
    SInt64 s64LastPacketUs = 0;
    std::vector<PICTURE_RUN_S> objRuns;
    UInt64 u64Pictures = 0;
    UInt32 u32Gop = 0;    /* access units from the last IDR picture but one to the last one */
    std::string strError; /* why the receiver ended by itself; empty while it runs */
};

class CStreamReceiver
{
public:
    /* i_strAddress: a multicast group, joined on the interface, or a local address. */
    CStreamReceiver(const std::string &i_strAddress, int i_s32Port,
                    const std::string &i_strInterface);
    ~CStreamReceiver();
    CStreamReceiver(const CStreamReceiver &) = delete;
    CStreamReceiver &operator=(const CStreamReceiver &) = delete;

    /* False, with the reason in *o_pError, when the pipeline cannot be built or started. */
    bool Start(std::string *o_pError);
    void Stop();
    STREAM_STATS_S Stats();
    /* Writes the newest decoded picture as PNG. False, with the reason, when there is none. */
    bool SavePicture(const std::string &i_strFile, std::string *o_pError);

private:
    void AddProbe(const char *i_pElement, GstPadProbeCallback i_pCallback);
    static GstPadProbeReturn OnPacket(GstPad *, GstPadProbeInfo *i_pInfo, gpointer i_pSelf);
    static GstPadProbeReturn OnAccessUnit(GstPad *, GstPadProbeInfo *i_pInfo, gpointer i_pSelf);
    static GstPadProbeReturn OnPicture(GstPad *i_pPad, GstPadProbeInfo *i_pInfo, gpointer i_pSelf);
    void ReadBus();

    std::string m_strAddress;
    int m_s32Port;
    std::string m_strInterface;
    GstElement *m_pPipeline;

    std::mutex m_objMutex; /* guards all below */
    CRtpCounter m_objRtp;
    STREAM_STATS_S m_stStats;
    UInt32 m_u32SinceIdr;
    bool m_bIdrSeen;
};
