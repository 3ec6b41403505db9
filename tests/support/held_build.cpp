#include "tests/support/held_build.h"

#include <atomic>
#include <cstring>

#include <gst/gst.h>

namespace
{
std::atomic<const char *> g_pHold{nullptr}; /* what the text of a held build begins with */
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
    const char *pHold = g_pHold;
    if (pHold != nullptr && strncmp(i_pDescription, pHold, strlen(pHold)) == 0) {
        g_bEntered = true;
        g_bEntered.notify_all();
        g_pHold.wait(pHold);
    }
    return __real_gst_parse_launch(i_pDescription, o_pError);
}
}

void held_build::Hold(const char *i_pBegin)
{
    g_bEntered = false;
    g_pHold = i_pBegin;
}

void held_build::WaitUntilHeld()
{
    g_bEntered.wait(false);
}

void held_build::Release()
{
    g_pHold = nullptr;
    g_pHold.notify_all();
}

void held_build::YieldNothing()
{
    g_bYieldNothing = true;
}
