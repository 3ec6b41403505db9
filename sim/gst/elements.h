/*
 * The elements that the bench box puts in the place of the appliance's hardware.
 *
 * v4l2src delivers a test picture instead of the HDMI input and obeys sim/gst/source_control.h;
 * vpuenc_h264 encodes in software what the hardware encoder would. Both appear to the daemon under
 * the names and properties that its pipeline descriptions use.
 */
#pragma once

#include <gst/gst.h>

GType sim_v4l2_src_get_type();
GType sim_vpu_enc_get_type();
