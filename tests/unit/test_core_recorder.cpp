// CRecorder and the run loop, stepped one pass at a time: event routing and
// its guard against bad channel indexes, the heartbeat file, the
// once-a-second Periodic, the stop sequence, the reloadable lists, the line
// status file and the small lookups. Channels are plain BaseChannels that
// count what reaches them; the boot holds a FakeDatabase; the clock is fake.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "BaseChannel.h"
#include "fake_clock.h"
#include "fake_database.h"
#include "log_capture.h"
#include "quorda_crec.h"
#include "recorder.h"
#include "support_temp_root.h"

namespace {

class CountingChannel : public BaseChannel {
public:
    void HandleEvent(SSM_EVENT* prEvent) override
    {
        ++iEvents;
        BaseChannel::HandleEvent(prEvent);
    }
    void Periodic() override
    {
        ++iPeriodic;
        BaseChannel::Periodic();
    }
    void Finalize() override { ++iFinalized; }
    void ReloadSettingsLive() override
    {
        ++iReloads;
        fCheckLineStatus = fLiveCheckLineStatus;
    }
    int iEvents = 0, iPeriodic = 0, iFinalized = 0, iReloads = 0;
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

// The fake event wait: no events, a 200 ms time-out on the fake clock.
int FakeWait(DWORD dwTimeOutMs, SSM_EVENT*)
{
    SleepUs(static_cast<long>(dwTimeOutMs) * 1000);
    return -1;
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
        EnsurePath(DataFile(""));
        rec.prBoot = prBoot.get();
        rec.prDatabase = prDb;
        rec.fInitializing = false;
    }
    void TearDown() override
    {
        fAppTerminate = false;
        for (BaseChannel* prCh : rec.vChannels)
            delete prCh;
        rec.vChannels.clear();
    }
    CountingChannel* AddChannel(int iWebCh, ELineHealth eHealth = LINEHEALTH_OK)
    {
        CountingChannel* prCh = new CountingChannel();
        prCh->iChIx = prCh->iDrvCh = static_cast<int>(rec.vChannels.size());
        prCh->iChannel = iWebCh;
        prCh->prRecorder = &rec;
        prCh->iLastChannelState = S_CALL_STANDBY;
        prCh->eLineHealth = eHealth;
        rec.vChannels.push_back(prCh);
        return prCh;
    }
    CountingChannel* Ch(int i) { return static_cast<CountingChannel*>(rec.vChannels[i]); }
    std::string DataFile(const std::string& strName) { return SysPath("/var/quorda/data/" + strName); }
    bool Exists(const std::string& strName) { return access(DataFile(strName).c_str(), F_OK) == 0; }

    TempRoot root;
    FakeDatabase* prDb = new FakeDatabase(); // owned by the boot
    std::unique_ptr<TRecorderBoot> prBoot{new TRecorderBoot(prDb)};
    CRecorder rec;
};

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
    for (const char* ac : {"2", "-5", "2147483647"})
        EXPECT_TRUE(log.Contains(std::string("Channel out of range: ") + ac, 4)) << ac;
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
    ASSERT_TRUE(Exists("crec_event"));
    unlink(DataFile("crec_event").c_str());
    clock.Advance(900000);
    rec.HandleEvent(&ev);
    EXPECT_FALSE(Exists("crec_event"));
    clock.Advance(100000);
    rec.HandleEvent(&ev);
    EXPECT_TRUE(Exists("crec_event"));
}

TEST_F(RecorderTest, PeriodicRunsOncePerWallSecondAndWaitsOutAClockSetBack)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1);
    AddChannel(-1);
    RecorderLoop loop(*prBoot, rec, FakeWait);
    auto Passes = [&](int n) {
        for (int i = 0; i < n; ++i)
            ASSERT_TRUE(loop.RunPass());
    };
    Passes(4);
    EXPECT_EQ(Ch(0)->iPeriodic, 0); // 0.8 s
    Passes(1);
    EXPECT_EQ(Ch(0)->iPeriodic, 1); // 1.0 s
    Passes(5);
    EXPECT_EQ(Ch(0)->iPeriodic, 2);
    EXPECT_EQ(Ch(1)->iPeriodic, 2);

    clock.Advance(-5000000);
    Passes(25); // back where the last tick was: no new tick
    EXPECT_EQ(Ch(0)->iPeriodic, 2);
    Passes(5);
    EXPECT_EQ(Ch(0)->iPeriodic, 3);
}

