// The card driver's configuration: what WriteConfig leaves in ShConfig.ini
// for fresh and hand-edited files, PRI span numbering over several boards,
// analog line thresholds, and the switch that leaves the file alone.
#include "test_boot_fixture.h"

class WriteConfigTest : public BootTest {
protected:
    std::string ConfigPath() const { return SysPath("/var/quorda/data/ShConfig.ini"); }
    std::string IndexPath() const { return SysPath("/var/quorda/data/ShIndex.ini"); }
    IniMap WriteAndRead()
    {
        rBoot.WriteConfig();
        return ReadIni(ConfigPath());
    }
};

TEST_F(WriteConfigTest, FreshFileHoldsBoardsSpansAndTables)
{
    rRoot.Write("/var/quorda/data/ShIndex.ini", "stale index");
    Detect({kPri, kDst});
    IniMap rIni = WriteAndRead();

    EXPECT_EQ(rIni["SystemConfig"]["TotalBoards"], "2");
    EXPECT_EQ(rIni["SystemConfig"]["EventInterfaceType"], "1");
    EXPECT_EQ(rIni["SystemConfig"]["WhoSupplySysClock"], "1");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["TotalAppCh"], "152");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["AppCh[0]"], "0,0..119");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["AppCh[120]"], "1,0..31");
    EXPECT_EQ(rIni["BoardId=1"]["BoardSerialNumber"], "2002");
    EXPECT_EQ(rIni["BoardId=1"]["PBXType"], "Siemens Hicom/Hipath");
    EXPECT_EQ(rIni["BoardId=0"]["PcmClockMode[0]"], "0");
    EXPECT_EQ(rIni["BoardId=0"]["PcmClockMode[2]"], "2");
    EXPECT_EQ(rIni["BoardId=0"]["PcmClockMode[3]"], "2");
    // A file written from nothing holds no defaults.
    EXPECT_EQ(rIni["BoardId=0"].count("UseHdlc"), 0u);
    EXPECT_EQ(rIni["BoardId=0"].count("PhoneType"), 0u);
    EXPECT_EQ(rIni["PcmInfo"]["TotalPcm"], "4");
    EXPECT_EQ(rIni["PcmInfo"]["Pcm[3]"], "0,3");
    EXPECT_EQ(rIni["SpyPcm"]["TotalSpyPcm"], "2");
    EXPECT_EQ(rIni["SpyPcm"]["SpyPcm[1]"], "Pcm[2],Pcm[3]");
    EXPECT_EQ(rIni["AppSpyCICTable"]["TotalAppSpyCIC"], "60");
    EXPECT_EQ(rIni["AppSpyCICTable"]["AppSpyCIC[30]"], "SpyPcm[1],0..29");
    EXPECT_EQ(rIni["DebugView"]["OutputDTRRawData"], "38512");
    EXPECT_EQ(rIni["DebugView"]["ApiLogEnable"], "0");
    EXPECT_EQ(TempRoot::Read(IndexPath()), "");
}

TEST_F(WriteConfigTest, HandEditedKeysStayUnlessTheRecorderOwnsThem)
{
    rRoot.Write("/var/quorda/data/ShConfig.ini", "; tuned by hand\n"
                                                 "[BoardId=0]\n"
                                                 "PcmSSx[0]=1\n"
                                                 "PcmClockMode[0]=1\n"
                                                 "MyKey=7\n"
                                                 "[PcmInfo]\n"
                                                 "Pcm[9]=5,5\n"
                                                 "[AppChToBoardChTable]\n"
                                                 "AppCh[500]=9,0..3\n");
    rRoot.Write("/etc/issue.net", "Debian GNU/Linux 11 \\n \\l\n");
    rBoot.rConfigsO["TdmLogApi"] = "1";
    rBoot.rConfigs["Syn1001_PhoneType"] = "1,2";
    Detect({kPri});
    IniMap rIni = WriteAndRead();

    EXPECT_EQ(rIni["BoardId=0"]["PcmSSx[0]"], "1");
    EXPECT_EQ(rIni["BoardId=0"]["PcmSSx[1]"], "2");
    EXPECT_EQ(rIni["BoardId=0"]["PcmClockMode[0]"], "0");
    EXPECT_EQ(rIni["BoardId=0"]["MyKey"], "7");
    EXPECT_EQ(rIni["BoardId=0"]["UseHdlc"], "1");
    EXPECT_EQ(rIni["BoardId=0"]["PcmNumber"], "4");
    EXPECT_EQ(rIni["BoardId=0"]["EnableDMA"], "0");
    EXPECT_EQ(rIni["BoardId=0"]["PhoneType"], "1,2");
    EXPECT_EQ(rIni["PcmInfo"].count("Pcm[9]"), 0u);
    EXPECT_EQ(rIni["AppChToBoardChTable"].count("AppCh[500]"), 0u);
    EXPECT_EQ(rIni["DebugView"]["OutputDTRRawData"], "1158");
    EXPECT_EQ(rIni["DebugView"]["DSTLogEnable"], "1");
    EXPECT_NE(TempRoot::Read(ConfigPath()).find("; tuned by hand"), std::string::npos);
}

