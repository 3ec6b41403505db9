/*
 * Pipeline runner over gst_parse_launch and a GLib main loop.
 *
 * The running thread owns the loop, the pipeline and the context; a stopping thread only looks at
 * them under the mutex and leaves its request as an idle source in the context.
 */
#include "common/stream/gstobj.h"

#include <cstring>

#include <gst/app/gstappsrc.h>

#include "common/bus/log.h"
#include "framework/thread.h"

namespace
{
constexpr SInt32 kLoopWaitLast = 40; /* so 41 rounds */
constexpr unsigned kLoopWaitMs = 500;
constexpr SInt32 kCleanUpWaitLast = 9; /* so 10 rounds */
constexpr unsigned kCleanUpWaitMs = 1000;
constexpr unsigned kSettleMs = 500;
} // namespace

CGstObj::CGstObj() : CGstObj("gst-obj") {}

CGstObj::CGstObj(const std::string &i_strName)
    : m_stGstObj{nullptr, nullptr, ""}, m_iRunning(0), m_strName(i_strName), m_pContext(nullptr)
{
}

void CGstObj::Initialize()
{
    gst_init(nullptr, nullptr);
}

void CGstObj::Deinitialize()
{
    gst_deinit();
}

int CGstObj::HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    if (i_pMsg == nullptr) {
        LOG_ERROR("start msg null in [%s]", m_strName.c_str());
        return 0;
    }
    const char *pText = reinterpret_cast<const char *>(i_pMsg->payload);
    /* The run reads a copy, since a second start is refused only after it has stored its own. */
    std::string strCmd;
    {
        CMutexLocker objLocker(&m_objRunMutex);
        m_strCmd.clear();
        m_strCmd.append(pText, strnlen(pText, sizeof(i_pMsg->payload)));
        strCmd = m_strCmd;
    }
    return StartGst(strCmd) != 0 ? 1 : 0;
}

int CGstObj::StartGst(std::string &i_strCmd)
{
    LOG_INFO("gst cmd [%s] in [%s]", i_strCmd.c_str(), m_strName.c_str());
    if (!EnterRun()) {
        LOG_ERROR("m_stGstObj.pLoop OR m_stGstObj.pSource is not null in [%s]", m_strName.c_str());
        return 0;
    }
    if (BuildPipeline(i_strCmd)) {
        RunPipeline();
    }
    LeaveRun();
    return 0;
}

/* Creates the loop. False if there is one already; nothing is touched then. */
Bool CGstObj::EnterRun()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_stGstObj.pLoop != nullptr || m_stGstObj.pSource != nullptr) {
        return false;
    }
    PrepareStart();
    m_stGstObj.strName = m_strName;
    m_iRunning.store(1);
    m_stGstObj.pLoop = g_main_loop_new(m_pContext, FALSE);
    /* A bus watch is dispatched by the context that is this thread's default when it is added. */
    g_main_context_push_thread_default(m_pContext);
    return true;
}

/* False if there is nothing to run. What was built in spite of an error is left to LeaveRun. */
Bool CGstObj::BuildPipeline(const std::string &i_strCmd)
{
    GError *error = nullptr;
    gchar *pDescription = g_strdup_printf("%s", i_strCmd.c_str());
    GstElement *pSource = gst_parse_launch(pDescription, &error);
    g_free(pDescription);
    {
        CMutexLocker objLocker(&m_objRunMutex);
        m_stGstObj.pSource = pSource;
    }
    if (error != nullptr) {
        LOG_ERROR("pipeline could not be constructed: %s in [%s]", error->message,
                  m_strName.c_str());
        g_error_free(error);
        return false;
    }
    if (pSource == nullptr) {
        LOG_ERROR("Bad source in %s", m_strName.c_str());
        /* kept: the loop is released here and again in the clean-up; this reference balances the
         * two. */
        g_main_loop_ref(m_stGstObj.pLoop);
        g_main_loop_unref(m_stGstObj.pLoop);
        return false;
    }
    return true;
}

void CGstObj::RunPipeline()
{
    /* A lone element is no pipeline and has no bus: it runs unwatched. */
    GstBus *pBus = gst_element_get_bus(m_stGstObj.pSource);
    if (pBus != nullptr) {
        gst_bus_add_watch(pBus, on_source_message, &m_stGstObj);
        gst_object_unref(pBus);
    }
    gst_element_set_state(m_stGstObj.pSource, GST_STATE_PLAYING);
    LOG_INFO("Let's run [%s]!", m_strName.c_str());
    g_main_loop_run(m_stGstObj.pLoop);
    LOG_INFO("Going out [%s]", m_strName.c_str());
    gst_element_set_state(m_stGstObj.pSource, GST_STATE_NULL);

    /* The watch keeps the bus with its descriptors alive, so it goes before the pipeline. */
    pBus = gst_element_get_bus(m_stGstObj.pSource);
    if (pBus != nullptr) {
        gst_bus_remove_watch(pBus);
        gst_object_unref(pBus);
    }
}

