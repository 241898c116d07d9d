// Board detection and the board list: the detection tool's file as the
// parser reads it, and the numbering of driver, web and CIC channels when
// stored and detected cards are reconciled.
#include "test_boot_fixture.h"

TEST_F(BootTest, ToolFileParsing)
{
    rBoot.ParseDetectedBoards(rRoot.Write(
        "/tools/ShConfig.ini", ToolFile({kPri, {"9009", "XYZ-8", 8}, kDst, {"3003", "SHR-16", 16}})));
    ASSERT_EQ(rBoot.vrDetectedBoards.size(), 3u) << "the unknown model is dropped";
    EXPECT_EQ(rBoot.vrDetectedBoards[0].getId(), "Syn1001");
    EXPECT_EQ(rBoot.vrDetectedBoards[0].iMaxCh, 120);
    EXPECT_EQ(rBoot.vrDetectedBoards[0].iWebMaxCh, 60); // two driver channels per call
    EXPECT_EQ(rBoot.vrDetectedBoards[1].iWebMaxCh, 32);
    EXPECT_EQ(rBoot.vrDetectedBoards[2].GetCtType(), CT_DST);
    EXPECT_EQ(rBoot.rNewConfigs["Syn3003_Present"], "1");
    EXPECT_FALSE(rBoot.rNewConfigs.count("Syn9009_Present"));
    EXPECT_FALSE(rLog.Contains("Unequal size"));

    // With CR LF the section names keep their "]": no channel table is recognised.
    rBoot.vrDetectedBoards.clear();
    rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", ToolFile({kPri, kDst}, "\r\n")));
    EXPECT_TRUE(rBoot.vrDetectedBoards.empty());
    EXPECT_TRUE(rLog.Contains("Unequal size in detect boards", 3));
    // Unequal lists: the shortest length.
    std::string strFile = ToolFile({kDst, kPri}) + "[BoardId=2]\nBoardSerialNumber=4004\n";
    rBoot.vrDetectedBoards.clear();
    rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", strFile));
    ASSERT_EQ(rBoot.vrDetectedBoards.size(), 2u);
    EXPECT_EQ(rBoot.vrDetectedBoards[1].strSerial, "1001");
}

TEST_F(BootTest, ShortAndMalformedToolLinesAreSafe)
{
    std::string strFile = "[\n[]\n]\n=\n\n[AppChToBoardChTable]\nAppCh[0]=\nAppCh[1]=..\nAppCh[2]=0,0..7\n" +
                          std::string(700, 'x') +
                          "=1\n[BoardId=\nBoardSerialNumber=ignored\n[BoardId=1]\nBoardSerialNumber=\n"
                          "BoardModel=ATP\nBoardSerialNumber=5\nBoardModel="; // no line end at all
    rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", strFile));
    // "AppCh[1]=.." reads as channel 0 + 1; "[BoardId=" loses its "=" and opens no
    // board section; the last value loses its only character and so its model.
    EXPECT_FALSE(rLog.Contains("Unequal size"));
    ASSERT_EQ(rBoot.vrDetectedBoards.size(), 1u);
    EXPECT_EQ(rBoot.vrDetectedBoards[0].strSerial, "");
    EXPECT_EQ(rBoot.vrDetectedBoards[0].strModel, "ATP");
    EXPECT_EQ(rBoot.vrDetectedBoards[0].iMaxCh, 1);

    rRoot.Write("/tools/bad.ini", "[AppChToBoardChTable");
    rBoot.ParseDetectedBoards(SysPath("/tools/bad.ini"));
    rBoot.ParseDetectedBoards(SysPath("/tools/none.ini"));
    EXPECT_EQ(rBoot.vrDetectedBoards.size(), 1u);
}

