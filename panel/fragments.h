/*
 * The fragmented MP4 stream (ISO/IEC 14496-12) as it comes out of the multiplexer, cut into its
 * beginning and one fragment per picture, and kept for the viewers: each reads at its own pace out
 * of the same memory.
 *
 * CFragmentCutter: one thread. CFragments: any thread.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "framework/types.h"

struct FRAGMENT_S {
    std::string strBytes; /* moof and mdat */
    Bool bKey = false;
};

class CFragmentCutter
{
public:
    /* Takes the next bytes, cut anywhere. False if they are no such stream; nothing more may be
     * given then. */
    Bool Add(const char *i_pData, std::size_t i_u64Size);
    /* ftyp and moov, once both are there. */
    const std::string &Beginning() const { return m_strBeginning; }
    /* The next whole fragment. */
    std::optional<FRAGMENT_S> Next();

private:
    Bool TakeBox(const std::string &i_strBox, const std::string &i_strType);

    std::string m_strBytes;
    std::string m_strHead; /* ftyp */
    std::string m_strBeginning;
    std::string m_strFragment; /* a moof without its mdat */
    std::deque<FRAGMENT_S> m_objReady;
};

/* Whether the first sample of a movie fragment is one a decoder can begin with. */
Bool BeginsWithKeySample(const std::string &i_strMoof);

class CFragments
{
public:
    /* A viewer's place. */
    struct PLACE_S {
        UInt64 u64Epoch = 0;
        UInt64 u64Next = 0;
    };
    enum class WaitResult { Data, Nothing, Over };

    /* --- the producer --- */
    /* A new stream begins; viewers of the last one come to its end. */
    void Begin(std::string i_strBeginning, std::string i_strCodec);
    void Add(FRAGMENT_S i_stFragment);
    /* The present stream ends. */
    void End();

    /* --- a viewer --- */
    /* Waits for a stream that can be joined; false if there is none in that time. The bytes are its
     * beginning, and the place is at the last key picture. */
    Bool Join(std::chrono::milliseconds i_objMost, PLACE_S &o_stPlace, std::string &o_strBytes,
              std::string &o_strCodec);
    /* Waits for what comes next and takes all of it that is there. A viewer who is behind the last
     * key picture by more than a few pictures goes on there. */
    WaitResult Read(PLACE_S &io_stPlace, std::chrono::milliseconds i_objMost,
                    std::string &o_strBytes);
    /* Ends every wait, for good. */
    void Close();

private:
    void Trim();

    std::mutex m_objMutex;
    std::condition_variable m_objChanged;
    UInt64 m_u64Epoch = 0;
    Bool m_bRunning = false;
    Bool m_bClosed = false;
    std::string m_strBeginning, m_strCodec;
    std::deque<std::shared_ptr<const FRAGMENT_S>> m_objFragments;
    UInt64 m_u64First = 0; /* number of the first one kept */
    UInt64 m_u64Key = 0;   /* of the last key picture */
    std::size_t m_u64Bytes = 0;
};
