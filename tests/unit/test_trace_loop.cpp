// Bit stream tracing in the run loop, on the card simulator (analog board,
// step mode) with a fake clock: a trace request ends the call in progress,
// the loop then serves only acts, one per 200 ms step, while the library's
// threads fill the trace files; the stop returns to events, and a final
// stop doesn't end the calls a second time. Also the callbacks' safe forms
// for bad input, and a trace without a log directory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AnalogChannel.h"
#include "bittrace.h"
#include "fake_clock.h"
#include "fake_database.h"
#include "log_capture.h"
#include "paths.h"
#include "quorda_crec.h"
#include "recorder.h"
#include "shsim.h"
#include "support_temp_root.h"
#include "test_analog_sim.h"

namespace {

const char* const kHardware = "[board]\nmodel=ATP-4\nserial=1234\nchannels=4\n";
const char* const kShConfig = "[SystemConfig]\nTotalBoards=1\n"
                              "[AppChToBoardChTable]\nTotalAppCh=4\nAppCh[0]=0,0..3\n"
                              "[BoardId=0]\nBoardModel=ATP-4\nBoardSerialNumber=1234\n";

class MarkAct : public ThreadAct {
public:
    explicit MarkAct(int& i) : iRuns(i) {}
    void performThread() override {}
    void performMain() override { ++iRuns; }
    int& iRuns;
};

std::string SimCommand(const std::string& strLine)
{
    char ac[4096];
    shsim_command(strLine.c_str(), ac, sizeof(ac));
    return ac;
}

// The number after "word " in the simulator's trace report.
long long ReportFigure(const std::string& strWord)
{
    std::string strReport = SimCommand("trace");
    size_t i = strReport.find(strWord + " ");
    return i == std::string::npos ? -1 : atoll(strReport.c_str() + i + strWord.size() + 1);
}

// Waits in real time (the library's threads run on it) for n more
// signalling records than the simulator had delivered when the test began.
bool WaitForDstRecords(long long llBase, long long n)
{
    for (int i = 0; i < 300 && ReportFigure("records") < llBase + n; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return ReportFigure("records") >= llBase + n;
}

std::vector<std::string> Lines(const std::string& strText)
{
    std::vector<std::string> v;
    size_t iStart = 0;
    for (size_t i; (i = strText.find('\n', iStart)) != std::string::npos; iStart = i + 1)
        v.push_back(strText.substr(iStart, i - iStart));
    return v;
}

class TraceLoopTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(root.strRoot.empty());
        ASSERT_EQ(StartSimDriver(root, kHardware, kShConfig), 0);
        EnsurePath(SysPath("/var/quorda/data/"));
        prBoot->iTotalDrvMaxCh = 4;
        prBoot->rDrvToWebChMap = {{0, 0}, {1, 1}, {2, 2}, {3, 3}};
        rec.prBoot = prBoot.get();
        rec.prDatabase = prDb;
        rec.strRecordingRoot = SysPath("/recordings");
        rec.strArchiveRoot = rec.strRecordingRoot;
        ASSERT_EQ(rec.InitRecorder(), 0);
        shsim_set_step_mode(1);
        llDstBase = ReportFigure("records");
    }
    void TearDown() override
    {
        fAppTerminate = false;
        shsim_reset();
    }
    std::string LogFile(const char* name) { return SysPath("/recordings/log/") + name; }
    // Passes until the loop has entered the tracing block (trace.bit made).
    void PassIntoTracing(RecorderLoop& loop)
    {
        for (int i = 0; i < 20 && !file_exists(LogFile("trace.bit")); ++i)
            ASSERT_TRUE(loop.RunPass());
        ASSERT_TRUE(file_exists(LogFile("trace.bit")));
    }

    TempRoot root;
    FakeClock clock;
    ScopedFakeClock scopedClock{clock};
    LogCapture log;
    FakeDatabase* prDb = new FakeDatabase(); // owned by the boot
    std::unique_ptr<TRecorderBoot> prBoot{new TRecorderBoot(prDb)};
    CRecorder rec;
    long long llDstBase = 0;
};

