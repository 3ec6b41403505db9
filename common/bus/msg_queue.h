/*
 * Messages between modules: the record, the module ids and message numbers, the payload records
 * that more than one module knows, and the bounded queue that each module owns.
 *
 * A message is a fixed-size value that is copied whole at every hand-over. The queue may be used
 * from any thread.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "framework/cond.h"
#include "framework/mutex.h"
#include "framework/types.h"

/* msgtype */
constexpr UInt32 MSG_TYPE_SYNC = 0;
constexpr UInt32 MSG_TYPE_ASYNC = 1;

/* Module ids; the gaps are part of the numbering. */
constexpr UInt32 MODULE_CONFIG = 0;
constexpr UInt32 MODULE_ENCODER = 2;
constexpr UInt32 MODULE_GST_H264 = 3;
constexpr UInt32 MODULE_GST_JPEG = 4;
constexpr UInt32 MODULE_TIMER = 5;
constexpr UInt32 MODULE_CAPTURE = 9;
constexpr UInt32 MODULE_MONITOR = 12;

/* Message numbers, of which these are sent: */
constexpr UInt32 MSG_INIT = 0x000;
constexpr UInt32 MSG_TIMEOUT = 0x003;
constexpr UInt32 MSG_START = 0x004;
constexpr UInt32 MSG_READ_CONFIG = 0x100;
constexpr UInt32 MSG_GET_ADDR_LIST = 0x101;
constexpr UInt32 MSG_GET_STREAM_STATUS = 0x103;
constexpr UInt32 MSG_SET_STREAM_STATUS = 0x201;
constexpr UInt32 MSG_ENC_VIDEO_CHG = 0x803;
constexpr UInt32 MSG_ENC_SET_STREAM_STATUS = 0x809;
constexpr UInt32 MSG_ENC_JPEG_FILE_STATUS = 0x80A;
/* --- Offered: nothing in the daemon sends these, their receivers know them. ------------------ */
constexpr UInt32 MSG_DEINIT = 0x001;
constexpr UInt32 MSG_REINIT = 0x002;
constexpr UInt32 MSG_STOP = 0x005;
constexpr UInt32 MSG_GET_ADDR_URL = 0x102;
constexpr UInt32 MSG_GET_SRC_DEVICE_ID = 0x104;
constexpr UInt32 MSG_SET_SRC_DEVICE_ID = 0x202;
constexpr UInt32 MSG_SET_TIMER = 0x400;
constexpr UInt32 MSG_CANCEL_TIMER = 0x401;
constexpr UInt32 MSG_ENC_INIT = 0x800;
constexpr UInt32 MSG_ENC_DEINIT = 0x801;

constexpr std::size_t MSG_PAYLOAD_SIZE = 1024;

struct MSG_DESC_INFO_S {
    UInt32 msgtype;                  /* MSG_TYPE_SYNC or MSG_TYPE_ASYNC */
    UInt32 src;                      /* module id of the sender; replies go to it */
    UInt32 dst;                      /* module id of the receiver */
    UInt32 reserved;                 /* always 0 */
    UInt32 msgno;                    /* message number */
    UInt8 payload[MSG_PAYLOAD_SIZE]; /* contents by number; unused bytes are 0 */
    UInt8 tail[12];                  /* always 0 */
};
static_assert(sizeof(MSG_DESC_INFO_S) == 1056);
static_assert(offsetof(MSG_DESC_INFO_S, payload) == 20);

/* A message of the given type, source, destination and number; everything else is zero. */
constexpr MSG_DESC_INFO_S MakeMsg(UInt32 i_u32Type, UInt32 i_u32Src, UInt32 i_u32Dst,
                                  UInt32 i_u32MsgNo)
{
    return MSG_DESC_INFO_S{i_u32Type, i_u32Src, i_u32Dst, 0, i_u32MsgNo, {}, {}};
}

/* What can lie in a payload: a record that is its bytes, and no more than there are. */
template <typename Record>
concept PayloadRecord =
    std::is_trivially_copyable_v<Record> && !std::is_pointer_v<Record> &&
    !std::is_same_v<Record, std::string_view> && sizeof(Record) <= MSG_PAYLOAD_SIZE;

