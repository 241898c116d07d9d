// The audio path of a channel: ring buffer to WAVE file, the header kept up
// to date, silencing, loudness and the loud alarm, the monitoring copies,
// and a recording file that can't be opened.
#include "g711.h"
#include "test_chan_fixture.h"

namespace {

class ChanAudioTest : public ChanTest {
protected:
    // An outgoing call that records (no rules in the way).
    void StartRecordingCall()
    {
        SetInCall(true);
        ASSERT_TRUE(ch.fRecording);
        ASSERT_NE(ch.hAudioFile, nullptr);
    }
    std::string FileNow()
    {
        fflush(ch.hAudioFile);
        return TempRoot::Read(ch.strFullFilename);
    }
    // n blocks of half a second of one A-law byte value.
    void Blocks(int n, BYTE b)
    {
        for (int i = 0; i < n; ++i)
            CardWrites(std::vector<BYTE>(4000, b));
    }
};

TEST_F(ChanAudioTest, HeaderFollowsTheBytesAndTheRingWrapsTailFirst)
{
    StartRecordingCall();
    std::string strFile = FileNow();
    ASSERT_EQ(strFile.size(), 56u);
    EXPECT_EQ(strFile.substr(0, 4), "RIFF");
    EXPECT_EQ(strFile.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(strFile.substr(36, 4), "fact");
    EXPECT_EQ(strFile.substr(48, 4), "data");
    EXPECT_EQ(strFile[20], 6); // A-law, mono, 8000/s
    EXPECT_EQ(strFile[22], 1);
    EXPECT_EQ(Le32(strFile, 24), 8000u);
    EXPECT_EQ(Le32(strFile, 28), 8000u);
    EXPECT_EQ(Le32(strFile, 4), 48u);

    std::vector<BYTE> vAll = Pattern(10);
    CardWrites(vAll);
    Event(10); // nothing new: nothing written
    Ticks(4);
    EXPECT_EQ(Le32(FileNow(), 52), 0u) << "the header is refreshed only every 5 ticks";
    Ticks(1);
    strFile = FileNow();
    EXPECT_EQ(Le32(strFile, 4), 58u);
    EXPECT_EQ(Le32(strFile, 44), 10u);
    EXPECT_EQ(Le32(strFile, 52), 10u);

    // Up to near the end of the ring, then a write that wraps round.
    std::vector<BYTE> vNear = Pattern(4000, 1);
    CardWrites(vNear);
    std::vector<BYTE> vWrap = Pattern(300, 2);
    CardWrites(vWrap);
    EXPECT_EQ(ch.iRecordOffset, (10 + 4000 + 300) % 4096);
    vAll.insert(vAll.end(), vNear.begin(), vNear.end());
    vAll.insert(vAll.end(), vWrap.begin(), vWrap.end());
    EXPECT_EQ(Audio(FileNow()), std::string(vAll.begin(), vAll.end()));

    // The end of the recording settles the header once more.
    std::string strPath = ch.strFullFilename;
    ch.CloseAudioFile();
    strFile = TempRoot::Read(strPath);
    EXPECT_EQ(Le32(strFile, 52), 4310u);
    EXPECT_EQ(Le32(strFile, 44), 4310u);
    EXPECT_EQ(Le32(strFile, 4), 4358u);
}

TEST_F(ChanAudioTest, APositionOutsideTheRingIsIgnoredWithAWarning)
{
    StartRecordingCall();
    CardWrites(Pattern(100));
    for (DWORD dwBad : {4097u, 0xFFFFFFFFu, 0x80000000u}) {
        Event(dwBad);
        EXPECT_EQ(ch.iRecordOffset, 100);
    }
    EXPECT_EQ(Audio(FileNow()).size(), 100u);
    Event(4096); // the end of the ring itself is a valid position
    EXPECT_EQ(Audio(FileNow()).size(), 4096u);
}

TEST_F(ChanAudioTest, SilencingWritesTheSilenceByteOfTheLawAndEndsWithThePart)
{
    EXPECT_FALSE(ch.TrySetSilencing(true)) << "silence on demand is off";

    rec.fSilenceOnDemand = true;
    StartRecordingCall();
    int iRow = ch.iActiveCallID;
    EXPECT_TRUE(ch.TrySetSilencing(true));
    EXPECT_TRUE(db.Called("SetActiveCallExtra " + std::to_string(iRow) + " silencing=1"));
    CardWrites(Pattern(50, 3));
    EXPECT_EQ(Audio(FileNow()), std::string(50, static_cast<char>(213)));
    EXPECT_TRUE(ch.TrySetSilencing(false));
    CardWrites({1, 2});
    EXPECT_EQ(Audio(FileNow()).substr(50), std::string("\x01\x02"));

    // u-law: silence is 255; a new recording part starts unsilenced.
    ch.TrySetSilencing(true);
    SetInCall(false);
    rec.eRecEnc = RECENC_G711U;
    StartRecordingCall();
    EXPECT_FALSE(ch.fSilencing);
    EXPECT_EQ(FileNow()[20], 7);
    ch.TrySetSilencing(true);
    CardWrites(Pattern(20));
    EXPECT_EQ(Audio(FileNow()), std::string(20, static_cast<char>(255)));
}

TEST_F(ChanAudioTest, LoudBlocksGiveOneAlarmPerCall)
{
    rec.params = {{"LoudVoiceDetect", 1}, {"LoudnessThr", 50}, {"LoudnessLen", 2}};
    ch.Init(7, 0, 1, &rec, 1);
    ASSERT_EQ(ch.iHighMaxCnt, 4);
    StartRecordingCall();
    const BYTE bLoud = linear2alaw(16000); // about -6 dB below full scale: level 64
    const BYTE bQuiet = linear2alaw(100);

    Blocks(1, bLoud);
    EXPECT_EQ(ch.iLast_dB, 64);
    Blocks(1, 213);
    EXPECT_EQ(ch.iLast_dB, -1); // the A-law silence byte stands for +8, not 0
    Blocks(1, bQuiet);          // two quiet blocks are forgiven...
    Blocks(1, bLoud);
    EXPECT_EQ(ch.iHighCnt, 2);
    Blocks(3, bQuiet); // ...the third ends the run
    EXPECT_EQ(ch.iHighCnt, 0);

    Blocks(3, bLoud);
    EXPECT_EQ(ch.iHighNotify, 0);
    Blocks(1, bLoud);
    EXPECT_EQ(ch.iHighNotify, 1);
    Ticks(1);
    EXPECT_TRUE(db.Called("UpdateActiveCallCategory " + std::to_string(ch.iActiveCallID) + " 1"));
    EXPECT_EQ(rec.vNotified, std::vector<std::string>({ch.strDbRemoteId}));
    Blocks(8, bLoud);
    Ticks(1);
    EXPECT_EQ(rec.vNotified.size(), 1u);

    // A level exactly at the threshold isn't loud; a tone switches detection off.
    SetInCall(false);
    rec.params["LoudnessThr"] = 64;
    ch.Init(7, 0, 1, &rec, 1);
    StartRecordingCall();
    Blocks(6, bLoud);
    EXPECT_EQ(ch.iHighCnt, 0);
    ch.iHighDbThr = 50;
    ch.fHighSwitchedOff = true;
    Blocks(6, bLoud);
    EXPECT_EQ(ch.iHighCnt, 0);
}

TEST_F(ChanAudioTest, MonitoringCopiesFollowTheRecording)
{
    rec.fMonitoring = true;
    rec.eRecEnc = RECENC_G711U;
    StartRecordingCall();
    EXPECT_EQ(TempRoot::Read(ch.strFullFilenameFinal + ".info"), "Format: ulaw\r\nChannels: 1\r\n");
    std::vector<BYTE> v = Pattern(500);
    CardWrites(v);
    // Flushed at each write: a listener can follow without the file closing.
    EXPECT_EQ(TempRoot::Read(ch.strFullFilenameFinal + ".raw"), std::string(v.begin(), v.end()));
    EXPECT_EQ(Audio(FileNow()), std::string(v.begin(), v.end()));
    ch.CloseAudioFile();
    EXPECT_EQ(ch.hRawFile, nullptr);
}

// ---- error paths -----------------------------------------------------------------------------

TEST_F(ChanAudioTest, AFileThatCantBeOpenedStillGivesTheRowsAndTheNextCallRecords)
{
    // A directory can't be made below a plain file.
    std::string strBlocker = tmp.Write("/blocker", "x");
    rec.strRecordingRoot = strBlocker + "/rec";
    SetInCall(true);
    EXPECT_TRUE(ch.fRecording);
    EXPECT_EQ(ch.hAudioFile, nullptr);
    ASSERT_EQ(db.vActiveRows.size(), 1u);
    CardWrites(Pattern(100)); // nowhere to go, no crash
    Advance(5);
    SetInCall(false);
    ASSERT_EQ(db.vCalls.size(), 1u) << "the call still gets its row";
    EXPECT_EQ(db.vCalls[0]["duration"], "5");

    rec.strRecordingRoot = tmp.strRoot + "/recordings";
    StartRecordingCall();
    CardWrites(Pattern(100));
    EXPECT_EQ(Audio(FileNow()).size(), 100u);
}

} // namespace
