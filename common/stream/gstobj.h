/*
 * Pipeline runner: turns one textual pipeline description into a running GStreamer pipeline and
 * keeps it running inside a GLib main loop until it is told to stop or an element fails.
 *
 * It has no thread of its own: the thread that starts a pipeline is blocked for the pipeline's
 * life and runs the bus callback; any other thread may stop it. Every run has a GLib main context
 * of its own, so that two runners in one process never dispatch each other's messages.
 *
 * Invariant: a loop exists only while a context exists, and the context exists from the moment a
 * start is announced until its run is over. A stop leaves its request in that context, where it
 * waits for the loop however long the pipeline takes to build.
 */
#pragma once

#include <atomic>
#include <string>

#include <gst/gst.h>

#include "common/bus/msg_queue.h"
#include "framework/mutex.h"
#include "framework/types.h"

/* What the bus callback gets to know of its run. */
struct GST_OBJ_ST {
    GMainLoop *pLoop;    /* null when no pipeline runs */
    GstElement *pSource; /* the pipeline; null when none is built */
    std::string strName; /* the runner's name when the pipeline was started */
};

class CGstObj
{
public:
    CGstObj();
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
     * Takes half a second at least, and about 31 s when a build hangs; the run then ends as soon
     * as it is built. 1, or 0 at once when there is no loop: then only an announced start is
     * affected, and ends as soon as it is built. Both arguments are not used. */
    int HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* The start itself, see HandleStartMsgEnc. Always 0. */
    int StartGst(std::string &i_strCmd);

    /* Announces a start: from here on a stop is not lost, even before there is a loop. Nothing
     * happens if a start is announced or running already. */
    void PrepareStart();
    /* Takes back an announcement that no run has used up; does not touch a run. */
    void CancelStart();

private:
    static gboolean on_source_message(GstBus *i_pBus, GstMessage *i_pMsg, gpointer i_pObj);
    static gboolean QuitLoop(gpointer i_pObj);

    Bool EnterRun();
    Bool BuildPipeline(const std::string &i_strCmd);
    void RunPipeline();
    void LeaveRun();
    Bool IsLoopAwaited();
    void AskQuit();

    std::string m_strCmd; /* description of the last start request */
    GST_OBJ_ST m_stGstObj;
    std::atomic<SInt32> m_iRunning; /* 1 from the beginning of a build to the end of its clean-up */
    std::string m_strName;
    /* Held for moments only, never while GStreamer works or a line is logged. It guards m_strCmd,
     * both pointers in m_stGstObj (written by the running thread, which alone may read them
     * without it) and m_pContext. */
    CMutex m_objRunMutex;
    GMainContext *m_pContext; /* of the announced or present run */
};
