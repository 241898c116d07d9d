// CRecorder and the run loop, stepped one pass at a time: event routing and
// its guard against bad channel indexes, the heartbeat file, the
// once-a-second Periodic, the stop sequence, the reloadable lists, the line
// status file and the small lookups. Channels are plain BaseChannels that
// count what reaches them; the boot holds a FakeDatabase; the clock is fake.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

#include "BaseChannel.h"
#include "fake_clock.h"
#include "fake_database.h"
#include "log_capture.h"
#include "paths.h"
#include "quorda_crec.h"
#include "recorder.h"

namespace {

class CountingChannel : public BaseChannel {
public:
    void HandleEvent(SSM_EVENT* prEvent) override
    {
        ++iEvents;
        if (llSlowUs)
            SleepUs(llSlowUs);
        BaseChannel::HandleEvent(prEvent);
    }
    void Periodic() override
    {
        ++iPeriodic;
        if (llSlowUs)
            SleepUs(llSlowUs);
        BaseChannel::Periodic();
    }
    void Finalize() override { ++iFinalized; }
    void ReloadSettingsLive() override
    {
        ++iReloads;
        fCheckLineStatus = fLiveCheckLineStatus;
    }

    int iEvents = 0;
    int iPeriodic = 0;
    int iFinalized = 0;
    int iReloads = 0;
    long llSlowUs = 0;
    bool fLiveCheckLineStatus = false;
};

class CountingAct : public ThreadAct {
public:
    explicit CountingAct(int& i) : iRuns(i) {}
    void performThread() override {}
    void performMain() override { ++iRuns; }
    void completed() override { ++iRuns; }
    int& iRuns;
};

std::string ReadFile(const std::string& strPath)
{
    std::ifstream f(strPath);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// Events handed out by the fake event wait, one per call; an empty slot
// makes a 200 ms time-out on the fake clock.
std::vector<SSM_EVENT> g_vPendingEvents;

int FakeWait(DWORD dwTimeOutMs, SSM_EVENT* prEvent)
{
    if (g_vPendingEvents.empty()) {
        SleepUs(static_cast<long>(dwTimeOutMs) * 1000);
        return -1;
    }
    SSM_EVENT ev = g_vPendingEvents.front();
    g_vPendingEvents.erase(g_vPendingEvents.begin());
    ev.pvBuffer = prEvent->pvBuffer;
    ev.dwBufferLength = prEvent->dwBufferLength;
    *prEvent = ev;
    return 0;
}

SSM_EVENT Event(int iCode, int iRef, DWORD dwParam = 0)
{
    SSM_EVENT ev{};
    ev.wEventCode = static_cast<WORD>(iCode);
    ev.nReference = iRef;
    ev.dwParam = dwParam;
    return ev;
}

class RecorderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        strOldRoot = SysRoot();
        char acRoot[] = "/tmp/qXXXXXX";
        ASSERT_NE(mkdtemp(acRoot), nullptr);
        strRoot = acRoot;
        SetSysRoot(strRoot);
        ASSERT_EQ(system(("mkdir -p " + strRoot + "/var/quorda/data").c_str()), 0);
        prDb = new FakeDatabase();
        prBoot = new TRecorderBoot(prDb);
        rec.prBoot = prBoot;
        rec.prDatabase = prDb;
        rec.fInitializing = false;
        g_vPendingEvents.clear();
    }
    void TearDown() override
    {
        fAppTerminate = false;
        SetSysRoot(strOldRoot);
        for (BaseChannel* prCh : rec.vChannels)
            delete prCh;
        rec.vChannels.clear();
        delete prBoot;
        ASSERT_EQ(system(("rm -rf " + strRoot).c_str()), 0);
    }
    CountingChannel* AddChannel(int iWebCh)
    {
        CountingChannel* prCh = new CountingChannel();
        prCh->iChIx = prCh->iDrvCh = static_cast<int>(rec.vChannels.size());
        prCh->iChannel = iWebCh;
        prCh->prRecorder = &rec;
        prCh->iLastChannelState = S_CALL_STANDBY;
        rec.vChannels.push_back(prCh);
        return prCh;
    }
    CountingChannel* Ch(int i) { return static_cast<CountingChannel*>(rec.vChannels[i]); }
    std::string DataFile(const std::string& strName) { return strRoot + "/var/quorda/data/" + strName; }

    std::string strOldRoot, strRoot;
    FakeDatabase* prDb = nullptr; // owned by the boot
    TRecorderBoot* prBoot = nullptr;
    CRecorder rec;
};

// ---- event routing --------------------------------------------------------------

