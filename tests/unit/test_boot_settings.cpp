// The settings store: Init's switches, the comma lists per channel and the
// built-in values that stand in for 0, condition lists, the cached local
// number and its ageing, and CheckedSleep's steps.
#include "test_boot_fixture.h"

#include "fake_clock.h"

class SettingsTest : public BootTest {
protected:
    SettingsTest()
    {
        prDb->Set("s", "crec", "1");
        Detect({{"77", "ATP-4", 4}});
    }
    std::string Ch(int iCh, const std::string& strParam, ECfgLoadMethod eMethod = CFG_CACHED_LOAD)
    {
        return rBoot.GetChannelParamStr(iCh, 0, strParam, eMethod);
    }
    int ChInt(int iCh, const std::string& strParam, ECfgLoadMethod eMethod = CFG_CACHED_LOAD)
    {
        return rBoot.GetChannelParamInt(iCh, 0, strParam, eMethod);
    }
};

// ---- Init -------------------------------------------------------------------------

TEST_F(SettingsTest, InitRefusesOnMarkerFileOrSwitchNotOne)
{
    rRoot.Write("/var/quorda/conf/crec_disabled", "");
    EXPECT_FALSE(rBoot.Init());
    EXPECT_TRUE(rBoot.rConfigsSys.empty()); // nothing was loaded

    remove(SysPath("/var/quorda/conf/crec_disabled").c_str());
    for (const char* acValue : {"2", "", "on"}) {
        prDb->Set("s", "crec", acValue);
        EXPECT_FALSE(rBoot.Init()) << acValue;
    }
    prDb->Set("s", "crec", "1");
    prDb->Set("o", "TdmLogApi", "1");
    EXPECT_TRUE(rBoot.Init());
    EXPECT_EQ(rBoot.GetOSetting("TdmLogApi"), "1");
}

// ---- channel lists and built-in values ---------------------------------------------

TEST_F(SettingsTest, ChannelFieldsOfACommaListAndTheBuiltInValues)
{
    rBoot.rConfigs["Syn77_AudioThr"] = "3,,5";
    rBoot.rConfigs["Syn77_OffHookThr"] = "3,4";
    rBoot.rConfigs["Syn77_Trigger"] = "0,2";
    rBoot.rConfigs["Syn77_AudioSens"] = "loud";

    EXPECT_EQ(Ch(1, "AudioThr"), "");
    EXPECT_EQ(ChInt(1, "AudioThr"), 12); // empty field: built-in value, not 0
    EXPECT_EQ(ChInt(2, "AudioThr"), 5);
    EXPECT_EQ(ChInt(2, "OffHookThr"), 26);
    EXPECT_EQ(Ch(0, "OffHookThr"), "3");
    // The last field ends with the list's terminating NUL.
    EXPECT_STREQ(Ch(1, "OffHookThr").c_str(), "4");
    EXPECT_EQ(ChInt(1, "OffHookThr"), 4);
    // An empty list is not empty at channel 0, and reads as nothing up to its NUL.
    EXPECT_FALSE(Ch(0, "PhoneType").empty());
    EXPECT_STREQ(Ch(0, "PhoneType").c_str(), "");
    EXPECT_EQ(Ch(1, "PhoneType"), "");
    EXPECT_EQ(Ch(-1, "OffHookThr"), "");

    EXPECT_EQ(ChInt(0, "Trigger"), 1); // a stored 0 can't be set
    EXPECT_EQ(ChInt(1, "Trigger"), 2);
    EXPECT_EQ(ChInt(3, "SilenceTimeOut"), 15);
    EXPECT_EQ(ChInt(0, "Amplify"), 0);
    EXPECT_EQ(rBoot.GetBoardParamInt(0, "SilenceT"), 15);
    EXPECT_EQ(rBoot.GetBoardParamInt(0, "AudioSens"), 6);
    EXPECT_EQ(rBoot.GetBoardParamInt(0, "AudioDetect"), 0);
}

TEST_F(SettingsTest, LiveReadSeesTheDatabaseAndCachedReadTheStart)
{
    prDb->Set("crec", "Syn77_Trigger", "2,3");
    ASSERT_TRUE(rBoot.Init());
    prDb->Set("crec", "Syn77_Trigger", "4,4");

    EXPECT_EQ(ChInt(1, "Trigger"), 3);
    EXPECT_EQ(ChInt(1, "Trigger", CFG_LIVE_LOAD), 4);

    rBoot.SetCrecSetting("Syn77_Trigger", "9");
    EXPECT_EQ(prDb->Value("Syn77_Trigger"), "9");
    EXPECT_EQ(prDb->configs["Syn77_Trigger"].strPart, "crec");
    EXPECT_EQ(ChInt(0, "Trigger"), 2);

    prDb->configs.erase("Syn77_Trigger");
    prDb->Set("o", "Weekly", "1");
    rBoot.rConfigsO["Stale"] = "1";
    rBoot.ReloadDbConfig();
    EXPECT_EQ(rBoot.rConfigsO.count("Stale"), 0u);
    EXPECT_EQ(rBoot.GetOSetting("Weekly"), "1");
}

// ---- error paths: a bad board index -----------------------------------------------

