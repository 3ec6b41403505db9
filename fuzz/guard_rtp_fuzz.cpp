/*
 * A stream of arbitrary datagrams (each behind its length, two bytes) through what the guard does
 * with them: what it reads lies within the datagram, and where the stream has no gap, what is
 * passed on to the preview has none either.
 */
#include <cstddef>
#include <cstdint>
#include <vector>

#include "framework/assertion.h"
#include "guard/stream_meter.h"
#include "guard/thinner.h"

namespace
{
/* What was passed on last, and the stream's number after which no gap was seen since. */
struct PASSED_S {
    bool bAny = false;
    UInt32 u32Source = 0;
    UInt16 u16Next = 0; /* of the stream */
    UInt16 u16Ours = 0;
};

void Feed(Bytes i_objDatagram, CStreamMeter &io_objMeter, CThinner &io_objThinner,
          PASSED_S &io_stPassed, SInt64 i_s64NowMs)
{
    const auto stPacket = ParseRtp(i_objDatagram);
    if (!stPacket) {
        return;
    }
    const Bytes &objPayload = stPacket->objPayload;
    assert(objPayload.data() >= i_objDatagram.data() + 12);
    assert(objPayload.data() + objPayload.size() <= i_objDatagram.data() + i_objDatagram.size());
    ForEachNal(objPayload, [&objPayload](UInt8 i_u8Type, Bytes i_objUnit) {
        assert(i_u8Type < 32);
        assert(i_objUnit.empty() ||
               (i_objUnit.data() >= objPayload.data() &&
                i_objUnit.data() + i_objUnit.size() <= objPayload.data() + objPayload.size()));
    });
    io_objMeter.Add(*stPacket, i_objDatagram.size(), i_s64NowMs);
    const bool bFollows = io_stPassed.bAny && io_stPassed.u32Source == stPacket->u32Source &&
                          io_stPassed.u16Next == stPacket->u16Sequence;
    io_objThinner.RepeatKey(*stPacket, [&io_stPassed](Bytes i_objPacket) {
        const auto stRepeated = ParseRtp(i_objPacket);
        assert(stRepeated);
        assert(!io_stPassed.bAny ||
               stRepeated->u16Sequence == static_cast<UInt16>(io_stPassed.u16Ours + 1));
        io_stPassed.u16Ours = stRepeated->u16Sequence;
    });
    const auto u16Number = io_objThinner.Take(*stPacket, io_objMeter.QuickRate());
    io_stPassed.bAny = bFollows || u16Number;
    io_stPassed.u32Source = stPacket->u32Source;
    io_stPassed.u16Next = static_cast<UInt16>(stPacket->u16Sequence + 1);
    if (u16Number) {
        assert(!bFollows || *u16Number == static_cast<UInt16>(io_stPassed.u16Ours + 1));
        io_stPassed.u16Ours = *u16Number;
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    if (i_u64Size == 0) {
        return 0;
    }
    CStreamMeter objMeter;
    CThinner objThinner(i_pData[0] % 64);
    PASSED_S stPassed;
    Bytes objLeft(i_pData + 1, i_u64Size - 1);
    for (SInt64 s64NowMs = 0; objLeft.size() >= 2; s64NowMs += 17) {
        const std::size_t u64Length =
            std::min<std::size_t>(objLeft[0] << 8 | objLeft[1], objLeft.size() - 2);
        /* A buffer of its own, so that the address sanitizer sees its end. */
        const std::vector<UInt8> objDatagram(objLeft.begin() + 2,
                                             objLeft.begin() + 2 + static_cast<int>(u64Length));
        Feed(objDatagram, objMeter, objThinner, stPassed, s64NowMs);
        objLeft = objLeft.subspan(2 + u64Length);
    }
    const STREAM_FIGURES_S &stFigures = objMeter.Figures();
    assert(stFigures.u64Pictures <= stFigures.u64Packets);
    /* A packet begins one at most, and lets the two that are kept begin once more. */
    assert(objThinner.Pictures() <= 3 * stFigures.u64Packets);
    return 0;
}