TEST_F(RecorderTest, EventsGoToTheirChannelAndBadIndexesAreLoggedAndDropped)
{
    AddChannel(1);
    AddChannel(2);
    prBoot->rCicToAppChMap[7] = 1;
    LogCapture log;
    std::vector<SSM_EVENT> vEvents = {Event(E_CHG_ChState, 0, S_CALL_RINGING),
                                      Event(E_CHG_RcvDTMF, 1),
                                      Event(E_CHG_SpyState, 7), // circuit 7 is channel 1
                                      Event(E_CHG_SpyState, 8), // unknown circuit: silent
                                      Event(E_CHG_PcmLinkStatus, 0),
                                      Event(E_CHG_ChState, -1),
                                      Event(E_CHG_ChState, 2), // one past the last channel
                                      Event(E_CHG_ChState, -5),
                                      Event(E_CHG_ChState, 0x7fffffff)};
    for (SSM_EVENT& ev : vEvents)
        rec.HandleEvent(&ev);
    EXPECT_EQ(Ch(0)->iEvents, 1);
    EXPECT_EQ(Ch(0)->iLastChannelState, S_CALL_RINGING);
    EXPECT_EQ(Ch(1)->iEvents, 2);
    EXPECT_TRUE(log.Contains("Channel out of range: 2", 4));
    EXPECT_TRUE(log.Contains("Channel out of range: -5", 4));
    EXPECT_TRUE(log.Contains("Channel out of range: 2147483647", 4));
    EXPECT_FALSE(log.Contains("Channel out of range: -1"));
    EXPECT_FALSE(log.Contains("Channel out of range: 8"));

    // The same guard protects NewLineHealth.
    log.Clear();
    rec.NewLineHealth(2);
    rec.NewLineHealth(-1);
    EXPECT_TRUE(log.Contains("Channel out of range: 2", 4));
    EXPECT_EQ(log.Lines().size(), 1u);
}

TEST_F(RecorderTest, HeartbeatFileMovesAtMostOnceASecondAndOnlyOnEvents)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1);
    SSM_EVENT ev = Event(E_CHG_ChState, -1); // goes nowhere, still a heartbeat
    rec.HandleEvent(&ev);
    ASSERT_EQ(access(DataFile("crec_event").c_str(), F_OK), 0);
    unlink(DataFile("crec_event").c_str());
    clock.Advance(900000);
    rec.HandleEvent(&ev);
    EXPECT_NE(access(DataFile("crec_event").c_str(), F_OK), 0);
    clock.Advance(100000);
    rec.HandleEvent(&ev);
    EXPECT_EQ(access(DataFile("crec_event").c_str(), F_OK), 0);
}

// ---- run loop ---------------------------------------------------------------------

TEST_F(RecorderTest, PeriodicRunsOncePerWallSecondAndWaitsOutAClockSetBack)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1);
    AddChannel(-1);
    RecorderLoop loop(*prBoot, rec, FakeWait);
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(Ch(0)->iPeriodic, 0); // 0.8 s
    ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(Ch(0)->iPeriodic, 1); // 1.0 s
    for (int i = 0; i < 5; ++i)
        loop.RunPass();
    EXPECT_EQ(Ch(0)->iPeriodic, 2);
    EXPECT_EQ(Ch(1)->iPeriodic, 2);

    clock.Advance(-5000000);
    for (int i = 0; i < 25; ++i)
        loop.RunPass(); // back where the last tick was: no new tick
    EXPECT_EQ(Ch(0)->iPeriodic, 2);
    for (int i = 0; i < 5; ++i)
        loop.RunPass();
    EXPECT_EQ(Ch(0)->iPeriodic, 3);
}

TEST_F(RecorderTest, SlowEventHandlingAndSlowPeriodicAreLogged)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1)->llSlowUs = 150000;
    RecorderLoop loop(*prBoot, rec, FakeWait);
    LogCapture log;
    g_vPendingEvents.push_back(Event(E_CHG_ChState, 0, S_CALL_TALKING));
    clock.Advance(1000000);
    loop.RunPass();
    EXPECT_TRUE(log.Contains("Event handling took: 0.1500 s", 4));
    EXPECT_TRUE(log.Contains("Periodic took: 0.1500 s", 4));
}