TEST_F(RecorderTest, OneActPerPassAndTheStopRunsShutdownOnceThenDrainsTheQueue)
{
    FakeClock clock;
    ScopedFakeClock scoped(clock);
    AddChannel(1);
    AddChannel(2);
    RecorderLoop loop(*prBoot, rec, FakeWait);
    rec.WriteLineStatus();
    ASSERT_TRUE(Exists("linestatus.dat"));
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
    EXPECT_FALSE(Exists("linestatus.dat"));
    ASSERT_TRUE(loop.RunPass());  // the null entry
    EXPECT_FALSE(loop.RunPass()); // queue and background idle: leave
    EXPECT_EQ(Ch(0)->iFinalized, 1);
}

TEST_F(RecorderTest, ReloadableListsFollowTheirOwnRules)
{
    auto& o = prBoot->rConfigsO;
    o["NumberFilterType"] = "1";
    o["NumberFilters"] = " 0301 ,\t0402 ";
    o["CSTATelIPFilter"] = "201;phone a,202, 203;x;y";
    o["DelOnDmdList"] = "";
    o["RecOnDmdList"] = " 77 ";
    prBoot->rConfigsSys["EmailRecs"] = "";
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
    const char* aac[][2] = {{"34", "first"}, {"234", "second"}, {"", "never"}, {"91234", "too long"}};
    for (int i = 0; i < 4; ++i) {
        rec.strDTMF[i + 1] = aac[i][0];
        rec.strDTMFact[i + 1] = aac[i][1];
    }
    EXPECT_EQ(rec.GetDtmfAct("1234"), "first");
    EXPECT_EQ(rec.GetDtmfAct("1235"), "");
    EXPECT_EQ(rec.GetDtmfAct(""), "");
    EXPECT_EQ(rec.GetDtmfAct("91234"), "first");
    rec.strDTMF[1] = "";
    EXPECT_EQ(rec.GetDtmfAct("91234"), "second");
}

TEST_F(RecorderTest, LineStatusFileListsNumberedLinesAndIsReplacedWhole)
{
    const std::string strStatus = "Line_1: ok\nLine_3: error\nLine_2: offline\n";
    AddChannel(1);
    AddChannel(-1, LINEHEALTH_ERROR);
    AddChannel(3, LINEHEALTH_ERROR);
    AddChannel(2, LINEHEALTH_OFFLINE);
    rec.WriteLineStatus();
    EXPECT_EQ(TempRoot::Read(DataFile("linestatus.dat")), strStatus);
    EXPECT_FALSE(Exists("linestatus.dat.new"));

    // When the temporary file can't be made the old file stays as it was.
    ASSERT_EQ(mkdir(DataFile("linestatus.dat.new").c_str(), 0700), 0);
    Ch(0)->eLineHealth = LINEHEALTH_OFFLINE;
    rec.WriteLineStatus();
    EXPECT_EQ(TempRoot::Read(DataFile("linestatus.dat")), strStatus);
}

TEST_F(RecorderTest, HealthChangeRewritesStatusAndAsksForACheckOnlyWhenWanted)
{
    CountingChannel* prCh = AddChannel(1, LINEHEALTH_OFFLINE);
    LogCapture log;
    rec.fInitializing = true;
    rec.NewLineHealth(0);
    EXPECT_FALSE(Exists("linestatus.dat"));
    EXPECT_EQ(prCh->iReloads, 0);

    rec.fInitializing = false;
    rec.NewLineHealth(0);
    EXPECT_EQ(TempRoot::Read(DataFile("linestatus.dat")), "Line_1: offline\n");
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
    TBoard rPri, rDst;
    rPri.strModel = "DTP-120";
    rPri.strSerial = "4711";
    rDst.strModel = "DST-32";
    rDst.strSerial = "815";
    prBoot->vrBoardList = {rPri, rDst};
    // Not the first channel, not a PRI card, no such card: no record.
    const int aai[][2] = {{0, 1}, {1, 0}, {2, 0}, {-1, 0}};
    for (const auto& ai : aai)
        rec.NotifyChAvail(ai[0], ai[1], false);
    EXPECT_FALSE(prDb->Has("Syn4711_Line"));
    rec.NotifyChAvail(0, 0, false);
    EXPECT_EQ(prDb->Value("Syn4711_Line"), "0");
    EXPECT_EQ(prDb->configs["Syn4711_Line"].strPart, "crec_line");
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