TEST_F(BootTest, NumbersPriAndDstBoardsInDriverWebAndCicCount)
{
    Detect({kPri, kDst});
    ASSERT_EQ(rBoot.vrBoardList.size(), 2u);
    EXPECT_EQ(rBoot.iTotalDrvMaxCh, 152);
    EXPECT_EQ(rBoot.iTotalWebMaxCh, 92);
    for (int i = 0; i < 30; i++) {
        EXPECT_EQ(rBoot.rDrvToWebChMap[i], i);
        EXPECT_EQ(rBoot.rDrvToWebChMap[60 + i], 30 + i);
        EXPECT_EQ(rBoot.rCicToAppChMap[i], i);
        EXPECT_EQ(rBoot.rCicToAppChMap[30 + i], 60 + i);
    }
    for (int i = 0; i < 32; i++) {
        EXPECT_EQ(rBoot.rDrvToWebChMap[120 + i], 60 + i);
        EXPECT_EQ(rBoot.rWebToDrvChMap[60 + i], 120 + i);
    }
    // The second direction of a PRI span has no web channel and no CIC.
    EXPECT_EQ(rBoot.rDrvToWebChMap.count(30), 0u);
    EXPECT_EQ(rBoot.rAppToCicChMap.count(119), 0u);
    EXPECT_EQ(rBoot.rCicToAppChMap.size(), 60u);

    const TBoard& rDst = rBoot.vrBoardList[1];
    EXPECT_EQ(rDst.iBoardId, 1);
    EXPECT_EQ(rDst.strPBXType, "Siemens Hicom/Hipath");
    EXPECT_EQ(rBoot.vrBoardList[0].strPBXType, "");
    EXPECT_EQ(rBoot.strCardList, "Syn1001,Syn2002");
    EXPECT_EQ(rBoot.rNewConfigs["Syn1001_MaxChannels"], "60");
}

TEST_F(BootTest, AbsentStoredCardKeepsWebNumbersOfTheCardsBehindIt)
{
    g_cfgPrefix = "node7-";
    rBoot.rConfigs["node7-CardList"] = "Syn1001,Syn5005,Syn2002";
    rBoot.rConfigs["Syn5005_MaxChannels"] = "30";
    rBoot.rConfigs["Syn2002_PBXType"] = "Alcatel";
    Detect({kDst, kPri}); // detected order differs from the stored one

    ASSERT_EQ(rBoot.vrBoardList.size(), 3u);
    const TBoard& rAbsent = rBoot.vrBoardList[1];
    EXPECT_FALSE(rAbsent.fPresent);
    EXPECT_EQ(rAbsent.iBoardId, -1);
    EXPECT_EQ(rAbsent.iMaxCh, 0);
    const TBoard& rDst = rBoot.vrBoardList[2];
    EXPECT_EQ(rDst.iBoardId, 1);
    EXPECT_EQ(rDst.strPBXType, "Alcatel");
    EXPECT_EQ(rBoot.rDrvToWebChMap[120], 90);
    EXPECT_EQ(rBoot.rNewConfigs["Syn5005_Present"], "0");
    EXPECT_FALSE(rBoot.rNewConfigs.count("Syn5005_MaxChannels"));
    EXPECT_EQ(rBoot.strCardList, "Syn1001,Syn5005,Syn2002");
}

// Stored lists that don't match what was detected: absent cards at the tail
// are erased, a duplicate id is taken once (the second occurrence stands as
// absent, keeping its web channels), new cards go last, and an empty list
// is one empty id that matches nothing.
TEST(BootStoredList, ReconciledWithTheDetectedCards)
{
    const struct {
        const char* pcStored;
        std::vector<ToolBoard> vDetected;
        const char* pcCardList;
        std::vector<const char*> vAbsent;
        int iWebTotal;
        int iDrvTotal;
        int iLastBoardId;
    } arCases[] = {
        {"Syn1001,Syn5005,Syn6006,Syn7007", {kPri}, "Syn1001", {"Syn5005", "Syn7007"}, 60, 120, 0},
        {"Syn2002,Syn2002,Syn1001", {{"8008", "ATP-8", 8}, kPri, kDst}, "Syn2002,Syn2002,Syn1001,Syn8008",
         {}, 132, 160, 2},
        {"", {{"60", "DTP-60", 60}}, "Syn60", {""}, 30, 60, 0},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.pcStored);
        TempRoot rRoot;
        FakeDatabase* prDb = new FakeDatabase;
        TRecorderBoot rBoot(prDb);
        rBoot.rConfigs = {{"CardList", c.pcStored}, {"Syn5005_MaxChannels", "30"}, {"Syn6006_MaxChannels", "8"},
                          {"Syn2002_MaxChannels", "32"}};
        rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", ToolFile(c.vDetected)));
        rBoot.CreateBoardList();
        EXPECT_EQ(rBoot.strCardList, c.pcCardList);
        EXPECT_EQ(rBoot.iTotalWebMaxCh, c.iWebTotal);
        EXPECT_EQ(rBoot.iTotalDrvMaxCh, c.iDrvTotal);
        EXPECT_EQ(rBoot.vrBoardList.back().iBoardId, c.iLastBoardId);
        for (const char* pcId : c.vAbsent)
            EXPECT_EQ(rBoot.rNewConfigs[std::string(pcId) + "_Present"], "0") << pcId;
    }
}
