// AnalogChannel on the card simulator (an analog board started in a
// temporary root) against a fake recorder and a fake clock: the trigger
// types, ringing and pick-up, the card's recording state, the voice
// trigger's silence time-out, caller IDs of every awkward length with and
// without the R2 split, tones, and the line's state file.
#include <gtest/gtest.h>

#include <string>

#include "AnalogChannel.h"
#include "fake_clock.h"
#include "fake_database.h"
#include "fake_recorder.h"
#include "log_capture.h"
#include "paths.h"
#include "shsim.h"
#include "support_temp_root.h"
#include "test_analog_sim.h"

namespace {

const char* const kHardware = "[board]\nmodel=ATP-4\nserial=1234\nchannels=4\n";
const char* const kShConfig = "[SystemConfig]\nTotalBoards=1\n"
                              "[AppChToBoardChTable]\nTotalAppCh=4\nAppCh[0]=0,0..3\n"
                              "[BoardId=0]\nBoardModel=ATP-4\nBoardSerialNumber=1234\n";

class AnalogRecorder : public FakeRecorder {
public:
    int GetParamInt(std::string strKey) override { return strKey == "R2NumSplit" ? iR2NumSplit : 0; }
    std::string GetDataDir() override { return strDataDir; }

    int iR2NumSplit = 0;
    std::string strDataDir;
};

std::string Sim(const std::string& strLine)
{
    char ac[8192];
    shsim_command(strLine.c_str(), ac, sizeof(ac));
    return ac;
}

class AnalogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(root.strRoot.empty());
        ASSERT_EQ(StartSimDriver(root, kHardware, kShConfig), 0);
        rec.prDatabase = &db;
        rec.strRecordingRoot = SysPath("/recordings");
        rec.strArchiveRoot = rec.strRecordingRoot;
        rec.strDataDir = SysPath("/var/quorda/data/");
        rec.params["SilenceTimeOut"] = 8;
    }
    void TearDown() override { shsim_reset(); }

    void Init(int iTrigger)
    {
        rec.params["Trigger"] = iTrigger;
        ch.Init(1, 0, 0, &rec, 0);
    }
    void Event(int iCode, DWORD dwParam = 0)
    {
        SSM_EVENT ev{};
        ev.wEventCode = static_cast<WORD>(iCode);
        ev.dwParam = dwParam;
        ch.HandleEvent(&ev);
    }
    // High bits carry noise the channel must ignore.
    void State(int iState) { Event(E_CHG_ChState, 0x00AB0000u | static_cast<DWORD>(iState)); }
    void Voice(bool fOn) { Event(E_SYS_BargeIn, fOn ? 1 : 0); }
    void CallerId(const std::string& strNumber)
    {
        Sim("callerid 0 " + strNumber);
        Event(E_CHG_CIDExBuf);
    }
    void Ticks(int n)
    {
        for (int i = 0; i < n; ++i) {
            clock.Advance(1000000);
            ch.Periodic();
        }
    }
    int Count(const std::string& strText) const
    {
        int n = 0;
        for (const LoggedLine& l : log.Lines())
            if (l.strText.find(strText) != std::string::npos)
                ++n;
        return n;
    }

    TempRoot root;
    FakeClock clock;
    ScopedFakeClock scopedClock{clock};
    LogCapture log;
    FakeDatabase db;
    AnalogRecorder rec;
    AnalogChannel ch;
};

// ---- settings and triggers ------------------------------------------------------------

TEST_F(AnalogTest, InitSetsTheCardGainAndAgc)
{
    rec.params["AGC"] = 1;
    rec.params["Amplify"] = 5;
    Init(2);
    std::string strCalls = Sim("log");
    EXPECT_NE(strCalls.find("SsmSetRecVolume(0, 5)"), std::string::npos) << strCalls;
    EXPECT_NE(strCalls.find("SsmSetRecAGC(0, 1)"), std::string::npos) << strCalls;
    rec.params["AGC"] = 0;
    AnalogChannel other;
    other.Init(2, 0, 1, &rec, 1);
    EXPECT_NE(Sim("log").find("SsmSetRecAGC(1, 0)"), std::string::npos);
}

