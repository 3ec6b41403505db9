/*
 * The daemon's modules: process-wide objects, made and entered in the router's table in one place.
 */
#pragma once

#include "common/box/capture.h"
#include "common/box/config.h"
#include "common/box/monitor.h"
#include "common/bus/timer.h"
#include "common/stream/encoder.h"

extern CEncoder g_objEncoder;
extern CTimer g_objTimer;
extern CConfig g_objConfig;
extern CCapture g_objCapture;
extern CMonitor g_objMonitor;
/* Held while a synchronous message is carried. Kept: spelled with one n, since a core dump is read
 * by the name it has always had. */
extern CMutex g_objRuningMutex;

/* Enters every module in the router's table. Once, before the first module is started. */
void RegisterModules();