TEST_F(TraceLoopTest, TraceEndsTheCallFillsTheFilesServesActsAndReturnsToEvents)
{
    RecorderLoop loop(*prBoot, rec, SsmWaitForEventA);
    shsim_set_state(0, S_CALL_RINGING);
    shsim_set_state(0, S_CALL_PICKUPED);
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(loop.RunPass());
    ASSERT_TRUE(rec.vChannels[0]->fCallBusy);

    // What TraceAct does on the main thread.
    rec.iBitStreamChNr = 0;
    rec.fBitStreamTracing = true;
    PassIntoTracing(loop);
    EXPECT_FALSE(rec.vChannels[0]->fCallBusy);
    EXPECT_TRUE(log.Contains("Starting bit stream tracing on channel 0", 5));
    EXPECT_TRUE(file_exists(LogFile("trace.wav")));

    // One act per 200 ms step; events wait.
    shsim_set_state(1, S_CALL_RINGING);
    int iRuns = 0;
    prBoot->queue(new MarkAct(iRuns));
    prBoot->queue(new MarkAct(iRuns));
    long long llSlept = clock.iSleptUs;
    ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(iRuns, 1);
    EXPECT_EQ(clock.iSleptUs - llSlept, 200000);
    ASSERT_TRUE(WaitForDstRecords(llDstBase, 10)); // both kinds, two LCD messages, command 50
    ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(iRuns, 2);
    EXPECT_FALSE(rec.vChannels[1]->fRinging);
    EXPECT_GE(shsim_pending_events(), 1);

    // The stop: the last step found an act, so the queue is looked at once
    // more; then the close.
    rec.fBitStreamTracing = false;
    ASSERT_TRUE(loop.RunPass());
    EXPECT_FALSE(log.Contains("Stopped bit stream tracing"));
    ASSERT_TRUE(loop.RunPass());
    EXPECT_TRUE(log.Contains("Stopped bit stream tracing", 5));
    EXPECT_EQ(hCasTraceFile.load(), nullptr);
    EXPECT_EQ(hRawBitFile.load(), nullptr);
    EXPECT_EQ(SimCommand("trace").find("running 0"), std::string("OK trace bitflow - file - dst - ").size());

    std::string strBits = TempRoot::Read(LogFile("trace.bit"));
    ASSERT_GE(strBits.size(), 640u);
    std::vector<unsigned char> vPattern(strBits.size());
    shsim_pattern_bytes(1000, 0, vPattern.data(), vPattern.size());
    EXPECT_EQ(0, memcmp(strBits.data(), vPattern.data(), vPattern.size()));

    std::vector<std::string> vDch = Lines(TempRoot::Read(LogFile("dch.log")));
    ASSERT_GE(vDch.size(), 11u);
    EXPECT_EQ(vDch[0], "[Ch] Seconds  EventCo. SubReas. XtraInfo DataLen.");
    // The cycle's first records: command 46 with 4 bytes, a key event,
    // command 47 with 5 bytes, the LCD message of 255 bytes.
    unsigned char acData[4];
    shsim_pattern_bytes(3000, 0, acData, 4);
    char acExpected[200];
    snprintf(acExpected, sizeof(acExpected), " DST ch[  0] CmdType[S] Len[  4] Data--> %2x %2x %2x %2x ",
             acData[0], acData[1], acData[2], acData[3]);
    EXPECT_NE(vDch[1].find(acExpected), std::string::npos) << vDch[1];
    EXPECT_EQ(vDch[1].substr(0, 9), "00:00:00.") << vDch[1]; // the library's time of the record
    EXPECT_EQ(vDch[2], "[00]        0 00001006 00000000 00000000 00000000");
    EXPECT_NE(vDch[3].find("CmdType[U] Len[  5]"), std::string::npos) << vDch[3];
    EXPECT_EQ(vDch[4], "[00]        0 00001008 00000000 00000000 000000ff");
    EXPECT_NE(vDch[9].find("CmdType[?]"), std::string::npos) << vDch[9]; // command 50

    std::vector<std::string> vMsg = Lines(TempRoot::Read(LogFile("dmsg.log")));
    ASSERT_GE(vMsg.size(), 5u);
    EXPECT_EQ(vMsg[0], "[Ch] Seconds");
    EXPECT_EQ(vMsg[1], "[00]        0 LCD message");
    // The unterminated 255-byte buffer is printed whole and no further.
    EXPECT_EQ(vMsg[2].size(), 255u);
    EXPECT_EQ(vMsg[2].substr(0, 14), "LCD message 0 ");
    EXPECT_EQ(vMsg[4].substr(0, 14), "LCD message 1 ");

    // Events again: the ringing that waited reaches its channel.
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(loop.RunPass());
    EXPECT_TRUE(rec.vChannels[1]->fRinging);

    // A call after the trace survives the final stop: Shutdown ran once,
    // for the trace, and doesn't run again.
    shsim_set_state(2, S_CALL_RINGING);
    shsim_set_state(2, S_CALL_PICKUPED);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(loop.RunPass());
    ASSERT_TRUE(rec.vChannels[2]->fCallBusy);
    fAppTerminate = true;
    int iPasses = 0;
    while (loop.RunPass() && ++iPasses < 10) {
    }
    EXPECT_LT(iPasses, 10);
    EXPECT_TRUE(rec.vChannels[2]->fCallBusy);
}