TEST_F(RecorderTest, OneActPerPassAndTheStopRunsShutdownOnceThenDrainsTheQueue)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1);
    AddChannel(2);
    RecorderLoop loop(*prBoot, rec, FakeWait);
    rec.WriteLineStatus();
    ASSERT_EQ(access(DataFile("linestatus.dat").c_str(), F_OK), 0);
    int iRuns = 0;
    prBoot->queue(new CountingAct(iRuns));
    prBoot->queue(new CountingAct(iRuns));
    prBoot->queue(nullptr); // a null entry counts as an act and is skipped
    ASSERT_TRUE(loop.RunPass());
    EXPECT_EQ(iRuns, 2); // performMain and completed of one act

    fAppTerminate = true;
    long long llBefore = clock.iSleptUs;
    ASSERT_TRUE(loop.RunPass());                  // takes the second act
    EXPECT_EQ(clock.iSleptUs - llBefore, 200000); // no event wait while stopping
    EXPECT_EQ(iRuns, 4);
    EXPECT_EQ(Ch(0)->iFinalized, 1);
    EXPECT_EQ(Ch(1)->iFinalized, 1);
    EXPECT_NE(access(DataFile("linestatus.dat").c_str(), F_OK), 0);
    ASSERT_TRUE(loop.RunPass());  // the null entry
    EXPECT_FALSE(loop.RunPass()); // queue and background idle: leave
    EXPECT_EQ(Ch(0)->iFinalized, 1);
}

// ---- settings ---------------------------------------------------------------------

TEST_F(RecorderTest, ReloadableListsFollowTheirOwnRules)
{
    auto& o = prBoot->rConfigsO;
    o["NumberFilterType"] = "1";
    o["NumberFilters"] = " 0301 ,\t0402 ";
    o["CSTATelIPFilter"] = "201;phone a,202, 203;x;y";
    o["DelOnDmdList"] = "";
    o["RecOnDmdList"] = " 77 ";
    prBoot->rConfigsSys["EmailRecs"] = "";
    LogCapture log;
    rec.LoadReloadableSettings();
    EXPECT_EQ(rec.iNumberFilterType, 1);
    EXPECT_EQ(rec.astrNumberFilters, std::vector<std::string>({"0301", "0402"}));
    EXPECT_EQ(rec.astrCstaNumberFilters, std::vector<std::string>({"201", "202", " 203"}));
    EXPECT_TRUE(rec.IsInNumberFilter("0402"));
    EXPECT_FALSE(rec.IsInNumberFilter("040")); // whole number only
    EXPECT_FALSE(rec.IsInNumberFilter("04021"));
    // An empty on-demand list keeps one empty element, which matches "".
    EXPECT_TRUE(rec.IsInDelOnDmdList(""));
    EXPECT_FALSE(rec.IsInRecOnDmdList(""));
    EXPECT_TRUE(rec.IsInRecOnDmdList("77"));
    EXPECT_TRUE(log.Contains("RecOnDmd item: 77", 5));
    EXPECT_FALSE(rec.fNeedCallPost);

    // An empty filter list is truly empty; a lone comma keeps two elements.
    o["NumberFilters"] = "";
    rec.LoadReloadableSettings();
    EXPECT_TRUE(rec.astrNumberFilters.empty());
    EXPECT_FALSE(rec.IsInNumberFilter(""));
    o["NumberFilters"] = ",";
    rec.LoadReloadableSettings();
    EXPECT_EQ(rec.astrNumberFilters.size(), 2u);

    // Reconfigure fetches part "o" anew, but not part "s".
    prDb->Set("o", "NumberFilters", "999");
    prDb->Set("o", "SforceLink", "0");
    prDb->Set("s", "EmailRecs", "a@b");
    rec.Reconfigure();
    EXPECT_EQ(rec.astrNumberFilters, std::vector<std::string>({"999"}));
    EXPECT_EQ(rec.iNumberFilterType, 0); // gone with the old part "o"
    EXPECT_FALSE(rec.fNeedCallPost);
    prDb->Set("o", "SforceLink", "2");
    rec.Reconfigure();
    EXPECT_TRUE(rec.fNeedCallPost);
}

TEST_F(RecorderTest, DtmfTableMatchesTheTailAndTheFirstFittingEntryWins)
{
    rec.strDTMF[1] = "34";
    rec.strDTMFact[1] = "first";
    rec.strDTMF[2] = "234";
    rec.strDTMFact[2] = "second";
    rec.strDTMF[3] = "";
    rec.strDTMFact[3] = "never";
    rec.strDTMF[4] = "91234";
    rec.strDTMFact[4] = "too long";
    EXPECT_EQ(rec.GetDtmfAct("1234"), "first");
    EXPECT_EQ(rec.GetDtmfAct("1235"), "");
    EXPECT_EQ(rec.GetDtmfAct(""), "");
    EXPECT_EQ(rec.GetDtmfAct("91234"), "first");
    rec.strDTMF[1] = "";
    EXPECT_EQ(rec.GetDtmfAct("91234"), "second");
}

