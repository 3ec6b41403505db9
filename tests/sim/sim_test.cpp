#include <gtest/gtest.h>

#include "sim/receive/rtp_counter.h"
#include "sim/uevent/uevent.h"

namespace
{
TEST(SimUeventTest, ReadsATimingAsAPersonSaysIt)
{
    static const struct {
        const char *pSaid;
        const char *pEvent; /* null: refused */
    } kCases[] = {
        {"1920x1080@60-0", "1920x1080@60-0"},
        {"1280x720@50", "1280x720@50-0"},
        {"1080p60", "1920x1080@60-0"},
        {"1080i50", "1920x1080@50-1"},
        {"", nullptr},
        {"1920x1080", nullptr},
        {"1920x1080@60-", nullptr},
        {"99999999999x1080@60", nullptr},
        {"1080q60", nullptr},
    };
    for (const auto &stCase : kCases) {
        std::string strEvent = "untouched";
        EXPECT_EQ(TimingToEvent(stCase.pSaid, &strEvent), stCase.pEvent != nullptr) << stCase.pSaid;
        EXPECT_EQ(strEvent, stCase.pEvent == nullptr ? "untouched" : stCase.pEvent) << stCase.pSaid;
    }
}

TEST(SimUeventTest, LaysTheEventOutLikeTheKernel)
{
    UeventVars objVars = BridgeEvent("1x2@3-4");
    SetVar(&objVars, "DEVPATH", "/d");
    SetVar(&objVars, "EXTRA", "");
    static const char kExpected[] = "change@/d\0ACTION=change\0DEVPATH=/d\0SUBSYSTEM=i2c\0"
                                    "DRIVER=tc358743\0EVENT=1x2@3-4\0EXTRA=";
    EXPECT_EQ(UeventPayload(objVars), std::string(kExpected, sizeof(kExpected)));
}

void AddPacket(CRtpCounter *io_pCounter, UInt16 i_u16Number, UInt8 i_u8Source = 1)
{
    UInt8 u8Packet[20] = {0x80, 96, static_cast<UInt8>(i_u16Number >> 8),
                          static_cast<UInt8>(i_u16Number)};
    u8Packet[11] = i_u8Source;
    io_pCounter->Add(u8Packet, sizeof(u8Packet));
}

TEST(SimRtpTest, CountsGapsOverTheNumbersEnd)
{
    CRtpCounter objCounter;
    for (const UInt16 u16Number : {65533, 65534, 1, 2}) {
        AddPacket(&objCounter, u16Number);
    }
    EXPECT_EQ(objCounter.Counts().u64Lost, 2U); /* 65535 and 0 */
    AddPacket(&objCounter, 0);
    EXPECT_EQ(objCounter.Counts().u64Lost, 1U);
    EXPECT_EQ(objCounter.Counts().u64Late, 1U);
    AddPacket(&objCounter, 2); /* a copy fills no gap */
    EXPECT_EQ(objCounter.Counts().u64Lost, 1U);
    EXPECT_EQ(objCounter.Counts().u64Late, 2U);
    EXPECT_EQ(objCounter.Counts().u64Packets, 6U);
    EXPECT_EQ(objCounter.Counts().u64Bytes, 120U);
    EXPECT_EQ(objCounter.Counts().u64Sessions, 1U);
}

TEST(SimRtpTest, ANewSourceIsNoGapAndNoiseIsNoPacket)
{
    CRtpCounter objCounter;
    AddPacket(&objCounter, 10, 1);
    AddPacket(&objCounter, 40000, 2);
    const UInt8 u8Noise[20] = {0x40};
    objCounter.Add(u8Noise, sizeof(u8Noise));
    objCounter.Add(u8Noise, 0);
    EXPECT_EQ(objCounter.Counts().u64Sessions, 2U);
    EXPECT_EQ(objCounter.Counts().u64Lost, 0U);
    EXPECT_EQ(objCounter.Counts().u64Malformed, 2U);
    EXPECT_EQ(objCounter.Counts().u64Packets, 2U);
}

} // namespace
