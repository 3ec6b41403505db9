/*
 * The live picture: takes the local copy of the stream, keeps the packets since the last key
 * picture, and while somebody watches turns them into what a browser plays.
 *
 * One thread receives and feeds; viewers come from any.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <prometheus/histogram.h>

#include "framework/types.h"
#include "framework/unique_fd.h"
#include "panel/fragments.h"
#include "panel/remux.h"

class CLive
{
public:
    /* Packets come to that port of 127.0.0.1. */
    CLive(UInt16 i_u16Port, UInt32 i_u32MostViewers);
    ~CLive();
    CLive(const CLive &) = delete;
    CLive &operator=(const CLive &) = delete;

    /* One who watches; the stream runs while there is one who needs it. */
    class CViewer
    {
    public:
        CViewer(CLive &io_objLive, Bool i_bStream);
        ~CViewer();
        CViewer(const CViewer &) = delete;
        CViewer &operator=(const CViewer &) = delete;

    private:
        CLive &m_objLive;
        const Bool m_bStream;
    };
    /* None if there are as many as may be. i_bStream: watches the stream, not the previews. */
    std::unique_ptr<CViewer> Enter(Bool i_bStream);

    CFragments &Fragments() { return m_objFragments; }
    UInt32 Viewers() const { return m_u32Viewers; }
    UInt64 Viewed() const { return m_u64Viewed; }
    UInt32 MostViewers() const { return m_u32MostViewers; }
    const prometheus::Histogram &Intervals() const { return m_objIntervals; }
    /* Why there is no live picture: the port is taken, an element is missing; empty otherwise. */
    std::string Trouble() const;
    /* Ends every viewer's wait. */
    void End();

private:
    void Run();
    std::string Open();
    void Receive();
    void TakePacket(Bytes i_objPacket, double i_f64Time);
    void Feed();
    void SetTrouble(const std::string &i_strTrouble);
    void Pause();

    const UInt16 m_u16Port;
    const UInt32 m_u32MostViewers;
    std::atomic<UInt32> m_u32Viewers{0};
    std::atomic<UInt32> m_u32StreamViewers{0};
    std::atomic<UInt64> m_u64Viewed{0};
    std::atomic<Bool> m_bEnd{false};
    mutable std::mutex m_objMutex; /* guards the trouble, and the way to sleep */
    std::condition_variable m_objWake;
    std::string m_strTrouble;
    CFragments m_objFragments;
    prometheus::Histogram m_objIntervals;
    /* Of the receiving thread. */
    UniqueFd m_objSocket;
    CGopStore m_objStore;
    CRemux m_objRemux;
    UInt64 m_u64Epoch = 0; /* that the remultiplexer was started with */
    double m_f64LastPicture = 0;
    std::thread m_objThread;
};