// ---- line status and notifications ------------------------------------------------

TEST_F(RecorderTest, LineStatusFileListsNumberedLinesAndIsReplacedWhole)
{
    AddChannel(1);
    AddChannel(-1)->eLineHealth = LINEHEALTH_ERROR;
    AddChannel(3)->eLineHealth = LINEHEALTH_ERROR;
    AddChannel(2)->eLineHealth = LINEHEALTH_OFFLINE;
    rec.WriteLineStatus();
    EXPECT_EQ(ReadFile(DataFile("linestatus.dat")), "Line_1: ok\nLine_3: error\nLine_2: offline\n");
    EXPECT_NE(access(DataFile("linestatus.dat.new").c_str(), F_OK), 0);

    // When the temporary file can't be made the old file stays as it was.
    ASSERT_EQ(mkdir(DataFile("linestatus.dat.new").c_str(), 0700), 0);
    Ch(0)->eLineHealth = LINEHEALTH_OFFLINE;
    rec.WriteLineStatus();
    EXPECT_EQ(ReadFile(DataFile("linestatus.dat")), "Line_1: ok\nLine_3: error\nLine_2: offline\n");
}

TEST_F(RecorderTest, HealthChangeRewritesStatusAndAsksForACheckOnlyWhenWanted)
{
    CountingChannel* prCh = AddChannel(1);
    LogCapture log;
    rec.fInitializing = true;
    prCh->eLineHealth = LINEHEALTH_OFFLINE;
    rec.NewLineHealth(0);
    EXPECT_NE(access(DataFile("linestatus.dat").c_str(), F_OK), 0);
    EXPECT_EQ(prCh->iReloads, 0);

    rec.fInitializing = false;
    prCh->fLiveCheckLineStatus = false;
    rec.NewLineHealth(0);
    EXPECT_EQ(ReadFile(DataFile("linestatus.dat")), "Line_1: offline\n");
    EXPECT_EQ(prCh->iReloads, 1);
    EXPECT_FALSE(log.Contains("signal => sysinfo"));

    prCh->fLiveCheckLineStatus = true;
    rec.NewLineHealth(0);
    EXPECT_TRUE(log.Contains("signal => sysinfo"));

    log.Clear();
    prCh->eLineHealth = LINEHEALTH_OK;
    rec.NewLineHealth(0);
    EXPECT_FALSE(log.Contains("signal => sysinfo"));

    // The loud-voice alarm reaches the administrator as a service message.
    rec.NotifyAdmin(LOUD_TALKING, "20240131_084501_001_01");
    EXPECT_TRUE(log.Contains("signal => email -loud 20240131_084501_001_01"));
    log.Clear();
    rec.NotifyAdmin(static_cast<ENotifyType>(2), "x");
    EXPECT_FALSE(log.Contains("signal =>"));
}

TEST_F(RecorderTest, PriAvailabilityIsRecordedForTheFirstChannelOfAPriCardOnly)
{
    TBoard rPri;
    rPri.strModel = "DTP-120";
    rPri.strSerial = "4711";
    TBoard rDst;
    rDst.strModel = "DST-32";
    rDst.strSerial = "815";
    prBoot->vrBoardList = {rPri, rDst};
    LogCapture log;
    rec.NotifyChAvail(0, 1, false);
    rec.NotifyChAvail(1, 0, false);
    rec.NotifyChAvail(2, 0, false);
    rec.NotifyChAvail(-1, 0, false);
    EXPECT_FALSE(prDb->Has("Syn4711_Line"));
    rec.NotifyChAvail(0, 0, false);
    EXPECT_EQ(prDb->Value("Syn4711_Line"), "0");
    EXPECT_EQ(prDb->configs["Syn4711_Line"].strPart, "crec_line");
    EXPECT_TRUE(log.Contains("PRI-line of card Syn4711 is unavailable", 4));
    rec.NotifyChAvail(0, 0, true);
    EXPECT_EQ(prDb->Value("Syn4711_Line"), "1");
}

TEST_F(RecorderTest, ChStateFindsTheChannelByWebNumber)
{
    AddChannel(1);
    EXPECT_EQ(rec.ChState(1), 1); // empty map
    prBoot->rWebToDrvChMap[0] = 0;
    prBoot->rWebToDrvChMap[1] = 5;
    EXPECT_EQ(rec.ChState(0), 1);
    EXPECT_EQ(rec.ChState(2), 2); // maps past the channels
    EXPECT_EQ(rec.ChState(1), 3); // the plain channel has no state file
}

} // namespace
