/*
 * The one place that sees every module. The objects are built before main in the order below and
 * destroyed in the reverse one at exit, when their threads have been stopped and joined.
 */
#include "app/modules.h"

#include "common/box/capture.h"
#include "common/box/config.h"
#include "common/box/monitor.h"
#include "common/bus/msg_queue.h"
#include "common/bus/router.h"
#include "common/bus/timer.h"
#include "common/stream/encoder.h"

CEncoder g_objEncoder;
CTimer g_objTimer;
CConfig g_objConfig;
CCapture g_objCapture;
CMonitor g_objMonitor;

void RegisterModules()
{
    RegisterModule(MODULE_CONFIG, &g_objConfig);
    RegisterModule(MODULE_ENCODER, &g_objEncoder);
    RegisterModule(MODULE_TIMER, &g_objTimer);
    RegisterModule(MODULE_CAPTURE, &g_objCapture);
    RegisterModule(MODULE_MONITOR, &g_objMonitor);
}