TEST_F(AnalogTest, OffHookTriggerFollowsRingPickUpAndHangUp)
{
    Init(1);
    State(S_CALL_RINGING);
    EXPECT_TRUE(ch.fRinging);
    EXPECT_FALSE(ch.fCallBusy);
    CallerId("0301234567");
    EXPECT_EQ(ch.strRemoteNum, "0301234567");
    State(S_CALL_PICKUPED);
    EXPECT_TRUE(ch.fCallBusy);
    EXPECT_FALSE(ch.fRinging);
    EXPECT_TRUE(ch.fIncoming);

    // The card's recording state says nothing about the hook.
    State(S_CALL_RECORDING);
    EXPECT_TRUE(ch.fCallBusy);
    State(S_CALL_PICKUPED);
    EXPECT_EQ(Count("Call starts"), 1);
    State(S_CALL_STANDBY);
    EXPECT_FALSE(ch.fCallBusy);
    EXPECT_EQ(Count("Call stops"), 1);

    // Recording state while ringing ends the ringing but starts nothing.
    State(S_CALL_RINGING);
    State(S_CALL_RECORDING);
    EXPECT_FALSE(ch.fRinging);
    EXPECT_FALSE(ch.fInCall_ChState);
    EXPECT_FALSE(ch.fCallBusy);

    // A line that drops ends the call.
    State(S_CALL_PICKUPED);
    State(S_CALL_OFFLINE);
    EXPECT_FALSE(ch.fCallBusy);
    EXPECT_EQ(Count("Call stops"), 2);
}

TEST_F(AnalogTest, OffTriggerNeverStartsButStillFollowsTheLine)
{
    Init(3);
    State(S_CALL_RINGING);
    EXPECT_TRUE(ch.fRinging);
    CallerId("0301234567");
    EXPECT_EQ(ch.strRemoteNum, "0301234567");
    State(S_CALL_PICKUPED);
    Voice(true);
    Ticks(3);
    EXPECT_FALSE(ch.fCallBusy);
    EXPECT_EQ(Count("Call starts"), 0);
}

TEST_F(AnalogTest, AlwaysTriggerStartsOnTheFirstTickAndMeasuresNoVoltage)
{
    Init(4);
    EXPECT_FALSE(ch.fCallBusy);
    Ticks(1);
    EXPECT_TRUE(ch.fCallBusy);
    State(S_CALL_STANDBY);
    Ticks(2);
    EXPECT_TRUE(ch.fCallBusy);
    EXPECT_EQ(ch.iVoltage, -999);
    EXPECT_EQ(ch.WriteChState(), 0);
    EXPECT_EQ(TempRoot::Read(rec.strDataDir + "chstate_1.dat").find("Voltage:"), std::string::npos);
}

// ---- voice trigger ------------------------------------------------------------------------

TEST_F(AnalogTest, VoiceTriggerStartsOnVoiceAndEndsAfterExactlyTheSilenceTimeOut)
{
    Init(2);
    State(S_CALL_PICKUPED);
    EXPECT_FALSE(ch.fCallBusy); // the hook alone is no call here
    Voice(true);
    EXPECT_TRUE(ch.fCallBusy);
    Voice(true); // voice going on changes nothing
    EXPECT_EQ(Count("Call starts"), 1);

    Voice(false);
    Ticks(7);
    EXPECT_TRUE(ch.fCallBusy);
    Ticks(1);
    EXPECT_FALSE(ch.fCallBusy);

    // Voice back before the time-out: the same call goes on.
    Voice(true);
    Voice(false);
    Ticks(5);
    Voice(true);
    Ticks(20);
    EXPECT_TRUE(ch.fCallBusy);
    EXPECT_EQ(Count("Call starts"), 2);
    EXPECT_EQ(Count("Call stops"), 1);
}

TEST_F(AnalogTest, DebugRepeatRecordRestartsAtNoSoundAndAtEachTimeOut)
{
    rec.fDebugRepeatRecord = true;
    Init(2);
    Event(E_CHG_ToneAnalyze, TONE_NO_SOUND);
    EXPECT_TRUE(ch.fCallBusy);
    Event(E_CHG_ToneAnalyze, TONE_VOICE);
    Event(E_CHG_ToneAnalyze, TONE_NO_SOUND); // in a call: nothing new
    EXPECT_EQ(Count("Call starts"), 1);
    Ticks(8);
    EXPECT_EQ(Count("Call stops"), 1);
    EXPECT_EQ(Count("Call starts"), 2);
    EXPECT_TRUE(ch.fCallBusy);
}

