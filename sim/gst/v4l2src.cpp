/*
 * v4l2src: a live source that stands in for the HDMI capture device.
 *
 * Delivers the test picture in the format the pipeline asks for, in real time: a frame that the
 * pipeline has no time for is skipped, as a camera would. What it does otherwise is said by
 * its order file (sim/gst/source_control.h), which the streaming thread looks at before each
 * frame; the thread that changes the state looks at it before the streaming thread exists.
 * No order ever makes a state change wait for more than one look at the file.
 */
#include "sim/gst/elements.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>

#include "sim/gst/source_control.h"
#include "sim/gst/test_picture.h"

namespace
{
struct SOURCE_STATE_S {
    std::string strDevice = "/dev/video0";
    CSourceControl objControl;
    CTestPicture objPicture;
    GstVideoInfo stInfo = {};
    UInt64 u64NextFrame = 0;

    std::mutex objMutex; /* guards bUnlocked */
    std::condition_variable objCond;
    bool bUnlocked = false; /* the state is changing: nothing may block */
};

struct SimV4l2Src {
    GstPushSrc stParent;
    SOURCE_STATE_S *pState; /* owned; lives as long as the element */
};
struct SimV4l2SrcClass {
    GstPushSrcClass stParent;
};

enum { PROP_0, PROP_DEVICE };
constexpr int kWidest = 4096;
constexpr int kHighest = 2160;
constexpr auto kStallPause = std::chrono::milliseconds(20);

GstStaticPadTemplate s_stSrc = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string)UYVY, width=(int)[ 1, 32768 ], "
                    "height=(int)[ 1, 32768 ], framerate=(fraction)[ 0/1, 100/1 ]"));
} // namespace

G_DEFINE_TYPE(SimV4l2Src, sim_v4l2_src, GST_TYPE_PUSH_SRC)

namespace
{
SimV4l2Src *Self(gpointer i_pObject)
{
    return G_TYPE_CHECK_INSTANCE_CAST(i_pObject, sim_v4l2_src_get_type(), SimV4l2Src);
}

void SetProperty(GObject *i_pObject, guint i_u32Id, const GValue *i_pValue, GParamSpec *i_pSpec)
{
    if (i_u32Id != PROP_DEVICE) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(i_pObject, i_u32Id, i_pSpec);
        return;
    }
    const char *pDevice = g_value_get_string(i_pValue);
    Self(i_pObject)->pState->strDevice = pDevice == nullptr ? "/dev/video0" : pDevice;
}

void GetProperty(GObject *i_pObject, guint i_u32Id, GValue *o_pValue, GParamSpec *i_pSpec)
{
    if (i_u32Id != PROP_DEVICE) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(i_pObject, i_u32Id, i_pSpec);
        return;
    }
    g_value_set_string(o_pValue, Self(i_pObject)->pState->strDevice.c_str());
}

/* Opening the device and starting to capture are where a missing or a slow device shows. */
GstStateChangeReturn ChangeState(GstElement *i_pElement, GstStateChange i_eChange)
{
    SOURCE_STATE_S *pState = Self(i_pElement)->pState;
    if (i_eChange == GST_STATE_CHANGE_NULL_TO_READY) {
        pState->objControl.SetDevice(pState->strDevice);
        if (pState->objControl.Read().eKind == SIM_ORDER_ABSENT) {
            GST_ELEMENT_ERROR(i_pElement, RESOURCE, NOT_FOUND,
                              ("Cannot identify device '%s'.", pState->strDevice.c_str()),
                              ("system error: %s", g_strerror(ENOENT)));
            return GST_STATE_CHANGE_FAILURE;
        }
    } else if (i_eChange == GST_STATE_CHANGE_READY_TO_PAUSED) {
        const SIM_ORDER_S &stOrder = pState->objControl.Read();
        if (stOrder.eKind == SIM_ORDER_SLOW) {
            g_usleep(static_cast<gulong>(stOrder.s32Milliseconds) * 1000);
        }
    }
    return GST_ELEMENT_CLASS(sim_v4l2_src_parent_class)->change_state(i_pElement, i_eChange);
}

