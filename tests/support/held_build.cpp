#include "tests/support/held_build.h"

#include <condition_variable>
#include <mutex>

#include <gst/gst.h>

namespace
{
std::mutex g_objMutex;
std::condition_variable g_objCond;
bool g_bHold = false;
bool g_bEntered = false;
bool g_bYieldNothing = false;
} // namespace

extern "C" {
GstElement *__real_gst_parse_launch(const gchar *, GError **);

GstElement *__wrap_gst_parse_launch(const gchar *i_pDescription, GError **o_pError)
{
    {
        std::unique_lock objLock(g_objMutex);
        if (g_bYieldNothing) {
            g_bYieldNothing = false;
            return nullptr;
        }
        if (g_bHold) {
            g_bEntered = true;
            g_objCond.notify_all();
            g_objCond.wait(objLock, [] { return !g_bHold; });
        }
    }
    return __real_gst_parse_launch(i_pDescription, o_pError);
}
}

void held_build::Hold()
{
    std::lock_guard objLock(g_objMutex);
    g_bHold = true;
    g_bEntered = false;
}

void held_build::WaitUntilHeld()
{
    std::unique_lock objLock(g_objMutex);
    g_objCond.wait(objLock, [] { return g_bEntered; });
}

void held_build::Release()
{
    std::lock_guard objLock(g_objMutex);
    g_bHold = false;
    g_objCond.notify_all();
}

void held_build::YieldNothing()
{
    std::lock_guard objLock(g_objMutex);
    g_bYieldNothing = true;
}
