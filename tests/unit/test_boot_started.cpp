// Starting the card driver on the simulator from the configuration the boot
// wrote, its retries, and what the started driver's channels record for the
// web front end.
#include "test_boot_fixture.h"

#include "fake_clock.h"
#include "shsim.h"

const char* const kAtp8 = "[board]\nmodel=ATP-8\nserial=31\nchannels=8\n";

class StartedTest : public BootTest {
protected:
    StartedTest() : rScoped(rClock)
    {
        char acRoot[256];
        shsim_get_root(acRoot, sizeof(acRoot));
        strOldSimRoot = acRoot;
        shsim_set_root(rRoot.strRoot.c_str());
        shsim_reset();
    }
    ~StartedTest() override
    {
        shsim_reset();
        shsim_set_root(strOldSimRoot.c_str());
    }
    // The machine's hardware, and boards detected, listed and written to the driver's file.
    void Prepare(const std::string& strHardware, const std::vector<ToolBoard>& vBoards)
    {
        rRoot.Write("/usr/local/lib/shcti/sim/hardware.ini", strHardware);
        Detect(vBoards);
        EnsurePath(SysPath("/var/quorda/data"));
        rBoot.WriteConfig();
    }

    FakeClock rClock;
    ScopedFakeClock rScoped;
    std::string strOldSimRoot;
};

TEST_F(StartedTest, StartedDriverChannelsAreRecordedPerBoard)
{
    rBoot.rConfigs["CardList"] = "Syn1001,Syn5005,Syn2002";
    rBoot.rConfigs["Syn5005_MaxChannels"] = "8";
    Prepare("[board]\nmodel=DTP-120\nserial=1001\nchannels=120\n"
            "[board]\nmodel=DST-32\nserial=2002\nchannels=32\nopened=30\n",
            {kPri, kDst});

    ASSERT_EQ(rBoot.InitBoards(), 0);
    rBoot.AnalyseStartedState();

    StdStringMap& r = rBoot.rNewConfigs;
    EXPECT_EQ(r["CardList"], "Syn1001,Syn5005,Syn2002");
    EXPECT_EQ(r["Syn1001_Channels"], "60"); // driver channels become calls
    EXPECT_EQ(r["Syn1001_MaxChannels"], "60");
    EXPECT_EQ(r["Syn2002_Channels"], "30"); // fewer than the tool reported
    EXPECT_EQ(r["Syn2002_MaxChannels"], "32");
    EXPECT_EQ(r["Syn2002_StartCh"], "68");
    EXPECT_EQ(r["Syn2002_SN"], "2002");
    // An absent card keeps what an earlier start stored for it.
    EXPECT_EQ(r["Syn5005_Present"], "0");
    EXPECT_EQ(r.count("Syn5005_Channels"), 0u);
    EXPECT_EQ(r.count("Syn5005_StartCh"), 0u);

    rBoot.WriteNewConfigsToDB();
    EXPECT_EQ(prDb->Value("Syn2002_Channels"), "30");
    EXPECT_EQ(prDb->configs["CardList"].strPart, "crec");
}

TEST_F(StartedTest, DriverThatRefusesAtFirstIsRetriedEveryHalfSecond)
{
    Prepare(kAtp8, {{"31", "ATP-8", 8}});
    shsim_script_start_failures(3, 0);

    ASSERT_EQ(rBoot.InitBoards(), 0);
    EXPECT_EQ(CountLines("Could not (yet) start: "), 3);
    EXPECT_EQ(rClock.iSleptUs.load(), 4 * 500000);
    EXPECT_FALSE(rLog.Contains("Error in", 3));
}

// ---- error paths ---------------------------------------------------------------------

TEST_F(StartedTest, RefusedConfigurationIsGivenUpAfterTwentySecondsOrOnStop)
{
    Prepare(kAtp8, {{"99", "ATP-8", 8}}); // a serial the machine doesn't have

    EXPECT_EQ(rBoot.InitBoards(), 1);
    EXPECT_TRUE(rLog.Contains("Error in SsmStartCti: ", 3));
    EXPECT_GT(rClock.iSleptUs.load(), 20000000);
    EXPECT_LE(rClock.iSleptUs.load(), 21500000);

    rLog.Clear();
    rClock.iSleptUs = 0;
    rClock.onSleep = [&] {
        if (rClock.iSleptUs.load() >= 1500000)
            fAppTerminate = true;
    };
    EXPECT_EQ(rBoot.InitBoards(), 1);
    EXPECT_EQ(CountLines("Could not (yet) start: "), 3);
    EXPECT_EQ(rClock.iSleptUs.load(), 1500000);
    EXPECT_FALSE(rLog.Contains("Error in", 3));

    rClock.iSleptUs = 0;
    EXPECT_EQ(rBoot.InitBoards(), 1); // stopping: the driver isn't even tried
    EXPECT_EQ(rClock.iSleptUs.load(), 0);
}

TEST_F(StartedTest, EmptyBoardListEntersOnlyTheCardList)
{
    g_cfgPrefix = "n2-";
    rBoot.AnalyseStartedState();
    EXPECT_EQ(rBoot.rNewConfigs.size(), 1u);
    EXPECT_EQ(rBoot.rNewConfigs["n2-CardList"], "");
}
