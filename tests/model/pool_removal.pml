/*
 * The removal of a pool of threads, as in framework/task.cpp, beside threads that signal.
 *
 * A visitor counts itself in before it looks at the number of threads; the remover makes the number
 * 0 before it looks at the count. That needs one order of all four for everybody (seq_cst). RELAXED
 * lets each side's two steps happen in either order, as ARM64 does. The stop request is relaxed: a
 * thread may miss it for any time, but not see it before it is made. Queues are under mutexes, so
 * an operation on one is a step.
 *
 * faults: RELAXED NO_LAST_LOOK STOP_FIRST NO_OWN_QUEUE
 */
#define THREADS 2
#define OUTSIDE 2
#define TASKS 4     /* one per outside thread; each, when run, signals one more, once */

byte count = THREADS, visitors, ended, signalled;
byte ready[THREADS];            /* bits of tasks */
byte queued, ran;               /* bits of tasks: queued at all, run */
bool stop, freed;

/* CTaskThreadPool::Queue(); own: the number of the calling pool thread, else THREADS. */
inline Queue(task, own, seen, target)
{
#ifdef RELAXED
    if
    :: visitors++; seen = count
    :: seen = count; visitors++
    fi;
#else
    visitors++;
    seen = count;
#endif
    if
    :: seen == 0 ->
#ifndef NO_OWN_QUEUE
        if
        :: own < THREADS -> d_step { ready[own] = ready[own] | (1 << task); queued = queued | (1 << task) }
        :: else -> skip     /* kept: it never runs */
        fi
#else
        if
        :: own < THREADS -> queued = queued | (1 << task)   /* lost although a task of the pool asked */
        :: else -> skip
        fi
#endif
    :: else ->
        if :: target = 0 :: target = 1 fi;
        assert(!freed);
        d_step { ready[target] = ready[target] | (1 << task); queued = queued | (1 << task) }
    fi;
    visitors--
}

proctype Outside(byte task)
{
    byte seen, target;
    Queue(task, THREADS, seen, target);
    signalled++
}

inline Take(own, task)
{
    d_step {
        task = 0;
        do
        :: task < TASKS && (ready[own] & (1 << task)) == 0 -> task++
        :: else -> break
        od;
        if
        :: task < TASKS -> ready[own] = ready[own] & ~(1 << task)
        :: else -> skip
        fi
    }
}

proctype PoolThread(byte own)
{
    byte task, seen, target;
    do
    :: true ->
        Take(own, task);            /* or the wait ended without one */
        if
        :: task == TASKS && stop ->
#ifndef NO_LAST_LOOK
            Take(own, task);
#endif
            if
            :: task == TASKS -> break
            :: else -> skip
            fi
        :: else -> skip             /* also a request that is not seen yet */
        fi;
        if
        :: task < TASKS ->
            ran = ran | (1 << task);
            if
            :: task < OUTSIDE -> Queue(task + OUTSIDE, own, seen, target)
            :: else -> skip
            fi
        :: else -> skip
        fi
    od;
    ended++
}

init {
    byte looked;
    atomic {
        run PoolThread(0); run PoolThread(1);
        run Outside(0); run Outside(1)
    }
#ifdef STOP_FIRST
    stop = true;
    ended == THREADS;
    count = 0;
    visitors == 0;
#else
#ifdef RELAXED
    if
    :: count = 0; visitors == 0
    :: visitors == 0; count = 0
    fi;
#else
    count = 0;
    visitors == 0;
#endif
    stop = true;
    ended == THREADS;
#endif
    freed = true;
    assert(ran == queued);
    signalled == OUTSIDE;
    assert(ran == queued)
}
