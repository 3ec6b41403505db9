/*
 * The hand-over of a task between threads, as in framework/task.cpp: whoever sets the alive bit of
 * the event word first queues the task, the pool thread that takes it runs it, and gives it back
 * with a compare-and-store that fails when an event came meanwhile.
 *
 * The word and the ready queue are under mutexes, so each operation on them is one step here. What
 * they guard is plain memory: TOUCH takes two steps, and nobody else's may lie between. Without such
 * a race C++ allows no order but these.
 *
 * faults: PLAIN_STORE LATE_TOUCH NO_BATON
 */
#define SIGNALLERS 3
#define ALIVE 128
#define TOUCH atomic { assert(!busy); busy = true } busy = false

byte word, handled;
bool busy;          /* somebody reads or writes the task's own members */
byte queued;        /* the task is in so many ready queues */
byte done;

proctype Signaller(byte bits)
{
    byte old;
    d_step { old = word; word = word | ALIVE | bits }
    if
#ifndef NO_BATON
    :: (old & ALIVE) != 0 -> skip
    :: (old & ALIVE) == 0 ->
#else
    :: true ->
#endif
        TOUCH;      /* bound and current thread, the queue's element */
        d_step { queued++; assert(queued == 1) }
    fi;
    done++
}

proctype PoolThread()
{
    byte events;
    bool given;
end:
    do
    :: atomic { queued > 0 -> queued-- };
        given = false;
        do
        :: given -> break
        :: !given ->
            TOUCH;  /* m_pCurrentThread, Run() */
            d_step { events = word & 127; }
            d_step { word = word - events; handled = handled | events; events = 0 }
#ifdef PLAIN_STORE
            word = 0;
            given = true
#else
            d_step {
                if
                :: word == ALIVE -> word = 0; given = true
                :: else -> skip
                fi
            }
#endif
#ifdef LATE_TOUCH
            ; TOUCH
#endif
        od
    od
}

init {
    atomic {
        run PoolThread(); run PoolThread();
        run Signaller(1); run Signaller(2); run Signaller(4)
    }
    done == SIGNALLERS && word == 0;
    assert(handled == 7 && queued == 0)
}