GstCaps *Fixate(GstBaseSrc *i_pSrc, GstCaps *i_pCaps)
{
    GstCaps *pCaps = gst_caps_make_writable(i_pCaps);
    GstStructure *pFirst = gst_caps_get_structure(pCaps, 0);
    gst_structure_fixate_field_nearest_int(pFirst, "width", 1280);
    gst_structure_fixate_field_nearest_int(pFirst, "height", 720);
    gst_structure_fixate_field_nearest_fraction(pFirst, "framerate", 30, 1);
    return GST_BASE_SRC_CLASS(sim_v4l2_src_parent_class)->fixate(i_pSrc, pCaps);
}

/* True unless the order says that the input has another format than the pipeline. */
bool InputHasFormat(const SIM_ORDER_S &i_stOrder, const GstVideoInfo &i_stInfo)
{
    return i_stOrder.eKind != SIM_ORDER_SWITCH ||
           (i_stOrder.s32Width == i_stInfo.width && i_stOrder.s32Height == i_stInfo.height &&
            i_stOrder.s32Fps * i_stInfo.fps_d == i_stInfo.fps_n);
}

gboolean SetCaps(GstBaseSrc *i_pSrc, GstCaps *i_pCaps)
{
    SOURCE_STATE_S *pState = Self(i_pSrc)->pState;
    GstVideoInfo stInfo;
    if (!gst_video_info_from_caps(&stInfo, i_pCaps) || stInfo.width > kWidest ||
        stInfo.height > kHighest || stInfo.fps_n == 0 ||
        !InputHasFormat(pState->objControl.Read(), stInfo)) {
        return FALSE;
    }
    pState->stInfo = stInfo;
    pState->objPicture.SetFormat(stInfo.width, stInfo.height, stInfo.stride[0]);
    gst_base_src_set_blocksize(i_pSrc, stInfo.size);
    return TRUE;
}

