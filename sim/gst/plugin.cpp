/*
 * Registers the stand-in elements.
 *
 * The file has the name of the stock plug-in that holds v4l2src: GStreamer takes the first plug-in
 * of a file name that it finds, so that the stock one does not come into play in the box.
 */
#include "sim/gst/elements.h"

namespace
{
gboolean InitPlugin(GstPlugin *i_pPlugin)
{
    return gst_element_register(i_pPlugin, "v4l2src", GST_RANK_PRIMARY, sim_v4l2_src_get_type()) &&
           gst_element_register(i_pPlugin, "vpuenc_h264", GST_RANK_NONE, sim_vpu_enc_get_type());
}
} // namespace

#define PACKAGE "mv3300d"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, video4linux2,
                  "Stand-ins for the capture device and the hardware encoder", InitPlugin, "1.0",
                  GST_LICENSE_UNKNOWN, "mv3300d bench box", "https://example.invalid/mv3300d")
