// Analog line behaviour of the simulator: the events a tapped line gives
// (caller ID, digits with their buffer, flash, tones, voice), the values
// the recorder sets, real-time delivery, and the demo scenarios.
#include "sim_fixture.h"

#include "scenario.h"
#include "simini.h"

#include <chrono>
#include <vector>

namespace {

const int kCh = 60;

struct Ev {
    WORD wCode;
    int nRef;
    DWORD dwParam;
    bool operator==(const Ev& o) const { return wCode == o.wCode && nRef == o.nRef && dwParam == o.dwParam; }
};

std::ostream& operator<<(std::ostream& os, const Ev& e)
{
    return os << "{" << e.wCode << ", " << e.nRef << ", " << e.dwParam << "}";
}

// Everything queued now, in order.
std::vector<Ev> Drain()
{
    std::vector<Ev> v;
    SSM_EVENT ev{};
    while (shsim_pending_events() > 0 && SsmWaitForEventA(0, &ev) == 0)
        v.push_back({ev.wEventCode, ev.nReference, ev.dwParam});
    return v;
}

class SimLineTest : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        StartWithEvents();
        shsim_set_step_mode(1);
    }
};

} // namespace

TEST_F(SimLineTest, LineCommandsQueueTheirEvents)
{
    const struct {
        const char* cmd;
        const char* reply;
        Ev ev;
    } cases[] = {
        {"state 60 ringing", "OK channel 60 state ringing", {E_CHG_ChState, 60, S_CALL_RINGING}},
        {"state 60 recording", "OK channel 60 state recording", {E_CHG_ChState, 60, S_CALL_RECORDING}},
        {"state 60 frameerror", "OK channel 60 state frameerror", {E_CHG_ChState, 60, S_CALL_FRAME_ERROR}},
        {"flash 60", "OK hook flash", {E_CHG_FlashCount, 60, 1}},
        {"tone 60 busy", "OK tone 2", {E_CHG_ToneAnalyze, 60, TONE_BUSY}},
        {"tone 60 6", "OK tone 6", {E_CHG_ToneAnalyze, 60, TONE_VOICE}},
        {"bargein 60 on", "OK voice on", {E_SYS_BargeIn, 60, 1}},
        {"bargein 60 off", "OK voice off", {E_SYS_BargeIn, 60, 0}},
        {"nosound 60", "OK no sound", {E_SYS_NoSound, 60, 0}},
    };
    std::vector<Ev> vExpected;
    for (const auto& c : cases) {
        EXPECT_EQ(Command(c.cmd), c.reply);
        vExpected.push_back(c.ev);
    }
    EXPECT_EQ(Drain(), vExpected);
    EXPECT_EQ(SsmGetChState(60), S_CALL_FRAME_ERROR);

    EXPECT_EQ(Command("state 60 asleep"), "ERR usage: state <ch> <state 0..65535>");
    EXPECT_EQ(Command("tone 60 256").substr(0, 3), "ERR");
    EXPECT_EQ(Command("bargein 60 maybe"), "ERR usage: bargein <ch> on|off");
    EXPECT_EQ(Command("flash 84"), "ERR no channel 84");
    EXPECT_EQ(Command("nosound"), "ERR usage: nosound <ch>");

    // What the recorder sets on a line is shown by "line".
    EXPECT_EQ(SsmSetRecVolume(60, -3), 0);
    EXPECT_EQ(SsmSetRecAGC(60, 1), 0);
    EXPECT_EQ(SsmSetBargeInSens(60, 12), 0);
    ASSERT_EQ(Command("voltage 60 -6"), "OK");
    EXPECT_EQ(Command("line 60"), "OK line 60 type 3 state 140 voltage -6 volume -3 agc 1 bargeinsens 12 "
                                  "dtmf '' callerid ''");
}

TEST_F(SimLineTest, DigitsArriveWithTheirGapsAndFillTheBufferUntilCleared)
{
    ASSERT_EQ(Command("dtmf 60 1*# gap=300"), "OK digits 1*# gap 300 ms");
    EXPECT_EQ(Drain(), (std::vector<Ev>{{E_CHG_RcvDTMF, 60, '1'}}));
    EXPECT_NE(Command("status").find("timed 2"), std::string::npos);
    SSM_EVENT ev{};
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1); // 200 ms: the next digit is due at 300
    EXPECT_TRUE(Drain().empty());
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1); // 400 ms
    EXPECT_EQ(Drain(), (std::vector<Ev>{{E_CHG_RcvDTMF, 60, '*'}}));
    EXPECT_NE(Command("line 60").find("dtmf '1*'"), std::string::npos);
    shsim_advance_clock(1000);
    EXPECT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.dwParam, static_cast<DWORD>('#'));

    EXPECT_NE(Command("line 60").find("dtmf '1*#'"), std::string::npos);
    EXPECT_EQ(SsmClearRxDtmfBuf(60), 0);
    EXPECT_NE(Command("line 60").find("dtmf ''"), std::string::npos);
    EXPECT_EQ(SsmClearRxDtmfBuf(84), -1);

    // Without a gap all digits come at once; gap=0 as well.
    ASSERT_EQ(Command("dtmf 61 AbCd gap=0").substr(0, 2), "OK");
    EXPECT_EQ(Drain().size(), 4u);
    EXPECT_EQ(Command("dtmf 60 12x"), "ERR 'x' is no DTMF digit");
    EXPECT_EQ(Command("dtmf 60 12 gap=-1").substr(0, 3), "ERR");
    EXPECT_EQ(Command("dtmf 60 " + std::string(65, '1')), "ERR at most 64 digits");

    // Closing the driver forgets digits still to come.
    ASSERT_EQ(Command("dtmf 60 99 gap=500").substr(0, 2), "OK");
    SsmCloseCti();
    StartWithEvents();
    shsim_advance_clock(1000);
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1);
}

