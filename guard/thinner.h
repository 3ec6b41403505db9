/*
 * Thins the stream for the preview when there are more pictures than the preview can take.
 *
 * The daemon publishes a preview picture in a little more than 20 ms and the pipeline keeps no more
 * than five: with more than 48 pictures a second it falls behind, and from then on finds every
 * picture deleted already. So of each group of pictures the key picture and the first ones behind
 * it are passed on and the rest, on which nothing depends any more, is left out: what is passed on
 * decodes. Sequence numbers are counted anew behind what was left out, so that a receiver sees a
 * gap only where the stream itself has one. An access unit delimiter right before a key picture
 * that ends a pause is left out, too: no decoder needs it.
 *
 * A group may last longer than a preview can go without a picture (one that gets none for nine
 * seconds is restarted), so after two seconds of pause the key picture is passed on once more, at
 * the number and time that are due. Only a group of more than six seconds whose key picture is too
 * large to be kept is passed on as a whole.
 * No clock, no socket; the stream's own timestamps tell the time. One thread.
 */
#pragma once

#include <functional>
#include <optional>

#include "guard/key_repeat.h"

class CThinner
{
public:
    /* Pictures per second wanted of any stream; 0: thinned only where the preview needs it. */
    explicit CThinner(double i_f64Wanted) : m_f64Wanted(i_f64Wanted) {}

    /* To be called before Take() with the same packet: hands out what has to go before it. */
    void RepeatKey(const RTP_PACKET_S &i_stPacket, const std::function<void(Bytes)> &i_objSend);
    /* What becomes of a packet of a stream of that many pictures per second (0: not known yet): its
     * new sequence number, or nothing if it is left out. */
    std::optional<UInt16> Take(const RTP_PACKET_S &i_stPacket, double i_f64Rate);
    /* True while pictures are left out. */
    Bool Thinning() const { return m_bThinning; }
    /* Pictures passed on so far. */
    UInt64 Pictures() const { return m_u64Pictures; }

private:
    void BeginStream(const RTP_PACKET_S &i_stPacket);
    void BeginGroup(const RTP_PACKET_S &i_stPacket, double i_f64Rate);
    void Decide(double i_f64Rate);
    UInt32 Allowance(double i_f64Rate, double i_f64Target);
    void BeginPicture(const RTP_PACKET_S &i_stPacket, double i_f64Rate);

    const double m_f64Wanted;
    std::optional<UInt32> m_u32Source;
    UInt32 m_u32Timestamp = 0;          /* of the picture under way */
    Bool m_bKey = false;                /* it is a key picture */
    std::optional<UInt32> m_u32Picture; /* its number in its group, none before the first */
    UInt32 m_u32GroupStart = 0;         /* timestamp of the group's key picture */
    UInt32 m_u32Group = 0;              /* pictures of the group before, 0: not known */
    Bool m_bLong = false; /* it lasted longer than six seconds, and its key picture was not kept */
    Bool m_bThinning = false;
    Bool m_bFast = false;      /* more pictures than the preview can take */
    UInt32 m_u32Allowance = 0; /* pictures of this group that are passed on */
    double m_f64Credit = 0;    /* pictures that may still be passed on */
    Bool m_bPaused = false;
    CKeyRepeat m_objRepeat;
    UInt32 m_u32Passed = 0;  /* timestamp of what was passed on last */
    UInt16 m_u16Offset = 0;  /* the stream's sequence number less ours */
    UInt16 m_u16Last = 0;    /* our last one */
    UInt16 m_u16Resumed = 0; /* the stream's number with which the last pause ended */
    UInt64 m_u64Pictures = 0;
};
