/*
 * The receiving pipeline and its counters, filled by probes on its pads.
 */
#include "sim/receive/stream.h"

#include <gst/video/video.h>

namespace
{
constexpr GstClockTime kPictureTimeout = 10 * GST_SECOND;

std::string TakeError(GError *i_pError)
{
    const std::string strText = i_pError == nullptr ? "unknown error" : i_pError->message;
    g_clear_error(&i_pError);
    return strText;
}
} // namespace

double PICTURE_RUN_S::Rate() const
{
    if (u64Pictures < 2 || s64LastUs <= s64FirstUs) {
        return 0;
    }
    return static_cast<double>(u64Pictures - 1) * 1e6 / static_cast<double>(s64LastUs - s64FirstUs);
}

CStreamReceiver::CStreamReceiver(const std::string &i_strAddress, int i_s32Port,
                                 const std::string &i_strInterface)
    : m_strAddress(i_strAddress), m_s32Port(i_s32Port), m_strInterface(i_strInterface),
      m_pPipeline(nullptr), m_u32SinceIdr(0), m_bIdrSeen(false)
{
}

CStreamReceiver::~CStreamReceiver()
{
    Stop();
}

bool CStreamReceiver::Start(std::string *o_pError)
{
    GError *pError = nullptr;
    /* Damaged pictures are not shown: what is counted was decoded whole. */
    m_pPipeline = gst_parse_launch(
        "udpsrc name=in buffer-size=4000000 caps=\"application/x-rtp, media=(string)video, "
        "clock-rate=(int)90000, encoding-name=(string)H264\" ! queue max-size-buffers=0 "
        "max-size-bytes=20000000 max-size-time=0 ! rtph264depay ! h264parse name=parse ! "
        "avdec_h264 name=decoder output-corrupt=false ! fakesink name=out sync=false",
        &pError);
    if (pError != nullptr) {
        *o_pError = TakeError(pError);
        Stop();
        return false;
    }
    GstElement *pIn = gst_bin_get_by_name(GST_BIN(m_pPipeline), "in");
    g_object_set(pIn, "address", m_strAddress.c_str(), "port", m_s32Port, "multicast-iface",
                 m_strInterface.c_str(), nullptr);
    gst_object_unref(pIn);
    AddProbe("in", OnPacket);
    AddProbe("parse", OnAccessUnit);
    AddProbe("decoder", OnPicture);
    if (gst_element_set_state(m_pPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        ReadBus();
        *o_pError = m_stStats.strError;
        Stop();
        return false;
    }
    return true;
}

void CStreamReceiver::Stop()
{
    if (m_pPipeline != nullptr) {
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
        gst_object_unref(m_pPipeline);
        m_pPipeline = nullptr;
    }
}

void CStreamReceiver::AddProbe(const char *i_pElement, GstPadProbeCallback i_pCallback)
{
    GstElement *pElement = gst_bin_get_by_name(GST_BIN(m_pPipeline), i_pElement);
    GstPad *pPad = gst_element_get_static_pad(pElement, "src");
    gst_pad_add_probe(pPad, GST_PAD_PROBE_TYPE_BUFFER, i_pCallback, this, nullptr);
    gst_object_unref(pPad);
    gst_object_unref(pElement);
}

GstPadProbeReturn CStreamReceiver::OnPacket(GstPad *, GstPadProbeInfo *i_pInfo, gpointer i_pSelf)
{
    auto *pSelf = static_cast<CStreamReceiver *>(i_pSelf);
    GstMapInfo stMap;
    if (!gst_buffer_map(GST_PAD_PROBE_INFO_BUFFER(i_pInfo), &stMap, GST_MAP_READ)) {
        return GST_PAD_PROBE_OK;
    }
    {
        std::lock_guard<std::mutex> objLock(pSelf->m_objMutex);
        STREAM_STATS_S &stStats = pSelf->m_stStats;
        pSelf->m_objRtp.Add(stMap.data, stMap.size);
        stStats.s64LastPacketUs = g_get_monotonic_time();
        if (stStats.s64FirstPacketUs == 0) {
            stStats.s64FirstPacketUs = stStats.s64LastPacketUs;
        }
    }
    gst_buffer_unmap(GST_PAD_PROBE_INFO_BUFFER(i_pInfo), &stMap);
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn CStreamReceiver::OnAccessUnit(GstPad *, GstPadProbeInfo *i_pInfo,
                                                gpointer i_pSelf)
{
    auto *pSelf = static_cast<CStreamReceiver *>(i_pSelf);
    std::lock_guard<std::mutex> objLock(pSelf->m_objMutex);
    pSelf->m_u32SinceIdr++;
    if (!GST_BUFFER_FLAG_IS_SET(GST_PAD_PROBE_INFO_BUFFER(i_pInfo), GST_BUFFER_FLAG_DELTA_UNIT)) {
        if (pSelf->m_bIdrSeen) {
            pSelf->m_stStats.u32Gop = pSelf->m_u32SinceIdr;
        }
        pSelf->m_bIdrSeen = true;
        pSelf->m_u32SinceIdr = 0;
    }
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn CStreamReceiver::OnPicture(GstPad *i_pPad, GstPadProbeInfo *, gpointer i_pSelf)
{
    auto *pSelf = static_cast<CStreamReceiver *>(i_pSelf);
    PICTURE_RUN_S stPicture;
    GstCaps *pCaps = gst_pad_get_current_caps(i_pPad);
    if (pCaps == nullptr) {
        return GST_PAD_PROBE_OK;
    }
    const GstStructure *pFormat = gst_caps_get_structure(pCaps, 0);
    gst_structure_get_int(pFormat, "width", &stPicture.s32Width);
    gst_structure_get_int(pFormat, "height", &stPicture.s32Height);
    gst_caps_unref(pCaps);

    std::lock_guard<std::mutex> objLock(pSelf->m_objMutex);
    std::vector<PICTURE_RUN_S> &objRuns = pSelf->m_stStats.objRuns;
    const SInt64 s64Now = g_get_monotonic_time();
    if (objRuns.empty() || objRuns.back().s32Width != stPicture.s32Width ||
        objRuns.back().s32Height != stPicture.s32Height) {
        stPicture.s64FirstUs = s64Now;
        objRuns.push_back(stPicture);
    }
    objRuns.back().u64Pictures++;
    objRuns.back().s64LastUs = s64Now;
    pSelf->m_stStats.u64Pictures++;
    return GST_PAD_PROBE_OK;
}

void CStreamReceiver::ReadBus()
{
    GstBus *pBus = gst_element_get_bus(m_pPipeline);
    GstMessage *pMessage = nullptr;
    while ((pMessage = gst_bus_pop_filtered(pBus, GST_MESSAGE_ERROR)) != nullptr) {
        GError *pError = nullptr;
        gst_message_parse_error(pMessage, &pError, nullptr);
        const std::string strError = TakeError(pError);
        gst_message_unref(pMessage);
        std::lock_guard<std::mutex> objLock(m_objMutex);
        if (m_stStats.strError.empty()) {
            m_stStats.strError = strError;
        }
    }
    gst_object_unref(pBus);
}

STREAM_STATS_S CStreamReceiver::Stats()
{
    if (m_pPipeline != nullptr) {
        ReadBus();
    }
    std::lock_guard<std::mutex> objLock(m_objMutex);
    m_stStats.stRtp = m_objRtp.Counts();
    return m_stStats;
}

bool CStreamReceiver::SavePicture(const std::string &i_strFile, std::string *o_pError)
{
    GstSample *pSample = nullptr;
    if (m_pPipeline != nullptr) {
        GstElement *pOut = gst_bin_get_by_name(GST_BIN(m_pPipeline), "out");
        g_object_get(pOut, "last-sample", &pSample, nullptr);
        gst_object_unref(pOut);
    }
    if (pSample == nullptr) {
        *o_pError = "no picture was decoded";
        return false;
    }
    GError *pError = nullptr;
    GstCaps *pCaps = gst_caps_new_empty_simple("image/png");
    GstSample *pPng = gst_video_convert_sample(pSample, pCaps, kPictureTimeout, &pError);
    gst_caps_unref(pCaps);
    gst_sample_unref(pSample);
    if (pPng == nullptr) {
        *o_pError = TakeError(pError);
        return false;
    }
    GstMapInfo stMap;
    gst_buffer_map(gst_sample_get_buffer(pPng), &stMap, GST_MAP_READ);
    const bool bWritten =
        g_file_set_contents(i_strFile.c_str(), reinterpret_cast<const char *>(stMap.data),
                            static_cast<gssize>(stMap.size), &pError) == TRUE;
    gst_buffer_unmap(gst_sample_get_buffer(pPng), &stMap);
    gst_sample_unref(pPng);
    if (!bWritten) {
        *o_pError = TakeError(pError);
    }
    return bWritten;
}