TEST_F(SettingsTest, BadBoardIndexGivesEmptyAndBuiltInValues)
{
    for (int ix : {-1, 1, 99}) {
        SCOPED_TRACE(ix);
        EXPECT_EQ(rBoot.GetChannelParamStr(0, ix, "Trigger", CFG_CACHED_LOAD), "");
        EXPECT_EQ(rBoot.GetChannelParamInt(0, ix, "Trigger", CFG_LIVE_LOAD), 1);
        EXPECT_EQ(rBoot.GetBoardParamStr(ix, "StartCndList"), "");
        EXPECT_EQ(rBoot.GetBoardParamInt(ix, "AudioSens"), 6);
        EXPECT_EQ(rBoot.GetBoardDataInt(ix, "LocalNumTime"), 0);
        EXPECT_EQ(rBoot.GetChannelDataStr(0, ix, "LocalNum"), "");
        EXPECT_FALSE(rBoot.IsBoardStopCondition(ix, 0x21, 0));
    }
    size_t iRows = prDb->configs.size();
    rBoot.SetBoardDataInt(-1, "LocalNumTime", 5);
    rBoot.SetChannelDataStr(0, 7, "LocalNum", "12");
    EXPECT_EQ(prDb->configs.size(), iRows);
}

// ---- condition lists ----------------------------------------------------------------

TEST_F(SettingsTest, ConditionListsReadHexEventsAndSubReasons)
{
    std::vector<StartStopCnd> v;
    TRecorderBoot::AddCndList("", v);
    TRecorderBoot::AddCndList("0,1F", v);
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(v[0].dwEvent, 0x1Fu);
    EXPECT_FALSE(v[0].fSubReason);

    v.clear();
    TRecorderBoot::AddCndList(" 1F . 2 ,,21,2B.3, zz", v);
    ASSERT_EQ(v.size(), 3u);
    EXPECT_TRUE(v[0].fSubReason);
    EXPECT_EQ(v[0].dwSubReason, 2u);
    EXPECT_EQ(v[2].dwEvent, 0x2Bu);
    EXPECT_EQ(v[2].dwSubReason, 3u);
    EXPECT_TRUE(TRecorderBoot::IsCondition(v, 0x21, 77));
    EXPECT_TRUE(TRecorderBoot::IsCondition(v, 0x2B, 3));
    EXPECT_FALSE(TRecorderBoot::IsCondition(v, 0x2B, 4));
    EXPECT_FALSE(TRecorderBoot::IsCondition(v, 0x1F, 0));

    // The first entry fails on its sub-reason, the second matches any.
    v.clear();
    TRecorderBoot::AddCndList("21.3,21", v);
    EXPECT_TRUE(TRecorderBoot::IsCondition(v, 0x21, 7));
}

TEST_F(SettingsTest, BoardConditionsComeFromTheBoardsLists)
{
    rBoot.rConfigs["Syn77_StartCndList"] = "1006.5";
    rBoot.rConfigs["Syn77_RingOffCndList"] = "1020";
    rBoot.vrBoardList[0].vStopCnds.push_back(StartStopCnd{0x99, false, 0}); // replaced on load
    rBoot.LoadBoardSettings();

    EXPECT_TRUE(rBoot.IsBoardStartCondition(0, 0x1006, 5));
    EXPECT_FALSE(rBoot.IsBoardStartCondition(0, 0x1006, 6));
    EXPECT_FALSE(rBoot.IsBoardStopCondition(0, 0x99, 0));
    EXPECT_TRUE(rBoot.IsBoardRingOffCondition(0, 0x1020, 1));
    EXPECT_FALSE(rBoot.IsBoardRingOnCondition(0, 0x1020, 1));
}

// ---- cached local number --------------------------------------------------------------

TEST_F(SettingsTest, CachedLocalNumberAgesOutAfterTenMinutes)
{
    FakeClock rClock;
    ScopedFakeClock rScoped(rClock);
    rBoot.rConfigs["Syn77_LocalNumTime"] = std::to_string(rClock.WallNow() - 600);
    rBoot.rConfigs["Syn77_2_LocalNum"] = "4711";

    EXPECT_EQ(rBoot.GetCachedLocalNum(2, 0), "4711");
    EXPECT_EQ(rBoot.GetCachedLocalNum(3, 0), "");

    // A write of this run reaches the database but not this run's reads.
    rBoot.SetCachedLocalNum(2, 0, "999");
    EXPECT_EQ(prDb->Value("Syn77_2_LocalNum"), "999");
    EXPECT_EQ(prDb->Value("Syn77_LocalNumTime"), std::to_string(rClock.WallNow()));
    EXPECT_EQ(rBoot.GetCachedLocalNum(2, 0), "4711");

    rClock.Advance(1000000);
    EXPECT_EQ(rBoot.GetCachedLocalNum(2, 0), "");
}

// ---- CheckedSleep -----------------------------------------------------------------------

TEST_F(SettingsTest, CheckedSleepStepsAndStopsEarly)
{
    FakeClock rClock;
    ScopedFakeClock rScoped(rClock);
    int iSleeps = 0;
    rClock.onSleep = [&] { iSleeps++; };

    CheckedSleep(2300);
    EXPECT_EQ(iSleeps, 5); // four half seconds and the rest
    EXPECT_EQ(rClock.iSleptUs.load(), 2300000);

    iSleeps = 0;
    rClock.iSleptUs = 0;
    rClock.onSleep = [&] {
        if (++iSleeps == 3)
            fAppTerminate = true;
    };
    CheckedSleep(10000);
    EXPECT_EQ(rClock.iSleptUs.load(), 1500000);

    // Under a second: one look at the flag first, then the whole rest or nothing.
    rClock.iSleptUs = 0;
    CheckedSleep(300);
    EXPECT_EQ(rClock.iSleptUs.load(), 0);
    fAppTerminate = false;
    CheckedSleep(300);
    EXPECT_EQ(rClock.iSleptUs.load(), 300000);
}
