/*
 * Pipeline runner over gst_parse_launch and a GLib main loop.
 *
 * The running thread owns the loop, the pipeline and the context; a stopping thread only looks at
 * them under the mutex and leaves its request as an idle source in the context.
 */
#include "common/stream/gstobj.h"

#include <utility>

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
static_assert((kLoopWaitLast + 1) * kLoopWaitMs + (kCleanUpWaitLast + 1) * kCleanUpWaitMs +
                  kSettleMs ==
              GST_STOP_LONGEST_MS);

/* Makes the context the calling thread's default for a scope: a bus watch is dispatched by the
 * context that is the default when it is added. */
class CDefaultContext
{
public:
    explicit CDefaultContext(GMainContext *i_pContext) : m_pContext(i_pContext)
    {
        g_main_context_push_thread_default(m_pContext);
    }
    ~CDefaultContext() { g_main_context_pop_thread_default(m_pContext); }
    CDefaultContext(const CDefaultContext &) = delete;
    CDefaultContext &operator=(const CDefaultContext &) = delete;

private:
    GMainContext *m_pContext;
};
} // namespace

CGstObj::CGstObj() : CGstObj("gst-obj") {}

CGstObj::CGstObj(const std::string &i_strName)
    : m_iRunning(0), m_strName(i_strName), m_u64Announced(0)
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
    /* The run reads a copy, since a second start is refused only after it has stored its own. */
    std::string strCmd;
    {
        CMutexLocker objLocker(&m_objRunMutex);
        m_strCmd = TextOf(*i_pMsg);
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
    {
        CDefaultContext objContext(m_stGstObj.pContext.get());
        if (BuildPipeline(i_strCmd)) {
            RunPipeline();
        }
        /* Taken out under the mutex, released after it. */
        GST_ELEMENT_PTR pSource;
        CMutexLocker objLocker(&m_objRunMutex);
        pSource.swap(m_stGstObj.pSource);
    }
    LeaveRun();
    return 0;
}

/* Creates the loop. False if there is one already; nothing is touched then. */
Bool CGstObj::EnterRun()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_stGstObj.pLoop || m_stGstObj.pSource) {
        return false;
    }
    PrepareStart();
    m_stGstObj.strName = m_strName;
    m_iRunning.store(1);
    m_stGstObj.pLoop.reset(g_main_loop_new(m_stGstObj.pContext.get(), FALSE));
    return true;
}

/* False if there is nothing to run. What was built in spite of an error is released by StartGst. */
Bool CGstObj::BuildPipeline(const std::string &i_strCmd)
{
    GError *error = nullptr;
    GTEXT_PTR pDescription(g_strdup_printf("%s", i_strCmd.c_str()));
    GST_ELEMENT_PTR pSource(gst_parse_launch(pDescription.get(), &error));
    GERROR_PTR pError(error);
    const bool bSource = pSource != nullptr;
    {
        CMutexLocker objLocker(&m_objRunMutex);
        m_stGstObj.pSource = std::move(pSource);
    }
    if (pError) {
        LOG_ERROR("pipeline could not be constructed: %s in [%s]", pError->message,
                  m_strName.c_str());
        return false;
    }
    if (!bSource) {
        LOG_ERROR("Bad source in %s", m_strName.c_str());
        /* Kept: the loop is released here and again in the clean-up. This reference balances the
         * two, since a loop that is released too often is freed memory. */
        g_main_loop_ref(m_stGstObj.pLoop.get());
        g_main_loop_unref(m_stGstObj.pLoop.get());
        return false;
    }
    return true;
}

void CGstObj::RunPipeline()
{
    GstElement *pSource = m_stGstObj.pSource.get();
    /* A lone element is no pipeline and has no bus: it runs unwatched. */
    if (GST_BUS_PTR pBus{gst_element_get_bus(pSource)}) {
        gst_bus_add_watch(pBus.get(), on_source_message, &m_stGstObj);
    }
    gst_element_set_state(pSource, GST_STATE_PLAYING);
    LOG_INFO("Let's run [%s]!", m_strName.c_str());
    g_main_loop_run(m_stGstObj.pLoop.get());
    LOG_INFO("Going out [%s]", m_strName.c_str());
    gst_element_set_state(pSource, GST_STATE_NULL);

    /* The watch keeps the bus with its descriptors alive, so it goes before the pipeline. */
    if (GST_BUS_PTR pBus{gst_element_get_bus(pSource)}) {
        gst_bus_remove_watch(pBus.get());
    }
}

void CGstObj::LeaveRun()
{
    CMutexLocker objLocker(&m_objRunMutex);
    /* A stop request that came too late for this run dies with the context. */
    m_stGstObj = {};
    m_iRunning.store(0);
}