TEST_F(SimLineTest, CallerIdOfAnyLengthAndLatin1BytesWithItsEvent)
{
    EXPECT_EQ(Command("cid 60 hex=3033E9FC"), "OK caller id hex=3033E9FC, event queued");
    EXPECT_EQ(Drain(), (std::vector<Ev>{{E_CHG_CIDExBuf, 60, 0}}));
    ASSERT_NE(SsmGetCallerIdA(60), nullptr);
    EXPECT_STREQ(SsmGetCallerIdA(60), "03\xE9\xFC");

    // 1, 13 and 300 characters as they stand; none clears it (null).
    for (size_t n : {1u, 13u, 300u}) {
        std::string text(n, '7');
        ASSERT_EQ(Command("cid 60 " + text).substr(0, 2), "OK");
        EXPECT_STREQ(SsmGetCallerIdA(60), text.c_str());
    }
    ASSERT_EQ(Command("cid 60"), "OK caller id '', event queued");
    EXPECT_EQ(SsmGetCallerIdA(60), nullptr);
    EXPECT_EQ(Drain().size(), 4u);
    ASSERT_EQ(Command("callerid 61 hex=41FF"), "OK caller id hex=41FF");
    EXPECT_STREQ(SsmGetCallerIdA(61), "A\xFF");
    EXPECT_TRUE(Drain().empty());

    EXPECT_EQ(Command("cid 60 hex=3000"), "ERR a caller ID can't hold a NUL byte");
    EXPECT_EQ(Command("cid 60 hex=3G"), "ERR bad hex text '3G'");
    EXPECT_EQ(Command("cid 60 " + std::string(1025, '1')), "ERR caller ID longer than 1024 bytes");
    EXPECT_STREQ(SsmGetCallerIdA(60), nullptr);

    // With events off the text is taken, the event is not.
    _EVENT_SET_INFO info{};
    ASSERT_EQ(SsmSetEvent(0xFFFF, -1, 0, &info), 0);
    EXPECT_EQ(Command("cid 60 123").substr(0, 3), "ERR");
    EXPECT_STREQ(SsmGetCallerIdA(60), "123");
}

TEST_F(SimLineTest, InRealTimeAWaitWakesForAudioAndTimedDigits)
{
    shsim_set_step_mode(0);
    ASSERT_EQ(EnableRecordMem(800, 0), 0); // 100 ms of audio
    char acRing[4096];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);
    auto t0 = std::chrono::steady_clock::now();
    SSM_EVENT ev{};
    ASSERT_EQ(SsmWaitForEventA(2000, &ev), 0);
    double d = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(ev.wEventCode, E_PROC_RecordMem);
    EXPECT_EQ(ev.dwParam, 800u);
    EXPECT_GE(d, 0.095);
    EXPECT_LT(d, 0.5);
    ASSERT_EQ(SsmStopRecToMem(kCh), 0);

    // A digit that falls due later ends the wait when it does, not at its time-out.
    ASSERT_EQ(Command("dtmf 61 12 gap=100").substr(0, 2), "OK");
    ASSERT_EQ(SsmWaitForEventA(2000, &ev), 0);
    t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(SsmWaitForEventA(2000, &ev), 0);
    d = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(ev.dwParam, static_cast<DWORD>('2'));
    EXPECT_LT(d, 0.5);
}

TEST_F(SimLineTest, DemoScenariosPlayOnTheDemoHardware)
{
    SsmCloseCti();
    std::string hw;
    ASSERT_TRUE(ReadTextFile(std::string(QUORDA_SOURCE_DIR) + "/sim/demo/hardware.ini", hw));
    WriteFile(SimDir() + "/hardware.ini", hw);
    WriteFile(CfgPath(), "[SystemConfig]\nTotalBoards=2\n[AppChToBoardChTable]\nTotalAppCh=56\n"
                         "AppCh[0]=0,0..23\nAppCh[24]=1,0..31\n"
                         "[BoardId=0]\nBoardModel=ATP-24A\nBoardSerialNumber=10203\n"
                         "[BoardId=1]\nBoardModel=DST-32\nBoardSerialNumber=40506\n");
    StartWithEvents();
    shsim_set_step_mode(1);
    for (const char* name : {"demo.scn", "analog-call.scn"}) {
        std::string text, err;
        ASSERT_TRUE(ReadTextFile(std::string(QUORDA_SOURCE_DIR) + "/sim/demo/" + name, text));
        auto exec = [](const std::string& line) { return Command(line); };
        auto pause = [](long ms) {
            shsim_advance_clock(static_cast<unsigned>(ms));
            return true;
        };
        EXPECT_TRUE(PlayScenario(text, exec, pause, err)) << name << ": " << err;
    }
    EXPECT_EQ(SsmGetChState(0), S_CALL_STANDBY);
    EXPECT_STREQ(SsmGetCallerIdA(1), "042123\xE9");
}
