#include "tests/support/held_build.h"

#include <atomic>

#include <gst/gst.h>

namespace
{
std::atomic<bool> g_bHold{false};
std::atomic<bool> g_bEntered{false};
std::atomic<bool> g_bYieldNothing{false};
} // namespace

extern "C" {
GstElement *__real_gst_parse_launch(const gchar *, GError **);

GstElement *__wrap_gst_parse_launch(const gchar *i_pDescription, GError **o_pError)
{
    if (g_bYieldNothing.exchange(false)) {
        return nullptr;
    }
    if (g_bHold) {
        g_bEntered = true;
        g_bEntered.notify_all();
        g_bHold.wait(true);
    }
    return __real_gst_parse_launch(i_pDescription, o_pError);
}
}

void held_build::Hold()
{
    g_bEntered = false;
    g_bHold = true;
}

void held_build::WaitUntilHeld()
{
    g_bEntered.wait(false);
}

void held_build::Release()
{
    g_bHold = false;
    g_bHold.notify_all();
}

void held_build::YieldNothing()
{
    g_bYieldNothing = true;
}
