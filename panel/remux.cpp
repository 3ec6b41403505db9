/*
 * Pictures of RTP packets into fragmented MP4.
 */
#include "panel/remux.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

namespace
{
/* A fragment per picture, so that none waits for others. */
constexpr const char *kPipeline =
    "appsrc name=in format=time max-bytes=8388608 ! rtph264depay ! h264parse ! "
    "video/x-h264,stream-format=avc,alignment=au ! "
    "mp4mux fragment-duration=1 streamable=true ! appsink name=out sync=false async=false";

std::string TakeText(GError *i_pError)
{
    const std::string strText = i_pError == nullptr ? "unknown" : i_pError->message;
    g_clear_error(&i_pError);
    return strText;
}

GstFlowReturn OnSample(GstAppSink *i_pSink, gpointer i_pRemux)
{
    GstSample *pSample = gst_app_sink_pull_sample(i_pSink);
    if (pSample == nullptr) {
        return GST_FLOW_EOS;
    }
    GstMapInfo stMap;
    bool bRight = false;
    if (gst_buffer_map(gst_sample_get_buffer(pSample), &stMap, GST_MAP_READ)) {
        bRight = static_cast<CRemux *>(i_pRemux)->TakeBytes(
            reinterpret_cast<const char *>(stMap.data), stMap.size);
        gst_buffer_unmap(gst_sample_get_buffer(pSample), &stMap);
    }
    gst_sample_unref(pSample);
    return bRight ? GST_FLOW_OK : GST_FLOW_ERROR;
}

GstElement *FindElement(GstElement *i_pPipeline, const char *i_pName)
{
    GstElement *pElement = gst_bin_get_by_name(GST_BIN(i_pPipeline), i_pName);
    gst_object_unref(pElement); /* the pipeline holds it */
    return pElement;
}
} // namespace

std::string CRemux::Start(const CGopStore &i_objStore)
{
    GError *pError = nullptr;
    m_pPipeline = gst_parse_launch(kPipeline, &pError);
    if (pError != nullptr) {
        gst_clear_object(&m_pPipeline);
        return TakeText(pError);
    }
    {
        const std::lock_guard objLock(m_objMutex);
        m_strCodec = i_objStore.Codec();
        m_objCutter = {};
        m_bBegun = false;
    }
    m_bFirst = true;
    m_pSource = FindElement(m_pPipeline, "in");
    GstCaps *pCaps =
        gst_caps_new_simple("application/x-rtp", "media", G_TYPE_STRING, "video", "clock-rate",
                            G_TYPE_INT, 90000, "encoding-name", G_TYPE_STRING, "H264", "payload",
                            G_TYPE_INT, static_cast<int>(i_objStore.PayloadType()), nullptr);
    const std::string strSets = i_objStore.ParameterSets();
    if (!strSets.empty()) {
        gst_caps_set_simple(pCaps, "sprop-parameter-sets", G_TYPE_STRING, strSets.c_str(), nullptr);
    }
    gst_app_src_set_caps(GST_APP_SRC(m_pSource), pCaps);
    gst_caps_unref(pCaps);
    GstAppSinkCallbacks stCallbacks = {};
    stCallbacks.new_sample = OnSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(FindElement(m_pPipeline, "out")), &stCallbacks, this,
                               nullptr);
    if (gst_element_set_state(m_pPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        Stop();
        return "the pipeline does not start";
    }
    return {};
}

void CRemux::Push(const PICTURE_S &i_stPicture)
{
    if (m_bFirst) {
        m_u64FirstTime = i_stPicture.u64Time;
        m_bFirst = false;
    }
    const UInt64 u64Time =
        i_stPicture.u64Time < m_u64FirstTime ? 0 : i_stPicture.u64Time - m_u64FirstTime;
    GstBufferList *pList =
        gst_buffer_list_new_sized(static_cast<guint>(i_stPicture.objPackets.size()));
    for (const std::string &strPacket : i_stPicture.objPackets) {
        GstBuffer *pBuffer = gst_buffer_new_memdup(strPacket.data(), strPacket.size());
        GST_BUFFER_PTS(pBuffer) = gst_util_uint64_scale(u64Time, GST_SECOND, 90000);
        gst_buffer_list_add(pList, pBuffer);
    }
    gst_app_src_push_buffer_list(GST_APP_SRC(m_pSource), pList);
}

void CRemux::Stop()
{
    if (m_pPipeline != nullptr) {
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
        gst_clear_object(&m_pPipeline);
        m_objFragments.End();
    }
}

std::string CRemux::TakeError()
{
    if (m_pPipeline == nullptr) {
        return {};
    }
    GstBus *pBus = gst_element_get_bus(m_pPipeline);
    GstMessage *pMessage = gst_bus_pop_filtered(pBus, GST_MESSAGE_ERROR);
    gst_bus_set_flushing(pBus, FALSE);
    gst_object_unref(pBus);
    if (pMessage == nullptr) {
        return {};
    }
    GError *pError = nullptr;
    gst_message_parse_error(pMessage, &pError, nullptr);
    gst_message_unref(pMessage);
    return TakeText(pError);
}

Bool CRemux::TakeBytes(const char *i_pData, std::size_t i_u64Size)
{
    const std::lock_guard objLock(m_objMutex);
    if (!m_objCutter.Add(i_pData, i_u64Size)) {
        return false;
    }
    if (!m_bBegun && !m_objCutter.Beginning().empty()) {
        m_objFragments.Begin(m_objCutter.Beginning(), m_strCodec);
        m_bBegun = true;
    }
    while (std::optional<FRAGMENT_S> stFragment = m_objCutter.Next()) {
        m_objFragments.Add(std::move(*stFragment));
    }
    return true;
}