/* Puts a record at the start of a message's payload; what follows it there stays. */
template <PayloadRecord Record> void PutPayload(MSG_DESC_INFO_S *o_pMsg, const Record &i_stRecord)
{
    memcpy(o_pMsg->payload, &i_stRecord, sizeof(i_stRecord));
}

/* The record at the start of a message's payload. */
template <PayloadRecord Record> Record PayloadOf(const MSG_DESC_INFO_S &i_stMsg)
{
    Record stRecord;
    memcpy(&stRecord, i_stMsg.payload, sizeof(stRecord));
    return stRecord;
}

/* The same for a payload that is a text. What does not fit is cut, a zero byte ends it. */
inline void PutText(MSG_DESC_INFO_S *o_pMsg, std::string_view i_strText)
{
    const std::size_t u64Length =
        i_strText.copy(reinterpret_cast<char *>(o_pMsg->payload), sizeof(o_pMsg->payload) - 1);
    o_pMsg->payload[u64Length] = 0;
}

/* Up to the first zero byte, or the whole payload; it lies in the message. */
inline std::string_view TextOf(const MSG_DESC_INFO_S &i_stMsg)
{
    const char *pText = reinterpret_cast<const char *>(i_stMsg.payload);
    return {pText, strnlen(pText, sizeof(i_stMsg.payload))};
}

/* "No change" in a numeric field of a stream status change request. */
constexpr UInt32 STREAM_STATUS_UNCHANGED = 0xFFFFFFFF;

/* u32Type of a stream status record: which half it speaks of. */
constexpr UInt32 STREAM_STATUS_H264 = 0;
constexpr UInt32 STREAM_STATUS_PREVIEW = 1;
constexpr UInt32 STREAM_STATUS_BOTH = 2;

/* H.264 and preview settings. */
struct STREAM_STATUS_S {
    UInt32 u32Type;
    UInt32 u32H264Enable;      /* 1 on, 0 off */
    UInt32 u32H264Gop;         /* GOP length, frames */
    char szH264Mode[32];       /* rate control, "vbr" or "cbr" */
    UInt32 u32H264Bitrate;     /* bit/s */
    UInt32 u32PrevEnable;      /* 1 on, 0 off */
    UInt32 u32PrevHeight;      /* preview picture height, lines */
    UInt32 u32PrevRefreshrate; /* preview pictures per second */
};
static_assert(sizeof(STREAM_STATUS_S) == 60);
static_assert(offsetof(STREAM_STATUS_S, u32H264Bitrate) == 44);

/* Input timing: payload of MSG_ENC_VIDEO_CHG. Any of the first three at 0 means no signal. */
struct INPUT_TIMING_S {
    SInt32 width;      /* active pixels per line */
    SInt32 height;     /* active lines */
    SInt32 fps;        /* frames per second */
    SInt32 interlaced; /* 0 progressive */

    bool operator==(const INPUT_TIMING_S &) const = default;
};
static_assert(sizeof(INPUT_TIMING_S) == 16);

/* Preview file status: payload of MSG_ENC_JPEG_FILE_STATUS. */
struct JPEG_FILE_STATUS_S {
    SInt64 time;     /* of the report, seconds since the epoch */
    UInt32 count;    /* pictures published since the monitor started */
    UInt32 reserved; /* sent as 0 */
};
static_assert(sizeof(JPEG_FILE_STATUS_S) == 16);

/* Bounded queue of messages: at most 49 wait, in arrival order, in storage of the queue's own. */
class CMsgQueue
{
public:
    CMsgQueue();

    /* Appends a copy of *i_pMsg and wakes the receiver. 1 queued; 0 for a null message or a full
     * queue (the message is dropped and an ERROR line says which). */
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg);
    /* Takes the oldest message into *o_pMsg, waiting once for at most i_s32Timeout milliseconds
     * (CCond's rounding applies). 1 taken; 0 none, with *o_pMsg as it was. */
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg);
    /* No PopMsg waits any longer: the one that does returns, and so does every later one. */
    void StopWaiting();

private:
    static constexpr std::size_t kCapacity = 49;

    CMutex m_objMutex;
    CCond m_objCond;
    std::array<MSG_DESC_INFO_S, kCapacity> m_stRing;
    std::size_t m_u64Head;
    std::size_t m_u64Count;
    bool m_bWaits;
};
