/*
 * The one place that sees every module. The objects are built before main in the order below and
 * destroyed in the reverse one at exit, when their threads have been stopped and joined.
 */
#include "app/modules.h"

#include "common/bus/router.h"

CEncoder g_objEncoder;
CTimer g_objTimer;
CConfig g_objConfig;
CCapture g_objCapture;
CMonitor g_objMonitor;
CMutex g_objRuningMutex;

void RegisterModules()
{
    SetUpRouter(&g_objRuningMutex,
                {&g_objConfig, &g_objEncoder, &g_objTimer, &g_objCapture, &g_objMonitor});
}
