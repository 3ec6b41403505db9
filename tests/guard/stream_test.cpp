/*
 * What is read out of the stream, and which of its pictures the preview gets.
 */
#include <gtest/gtest.h>

#include <map>

#include "guard/stream_meter.h"
#include "guard/thinner.h"
#include "tests/guard/rtp_maker.h"

namespace
{

TEST(RtpTest, WhatIsRtpAndWhereItsPayloadIs)
{
    const Packet objPlain = MakeRtp(1, 2, {0x41, 0xAA});
    auto objWith = [&objPlain](std::size_t i_u64At, UInt8 i_u8Byte) {
        Packet objPacket = objPlain;
        objPacket[i_u64At] = i_u8Byte;
        return objPacket;
    };
    Packet objExtension = MakeRtp(1, 2, {0xBE, 0xDE, 0x00, 0x01, 9, 9, 9, 9, 0x41});
    objExtension[0] |= 0x10;
    Packet objLyingExtension = objExtension;
    objLyingExtension[15] = 3;
    Packet objPadded = MakeRtp(1, 2, {0x41, 0, 0, 3});
    objPadded[0] |= 0x20;
    Packet objPaddedBeyond = objPadded;
    objPaddedBeyond.back() = 5;
    const struct {
        const char *pWhat;
        Packet objPacket;
        int s32Payload; /* -1: no RTP */
    } kRows[] = {
        {"plain", objPlain, 2},
        {"nothing", {}, -1},
        {"cut header", Packet(objPlain.begin(), objPlain.begin() + 11), -1},
        {"header alone", Packet(objPlain.begin(), objPlain.begin() + 12), 0},
        {"version 1", objWith(0, 0x40), -1},
        {"a list of sources behind the end", objWith(0, 0x81), -1},
        {"an RTCP report", objWith(1, 200), -1},
        {"an extension", objExtension, 1},
        {"an extension that lies", objLyingExtension, -1},
        {"padding", objPadded, 1},
        {"more padding than packet", objPaddedBeyond, -1},
    };
    for (const auto &stRow : kRows) {
        const auto stPacket = ParseRtp(stRow.objPacket);
        EXPECT_EQ(stPacket ? static_cast<int>(stPacket->objPayload.size()) : -1, stRow.s32Payload)
            << stRow.pWhat;
    }
}

TEST(RtpTest, KeyPicturesBeginInEveryPacketization)
{
    const struct {
        const char *pWhat;
        Packet objPayload;
        bool bKey;
    } kRows[] = {
        {"IDR slice", {0x65, 1}, true},
        {"parameter set", {0x67, 1}, true},
        {"slice", {0x41, 1}, false},
        {"delimiter", {0x09, 0xF0}, false},
        {"first fragment of an IDR", {0x7C, 0x85, 1}, true},
        {"later fragment of an IDR", {0x7C, 0x05, 1}, false},
        {"aggregated behind a delimiter", {0x78, 0, 2, 0x09, 0xF0, 0, 2, 0x67, 1}, true},
        {"aggregate that lies", {0x78, 0, 9, 0x67, 1}, false},
        {"empty", {}, false},
    };
    for (const auto &stRow : kRows) {
        EXPECT_EQ(BeginsKeyPicture(stRow.objPayload), stRow.bKey) << stRow.pWhat;
    }
}

TEST(SpsTest, SizeProfileAndLevel)
{
    const auto stSps = ParseSps(SPS_1080);
    ASSERT_TRUE(stSps);
    EXPECT_EQ(stSps->u32Width, 1920U);
    EXPECT_EQ(stSps->u32Height, 1080U);
    EXPECT_EQ(stSps->strProfile, "high");
    EXPECT_EQ(stSps->strLevel, "4.1");
    const Packet objEscaped = {0x67, 0x42, 0, 0, 3, 0xDA, 2, 0x80, 0xBF, 0xE5, 0x40};
    const auto stSmall = ParseSps(objEscaped);
    ASSERT_TRUE(stSmall);
    EXPECT_EQ(stSmall->u32Width, 640U);
    EXPECT_EQ(stSmall->u32Height, 360U);
    for (std::size_t i = 0; i < 9; i++) {
        EXPECT_FALSE(ParseSps(Bytes(SPS_1080).first(i))) << i;
    }
    EXPECT_FALSE(ParseSps(PPS));
}

/* Plays pictures of three packets each into the meter and the thinner, and keeps what comes out. */
class StreamTest : public ::testing::Test
{
protected:
    /* The stream's next picture; a key picture has a delimiter and its sets before it. */
    void Picture(bool i_bKey, double i_f64Fps, UInt32 i_u32Source = 1)
    {
        m_u32Timestamp += static_cast<UInt32>(90000 / i_f64Fps);
        m_s64Us += static_cast<SInt64>(1e6 / i_f64Fps);
        if (i_bKey) {
            Send({0x09, 0x10}, false, i_u32Source);
            Send(SPS_1080, false, i_u32Source);
            Send(PPS, false, i_u32Source);
        }
        const UInt8 u8Header = i_bKey ? 0x65 : 0x41;
        Send({0x7C, static_cast<UInt8>(0x80 | (u8Header & 0x1F)), 1}, false, i_u32Source);
        Send({0x7C, static_cast<UInt8>(0x40 | (u8Header & 0x1F)), 1}, true, i_u32Source);
    }
    void Play(int i_s32Groups, int i_s32Group, double i_f64Fps)
    {
        for (int i = 0; i < i_s32Groups * i_s32Group; i++) {
            Picture(i % i_s32Group == 0, i_f64Fps);
        }
    }
    void Send(const Packet &i_objPayload, bool i_bMarker, UInt32 i_u32Source)
    {
        const Packet objPacket =
            MakeRtp(m_u16Sequence++, m_u32Timestamp, i_objPayload, i_bMarker, i_u32Source);
        const RTP_PACKET_S stPacket = *ParseRtp(objPacket);
        m_objMeter.Add(stPacket, objPacket.size(), m_s64Us / 1000);
        m_objThinner.RepeatKey(stPacket, [this](Bytes i_objRepeated) {
            const auto stRepeated = ParseRtp(i_objRepeated);
            ASSERT_TRUE(stRepeated);
            m_s32Repeated += stRepeated->bMarker ? 1 : 0;
            Pass(*stRepeated, stRepeated->u16Sequence);
        });
        if (const auto u16Number = m_objThinner.Take(stPacket, m_objMeter.QuickRate())) {
            Pass(stPacket, *u16Number);
        }
    }
    void Pass(const RTP_PACKET_S &i_stPacket, UInt16 i_u16Number)
    {
        if (m_u16Out && i_stPacket.u32Source == m_u32OutSource) {
            m_s32Gaps += static_cast<UInt16>(*m_u16Out + 1) != i_u16Number ? 1 : 0;
        }
        m_u16Out = i_u16Number;
        m_u32OutSource = i_stPacket.u32Source;
        if (i_stPacket.bMarker) {
            m_objPassed.push_back(
                {i_stPacket.u32Timestamp, (i_stPacket.objPayload[1] & 0x1F) == 5});
        }
    }

