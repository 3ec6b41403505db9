/*
 * The relay's sockets, the answer of the settings, the files: what is there is real.
 */
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "guard/base64.h"
#include "guard/files.h"
#include "guard/relay.h"
#include "guard/sap.h"
#include "guard/settings_ask.h"
#include "tests/guard/rtp_maker.h"
#include "tests/support/loopback.h"
#include "tests/support/private_net.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace
{
std::string Text(const Packet &i_objPacket)
{
    return {i_objPacket.begin(), i_objPacket.end()};
}

class RelayTest : public CPrivateNetTest
{
protected:
    void SetUp() override
    {
        CPrivateNetTest::SetUp();
        if (!IsSkipped()) {
            m_objFrom = BindLoopback(0);
        }
    }
    void Send(const std::string &i_strBytes) { SendLoopback(m_objFrom.Get(), 12350, i_strBytes); }

    UniqueFd m_objFrom;
};

TEST_F(RelayTest, WhatIsRtpReachesEveryListenerInOrderAndNothingElseDoes)
{
    const UniqueFd objPreview(BindLoopback(12345));
    const UniqueFd objPanel(BindLoopback(12346));
    CRelay objRelay({12346, 12347}, 0);
    ASSERT_EQ(objRelay.Bind(), 0);
    EXPECT_EQ(CRelay({}, 0).Bind(), EADDRINUSE);
    Packet objLong(3000, 0x41);
    std::vector<std::string> strSent = {"garbage that is long enough", "x",
                                        Text(MakeRtp(9, 1, objLong))};
    for (UInt16 i = 10; i < 200; i++) {
        strSent.push_back(Text(MakeRtp(i, i, {0x41, 2, 3})));
    }
    for (const std::string &strBytes : strSent) {
        Send(strBytes);
    }
    Send("");
    objRelay.Serve(1000);
    for (std::size_t i = 2; i < strSent.size(); i++) {
        ASSERT_TRUE(ReceiveLoopback(objPreview.Get(), 1000) == strSent[i]) << i;
        ASSERT_TRUE(ReceiveLoopback(objPanel.Get(), 1000) == strSent[i]) << i;
    }
    const RELAY_FIGURES_S stFigures = objRelay.Figures();
    EXPECT_EQ(stFigures.u64NotRtp, 3U);
    EXPECT_EQ(stFigures.stPreview.u64Forwarded, 191U);
    EXPECT_EQ(stFigures.objAlso[0].u64Forwarded, 191U);
    EXPECT_EQ(stFigures.objAlso[1].u64Refused, 190U) << "the last one's refusal is still to come";
    EXPECT_EQ(stFigures.objAlso[1].u64Forwarded, 1U);
    EXPECT_FALSE(objRelay.RefusedSinceMs());
}

TEST_F(RelayTest, ARefusedPortIsTriedWithEveryPacket)
{
    CRelay objRelay({}, 0);
    ASSERT_EQ(objRelay.Bind(), 0);
    for (UInt16 i = 0; i < 3; i++) {
        Send(Text(MakeRtp(i, 1, {0x41})));
        objRelay.Serve(1000 + i);
    }
    EXPECT_EQ(objRelay.RefusedSinceMs(), 1001);
    const UniqueFd objPreview(BindLoopback(12345));
    for (UInt16 i = 3; i < 5; i++) {
        const std::string strPacket = Text(MakeRtp(i, 1, {0x41}));
        Send(strPacket);
        objRelay.Serve(2000);
        EXPECT_EQ(ReceiveLoopback(objPreview.Get(), 1000), strPacket);
    }
    EXPECT_FALSE(objRelay.RefusedSinceMs());
    EXPECT_EQ(objRelay.Figures().stPreview.u64Refused, 3U);
    EXPECT_EQ(objRelay.Figures().stPreview.u64Dropped, 0U);
}

TEST_F(RelayTest, ThinningChangesOnlyThePreviewsCopy)
{
    const UniqueFd objPreview(BindLoopback(12345));
    const UniqueFd objPanel(BindLoopback(12346));
    CRelay objRelay({12346}, 0);
    ASSERT_EQ(objRelay.Bind(), 0);
    int s32Next = 0; /* the preview's next number */
    for (UInt16 i = 0; i < 300; i++) {
        const std::string strPacket =
            Text(MakeRtp(i, i * 1500U, {static_cast<UInt8>(i % 60 == 0 ? 0x65 : 0x41), 1}, true));
        Send(strPacket);
        objRelay.Serve(i * 16);
        ASSERT_EQ(ReceiveLoopback(objPanel.Get(), 1000), strPacket);
        const std::string strPreview = ReceiveLoopback(objPreview.Get(), 0);
        if (strPreview != "none") {
            EXPECT_EQ(static_cast<UInt8>(strPreview[3]) + 256 * strPreview[2], s32Next++);
        }
    }
    EXPECT_EQ(s32Next, 5 * 12);
    EXPECT_EQ(objRelay.Figures().u64Thinned, 5U * 48);
}

TEST_F(RelayTest, SettingsAreAskedWithoutWaitingAndThePortIsGivenUp)
{
    UniqueFd objOther(BindLoopback(8365));
    const UniqueFd objDaemon(BindLoopback(8366));
    CSettingsAsk objAsk;
    objAsk.Start(0);
    EXPECT_FALSE(objAsk.Go(3000)) << "another reader has the port";
    const auto stNever = objAsk.Go(3500);
    ASSERT_TRUE(stNever);
    EXPECT_FALSE(stNever->bAsked);

    objAsk.Start(10000);
    objOther.Reset();
    EXPECT_FALSE(objAsk.Go(10001));
    EXPECT_NE(ReceiveLoopback(objDaemon.Get(), 1000), "none");
    SendLoopback(objDaemon.Get(), 8365, "nonsense");
    EXPECT_FALSE(objAsk.Go(10002));
    const auto stSilent = objAsk.Go(14001);
    ASSERT_TRUE(stSilent);
    EXPECT_TRUE(stSilent->bAsked);
    EXPECT_FALSE(stSilent->stSettings);
    EXPECT_NO_THROW(objOther = BindLoopback(8365));
}

TEST(FilesTest, AFileIsReplacedWholeAndReadableByAll)
{
    const CTempDir objDir;
    const std::string strPath = objDir.Path("state.json");
    const mode_t u32Mask = umask(0077);
    EXPECT_EQ(ReplaceFile(strPath, "old"), 0);
    umask(u32Mask);
    struct stat stStat = {};
    ASSERT_EQ(stat(strPath.c_str(), &stStat), 0);
    EXPECT_EQ(stStat.st_mode & 0777, 0644U);
    const std::string strNew = strPath + ".new";
    EXPECT_EQ(symlink(objDir.Path("other").c_str(), strNew.c_str()), 0);
    EXPECT_EQ(ReplaceFile(strPath, "one"), 0);
    EXPECT_NE(access(objDir.Path("other").c_str(), F_OK), 0) << "written through another's link";
    EXPECT_EQ(mkfifo(strNew.c_str(), 0600), 0);
    EXPECT_EQ(ReplaceFile(strPath, "two"), 0) << "nobody reads another's pipe";
    EXPECT_EQ(mkdir(strNew.c_str(), 0700), 0);
    EXPECT_EQ(ReplaceFile(strPath, "new"), EISDIR);
    EXPECT_EQ(::ReadFile(strPath, 3), "two");
    EXPECT_FALSE(::ReadFile(strPath, 2)) << "longer than the limit";
    EXPECT_FALSE(::ReadFile(objDir.Path("."), 100)) << "a folder";
}

TEST(SapTest, AnnouncementAndDeletion)
{
    SESSION_S stSession;
    stSession.strName = "box\r\nm=audio";
    stSession.u8Origin = {192, 0, 2, 1};
    stSession.u8Group = GroupOf({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f});
    stSession.u64Id = stSession.u64Version = 7;
    stSession.objSps = SPS_1080;
    stSession.objPps = PPS;
    const std::string strSdp =
        "v=0\r\no=- 7 7 IN IP4 192.0.2.1\r\ns=boxm=audio\r\nc=IN IP4 234.29.78.95/1\r\nt=0 0\r\n"
        "a=type:broadcast\r\nm=video 59202 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
        "a=fmtp:96 packetization-mode=1;profile-level-id=640029;sprop-parameter-sets="
        "Z2QAKazZQHgCJ+XARAAAAwAEAAADAPA8YMZY,aOvjyyLA\r\n";
    EXPECT_EQ(SdpText(stSession), strSdp);
    for (const std::size_t u64Size : {0, 1, 2, 3, 4}) {
        const std::vector<UInt8> objBytes(SPS_1080.begin(), SPS_1080.begin() + u64Size);
        EXPECT_EQ(FromBase64(Base64(objBytes)), objBytes);
    }
    for (const char *pBad : {"Zm9v\r\nm=", "Zg", "Zg===", "Z===", "Zh=="}) {
        EXPECT_TRUE(FromBase64(pBad).empty()) << pBad;
    }
    const std::string strAnnounced = SapDatagram(stSession, false);
    const std::string strDeleted = SapDatagram(stSession, true);
    EXPECT_EQ(strAnnounced.substr(0, 2), std::string("\x20\0", 2));
    EXPECT_EQ(strAnnounced.substr(4, 20), std::string("\xC0\0\2\1application/sdp\0", 20));
    EXPECT_EQ(strAnnounced.substr(24), strSdp);
    EXPECT_EQ(strDeleted[0], '\x24');
    EXPECT_EQ(strDeleted.substr(2, 2), strAnnounced.substr(2, 2));
    EXPECT_EQ(strDeleted.substr(24), "o=- 7 7 IN IP4 192.0.2.1\r\n");
}

} // namespace
