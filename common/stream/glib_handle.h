/*
 * Scope-bound handles of what GLib and GStreamer hand out: each gives up one reference, or frees,
 * when it goes.
 */
#pragma once

#include <memory>

#include <gst/gst.h>

template <auto i_pRelease> struct GLIB_RELEASE_S {
    template <typename Type> void operator()(Type *i_pObject) const { i_pRelease(i_pObject); }
};

using GMAIN_CONTEXT_PTR = std::unique_ptr<GMainContext, GLIB_RELEASE_S<g_main_context_unref>>;
using GMAIN_LOOP_PTR = std::unique_ptr<GMainLoop, GLIB_RELEASE_S<g_main_loop_unref>>;
using GSOURCE_PTR = std::unique_ptr<GSource, GLIB_RELEASE_S<g_source_unref>>;
using GERROR_PTR = std::unique_ptr<GError, GLIB_RELEASE_S<g_error_free>>;
using GTEXT_PTR = std::unique_ptr<gchar, GLIB_RELEASE_S<g_free>>;
using GST_ELEMENT_PTR = std::unique_ptr<GstElement, GLIB_RELEASE_S<gst_object_unref>>;
using GST_BUS_PTR = std::unique_ptr<GstBus, GLIB_RELEASE_S<gst_object_unref>>;