gboolean CGstObj::on_source_message(GstBus *, GstMessage *i_pMsg, gpointer i_pObj)
{
    auto *pObj = static_cast<GST_OBJ_ST *>(i_pObj);
    GstMessageType u32Type = GST_MESSAGE_TYPE(i_pMsg);
    switch (u32Type) {
    case GST_MESSAGE_EOS: {
        LOG_ERROR("The source in [%s] got dry", pObj->strName.c_str());
        /* Kept: the pipeline is told the end of stream as if it were an application source, which
         * it refuses, and is then released, so that an end of stream by itself ends no run. This
         * reference pays for that release: the pipeline is needed until the stop. The cast is
         * called by name since its macro vanishes from an optimised build. */
        GstElement *pSource = pObj->pSource.get();
        gst_object_ref(pSource);
        gst_app_src_end_of_stream(reinterpret_cast<GstAppSrc *>(g_type_check_instance_cast(
            reinterpret_cast<GTypeInstance *>(pSource), gst_app_src_get_type())));
        gst_object_unref(pSource);
        break;
    }
    case GST_MESSAGE_ERROR:
        LOG_ERROR("Received error in [%s]", pObj->strName.c_str());
        g_main_loop_quit(pObj->pLoop.get());
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
    UInt64 u64Number = 0;
    {
        CMutexLocker objLocker(&m_objRunMutex);
        bLoop = m_stGstObj.pLoop != nullptr;
        u64Number = m_stGstObj.u64Number;
        if (!bLoop) {
            AskQuit(u64Number);
        }
    }
    if (!bLoop) {
        LOG_WARN("m_stGstObj.pLoop is NULL in [%s]", m_strName.c_str());
        return 0;
    }
    SInt32 s32Count = 0;
    for (; s32Count <= kLoopWaitLast && IsLoopAwaited(u64Number); s32Count++) {
        LOG_INFO("wait pLoop to run in [%s]", m_strName.c_str());
        CThread::Sleep(kLoopWaitMs);
    }
    if (s32Count > kLoopWaitLast) {
        LOG_WARN("count:%d, force quit in [%s]", s32Count, m_strName.c_str());
    }
    LOG_INFO("stop gst main loop in [%s]", m_strName.c_str());
    AskQuit(u64Number);
    for (s32Count = 0; s32Count <= kCleanUpWaitLast && IsRunning(u64Number); s32Count++) {
        CThread::Sleep(kCleanUpWaitMs);
    }
    CThread::Sleep(kSettleMs);
    return 1;
}

/* The run has begun and is not over. */
Bool CGstObj::IsRunning(UInt64 i_u64Number)
{
    CMutexLocker objLocker(&m_objRunMutex);
    return m_stGstObj.u64Number == i_u64Number && m_iRunning.load() == 1;
}

/* The run has begun and its loop does not run yet. */
Bool CGstObj::IsLoopAwaited(UInt64 i_u64Number)
{
    CMutexLocker objLocker(&m_objRunMutex);
    return IsRunning(i_u64Number) && !g_main_loop_is_running(m_stGstObj.pLoop.get());
}

/* Has the loop of the announced or present run quit as soon as it runs; a quit of a loop that does
 * not run yet would be lost. */
void CGstObj::AskQuit(UInt64 i_u64Number)
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (i_u64Number == 0 || m_stGstObj.u64Number != i_u64Number) {
        return;
    }
    GSOURCE_PTR pQuit(g_idle_source_new());
    /* The bus watch's own priority: neither can starve the other. */
    g_source_set_priority(pQuit.get(), G_PRIORITY_DEFAULT);
    g_source_set_callback(pQuit.get(), QuitLoop, &m_stGstObj, nullptr);
    g_source_attach(pQuit.get(), m_stGstObj.pContext.get());
}

gboolean CGstObj::QuitLoop(gpointer i_pObj)
{
    g_main_loop_quit(static_cast<GST_OBJ_ST *>(i_pObj)->pLoop.get());
    /* Stays in the context, which ends with the run: should an element turn the context while the
     * pipeline is being built, the request still stands when the loop begins. */
    return G_SOURCE_CONTINUE;
}

UInt64 CGstObj::PrepareStart()
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (m_stGstObj.u64Number != 0) {
        return 0;
    }
    m_stGstObj.pContext.reset(g_main_context_new());
    m_stGstObj.u64Number = ++m_u64Announced;
    return m_stGstObj.u64Number;
}

void CGstObj::CancelStart(UInt64 i_u64Number)
{
    CMutexLocker objLocker(&m_objRunMutex);
    if (i_u64Number != 0 && m_stGstObj.u64Number == i_u64Number && !m_stGstObj.pLoop) {
        m_stGstObj = {};
    }
}
