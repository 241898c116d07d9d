// Board detection and the board list: the detection tool's file as the
// parser reads it, and the numbering of driver, web and CIC channels when
// stored and detected cards are reconciled.
#include "test_boot_fixture.h"

// ---- the tool's file ----------------------------------------------------------

TEST_F(BootTest, ParsesBoardsOfToolFileAndDropsUnknownModels)
{
    rBoot.ParseDetectedBoards(rRoot.Write(
        "/tools/ShConfig.ini", ToolFile({kPri, {"9009", "XYZ-8", 8}, kDst, {"3003", "SHR-16", 16}})));

    ASSERT_EQ(rBoot.vrDetectedBoards.size(), 3u);
    const TBoard& rPri = rBoot.vrDetectedBoards[0];
    EXPECT_EQ(rPri.getId(), "Syn1001");
    EXPECT_EQ(rPri.iMaxCh, 120);
    EXPECT_EQ(rPri.iWebMaxCh, 60); // two driver channels per call
    EXPECT_EQ(rBoot.vrDetectedBoards[1].iWebMaxCh, 32);
    EXPECT_EQ(rBoot.vrDetectedBoards[2].GetCtType(), CT_DST);
    EXPECT_EQ(rBoot.rNewConfigs["Syn3003_Present"], "1");
    EXPECT_FALSE(rBoot.rNewConfigs.count("Syn9009_Present"));
    EXPECT_TRUE(rLog.Contains("1. SN: 2002 Model: DST-32 MaxCh: 32 webMaxCh: 32", 5));
    EXPECT_FALSE(rLog.Contains("XYZ"));
    EXPECT_FALSE(rLog.Contains("Unequal size"));
}

TEST_F(BootTest, CrLfOrUnequalListsGiveAnErrorAndTheShortestLength)
{
    // With CR LF the section names keep their "]": no channel table is recognised.
    rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", ToolFile({kPri, kDst}, "\r\n")));
    EXPECT_TRUE(rBoot.vrDetectedBoards.empty());
    EXPECT_TRUE(rLog.Contains("Unequal size in detect boards", 3));

    rLog.Clear();
    std::string strFile = ToolFile({kDst, kPri}) + "[BoardId=2]\nBoardSerialNumber=4004\n";
    rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", strFile));
    EXPECT_TRUE(rLog.Contains("Unequal size in detect boards", 3));
    ASSERT_EQ(rBoot.vrDetectedBoards.size(), 2u);
    EXPECT_EQ(rBoot.vrDetectedBoards[1].strSerial, "1001");
}

// ---- error paths: short and malformed lines never index outside a line ----------

TEST_F(BootTest, ShortAndMalformedToolLinesAreSafe)
{
    std::string strLong(700, 'x');
    std::string strFile = "[\n[]\n]\n=\n\n[AppChToBoardChTable]\nAppCh[0]=\nAppCh[1]=..\nAppCh[2]=0,0..7\n" +
                          strLong +
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

// ---- the board list and its numbering -------------------------------------------

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
    EXPECT_EQ(rDst.iStartCh, 120);
    EXPECT_EQ(rDst.iWebStartCh, 60);
    EXPECT_EQ(rDst.iBoardId, 1);
    EXPECT_EQ(rDst.strPBXType, "Siemens Hicom/Hipath");
    EXPECT_EQ(rBoot.vrBoardList[0].strPBXType, "");
    EXPECT_EQ(rBoot.strCardList, "Syn1001,Syn2002");
    EXPECT_EQ(rBoot.rNewConfigs["Syn1001_MaxChannels"], "60");
    EXPECT_TRUE(rLog.Contains("New CardList: Syn1001,Syn2002", 5));
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
    EXPECT_EQ(rDst.iStartCh, 120);
    EXPECT_EQ(rDst.iWebStartCh, 90);
    EXPECT_EQ(rDst.iBoardId, 1);
    EXPECT_EQ(rDst.strPBXType, "Alcatel");
    EXPECT_EQ(rBoot.rDrvToWebChMap[120], 90);
    EXPECT_EQ(rBoot.rNewConfigs["Syn5005_Present"], "0");
    EXPECT_FALSE(rBoot.rNewConfigs.count("Syn5005_MaxChannels"));
    EXPECT_EQ(rBoot.strCardList, "Syn1001,Syn5005,Syn2002");
}

TEST_F(BootTest, AbsentCardsAtTheTailAreErased)
{
    rBoot.rConfigs["CardList"] = "Syn1001,Syn5005,Syn6006,Syn7007";
    rBoot.rConfigs["Syn5005_MaxChannels"] = "30";
    rBoot.rConfigs["Syn6006_MaxChannels"] = "8"; // Syn7007 has no stored count
    Detect({kPri});

    ASSERT_EQ(rBoot.vrBoardList.size(), 1u);
    EXPECT_EQ(rBoot.strCardList, "Syn1001");
    EXPECT_EQ(rBoot.iTotalWebMaxCh, 60);
    EXPECT_EQ(rBoot.rNewConfigs["Syn5005_Present"], "0");
    EXPECT_EQ(rBoot.rNewConfigs["Syn7007_Present"], "0");
}

TEST_F(BootTest, DuplicateStoredIdIsTakenOnceAndNewCardsGoLast)
{
    rBoot.rConfigs["CardList"] = "Syn2002,Syn2002,Syn1001";
    rBoot.rConfigs["Syn2002_MaxChannels"] = "32";
    Detect({{"8008", "ATP-8", 8}, kPri, kDst});

    ASSERT_EQ(rBoot.vrBoardList.size(), 4u);
    EXPECT_FALSE(rBoot.vrBoardList[1].fPresent); // the second occurrence
    EXPECT_EQ(rBoot.vrBoardList[1].getId(), "Syn2002");
    EXPECT_EQ(rBoot.vrBoardList[2].getId(), "Syn1001");
    EXPECT_EQ(rBoot.vrBoardList[2].iWebStartCh, 64);
    EXPECT_EQ(rBoot.vrBoardList[3].iBoardId, 2);
    EXPECT_EQ(rBoot.vrBoardList[3].iStartCh, 152);
    EXPECT_EQ(rBoot.strCardList, "Syn2002,Syn2002,Syn1001,Syn8008");
}

TEST_F(BootTest, EmptyStoredListTakesAllCardsAsNew)
{
    Detect({{"60", "DTP-60", 60}});

    ASSERT_EQ(rBoot.vrBoardList.size(), 1u);
    EXPECT_EQ(rBoot.rCicToAppChMap.size(), 30u);
    EXPECT_EQ(rBoot.rCicToAppChMap[29], 29);
    EXPECT_EQ(rBoot.rNewConfigs["Syn60_Present"], "1");
    // The empty list is one empty id, which matches nothing.
    EXPECT_EQ(rBoot.rNewConfigs["_Present"], "0");
    EXPECT_EQ(rBoot.strCardList, "Syn60");
}