// ---- caller ID ----------------------------------------------------------------------------

TEST_F(AnalogTest, CallerIdsOfEveryLengthAreTakenWholeOrDropped)
{
    Init(1);
    Sim("callerid 0"); // none at all: the card gives null
    Event(E_CHG_CIDExBuf);
    EXPECT_FALSE(log.Contains("Analog caller ID"));
    CallerId("7");
    EXPECT_EQ(ch.strRemoteNum, "");
    CallerId("07");
    EXPECT_EQ(ch.strRemoteNum, "07");
    CallerId("123456#654321"); // R2 split off: one number
    EXPECT_EQ(ch.strRemoteNum, "123456#654321");
    EXPECT_FALSE(ch.fIsNumLocked);

    std::string strLong;
    for (int i = 0; i < 300; ++i)
        strLong += i % 3 ? static_cast<char>('0' + i % 10) : static_cast<char>(0xC0 + i % 60);
    CallerId(strLong);
    EXPECT_EQ(ch.strRemoteNum, strLong);
}

TEST_F(AnalogTest, R2SplitSetsBothNumbersAndLocksTheRemoteForGood)
{
    rec.iR2NumSplit = 1;
    Init(1);
    State(S_CALL_PICKUPED);
    CallerId("123456#654321");
    EXPECT_EQ(ch.strRemoteNum, "123456");
    EXPECT_EQ(ch.strLocalNum, "654321");
    EXPECT_TRUE(ch.fIsNumLocked);

    CallerId("0301234567");
    EXPECT_EQ(ch.strRemoteNum, "123456");
    State(S_CALL_STANDBY);
    State(S_CALL_PICKUPED); // the lock outlives the call
    CallerId("0301234567");
    EXPECT_NE(ch.strRemoteNum, "0301234567");
    CallerId(std::string("98765\xE4") + "-12345\xFC");
    EXPECT_EQ(ch.strRemoteNum, "98765\xE4");
    EXPECT_EQ(ch.strLocalNum, "12345\xFC");
}

// ---- digits and tones -------------------------------------------------

TEST_F(AnalogTest, DigitsReachTheFrameAndTheCardBufferIsCleared)
{
    Init(1);
    Sim("log clear");
    Event(E_CHG_RcvDTMF, 0x4135); // low byte '5'
    Event(E_CHG_RcvDTMF, 0x002A); // '*'
    EXPECT_EQ(ch.strDigits, "5*");
    EXPECT_EQ(Sim("log"), "OK 2 calls: SsmClearRxDtmfBuf(0); SsmClearRxDtmfBuf(0)");
}

TEST_F(AnalogTest, TonesSuspendLoudDetection)
{
    Init(1);
    Event(E_CHG_ToneAnalyze, 0x1200 | TONE_BUSY); // high bits are noise
    EXPECT_TRUE(ch.fHighSwitchedOff);
    Event(E_CHG_ToneAnalyze, TONE_VOICE);
    EXPECT_FALSE(ch.fHighSwitchedOff);
    Event(E_CHG_ToneAnalyze, 9);
    EXPECT_EQ(ch.m_iLastTone, 9);
    // Without the diagnostic setting no sound starts nothing.
    Event(E_CHG_ToneAnalyze, TONE_NO_SOUND);
    EXPECT_FALSE(ch.fCallBusy);
}

// ---- state file ---------------------------------------------------------------------------

TEST_F(AnalogTest, StateFileHoldsVoltageAndLevelOrReportsItCannotBeWritten)
{
    Init(1);
    EXPECT_EQ(ch.WriteChState(), 0);
    EXPECT_EQ(TempRoot::Read(rec.strDataDir + "chstate_1.dat"), "");

    Sim("voltage 0 -52");
    Ticks(1);
    ch.iLast_dB = -31;
    EXPECT_EQ(ch.WriteChState(), 0);
    EXPECT_EQ(TempRoot::Read(rec.strDataDir + "chstate_1.dat"), "Voltage: -52\r\nAudioLevel: -31\r\n");

    rec.strDataDir = SysPath("/no/such/dir/");
    EXPECT_EQ(ch.WriteChState(), 1);
}

} // namespace
