/*
 * The start of a run by a worker and its stop by the owner, as in common/stream/gstenc.cpp and
 * gstobj.cpp: the owner requests the worker's stop, stops the run, and joins. Whatever the order, the
 * worker's loop must not go on; a worker that does leaves the owner in its join, a deadlock here.
 *
 * The start mutex and the run mutex are held for moments: what is done under one is a step. The stop
 * request is relaxed, so the worker may still read false after it was made, unless it took a mutex
 * that the owner had given up since. A quit is a source in the run's context and stays there.
 *
 * faults: ANNOUNCED_LATE QUIT_IN_LOOP_ONLY REQUEST_LAST
 */
bool request;               /* the worker's stop request */
bool carried;               /* the owner gave the start mutex up after the request */
bool synced;                /* the worker took it afterwards */
bool announced, loop, quit; /* of the runner: a start, its loop, a quit in its context */
bool superseded;            /* the queued start is not to be taken any more */
bool numbered;              /* the start came through the queue, and can be superseded */
bool ended;

inline Announce() { if :: !announced -> announced = true; quit = false :: else -> skip fi }

proctype Worker()
{
    bool taken, seen;
    if :: numbered = true :: numbered = false fi;
    /* TakeStart() */
    d_step {
        synced = carried;
        taken = !(numbered && superseded);
        if
#ifndef ANNOUNCED_LATE
        :: taken -> Announce()
#endif
        :: else -> skip
        fi
    }
    if
    :: request -> seen = true
    :: !request || !synced -> seen = false
    fi;
    if
    :: taken && !seen ->
        d_step { Announce(); loop = true }      /* EnterRun() */
        skip;                                   /* the pipeline is built */
        quit;                                   /* the loop runs until then */
        d_step { announced = false; loop = false; quit = false }
    :: else ->
        d_step { if :: announced && !loop -> announced = false; quit = false :: else -> skip fi }
    fi;
    ended = true
}

proctype Owner()
{
    bool found;
#ifndef REQUEST_LAST
    request = true;
#endif
    d_step { superseded = true; carried = request }     /* HandleStopMsgEnc() of the worker */
    d_step {                                            /* and of its runner */
        found = loop;
        if
#ifndef QUIT_IN_LOOP_ONLY
        :: !found && announced -> quit = true
#endif
        :: else -> skip
        fi
    }
    if
    :: found -> d_step { if :: announced -> quit = true :: else -> skip fi }
    :: else -> skip
    fi;
#ifdef REQUEST_LAST
    request = true;
#endif
    ended               /* Join() */
}

init { atomic { run Worker(); run Owner() } }