void CGstObj::LeaveRun()
{
    if (m_stGstObj.pSource != nullptr) {
        gst_object_unref(m_stGstObj.pSource);
    }
    g_main_context_pop_thread_default(m_pContext);
    CMutexLocker objLocker(&m_objRunMutex);
    g_main_loop_unref(m_stGstObj.pLoop);
    m_stGstObj.pSource = nullptr;
    m_stGstObj.pLoop = nullptr;
    /* A stop request that came too late for this run dies with the context. */
    g_main_context_unref(m_pContext);
    m_pContext = nullptr;
    m_iRunning.store(0);
}

gboolean CGstObj::on_source_message(GstBus *, GstMessage *i_pMsg, gpointer i_pObj)
{
    auto *pObj = static_cast<GST_OBJ_ST *>(i_pObj);
    GstMessageType u32Type = GST_MESSAGE_TYPE(i_pMsg);
    switch (u32Type) {
    case GST_MESSAGE_EOS: {
        LOG_ERROR("The source in [%s] got dry", pObj->strName.c_str());
        /* kept: the pipeline is told the end of stream as if it were an application source, which
         * it refuses, and is then released. This reference pays for that release: the pipeline is
         * needed until the stop. The cast is called by name since its macro vanishes from an
         * optimised build. */
        gst_object_ref(pObj->pSource);
        gst_app_src_end_of_stream(reinterpret_cast<GstAppSrc *>(g_type_check_instance_cast(
            reinterpret_cast<GTypeInstance *>(pObj->pSource), gst_app_src_get_type())));
        gst_object_unref(pObj->pSource);
        break;
    }
    case GST_MESSAGE_ERROR:
        LOG_ERROR("Received error in [%s]", pObj->strName.c_str());
        g_main_loop_quit(pObj->pLoop);
        break;
    default:
        LOG_DEBUG("receive message 0x%x:%s in [%s]", static_cast<unsigned>(u32Type),
                  gst_message_type_get_name(u32Type), pObj->strName.c_str());
        break;
    }
    return TRUE;
}

int CGstObj::HandleStopMsgEnc(const MSG_DESC_INFO_S *, void *)
{
    Bool bLoop = false;
    {
        CMutexLocker objLocker(&m_objRunMutex);
        bLoop = m_stGstObj.pLoop != nullptr;
        if (!bLoop) {
            AskQuit();
        }
    }
    if (!bLoop) {
        LOG_WARN("m_stGstObj.pLoop is NULL in [%s]", m_strName.c_str());
        return 0;
    }
    SInt32 s32Count = 0;
    for (; s32Count <= kLoopWaitLast && IsLoopAwaited(); s32Count++) {
        LOG_INFO("wait pLoop to run in [%s]", m_strName.c_str());
        CThread::Sleep(kLoopWaitMs);
    }
    if (s32Count > kLoopWaitLast) {
        LOG_WARN("count:%d, force quit in [%s]", s32Count, m_strName.c_str());
    }
    LOG_INFO("stop gst main loop in [%s]", m_strName.c_str());
    AskQuit();
    for (s32Count = 0; s32Count <= kCleanUpWaitLast && m_iRunning.load() == 1; s32Count++) {
        CThread::Sleep(kCleanUpWaitMs);
    }
    CThread::Sleep(kSettleMs);
    return 1;
}

/* A run has begun and its loop does not run yet. */
Bool CGstObj::IsLoopAwaited()
{
    CMutexLocker objLocker(&m_objRunMutex);
    return m_stGstObj.pLoop != nullptr && m_iRunning.load() == 1 &&
           !g_main_loop_is_running(m_stGstObj.pLoop);
}

/* Has the announced or present run's loop quit as soon as it runs; a quit of a loop that does not
 * run yet would be lost. */
void CGstObj::AskQuit()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_pContext == nullptr) {
        return;
    }
    GSource *pQuit = g_idle_source_new();
    /* The bus watch's own priority: neither can starve the other. */
    g_source_set_priority(pQuit, G_PRIORITY_DEFAULT);
    g_source_set_callback(pQuit, QuitLoop, &m_stGstObj, nullptr);
    g_source_attach(pQuit, m_pContext);
    g_source_unref(pQuit);
}

gboolean CGstObj::QuitLoop(gpointer i_pObj)
{
    g_main_loop_quit(static_cast<GST_OBJ_ST *>(i_pObj)->pLoop);
    /* Stays in the context, which ends with the run: should an element turn the context while the
     * pipeline is being built, the request still stands when the loop begins. */
    return G_SOURCE_CONTINUE;
}

void CGstObj::PrepareStart()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_pContext == nullptr) {
        m_pContext = g_main_context_new();
    }
}

void CGstObj::CancelStart()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_stGstObj.pLoop == nullptr && m_pContext != nullptr) {
        g_main_context_unref(m_pContext);
        m_pContext = nullptr;
    }
}