    struct PASSED_S {
        UInt32 u32Timestamp;
        bool bKey;
    };
    CStreamMeter m_objMeter;
    CThinner m_objThinner{0};
    UInt16 m_u16Sequence = 65000; /* wraps within every case */
    UInt32 m_u32Timestamp = 0xFFFF0000;
    SInt64 m_s64Us = 0;
    std::optional<UInt16> m_u16Out;
    UInt32 m_u32OutSource = 0;
    int m_s32Gaps = 0;
    int m_s32Repeated = 0; /* pictures */
    std::vector<PASSED_S> m_objPassed;
};

TEST_F(StreamTest, MeterCountsTheStream)
{
    Play(4, 50, 25);
    const STREAM_FIGURES_S &stFigures = m_objMeter.Figures();
    EXPECT_EQ(stFigures.u64Packets, 4U * (50 * 2 + 3));
    EXPECT_EQ(stFigures.u64Lost, 0U);
    EXPECT_EQ(stFigures.u32KeyInterval, 50U);
    EXPECT_NEAR(stFigures.f64PicturesPerSecond, 25, 0.1);
    EXPECT_NEAR(stFigures.f64PacketsPerSecond, 51.5, 3);
    ASSERT_TRUE(stFigures.stSps);
    EXPECT_EQ(stFigures.objPps, PPS);
    m_u16Sequence = static_cast<UInt16>(m_u16Sequence + 7);
    Picture(false, 25);
    EXPECT_EQ(stFigures.u64Lost, 7U);
    Picture(true, 25, 2);
    EXPECT_EQ(stFigures.u64Sources, 2U);
    EXPECT_EQ(stFigures.u64Lost, 7U) << "a new stream begins with no gap";
    m_objMeter.Tick(m_s64Us / 1000 + 1000);
    m_objMeter.Tick(m_s64Us / 1000 + 2000);
    EXPECT_EQ(stFigures.f64PacketsPerSecond, 0);
}

TEST_F(StreamTest, UpToThirtyAndFortyEightNothingIsThinned)
{
    for (const double f64Fps : {25.0, 30.0, 48.0}) {
        m_objPassed.clear();
        Play(4, 60, f64Fps);
        EXPECT_EQ(m_objPassed.size(), 240U) << f64Fps;
    }
}

/* The preview publishes a picture in 22 ms and keeps five: none may be older when its turn comes.
 */
void ExpectPublished(const std::vector<UInt32> &i_u32Arrivals)
{
    double f64Free = 0;
    std::vector<double> f64Done;
    for (std::size_t i = 0; i < i_u32Arrivals.size(); i++) {
        const double f64Arrival = i_u32Arrivals[i] / 90.0;
        f64Free = std::max(f64Free, f64Arrival) + 22;
        f64Done.push_back(f64Free);
        if (i >= 5) {
            EXPECT_LE(f64Done[i - 5], f64Arrival) << "picture " << i - 5 << " was deleted before";
        }
    }
}

TEST_F(StreamTest, FastStreamsAreThinnedSoThatThePreviewKeepsUp)
{
    const struct {
        double f64Fps;
        int s32Group;
        int s32Groups;
    } kRows[] = {{60, 60, 20}, {50, 50, 20},  {60, 120, 10}, {60, 30, 20}, {60, 2, 200},
                 {60, 1, 400}, {100, 60, 20}, {60, 300, 6},  {60, 3600, 2}};
    for (const auto &stRow : kRows) {
        m_objMeter = CStreamMeter();
        m_objThinner.~CThinner();
        new (&m_objThinner) CThinner(0);
        m_objPassed.clear();
        m_u16Out.reset();
        m_s32Gaps = 0;
        const UInt32 u32Begin = m_u32Timestamp;
        Play(stRow.s32Groups, stRow.s32Group, stRow.f64Fps);
        SCOPED_TRACE(testing::Message()
                     << stRow.f64Fps << " a second in groups of " << stRow.s32Group);
        EXPECT_EQ(m_s32Gaps, 0);
        std::vector<UInt32> u32Arrivals;
        const auto u32Step = static_cast<UInt32>(90000 / stRow.f64Fps);
        UInt32 u32Last = m_objPassed.front().u32Timestamp;
        for (const PASSED_S &stPassed : m_objPassed) {
            const UInt32 u32Since = stPassed.u32Timestamp - u32Begin;
            EXPECT_TRUE(stPassed.bKey || stPassed.u32Timestamp - u32Last <= u32Step)
                << "a picture without the one before it";
            EXPECT_LE((stPassed.u32Timestamp - u32Last) / 90000.0,
                      std::min(stRow.s32Group / stRow.f64Fps, 2.0) + 1);
            u32Last = stPassed.u32Timestamp;
            u32Arrivals.push_back(u32Since);
        }
        ExpectPublished(u32Arrivals);
        EXPECT_TRUE(m_objThinner.Thinning());
    }
}

/* Its key picture comes again, with the one behind it, and only in full. */
TEST_F(StreamTest, ALongGroupsKeyPictureIsRepeated)
{
    Play(1, 700, 60);
    EXPECT_EQ(m_objPassed.size(), 12U + 2 * 5);
    EXPECT_EQ(m_s32Repeated, 2 * 5);
    Picture(true, 60);
    m_u16Sequence++; /* a packet of it is lost */
    for (int i = 0; i < 700; i++) {
        Picture(false, 60);
    }
    EXPECT_EQ(m_s32Repeated, 2 * 5);
    EXPECT_EQ(m_s32Gaps, 1);
    /* What cannot be kept cannot be repeated: the groups of such a stream stay whole. */
    for (int i = 0; i < 2; i++) {
        m_objPassed.clear();
        Picture(true, 60);
        Send(Packet(4200000, 0x41), false, 1);
        for (int j = 0; j < 700; j++) {
            Picture(false, 60);
        }
    }
    EXPECT_EQ(m_objPassed.size(), 701U);
}

TEST_F(StreamTest, ALossStaysVisibleAndALatePacketIsNotPassedTwice)
{
    Play(3, 60, 60);
    Picture(true, 60);
    m_u16Sequence++;
    Picture(false, 60);
    EXPECT_EQ(m_s32Gaps, 1);
    const auto objLate =
        MakeRtp(static_cast<UInt16>(m_u16Sequence - 60), m_u32Timestamp - 90000, {0x41}, false, 1);
    EXPECT_FALSE(m_objThinner.Take(*ParseRtp(objLate), 60));
}

} // namespace
