/*
 * Pipeline runner: turns one textual pipeline description into a running GStreamer pipeline and
 * keeps it running inside a GLib main loop until it is told to stop or an element fails.
 *
 * It has no thread of its own: the thread that starts a pipeline is blocked for the pipeline's
 * life and runs the bus callback; any other thread may stop it. Every run has a GLib main context
 * of its own, so that two runners in one process never dispatch each other's messages.
 *
 * Invariant: a run has a number from the moment it is announced until its clean-up is over, and a
 * context as long. A stop leaves its request in that context, where it waits for the loop however
 * long the pipeline takes to build, and ends the run of that number only.
 */
#pragma once

#include <atomic>
#include <string>

#include "common/bus/msg_queue.h"
#include "common/stream/glib_handle.h"
#include "framework/mutex.h"
#include "framework/types.h"

/* The longest that a stop takes, milliseconds: 41 polls 500 ms apart of a loop that does not run
 * yet, 10 polls 1 s apart of a clean-up that is not over, 500 ms to settle. */
constexpr unsigned GST_STOP_LONGEST_MS = 41 * 500 + 10 * 1000 + 500;

/* The life of one run; the bus callback gets to know it. All null and 0 between runs. */
struct GST_OBJ_ST {
    GMAIN_LOOP_PTR pLoop;       /* null until the run begins */
    GST_ELEMENT_PTR pSource;    /* the pipeline; null until it is built */
    std::string strName;        /* the runner's name when the pipeline was started */
    GMAIN_CONTEXT_PTR pContext; /* from the announcement on */
    UInt64 u64Number = 0;       /* of the announcement, counted from 1; 0: none */
};

class CGstObj
{
public:
    /* i_strName: names the runner in its log lines. */
    explicit CGstObj(const std::string &i_strName);
    CGstObj(const CGstObj &) = delete;
    CGstObj &operator=(const CGstObj &) = delete;

    /* GStreamer's set-up and tear-down (gst_init, gst_deinit): each once per process; after the
     * tear-down no pipeline can be started any more. */
    static void Initialize();
    static void Deinitialize();

    /* Runs the description in the message's payload, text of up to 1024 bytes that ends at the
     * first NUL, and returns when the run is over. Always 0; a null message, a description that
     * cannot be built and a start beside a run are logged. i_pArg is not used. */
    int HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* Ends the run and waits for its end; for any thread but the one that runs the pipeline.
     * Takes half a second at least, and GST_STOP_LONGEST_MS when a build hangs; the run then ends
     * as soon as it is built. 1, or 0 at once when there is no loop: then only an announced start
     * is affected, and ends as soon as it is built. Both arguments are not used. */
    int HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* The start itself, see HandleStartMsgEnc. Always 0. */
    int StartGst(std::string &i_strCmd);

    /* Announces a start: from here on a stop is not lost, even before there is a loop. The number
     * of the announcement; 0, and nothing happens, if a start is announced or running already. */
    UInt64 PrepareStart();
    /* Takes back the announcement of this number if no run has used it up; does not touch a run or
     * an announcement of another number. */
    void CancelStart(UInt64 i_u64Number);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    CGstObj(); /* named "gst-obj" */

private:
    static gboolean on_source_message(GstBus *i_pBus, GstMessage *i_pMsg, gpointer i_pObj);
    static gboolean QuitLoop(gpointer i_pObj);

    Bool EnterRun();
    Bool BuildPipeline(const std::string &i_strCmd);
    void RunPipeline();
    void LeaveRun();
    Bool IsLoopAwaited(UInt64 i_u64Number);
    Bool IsRunning(UInt64 i_u64Number);
    void AskQuit(UInt64 i_u64Number);

    std::string m_strCmd; /* description of the last start request */
    GST_OBJ_ST m_stGstObj;
    std::atomic<SInt32> m_iRunning; /* 1 from the beginning of a build to the end of its clean-up */
    std::string m_strName;
    /* Held for moments only, never while GStreamer works or a line is logged. It guards all but
     * m_iRunning and m_strName. The running thread alone writes the run's loop, pipeline and name,
     * and may read them without it. */
    CMutex m_objRunMutex;
    UInt64 m_u64Announced; /* runs announced so far */
};
