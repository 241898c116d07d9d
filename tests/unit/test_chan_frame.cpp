// The call frame of a channel: ring sequences and the direction guess,
// remote-number expiry, digits that become the remote number, DTMF
// actions, local number changes, and long recordings cut into parts.
#include "log_capture.h"
#include "test_chan_fixture.h"

namespace {

class CountingChannel : public BaseChannel {
public:
    void WhenNewRing() override { ++iNewRings; }
    int iNewRings = 0;
};

class ChanFrameTest : public ChanTest {
protected:
    void Ring(int iSeconds)
    {
        ch.RingingStarted();
        Advance(iSeconds);
        ch.RingingStopped();
    }
    void Digits(const std::string& s)
    {
        for (char c : s)
            ch.DetectedDigit(c);
    }
};

TEST_F(ChanFrameTest, RingSequencesAndTheDirectionOfACall)
{
    CountingChannel cc;
    cc.Init(7, 0, 1, &rec, 1);
    time_t t0 = GetSrTime();
    cc.RingingStarted();
    Advance(2);
    cc.RingingStopped();
    Advance(10); // 10 s after the last ring event: the same sequence
    cc.RingingStarted();
    EXPECT_EQ(cc.rFirstRing, t0);
    Advance(1);
    cc.RingingStopped();
    Advance(11); // 11 s: a new sequence
    cc.RingingStarted();
    EXPECT_EQ(cc.rFirstRing, t0 + 24);
    EXPECT_EQ(cc.iNewRings, 2);

    // Picked up while ringing: incoming, with the time it rang.
    Advance(3);
    cc.fInCall_ChState = true;
    cc.InCallMaybeChanged();
    EXPECT_TRUE(cc.fIncoming);
    EXPECT_EQ(cc.iWaitTime, 3);
    LogCapture log;
    cc.InCallMaybeChanged(); // unchanged: nothing happens
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ChanFrameTest, AnsweredSoonAfterTheRingIsIncomingUnlessDigitsWereDialled)
{
    Ring(2);
    Advance(5);
    SetInCall(true);
    EXPECT_TRUE(ch.fIncoming);
    EXPECT_EQ(ch.iWaitTime, 7);
    SetInCall(false);
    EXPECT_EQ(ch.iWaitTime, -1) << "cleared with the call";
    EXPECT_TRUE(ch.fIncoming) << "the direction stays until the next call";

    Advance(30);
    Ring(2);
    Advance(6); // exactly 6 s: outgoing
    SetInCall(true);
    EXPECT_FALSE(ch.fIncoming);
    EXPECT_EQ(ch.iWaitTime, -1);
    SetInCall(false);

    Advance(30);
    Digits("1");
    Ring(2);
    Advance(1); // digits 3 s ago
    SetInCall(true);
    EXPECT_FALSE(ch.fIncoming);
    SetInCall(false);

    Advance(30);
    ch.fKnowIncoming = true; // signalling told: no guess even while it rings
    ch.fIncoming = false;
    ch.RingingStarted();
    SetInCall(true);
    EXPECT_FALSE(ch.fIncoming);
}

TEST_F(ChanFrameTest, RemoteNumberExpiresAfterElevenSecondsOutsideARing)
{
    ch.strRemoteNum = "0401";
    ch.RemoteNumberChanged();
    Advance(10);
    ch.CheckRemoteExpired();
    EXPECT_EQ(ch.strRemoteNum, "0401");
    Advance(1);
    ch.CheckRemoteExpired();
    EXPECT_EQ(ch.strRemoteNum, "");

    // Never while the line rings, nor during a call.
    ch.strRemoteNum = "0402";
    ch.RemoteNumberChanged();
    ch.RingingStarted();
    Advance(30);
    ch.CheckRemoteExpired();
    EXPECT_EQ(ch.strRemoteNum, "0402");
    SetInCall(true);
    ch.RingingStopped();
    Advance(30);
    ch.CheckRemoteExpired();
    EXPECT_EQ(ch.strRemoteNum, "0402");

    // A number from an earlier ring isn't taken into the next call.
    SetInCall(false);
    ch.strRemoteNum = "0403";
    ch.RemoteNumberChanged();
    Advance(11);
    SetInCall(true);
    EXPECT_EQ(ch.strRemoteNum, "");
}

TEST_F(ChanFrameTest, DialledDigitsBecomeTheRemoteNumberAfterSixSeconds)
{
    ch.fUsePressedDigitsForRemote = true;
    SetInCall(true);
    Digits("5");
    Advance(6);
    ch.Periodic();
    EXPECT_EQ(ch.strRemoteNum, "") << "a single digit doesn't";
    EXPECT_EQ(ch.strDigits, "");

    Digits("05");
    Advance(5);
    ch.Periodic();
    EXPECT_EQ(ch.strRemoteNum, "");
    Advance(1);
    ch.Periodic();
    EXPECT_EQ(ch.strRemoteNum, "05");
    EXPECT_TRUE(db.Called("UpdateActiveCallRemoteContact 100 05"));

    // A number from the line wins; a short or non-numeric text doesn't.
    ch.strRemoteNum = "123";
    Digits("77");
    ch.CheckDigitsExpired(true);
    EXPECT_EQ(ch.strRemoteNum, "123");
    ch.strRemoteNum = "Private";
    Digits("77");
    ch.CheckDigitsExpired(true);
    EXPECT_EQ(ch.strRemoteNum, "77");

    // At most 100 digits in a run; the time still moves on.
    Digits(std::string(100, '1'));
    Advance(3);
    ch.DetectedDigit('2');
    EXPECT_EQ(ch.strDigits, std::string(100, '1'));
    EXPECT_EQ(ch.rDigitTime, GetSrTime());
    // Pending digits are taken as the number when the call ends.
    SetInCall(false);
    EXPECT_EQ(ch.strPrevCallRemoteNum, std::string(100, '1'));
}

TEST_F(ChanFrameTest, EachDtmfActionOnce)
{
    rec.dtmfActs = {{"*1", "email"}};
    Digits("*1");
    EXPECT_FALSE(ch.fToEmail) << "no active call";

    rec.fSilenceOnDemand = true;
    rec.iDelOnDmdType = 1;
    rec.params["RecOnDmd"] = 1;
    ch.Init(7, 0, 1, &rec, 1);
    Advance(6);      // the first run of digits expires
    SetInCall(true); // waits for the demand
    int iRow = ch.iActiveCallID;
    Digits("*1");
    EXPECT_TRUE(ch.fToEmail);
    ch.DtmfAction("email2");
    EXPECT_EQ(rec.vEmailBack, std::vector<int>({42}));
    ch.DtmfAction("keep");
    EXPECT_EQ(db.extras[iRow]["to-keep"], "1");
    ch.DtmfAction("start");
    EXPECT_TRUE(ch.fRecording);
    iRow = ch.iActiveCallID;
    ch.DtmfAction("silence");
    EXPECT_TRUE(ch.fSilencing);
    EXPECT_EQ(db.extras[iRow]["silencing"], "1");
    ch.DtmfAction("sound");
    EXPECT_FALSE(ch.fSilencing);
    Advance(5);
    ch.DtmfAction("stop");
    EXPECT_FALSE(ch.fRecording);
    EXPECT_EQ(db.vCalls.size(), 1u);
    ch.DtmfAction("start");
    EXPECT_TRUE(ch.fRecording);
    ch.DtmfAction("delete");
    EXPECT_FALSE(ch.fRecording);
    EXPECT_TRUE(ch.fDontRecord);
    ch.DtmfAction("dance"); // unknown: ignored
    SetInCall(false);
    EXPECT_EQ(db.vCalls.size(), 1u);
}

TEST_F(ChanFrameTest, LocalNumberChangesWithinACall)
{
    ch.strLocalNum = "20";
    SetInCall(true);
    int iRow = ch.iActiveCallID;
    EXPECT_TRUE(ch.LocalNumberChanged("21", "0401", false));
    EXPECT_TRUE(db.Called("UpdateActiveCallLocalContact " + std::to_string(iRow) + " 21"));
    EXPECT_EQ(ch.strNonMonitoredNum, "20");
    EXPECT_EQ(ch.iActiveCallID, iRow) << "the recording goes on under the new number";

    // With stopstart the call is split at the transfer.
    Advance(5);
    EXPECT_TRUE(ch.LocalNumberChanged("", "0401", true));
    EXPECT_EQ(db.vCalls.size(), 1u);
    EXPECT_EQ(ch.strLocalNum, "20") << "back to the first local number";
    EXPECT_TRUE(ch.fRecording);
    EXPECT_NE(ch.iActiveCallID, iRow);

    // Without a remembered number the local number stays empty.
    BaseChannel other;
    other.Init(8, 0, 2, &rec, 2);
    other.LocalNumberChanged("", "", true);
    other.strLocalNum = "30";
    other.LocalNumberChanged("", "", true);
    EXPECT_EQ(other.strLocalNum, "");
}

TEST_F(ChanFrameTest, LongRecordingsAreCutIntoParts)
{
    rec.params = {{"LongRecordings", 1}, {"LongRecordingsLen", 1}};
    ch.Init(7, 0, 1, &rec, 1);
    SetInCall(true);
    std::string strFirst = ch.strDbRemoteId;
    Ticks(59);
    EXPECT_TRUE(db.vCalls.empty());
    Ticks(1);
    ASSERT_EQ(db.vCalls.size(), 1u);
    EXPECT_EQ(db.vCalls[0]["remoteid"], strFirst);
    EXPECT_EQ(db.vCalls[0]["duration"], "60");
    EXPECT_TRUE(ch.fRecording);
    EXPECT_NE(ch.strDbRemoteId, strFirst);

    // A length of 0 cuts at the first tick.
    SetInCall(false);
    rec.params["LongRecordingsLen"] = 0;
    ch.Init(7, 0, 1, &rec, 1);
    SetInCall(true);
    Ticks(1);
    EXPECT_EQ(db.vCalls.size(), 3u);
}

TEST_F(ChanFrameTest, MaskingAndTheSameNumberTwice)
{
    rec.iMaskLastRemoteDigits = 4; // a long number's masking: see the stop tests
    ch.strRemoteNum = "123";
    EXPECT_EQ(ch.GetDbRemoteNum(), "XXX");
    rec.iMaskLastRemoteDigits = 0;
    EXPECT_EQ(ch.GetDbRemoteNum(), "123");

    SetInCall(true);
    ch.strRemoteNum = "0401";
    ch.RemoteNumberChanged();
    ch.RemoteNumberChanged();
    int iUpdates = 0;
    for (const std::string& s : db.calls)
        iUpdates += s.rfind("UpdateActiveCallRemoteContact", 0) == 0;
    EXPECT_EQ(iUpdates, 1);
}

} // namespace
