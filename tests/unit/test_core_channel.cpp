// Line health of BaseChannel: the two leaky counters, the health value
// derived from them and the report to the recorder, driven by state events
// and one-second ticks against a fake recorder.
#include <gtest/gtest.h>

#include "BaseChannel.h"
#include "fake_recorder.h"

namespace {

class ChannelHealthTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ch.prRecorder = &rec;
        ch.iChannel = 3;
        ch.iChIx = 2;
        ch.iLastChannelState = S_CALL_STANDBY;
    }
    // A state event whose high 16 bits carry noise the channel must ignore.
    void State(int iState)
    {
        SSM_EVENT ev{};
        ev.wEventCode = E_CHG_ChState;
        ev.nReference = ch.iDrvCh;
        ev.dwParam = 0x00AB0000u | static_cast<DWORD>(iState);
        ch.HandleEvent(&ev);
    }
    void Ticks(int n)
    {
        for (int i = 0; i < n; ++i)
            ch.Periodic();
    }

    FakeRecorder rec;
    BaseChannel ch;
};

TEST_F(ChannelHealthTest, LastingErrorStateIsAFaultAtTheSecondTickAndLeaksAway)
{
    State(S_CALL_FRAME_ERROR);
    EXPECT_EQ(ch.iLastChannelState, S_CALL_FRAME_ERROR);
    EXPECT_EQ(ch.iLineErrCalc, 60);
    Ticks(1);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OK); // 120: not yet
    Ticks(1);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_ERROR); // 180
    EXPECT_EQ(rec.vNewLineHealth, std::vector<int>({2}));

    // Back to idle: the counter leaks one a second, 150 is no fault, 151 is.
    State(S_CALL_STANDBY);
    Ticks(29);
    EXPECT_EQ(ch.iLineErrCalc, 151);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_ERROR);
    Ticks(1);
    EXPECT_EQ(ch.iLineErrCalc, 150);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OK);
    EXPECT_EQ(rec.vNewLineHealth.size(), 2u);
}

TEST_F(ChannelHealthTest, DisconnectsCountPerChangeAndThreeKeepTheLineOffline)
{
    State(S_CALL_OFFLINE);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OFFLINE); // at once, while it lasts
    State(S_CALL_OFFLINE);                         // a repeat isn't counted
    EXPECT_EQ(ch.iLineOfflineCalc, 60);
    Ticks(3); // a standing disconnect is not counted per second
    EXPECT_EQ(ch.iLineOfflineCalc, 57);
    State(S_CALL_STANDBY);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OK);

    for (int iDown : {S_CALL_UNAVAILABLE, S_CALL_OFFLINE, S_CALL_OFFLINE}) {
        State(iDown);
        State(S_CALL_STANDBY);
    }
    EXPECT_EQ(ch.iLineOfflineCalc, 200); // 57 + 3 x 60, clamped
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OFFLINE);
    Ticks(49);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OFFLINE);
    Ticks(1);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OK);
    EXPECT_EQ(rec.vNewLineHealth.size(), 6u);
}

TEST_F(ChannelHealthTest, OfflineWinsOverErrorAndQuietTimeBuildsNoCredit)
{
    Ticks(500);
    EXPECT_EQ(ch.iLineErrCalc, 0);
    EXPECT_EQ(ch.iLineOfflineCalc, 0);

    ch.iLineOfflineCalc = 180;
    State(S_CALL_SIGNAL_ERROR);
    Ticks(2);
    EXPECT_GT(ch.iLineErrCalc, 150);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OFFLINE);
}

TEST_F(ChannelHealthTest, OnlyStateEventsMoveTheStateAndALineWithoutWebNumberIsNotReported)
{
    SSM_EVENT ev{};
    ev.wEventCode = E_CHG_RcvDTMF;
    ev.dwParam = S_CALL_OFFLINE;
    ch.HandleEvent(&ev);
    EXPECT_EQ(ch.iLastChannelState, S_CALL_STANDBY);
    EXPECT_EQ(ch.iLineOfflineCalc, 0);

    ch.iChannel = -1;
    State(S_CALL_OFFLINE);
    EXPECT_EQ(ch.eLineHealth, LINEHEALTH_OFFLINE);
    EXPECT_TRUE(rec.vNewLineHealth.empty());
}

} // namespace