TEST_F(WriteConfigTest, SecondPriBoardNumbersItsOwnPcmsFromZero)
{
    rRoot.Write("/var/quorda/data/ShConfig.ini", "[SystemConfig]\n");
    Detect({{"11", "DTP-60", 60}, {"12", "DTP-60", 60}});
    IniMap rIni = WriteAndRead();

    EXPECT_EQ(rIni["BoardId=1"]["PcmClockMode[0]"], "0");
    EXPECT_EQ(rIni["BoardId=1"]["PcmNumber"], "2");
    EXPECT_EQ(rIni["PcmInfo"]["TotalPcm"], "4");
    EXPECT_EQ(rIni["PcmInfo"]["Pcm[2]"], "1,0");
    EXPECT_EQ(rIni["PcmInfo"]["Pcm[3]"], "1,1");
    EXPECT_EQ(rIni["AppSpyCICTable"]["AppSpyCIC[30]"], "SpyPcm[1],0..29");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["AppCh[60]"], "1,0..59");
    // No Debian version file: no DMA default.
    EXPECT_EQ(rIni["BoardId=0"].count("EnableDMA"), 0u);
}

TEST_F(WriteConfigTest, AnalogBoardsGetPerChannelThresholds)
{
    rRoot.Write("/var/quorda/data/ShConfig.ini", "[SystemConfig]\n");
    rBoot.rConfigs["Syn31_OffHookThr"] = "30,,5";
    rBoot.rConfigs["Syn31_Trigger"] = "1,2,0";
    rBoot.rConfigs["Syn31_AudioThr"] = "x,40";
    Detect({{"31", "ATP-4", 4}, {"32", "SHT-2", 2}, {"59", "DTP-59", 59}});
    IniMap rIni = WriteAndRead();

    EXPECT_EQ(rIni["BoardId=0"]["IsHangupDtrmVoltage"], "30,26,5,26");
    EXPECT_EQ(rIni["BoardId=0"]["IgnoreLineVoltage"], "0,1,0,0");
    EXPECT_EQ(rIni["BoardId=0"]["BargeInSensitive"], "12,40,12,12");
    EXPECT_EQ(rIni["BoardId=0"]["DualAndAllFreqEnScale"], "10,10,10,10,10,10,10,10,10,10,10,10,"
                                                          "10,10,10,10,10,10,10,10,10,10,10,10");
    EXPECT_EQ(rIni["BoardId=1"]["IsHangupDtrmVoltage"], "26,26");
    EXPECT_EQ(rIni["SystemConfig"]["R2DetectMode"], "1");
    // A PRI board of less than one span: listed, but no PCM at all.
    EXPECT_EQ(rIni["SystemConfig"]["WhoSupplySysClock"], "2");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["AppCh[6]"], "2,0..58");
    EXPECT_EQ(rIni["BoardId=2"]["PcmNumber"], "0");
    EXPECT_EQ(rIni["BoardId=2"].count("PcmClockMode[0]"), 0u);
    EXPECT_EQ(rIni.count("SpyPcm"), 0u);
}

TEST_F(WriteConfigTest, NoPresentBoardEmptiesTheTablesButKeepsStaleSpyKeys)
{
    rRoot.Write("/var/quorda/data/ShConfig.ini",
                "[PcmInfo]\nTotalPcm=2\n[SpyPcm]\nSpyPcm[0]=Pcm[0],Pcm[1]\n");
    Detect({});
    IniMap rIni = WriteAndRead();

    EXPECT_EQ(rIni["SystemConfig"]["TotalBoards"], "0");
    EXPECT_EQ(rIni["SystemConfig"]["WhoSupplySysClock"], "-1");
    EXPECT_EQ(rIni["AppChToBoardChTable"]["TotalAppCh"], "0");
    EXPECT_EQ(rIni["PcmInfo"].size(), 0u);
    EXPECT_EQ(rIni["SpyPcm"]["SpyPcm[0]"], "Pcm[0],Pcm[1]");
}

TEST_F(WriteConfigTest, NoWriteIniLeavesBothFilesAlone)
{
    rRoot.Write("/var/quorda/data/ShIndex.ini", "index");
    rBoot.rConfigs["NoWriteIni"] = "1";
    Detect({kDst});
    rBoot.WriteConfig();

    EXPECT_TRUE(rLog.Contains("Not writing ShConfig.ini", 4));
    EXPECT_FALSE(file_exists(ConfigPath()));
    EXPECT_EQ(TempRoot::Read(IndexPath()), "index");
}
