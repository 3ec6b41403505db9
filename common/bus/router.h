/*
 * The router carries messages to modules. It knows them through a table that is filled where the
 * objects are made, before the first thread starts; from then on the table is only read.
 */
#pragma once

#include "framework/mutex.h"
#include "framework/types.h"

class CModule;

/* Messages to i_u32Id, below 16, go to this module from now on; null: to none. Before the first
 * module's thread starts. The module must live as long as messages are sent. */
void RegisterModule(UInt32 i_u32Id, CModule *i_pModule);

/* Held while a synchronous message is carried. Spelled so on purpose. */
extern CMutex g_objRuningMutex;
