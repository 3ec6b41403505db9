/*
 * One-shot readiness events of descriptors, over select(2).
 *
 * A request arms a descriptor for reading or writing. Once it is reported ready it is disarmed
 * until its owner arms it again. Any thread may arm and remove descriptors; one thread, the event
 * thread, waits. A removed descriptor is closed by the event thread, once select no longer holds
 * it, so its number cannot come back under another meaning before.
 *
 * Descriptors are limited to the bits of an fd_set: 0 to 1023.
 */
#pragma once

#include <cstddef>

#include "framework/types.h"

/* Event bits */
constexpr SInt32 EV_READ = 1;
constexpr SInt32 EV_WRITE = 2;

/* er_type: a descriptor request, the only kind there is. */
constexpr SInt32 EV_TYPE_FD = 1;

struct eventreq {
    SInt32 er_type;
    SInt32 er_handle;      /* the descriptor */
    void *er_data;         /* cookie that comes back with the event; never null in a request */
    SInt32 er_counters[3]; /* always 0 */
    SInt32 er_eventbits;   /* EV_READ, EV_WRITE or both; in an event, one of them */
};
static_assert(sizeof(void *) == 8, "cookies carry 64 bits");
static_assert(sizeof(eventreq) == 32);
static_assert(offsetof(eventreq, er_data) == 8);
static_assert(offsetof(eventreq, er_eventbits) == 28);

/* Sets the interface up; later calls do nothing. Before every other function here. Returns 0;
 * asserts that the system could give it a pipe. */
int select_startevents();

/* Arms the descriptor i_pReq->er_handle for the events in i_s32Mask and for no other, with the
 * request's cookie, and wakes the event thread. Any thread. Returns 0, or EBADF for a negative
 * descriptor; asserts that the descriptor is below 1024 and the cookie not null. */
int select_watchevent(eventreq *i_pReq, int i_s32Mask);
int select_modwatch(eventreq *i_pReq, int i_s32Mask);

/* Disarms the descriptor and leaves it to the event thread to close. Any thread. Returns 0, or
 * EBADF for a negative descriptor; asserts that fewer than 1024 descriptors wait to be closed. */
int select_removeevent(int i_s32FileDesc);

/* For the event thread alone. Returns 0 with the next event in *o_pReq: of the descriptors found
 * ready together the readable ones come first, each kind in ascending order. Returns EINTR when
 * there is none yet and the call is to be repeated, and a negative value with errno set when
 * select failed. The second argument is not used. */
int select_waitevent(eventreq *o_pReq, void *i_pUnused);

/* Steps of select_waitevent: fill *o_pReq for a ready descriptor and disarm it; and true when
 * results of select are ready to be handed out. */
int constructeventreq(eventreq *o_pReq, int i_s32FileDesc, int i_s32Mask);
Bool selecthasdata();