gboolean Query(GstBaseSrc *i_pSrc, GstQuery *io_pQuery)
{
    const GstVideoInfo &stInfo = Self(i_pSrc)->pState->stInfo;
    if (GST_QUERY_TYPE(io_pQuery) == GST_QUERY_LATENCY && stInfo.fps_n > 0) {
        const GstClockTime u64Frame =
            gst_util_uint64_scale_int(GST_SECOND, stInfo.fps_d, stInfo.fps_n);
        gst_query_set_latency(io_pQuery, TRUE, u64Frame, 4 * u64Frame);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(sim_v4l2_src_parent_class)->query(i_pSrc, io_pQuery);
}

/* The base class waits for a frame's time by the pipeline's clock. */
void GetTimes(GstBaseSrc *, GstBuffer *i_pBuffer, GstClockTime *o_pStart, GstClockTime *o_pEnd)
{
    *o_pStart = GST_BUFFER_PTS(i_pBuffer);
    *o_pEnd = *o_pStart + GST_BUFFER_DURATION(i_pBuffer);
}

gboolean Start(GstBaseSrc *i_pSrc)
{
    Self(i_pSrc)->pState->u64NextFrame = 0;
    return TRUE;
}

void SetUnlocked(GstBaseSrc *i_pSrc, bool i_bUnlocked)
{
    SOURCE_STATE_S *pState = Self(i_pSrc)->pState;
    std::lock_guard<std::mutex> objLock(pState->objMutex);
    pState->bUnlocked = i_bUnlocked;
    pState->objCond.notify_all();
}

gboolean Unlock(GstBaseSrc *i_pSrc)
{
    SetUnlocked(i_pSrc, true);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc *i_pSrc)
{
    SetUnlocked(i_pSrc, false);
    return TRUE;
}

/* Carries out the order in force; GST_FLOW_OK means that a frame is due. */
GstFlowReturn Obey(GstElement *i_pElement, SOURCE_STATE_S *i_pState)
{
    std::unique_lock<std::mutex> objLock(i_pState->objMutex);
    while (i_pState->objControl.Read().eKind == SIM_ORDER_STALL) {
        if (i_pState->bUnlocked) {
            return GST_FLOW_FLUSHING;
        }
        i_pState->objCond.wait_for(objLock, kStallPause);
    }
    objLock.unlock();

    const SIM_ORDER_S stOrder = i_pState->objControl.Read();
    if (stOrder.eKind == SIM_ORDER_END) {
        i_pState->objControl.Done();
        return GST_FLOW_EOS;
    }
    if (stOrder.eKind == SIM_ORDER_FAIL) {
        i_pState->objControl.Done();
        GST_ELEMENT_ERROR(i_pElement, RESOURCE, READ,
                          ("Failed to read from '%s'.", i_pState->strDevice.c_str()),
                          ("system error: %s", g_strerror(EIO)));
        return GST_FLOW_ERROR;
    }
    return InputHasFormat(stOrder, i_pState->stInfo) ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

/* The frame the input shows now: the next one, or a later one when the pipeline fell behind. */
UInt64 DueFrame(GstElement *i_pElement, const SOURCE_STATE_S *i_pState)
{
    const GstClockTime u64Now = gst_element_get_current_running_time(i_pElement);
    UInt64 u64Shown = 0;
    if (GST_CLOCK_TIME_IS_VALID(u64Now)) {
        u64Shown = gst_util_uint64_scale(u64Now, i_pState->stInfo.fps_n,
                                         i_pState->stInfo.fps_d * GST_SECOND);
    }
    return std::max(i_pState->u64NextFrame, u64Shown);
}

GstFlowReturn Fill(GstPushSrc *i_pSrc, GstBuffer *o_pBuffer)
{
    SOURCE_STATE_S *pState = Self(i_pSrc)->pState;
    const GstFlowReturn eObeyed = Obey(GST_ELEMENT(i_pSrc), pState);
    if (eObeyed != GST_FLOW_OK) {
        return eObeyed;
    }
    const UInt64 u64Frame = DueFrame(GST_ELEMENT(i_pSrc), pState);
    pState->u64NextFrame = u64Frame + 1;

    GstMapInfo stMap;
    if (!gst_buffer_map(o_pBuffer, &stMap, GST_MAP_WRITE) || stMap.size < pState->stInfo.size) {
        GST_ELEMENT_ERROR(i_pSrc, RESOURCE, NO_SPACE_LEFT, ("No room for a picture."), (nullptr));
        return GST_FLOW_ERROR;
    }
    pState->objPicture.Paint(u64Frame, static_cast<UInt64>(g_get_real_time()) / 1000, stMap.data);
    gst_buffer_unmap(o_pBuffer, &stMap);

    const GstVideoInfo &stInfo = pState->stInfo;
    GST_BUFFER_PTS(o_pBuffer) =
        gst_util_uint64_scale(u64Frame, stInfo.fps_d * GST_SECOND, stInfo.fps_n);
    GST_BUFFER_DURATION(o_pBuffer) =
        gst_util_uint64_scale_int(GST_SECOND, stInfo.fps_d, stInfo.fps_n);
    GST_BUFFER_OFFSET(o_pBuffer) = u64Frame;
    GST_BUFFER_OFFSET_END(o_pBuffer) = u64Frame + 1;
    return GST_FLOW_OK;
}

void Finalize(GObject *i_pObject)
{
    delete Self(i_pObject)->pState;
    G_OBJECT_CLASS(sim_v4l2_src_parent_class)->finalize(i_pObject);
}
} // namespace

static void sim_v4l2_src_class_init(SimV4l2SrcClass *i_pClass)
{
    GObjectClass *pObject = G_OBJECT_CLASS(i_pClass);
    GstElementClass *pElement = GST_ELEMENT_CLASS(i_pClass);
    GstBaseSrcClass *pBase = GST_BASE_SRC_CLASS(i_pClass);

    pObject->set_property = SetProperty;
    pObject->get_property = GetProperty;
    pObject->finalize = Finalize;
    pElement->change_state = ChangeState;
    pBase->fixate = Fixate;
    pBase->set_caps = SetCaps;
    pBase->query = Query;
    pBase->get_times = GetTimes;
    pBase->start = Start;
    pBase->unlock = Unlock;
    pBase->unlock_stop = UnlockStop;
    GST_PUSH_SRC_CLASS(i_pClass)->fill = Fill;

    g_object_class_install_property(
        pObject, PROP_DEVICE,
        g_param_spec_string("device", "Device", "Device location", "/dev/video0",
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    gst_element_class_add_static_pad_template(pElement, &s_stSrc);
    gst_element_class_set_static_metadata(pElement, "Stand-in video source", "Source/Video",
                                          "Delivers a test picture instead of the HDMI input",
                                          "mv3300d bench box");
}

static void sim_v4l2_src_init(SimV4l2Src *i_pSelf)
{
    i_pSelf->pState = new SOURCE_STATE_S;
    gst_base_src_set_live(GST_BASE_SRC(i_pSelf), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(i_pSelf), GST_FORMAT_TIME);
}
