/*
 * Takes the place of the router in the fuzz targets: what a module sends is checked by the target
 * instead of being delivered.
 */
#pragma once

#include "common/bus/router.h"

/* The target's answer to a message, see SendSyncAndAsyncMsg. */
int OnFuzzedMessage(const MSG_DESC_INFO_S &i_stMsg, void *o_pResult);
