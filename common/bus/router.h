/*
 * The router carries messages to modules. It knows them through a table that is filled where the
 * objects are made, before the first thread starts; from then on the table is only read.
 */
#pragma once

#include <initializer_list>

#include "common/bus/msg_queue.h"
#include "framework/mutex.h"

class CModule;

/* Messages go to these modules by their numbers, which are below 16, from now on; to no others.
 * i_pRunningMutex is held while a synchronous message is carried. All must live as long as messages
 * are sent. Called before the first module's thread starts. */
void SetUpRouter(CMutex *i_pRunningMutex, std::initializer_list<CModule *> i_objModules);

/* Delivers a message by its type and destination.
 *
 * MSG_TYPE_ASYNC queues a copy for the receiver's thread. MSG_TYPE_SYNC runs the receiver's
 * handler in the calling thread, under the running mutex; the answer is written to o_pResult,
 * whose size is the message's (see the handlers of the modules), null where no answer is wanted.
 * Returns the queue's or the handler's result; 0 for a null message; 0 with an ERROR line for an
 * unknown type or destination, or a running mutex that stayed busy for about 2.9 s. o_pResult is
 * unfilled then. */
int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

/* Tries 30 times, 100 ms apart. 1 locked; 0 not, or a null mutex. */
int GetRunningMutex(CMutex *i_pMutex);
/* 1 unlocked; 0 for a null mutex. */
int PutRunningMutex(CMutex *i_pMutex);
