/*
 * vpuenc_h264: H.264 in software with the hardware encoder's properties.
 *
 * A bin of format filter, x264enc and stream filter. Like the hardware it takes 4:2:0 pictures,
 * has no delay, puts an IDR picture exactly every gop-size frames, and repeats the parameter sets
 * at each, so that a receiver can join a running stream.
 */
#include "sim/gst/elements.h"

namespace
{
struct SimVpuEnc {
    GstBin stParent;
    GstElement *pEncoder; /* owned by the bin; null when x264enc is not installed */
    guint u32Bitrate;     /* kbit/s, 0 = the encoder's own choice */
    guint u32GopSize;     /* frames */
};
struct SimVpuEncClass {
    GstBinClass stParent;
};

enum { PROP_0, PROP_BITRATE, PROP_GOP_SIZE };
constexpr guint kDefaultGop = 30;
constexpr guint kOwnChoiceKbit = 2048;
constexpr guint kHighestKbit = 2048000;

GstStaticPadTemplate s_stSink = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string){ NV12, I420 }, width=(int)[ 16, 4096 ], "
                    "height=(int)[ 16, 4096 ], framerate=(fraction)[ 0/1, MAX ]"));
GstStaticPadTemplate s_stSrc = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au"));
} // namespace

G_DEFINE_TYPE(SimVpuEnc, sim_vpu_enc, GST_TYPE_BIN)

namespace
{
SimVpuEnc *Self(gpointer i_pObject)
{
    return G_TYPE_CHECK_INSTANCE_CAST(i_pObject, sim_vpu_enc_get_type(), SimVpuEnc);
}

void Apply(SimVpuEnc *i_pSelf)
{
    if (i_pSelf->pEncoder == nullptr) {
        return;
    }
    const guint u32Bitrate = i_pSelf->u32Bitrate == 0 ? kOwnChoiceKbit : i_pSelf->u32Bitrate;
    g_object_set(i_pSelf->pEncoder, "bitrate", u32Bitrate, "key-int-max", i_pSelf->u32GopSize,
                 nullptr);
}

void SetProperty(GObject *i_pObject, guint i_u32Id, const GValue *i_pValue, GParamSpec *i_pSpec)
{
    SimVpuEnc *pSelf = Self(i_pObject);
    switch (i_u32Id) {
    case PROP_BITRATE:
        pSelf->u32Bitrate = g_value_get_uint(i_pValue);
        break;
    case PROP_GOP_SIZE:
        pSelf->u32GopSize = g_value_get_uint(i_pValue);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(i_pObject, i_u32Id, i_pSpec);
        return;
    }
    Apply(pSelf);
}

void GetProperty(GObject *i_pObject, guint i_u32Id, GValue *o_pValue, GParamSpec *i_pSpec)
{
    SimVpuEnc *pSelf = Self(i_pObject);
    switch (i_u32Id) {
    case PROP_BITRATE:
        g_value_set_uint(o_pValue, pSelf->u32Bitrate);
        break;
    case PROP_GOP_SIZE:
        g_value_set_uint(o_pValue, pSelf->u32GopSize);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(i_pObject, i_u32Id, i_pSpec);
    }
}

GstStateChangeReturn ChangeState(GstElement *i_pElement, GstStateChange i_eChange)
{
    if (i_eChange == GST_STATE_CHANGE_NULL_TO_READY && Self(i_pElement)->pEncoder == nullptr) {
        GST_ELEMENT_ERROR(
            i_pElement, CORE, MISSING_PLUGIN,
            ("The stand-in encoder needs x264enc (Debian: gstreamer1.0-plugins-ugly)"), (nullptr));
        return GST_STATE_CHANGE_FAILURE;
    }
    return GST_ELEMENT_CLASS(sim_vpu_enc_parent_class)->change_state(i_pElement, i_eChange);
}

GstElement *MakeFilter(GstStaticPadTemplate *i_pTemplate, const char *i_pName)
{
    GstElement *pFilter = gst_element_factory_make("capsfilter", i_pName);
    GstCaps *pCaps = gst_static_caps_get(&i_pTemplate->static_caps);
    g_object_set(pFilter, "caps", pCaps, nullptr);
    gst_caps_unref(pCaps);
    return pFilter;
}

void AddGhostPad(SimVpuEnc *i_pSelf, GstElement *i_pInner, const char *i_pName)
{
    GstPad *pPad = gst_element_get_static_pad(i_pInner, i_pName);
    GstPadTemplate *pTemplate =
        gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(i_pSelf), i_pName);
    gst_element_add_pad(GST_ELEMENT(i_pSelf),
                        gst_ghost_pad_new_from_template(i_pName, pPad, pTemplate));
    gst_object_unref(pPad);
}
} // namespace

static void sim_vpu_enc_class_init(SimVpuEncClass *i_pClass)
{
    GObjectClass *pObject = G_OBJECT_CLASS(i_pClass);
    GstElementClass *pElement = GST_ELEMENT_CLASS(i_pClass);
    const auto eFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);

    pObject->set_property = SetProperty;
    pObject->get_property = GetProperty;
    pElement->change_state = ChangeState;
    g_object_class_install_property(pObject, PROP_BITRATE,
                                    g_param_spec_uint("bitrate", "Bit rate",
                                                      "kbit/s (0: the encoder's own choice)", 0,
                                                      kHighestKbit, 0, eFlags));
    g_object_class_install_property(pObject, PROP_GOP_SIZE,
                                    g_param_spec_uint("gop-size", "GOP size",
                                                      "Frames from one IDR picture to the next", 1,
                                                      G_MAXINT, kDefaultGop, eFlags));
    gst_element_class_add_static_pad_template(pElement, &s_stSink);
    gst_element_class_add_static_pad_template(pElement, &s_stSrc);
    gst_element_class_set_static_metadata(
        pElement, "Stand-in H.264 encoder", "Codec/Encoder/Video",
        "Encodes in software what the appliance encodes in hardware", "mv3300d bench box");
}

static void sim_vpu_enc_init(SimVpuEnc *i_pSelf)
{
    i_pSelf->u32GopSize = kDefaultGop;
    GstElement *pFirst = MakeFilter(&s_stSink, "format");
    GstElement *pLast = MakeFilter(&s_stSrc, "stream");
    gst_bin_add_many(GST_BIN(i_pSelf), pFirst, pLast, nullptr);
    i_pSelf->pEncoder = gst_element_factory_make("x264enc", "encoder");
    if (i_pSelf->pEncoder != nullptr) {
        gst_bin_add(GST_BIN(i_pSelf), i_pSelf->pEncoder);
        gst_util_set_object_arg(G_OBJECT(i_pSelf->pEncoder), "tune", "zerolatency");
        gst_util_set_object_arg(G_OBJECT(i_pSelf->pEncoder), "speed-preset", "ultrafast");
        /* Scene cuts would add IDR pictures between those that gop-size asks for. */
        g_object_set(i_pSelf->pEncoder, "option-string", "scenecut=0", nullptr);
        gst_element_link_many(pFirst, i_pSelf->pEncoder, pLast, nullptr);
        Apply(i_pSelf);
    }
    AddGhostPad(i_pSelf, pFirst, "sink");
    AddGhostPad(i_pSelf, pLast, "src");
}
