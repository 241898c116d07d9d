// Whether and how a call is recorded: the weekly schedule, the number
// filter, recording and deleting on demand, a custom local identity, the
// names of a recording, and a card that refuses to record.
#include "log_capture.h"
#include "test_chan_fixture.h"

#include <sys/stat.h>

namespace {

class ChanDecisionTest : public ChanTest {
protected:
    void SetNow(time_t t) { clock.iMicros = static_cast<long long>(t) * 1000000; }
    // Scheduled at this local minute of Wednesday 31 January 2024?
    bool ScheduledAt(int iHour, int iMin)
    {
        SetNow(LocalTime(2024, 1, 31, iHour, iMin, 30));
        return ch.RecordingScheduled();
    }
    void Wednesday(const std::string& strStart1, const std::string& strStop1,
                   const std::string& strStart2 = "", const std::string& strStop2 = "")
    {
        db.Set("o", "srWeekdays", "4");
        db.Set("o", "srWednesdayStart1", strStart1);
        db.Set("o", "srWednesdayStop1", strStop1);
        db.Set("o", "srWednesdayStart2", strStart2);
        db.Set("o", "srWednesdayStop2", strStop2);
    }
};

TEST_F(ChanDecisionTest, ScheduleDaysAndSpans)
{
    EXPECT_TRUE(ScheduledAt(3, 0)) << "no weekdays: no schedule";

    db.Set("o", "srWeekdays", "23456");
    SetNow(LocalTime(2024, 1, 28, 12, 0)); // a Sunday
    EXPECT_FALSE(ch.RecordingScheduled());
    EXPECT_TRUE(ScheduledAt(3, 0)) << "a day allowed without times is allowed all day";

    Wednesday("08:00", "17:00");
    EXPECT_FALSE(ScheduledAt(7, 59));
    EXPECT_TRUE(ScheduledAt(8, 0));
    EXPECT_TRUE(ScheduledAt(16, 59));
    EXPECT_FALSE(ScheduledAt(17, 0));

    Wednesday("08:00", "");
    EXPECT_TRUE(ScheduledAt(23, 59));

    Wednesday("08:00", "12:00", "13:00", "");
    EXPECT_TRUE(ScheduledAt(11, 59));
    EXPECT_FALSE(ScheduledAt(12, 30));
    EXPECT_TRUE(ScheduledAt(13, 0));
    EXPECT_TRUE(ScheduledAt(23, 59));

    Wednesday("08:00", "12:00", "", "20:00"); // a Stop2 without Start2 is ignored
    EXPECT_FALSE(ScheduledAt(13, 0));

    Wednesday("22:00", "02:00"); // no wrap over midnight
    EXPECT_FALSE(ScheduledAt(23, 0));
    EXPECT_FALSE(ScheduledAt(1, 0));
}

TEST_F(ChanDecisionTest, MalformedScheduleValuesReadByStrtolRules)
{
    Wednesday("8", "");
    EXPECT_FALSE(ScheduledAt(8, 7)) << "a plain 8 is 8:08";
    EXPECT_TRUE(ScheduledAt(8, 8));

    Wednesday("07:00", "25:99");
    EXPECT_TRUE(ScheduledAt(23, 59));
    EXPECT_FALSE(ScheduledAt(6, 59));

    Wednesday("xx", "1:"); // 0:00 to 1:00
    EXPECT_TRUE(ScheduledAt(0, 0));
    EXPECT_FALSE(ScheduledAt(1, 0));

    // Read afresh at each decision: a change acts on the next call.
    Wednesday("09:00", "10:00");
    SetNow(LocalTime(2024, 1, 31, 8, 0));
    SetInCall(true);
    EXPECT_FALSE(ch.fRecording);
    EXPECT_EQ(ch.iRecUniqCnt, 0) << "a refusal by the schedule doesn't count an attempt";
    EXPECT_TRUE(db.vActiveRows.empty());
    SetInCall(false);
    db.Set("o", "srWednesdayStart1", "07:00");
    SetInCall(true);
    EXPECT_TRUE(ch.fRecording);
}

TEST_F(ChanDecisionTest, NumberFilterTypes)
{
    ch.strRemoteNum = "0301234";
    rec.iNumberFilterType = 1; // only listed numbers, and the list is empty
    EXPECT_FALSE(ch.MayStartRecording(true));
    rec.astrNumberFilters = {"0301234"};
    EXPECT_TRUE(ch.MayStartRecording(true));

    rec.iNumberFilterType = 2; // listed numbers are never recorded
    EXPECT_FALSE(ch.MayStartRecording(true));
    ch.strRemoteNum.clear();
    EXPECT_TRUE(ch.MayStartRecording(true)) << "an empty number matches only an empty item";
    rec.astrNumberFilters.push_back("");
    EXPECT_FALSE(ch.MayStartRecording(true));

    // A refusal by the filter leaves the call untracked and rStartTime as it was.
    rec.iNumberFilterType = 1;
    rec.astrNumberFilters = {"0401"};
    SetInCall(true);
    EXPECT_FALSE(ch.fRecording);
    EXPECT_EQ(ch.rStartTime, 0);
    EXPECT_TRUE(db.vActiveRows.empty());
    // A number that passes starts the recording within the call.
    ch.strRemoteNum = "0401";
    ch.RemoteNumberChanged();
    EXPECT_TRUE(ch.fRecording);
    // A remote number the filter refuses ends it for the rest of the call.
    ch.strRemoteNum = "0999";
    ch.RemoteNumberChanged();
    EXPECT_FALSE(ch.fRecording);
    EXPECT_TRUE(ch.fDontRecord);
    EXPECT_TRUE(db.vCalls.empty());
}

TEST_F(ChanDecisionTest, RecordingOnDemandWaitsWithARowAndStartsAndStopsOnCommand)
{
    EXPECT_FALSE(ch.RecOnDmdAct(true)) << "the option is off";

    rec.params["RecOnDmd"] = 1;
    ch.Init(7, 0, 1, &rec, 1);
    SetInCall(true);
    EXPECT_FALSE(ch.fRecording);
    ASSERT_EQ(db.vActiveRows.size(), 1u);
    EXPECT_EQ(db.vActiveRows[0]["isarchived"], "0");
    EXPECT_EQ(db.vActiveRows[0]["encoding"], "0");
    std::string strWaitingId = ch.strDbRemoteId;
    EXPECT_FALSE(strWaitingId.empty());

    Advance(2);
    EXPECT_TRUE(ch.RecOnDmdAct(true));
    EXPECT_TRUE(ch.fRecording);
    EXPECT_TRUE(db.Called("DeleteActiveCall 100"));
    ASSERT_EQ(db.vActiveRows.size(), 2u);
    EXPECT_EQ(db.vActiveRows[1]["isarchived"], "1");
    EXPECT_EQ(db.vActiveRows[1]["encoding"], "554");
    EXPECT_NE(ch.strDbRemoteId, strWaitingId);
    EXPECT_TRUE(ch.RecOnDmdAct(true)) << "a second start changes nothing";
    EXPECT_EQ(db.vActiveRows.size(), 2u);

    Advance(3);
    EXPECT_TRUE(ch.RecOnDmdAct(false));
    EXPECT_FALSE(ch.fRecording);
    ASSERT_EQ(db.vCalls.size(), 1u) << "the part so far goes by the keep rules";
    EXPECT_EQ(db.vCalls[0]["duration"], "3");
    EXPECT_EQ(db.vActiveRows.size(), 3u) << "back to waiting, with a new row";
    SetInCall(false);
    EXPECT_EQ(db.vCalls.size(), 1u) << "a call that only waited leaves no call row";
    EXPECT_EQ(ch.iActiveCallID, -1);
}

TEST_F(ChanDecisionTest, DeleteOnDemandByLineNumberDropsTheRestOfTheCall)
{
    for (int iType : {0, 2, 7}) { // off, a list without this line, unknown
        rec.iDelOnDmdType = iType;
        EXPECT_FALSE(ch.DeleteAct()) << iType;
    }

    rec.iDelOnDmdType = 3;
    rec.astrDelOnDmdList = {"#7"};
    SetInCall(true);
    std::string strFile = ch.strFullFilename;
    EXPECT_TRUE(ch.DeleteAct());
    EXPECT_FALSE(ch.fRecording);
    EXPECT_FALSE(file_exists(strFile));
    EXPECT_EQ(ch.iActiveCallID, -1);
    ch.strRemoteNum = "0401";
    ch.RemoteNumberChanged(); // nothing more of this call is recorded
    EXPECT_FALSE(ch.fRecording);
    SetInCall(false);
    EXPECT_TRUE(db.vCalls.empty());
}

TEST_F(ChanDecisionTest, CustomLocalIdentityHoldsForAMinute)
{
    db.rCustomLocal.fFound = true;
    db.rCustomLocal.strText = "Zentrale M\xc3\xbcller";
    db.rCustomLocal.iContactID = 77;
    db.rCustomLocal.iUpdateTime = static_cast<long long>(WallNow()) - 60;
    SetInCall(true);
    ASSERT_EQ(db.vActiveRows.size(), 1u);
    EXPECT_EQ(db.vActiveRows[0]["local"], "Zentrale M\xc3\xbcller");
    SetInCall(false);

    db.rCustomLocal.iUpdateTime = static_cast<long long>(WallNow()) - 61;
    SetInCall(true);
    EXPECT_FALSE(ch.QUseLocalNum());
    EXPECT_EQ(db.vActiveRows[1]["local"], "");
}

TEST_F(ChanDecisionTest, NamesFromStartTimeLineAndCounter)
{
    ch.rStartTime = LocalTime(2024, 1, 31, 8, 45, 1);
    ch.iRecUniqCnt = 107;
    ch.DetermineDbRemoteId();
    EXPECT_EQ(ch.strDbRemoteId, "20240131_084501_007_07");
    ch.iChannel = 1234;
    ch.DetermineDbRemoteId();
    EXPECT_EQ(ch.strDbRemoteId, "20240131_084501_1234_07");

    rec.fLineNameInFileName = true;
    db.strContactName = "Sales/North 1";
    ch.DetermineFilename();
    EXPECT_EQ(ch.strFilename, "20240131_084501_1234_07_Sales_North_1.wav");
    EXPECT_EQ(ch.strDirectory, "2024/01/31/08");
    EXPECT_EQ(ch.strFullFilename, rec.strRecordingRoot + "/2024/01/31/08/" + ch.strFilename);
    EXPECT_EQ(ch.strFullFilenameFinal, ch.strFullFilename);
    EXPECT_EQ(ch.strArchiveFilename, rec.strArchiveRoot + "/2024/01/31/08/" + ch.strFilename);
    struct stat st;
    EXPECT_EQ(stat((rec.strArchiveRoot + "/2024/01/31/08").c_str(), &st), 0);

    rec.fLineNameInFileName = false;
    rec.eRecEnc = RECENC_MP3;
    ch.DetermineFilename();
    EXPECT_EQ(ch.strFilename, "20240131_084501_1234_07.mp3");
    EXPECT_EQ(ch.strFullFilename, ch.strFullFilenameFinal + ".g711");
    rec.eRecEnc = RECENC_GSM;
    ch.DetermineFilename();
    EXPECT_EQ(ch.strFilename, "20240131_084501_1234_07.wav");
    EXPECT_EQ(ch.strFullFilename, ch.strFullFilenameFinal + ".g711");
}

// ---- error paths -----------------------------------------------------------------------------

TEST_F(ChanDecisionTest, CardThatRefusesToRecordOrToStop)
{
    ch.iDrvCh = 9; // a channel the driver doesn't have: every card call fails
    LogCapture log;
    SetInCall(true);
    EXPECT_TRUE(log.Contains("Error in SsmRecToMem", 3));
    EXPECT_TRUE(ch.fRecording) << "stays in the recording state";
    ASSERT_NE(ch.hAudioFile, nullptr);
    EXPECT_EQ(db.vActiveRows.size(), 1u);
    int iRow = ch.iActiveCallID;
    Advance(10);
    SetInCall(false);
    EXPECT_TRUE(log.Contains("Error in SsmStopRecMem", 3));
    EXPECT_TRUE(db.vCalls.empty());
    EXPECT_TRUE(db.Called("DeleteActiveCall " + std::to_string(iRow)));
    EXPECT_EQ(ch.iActiveCallID, -1);

    ch.iDrvCh = 1;
    SetInCall(true);
    Advance(10);
    SetInCall(false);
    EXPECT_EQ(db.vCalls.size(), 1u) << "the next call records normally";
}

} // namespace
