// The end of a recording: the keep rules in their order, and the columns
// of the call's rows (active and final) as FillCallInfo computes them.
#include "log_capture.h"
#include "test_chan_fixture.h"

namespace {

class ChanStopTest : public ChanTest {
protected:
    // One whole call of iSeconds; true when it ended with a Calls row.
    bool CallKept(int iSeconds, bool fIncoming = false)
    {
        size_t nCalls = db.vCalls.size();
        if (fIncoming) {
            ch.RingingStarted();
            Advance(2);
        }
        SetInCall(true);
        EXPECT_TRUE(ch.fRecording);
        strLastFile = ch.strFullFilename;
        ch.RingingStopped();
        Advance(iSeconds);
        SetInCall(false);
        Advance(30); // the next call stands apart
        bool fKept = db.vCalls.size() > nCalls;
        EXPECT_EQ(fKept, file_exists(strLastFile)) << "a dropped recording is deleted";
        return fKept;
    }
    void Config(const std::string& strKey, int iValue) { db.Set("crec", strKey, std::to_string(iValue)); }

    std::string strLastFile;
};

TEST_F(ChanStopTest, MinimumDurationEdgeKeepsTheFactsOfAShortCall)
{
    Config("RecMinDur", 10);
    ch.strRemoteNum = "0401";
    SetInCall(true);
    std::string strFile = ch.strFullFilename;
    Advance(9);
    SetInCall(false);
    EXPECT_FALSE(file_exists(strFile));
    EXPECT_TRUE(db.vCalls.empty());
    EXPECT_EQ(ch.strRemoteNum, "0401") << "the facts survive a too short recording";
    EXPECT_EQ(ch.iActiveCallID, -1);
    EXPECT_TRUE(CallKept(10));
}

TEST_F(ChanStopTest, KeepRulesInTheirOrder)
{
    // Store on demand without the user's "keep": dropped.
    rec.fStoreOnDemand = true;
    EXPECT_FALSE(CallKept(20));
    // With "keep" it goes on to the other rules, which can still drop it.
    Config("NotRecEmptyNum", 1);
    SetInCall(true);
    ch.DtmfAction("keep");
    Advance(20);
    LogCapture log;
    SetInCall(false);
    EXPECT_TRUE(log.Contains("[7] Empty remote number: not keeping")) << "past the store-on-demand rule";
    EXPECT_TRUE(db.vCalls.empty());
    Config("NotRecEmptyNum", 0);
    // With the delay the row stays in ActiveCalls with the final values.
    rec.fStoreOnDemandDelay = 1;
    SetInCall(true);
    int iRow = ch.iActiveCallID;
    Advance(20);
    SetInCall(false);
    EXPECT_TRUE(db.Called("UpdateActiveCall " + std::to_string(iRow)));
    EXPECT_TRUE(db.vCalls.empty());
    rec.fStoreOnDemand = false;

    // Direction: only the value 1 switches it off.
    Config("RecNotInc", 2);
    EXPECT_TRUE(CallKept(20, true));
    Config("RecNotInc", 1);
    EXPECT_FALSE(CallKept(20, true));
    EXPECT_TRUE(CallKept(20, false));
    Config("RecNotOutg", 1);
    EXPECT_FALSE(CallKept(20, false));

    // Internal call (the remote party is a local contact): RecLocal alone decides.
    Contact rColleague;
    rColleague.iContactID = 9;
    rColleague.iCallerID = 19;
    rColleague.fLocal = true;
    db.contacts["0401"] = rColleague;
    ch.strRemoteNum = "0401";
    EXPECT_FALSE(CallKept(20, true)) << "an internal call";
    Config("RecLocal", 1);
    ch.strRemoteNum = "0401";
    EXPECT_TRUE(CallKept(20, true)) << "kept although RecNotInc is 1";
    EXPECT_EQ(db.vCalls.back()["direction"], "2");
    // With fCardNotInternal no call is internal.
    Config("RecLocal", 0);
    rec.fCardNotInternal = true;
    Config("RecNotInc", 0);
    ch.strRemoteNum = "0401";
    EXPECT_TRUE(CallKept(20, true));
    EXPECT_EQ(db.vCalls.back()["direction"], "0");
}

TEST_F(ChanStopTest, FinalRowColumnsInTheNormalLayout)
{
    rec.iMaskLastRemoteDigits = 4;
    rec.fALE = true;
    ch.fUseLocalNum = true;
    ch.strLocalNum = "22";
    db.idMap["22"] = IdMapEntry{true, "Sales desk", "notes2"};
    ch.fHasConnectedNum = true;
    ch.RingingStarted();
    Advance(4);
    SetInCall(true);
    ch.strRemoteNum = "0201234567";
    ch.strConnectedNum = "3\xe9";
    ch.RemoteNumberChanged();
    std::string strId = ch.strDbRemoteId;
    Advance(15);
    SetInCall(false);
    ASSERT_EQ(db.vCalls.size(), 1u);
    StdStringMap m = db.vCalls[0];
    EXPECT_EQ(m["startdate"], std::to_string(LocalTime(2024, 1, 31, 8, 45, 5)));
    EXPECT_EQ(m["duration"], "15");
    // (The columns every call has are the end-to-end tests' part.)
    EXPECT_EQ(m["waittime"], "4");
    EXPECT_EQ(m["flags"], "16");
    EXPECT_EQ(m["remoteid"], strId);
    EXPECT_EQ(m["direction"], "0");
    // The masked number is all the database ever sees.
    EXPECT_EQ(m["remote"], "020123XXXX");
    EXPECT_EQ(m["remotefull"], "020123XXXX");
    Contact rRemote = db.contacts["020123XXXX"];
    EXPECT_EQ(m["remotecontact"], std::to_string(rRemote.iContactID));
    EXPECT_EQ(m["remotecallerid"], std::to_string(rRemote.iCallerID));
    EXPECT_EQ(m["local"], "22");
    EXPECT_EQ(m["localcontact"], std::to_string(db.contacts["22"].iContactID));
    EXPECT_EQ(m["connected"], "3\xc3\xa9");
    EXPECT_EQ(m["connectedcontact"], std::to_string(db.contacts["3\xc3\xa9"].iContactID));
    EXPECT_EQ(m["notes2"], "Sales desk");
    EXPECT_EQ(m.count("notes"), 0u);
    EXPECT_TRUE(db.Called("UpdateActiveCallRemoteContact 100 020123XXXX"));
    EXPECT_TRUE(db.Called("UpdateActiveCallConnectedNum 100 3\xc3\xa9"));
}

TEST_F(ChanStopTest, SwappedLayoutAndTheActiveRowBeforeTheNumberIsKnown)
{
    SetInCall(true);
    ASSERT_EQ(db.vActiveRows.size(), 1u);
    StdStringMap a = db.vActiveRows[0];
    EXPECT_EQ(a["remote"], "");
    EXPECT_EQ(a.count("remotecontact"), 0u) << "the active row only looks the remote party up";
    EXPECT_EQ(a["local"], "");
    EXPECT_EQ(a["localcallerid"], "0");
    EXPECT_EQ(a["localcontact"], "42") << "the line's contact without a local number";
    EXPECT_EQ(a["duration"], "0");
    EXPECT_EQ(a["direction"], "1");
    SetInCall(false);

    rec.fCrecTestSwapLocRem = true;
    ch.strRemoteNum = "0401";
    SetInCall(true);
    Advance(5);
    SetInCall(false);
    ASSERT_EQ(db.vCalls.size(), 2u);
    StdStringMap m = db.vCalls[1];
    EXPECT_EQ(m["local"], "0401");
    EXPECT_EQ(m["localfull"], "0401");
    EXPECT_EQ(m["localcontact"], std::to_string(db.contacts["0401"].iContactID));
    EXPECT_EQ(m["remote"], "");
    EXPECT_EQ(m["remotecallerid"], "0");
    EXPECT_EQ(m["remotecontact"], "42");
    EXPECT_EQ(m["direction"], "0") << "outgoing turned about";
}

TEST_F(ChanStopTest, CallerIdsOfAnyLengthWithHighBytesReachTheDatabaseAsUtf8)
{
    for (size_t n : {0u, 1u, 13u, 300u}) {
        std::string strRaw;
        std::string strUtf8;
        for (size_t i = 0; i < n; ++i) {
            unsigned char c = static_cast<unsigned char>(i % 2 ? 0xE4 : '0' + i % 10);
            strRaw += static_cast<char>(c);
            strUtf8 += c < 128 ? std::string(1, static_cast<char>(c)) : std::string("\xc3\xa4");
        }
        ch.strRemoteNum = strRaw;
        SetInCall(true);
        Advance(3);
        SetInCall(false);
        Advance(30);
        ASSERT_FALSE(db.vCalls.empty());
        EXPECT_EQ(db.vCalls.back()["remote"], strUtf8) << n;
        EXPECT_EQ(db.vActiveRows.back()["remote"], strUtf8) << n;
        EXPECT_EQ(db.contacts.count(strUtf8), 1u) << "the contact is made with the UTF-8 text";
    }
}

} // namespace