TEST_F(TraceLoopTest, StopDuringTracingLeavesTheLoopAndAMissingLogDirectoryIsNoFault)
{
    // A file where the log directory would be: no trace file can be made.
    root.Write("/recordings/log", "not a directory");
    RecorderLoop loop(*prBoot, rec, SsmWaitForEventA);
    rec.iBitStreamChNr = 1;
    rec.fBitStreamTracing = true;
    for (int i = 0; i < 20 && !log.Contains("Starting bit stream tracing"); ++i)
        ASSERT_TRUE(loop.RunPass());
    EXPECT_TRUE(log.Contains("Cannot open trace file", 4));
    EXPECT_EQ(hCasTraceFile.load(), nullptr);
    ASSERT_TRUE(WaitForDstRecords(llDstBase, 4)); // the callbacks run and skip the missing files

    int iRuns = 0;
    prBoot->queue(new MarkAct(iRuns));
    ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(iRuns, 1);
    fAppTerminate = true;
    EXPECT_TRUE(loop.RunPass()); // one more look, since the last found an act
    EXPECT_FALSE(log.Contains("Stopped bit stream tracing"));
    EXPECT_FALSE(loop.RunPass());
    EXPECT_TRUE(log.Contains("Stopped bit stream tracing", 5));
    EXPECT_EQ(SimCommand("trace").find("running 0"), std::string("OK trace bitflow - file - dst - ").size());
}

// The callbacks called directly with what a library might hand over.
TEST_F(TraceLoopTest, CallbacksFilterTheChannelAndSurviveNullsAndUnterminatedText)
{
    EnsurePath(LogFile(""));
    FILE* fLog = fopen(LogFile("dch.log").c_str(), "w");
    FILE* fMsg = fopen(LogFile("dmsg.log").c_str(), "w");
    FILE* fBits = fopen(LogFile("trace.bit").c_str(), "w");
    ASSERT_TRUE(fLog && fMsg && fBits);
    hCasTraceFile = fLog;
    hCasMsgTraceFile = fMsg;
    hRawBitFile = fBits;
    g_iTraceChNr = 3;
    g_tTraceStartTime = WallNow() - 12;

    UCHAR acData[2] = {0x0a, 0xff};
    tagDST_EVENT rEvent;
    memset(&rEvent, 'z', sizeof(rEvent)); // no NUL anywhere in the text
    rEvent.dwEventCode = 4104;
    rEvent.dwDataLength = 255;
    EXPECT_EQ(DSTCallback(1, nullptr, 3, 0, 49, 2, acData, nullptr), 1);
    EXPECT_EQ(DSTCallback(2, const_cast<PCHAR>("t"), 3, 0, 49, 5, nullptr, nullptr), 1);
    EXPECT_EQ(DSTCallback(3, const_cast<PCHAR>("t"), 2, 0, 46, 2, acData, nullptr), 1); // other channel
    EXPECT_EQ(DSTCallback(4, const_cast<PCHAR>("t"), 3, 1, 0, 0, nullptr, nullptr), 1); // no event record
    EXPECT_EQ(DSTCallback(5, const_cast<PCHAR>("t"), 3, 1, 0, 0, nullptr, &rEvent), 1);
    EXPECT_EQ(RecRawDataCallBack(3, 5, nullptr, 0, 0), 1);
    EXPECT_EQ(RecRawDataCallBack(3, 2, acData, 0, 0), 1);
    hCasTraceFile = nullptr;
    hCasMsgTraceFile = nullptr;
    hRawBitFile = nullptr;
    fclose(fLog);
    fclose(fMsg);
    fclose(fBits);
    // Nothing is written once the handles are gone.
    EXPECT_EQ(DSTCallback(6, nullptr, 3, 0, 46, 2, acData, nullptr), 1);
    EXPECT_EQ(RecRawDataCallBack(3, 2, acData, 0, 0), 1);

    EXPECT_EQ(TempRoot::Read(LogFile("dch.log")), " DST ch[  3] CmdType[V] Len[  2] Data-->  a ff \n"
                                                  "t DST ch[  3] CmdType[V] Len[  5] Data--> \n"
                                                  "[03]       12 00001008 7a7a7a7a 7a7a7a7a 000000ff\n");
    EXPECT_EQ(TempRoot::Read(LogFile("dmsg.log")),
              "[03]       12 LCD message\n" + std::string(255, 'z') + "\n");
    EXPECT_EQ(TempRoot::Read(LogFile("trace.bit")), "\x0a\xff");
}

} // namespace
