/*
 * Pictures of RTP packets into fragmented MP4: GStreamer's rtph264depay, h264parse and mp4mux,
 * nothing decoded. One pipeline for all viewers, which exists from Start() to Stop().
 *
 * All calls from one thread; the fragments come from a thread of GStreamer's.
 */
#pragma once

#include <mutex>
#include <string>

#include "framework/types.h"
#include "panel/fragments.h"
#include "panel/gop_store.h"

class CRemux
{
public:
    explicit CRemux(CFragments &io_objFragments) : m_objFragments(io_objFragments) {}
    ~CRemux() { Stop(); }
    CRemux(const CRemux &) = delete;
    CRemux &operator=(const CRemux &) = delete;

    /* A stream of the store's present codec; its group follows by Push(). Empty, or what failed. */
    std::string Start(const CGopStore &i_objStore);
    void Push(const PICTURE_S &i_stPicture);
    /* Viewers come to the end of the stream. */
    void Stop();
    Bool IsRunning() const { return m_pPipeline != nullptr; }
    /* Empty, or what went wrong in the pipeline since the last call. */
    std::string TakeError();
    /* Called by GStreamer's thread. */
    Bool TakeBytes(const char *i_pData, std::size_t i_u64Size);

private:
    CFragments &m_objFragments;
    std::mutex m_objMutex; /* guards what GStreamer's thread uses, too */
    CFragmentCutter m_objCutter;
    std::string m_strCodec;
    Bool m_bBegun = false;
    UInt64 m_u64FirstTime = 0;
    Bool m_bFirst = true;
    struct _GstElement *m_pPipeline = nullptr;
    struct _GstElement *m_pSource = nullptr;
};
