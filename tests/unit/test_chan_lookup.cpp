// The recorder's lookups that take a command to a channel: by call id, by
// remote number (with the "00" rule and the swapped second search), and
// the store-on-demand decision from the users' settings.
#include <gtest/gtest.h>

#include "BaseChannel.h"
#include "fake_database.h"
#include "plain_channels.h"
#include "recorder.h"

namespace {

class ChanLookupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        rec.prDatabase = &db;
        AddPlainChannels(rec, 3);
        Ch(0)->strDbRemoteId = "20240131_084501_001_01";
        Ch(1)->strDbRemoteId = "20240131_084502_002_01";
        Ch(2)->strDbRemoteId = "20240131_084502_002_01"; // a duplicate: the lower position wins
    }
    BaseChannel* Ch(int i) { return rec.vChannels[static_cast<size_t>(i)]; }

    FakeDatabase db;
    CRecorder rec; // owns the channels
};

TEST_F(ChanLookupTest, CallIdCommandsGiveDoneNotFoundOrRefused)
{
    EXPECT_EQ(rec.SilencingAct("nope", false), 1);
    EXPECT_EQ(rec.SilencingAct("20240131_084501_001_01", false), 2) << "silence on demand is off";
    rec.fSilenceOnDemand = true;
    EXPECT_EQ(rec.SilencingAct("20240131_084502_002_01", false), 0);
    EXPECT_TRUE(Ch(1)->fSilencing);
    EXPECT_FALSE(Ch(2)->fSilencing);
    EXPECT_EQ(rec.SilencingAct("20240131_084502_002_01", true), 0);
    EXPECT_FALSE(Ch(1)->fSilencing);

    EXPECT_EQ(rec.RecOnDmdAct("20240131_084501_001_01", true), 2);
    EXPECT_EQ(rec.RecOnDmdAct("", true), 1);
    EXPECT_EQ(rec.DelOnDmdAct("20240131_084501_001_01"), 2);
    rec.iDelOnDmdType = 1;
    EXPECT_EQ(rec.DelOnDmdAct("20240131_084501_001_01"), 0);
    EXPECT_TRUE(Ch(0)->fDontRecord);

    // An idle channel has an empty id: an empty call id finds the first one.
    Ch(0)->strDbRemoteId.clear();
    EXPECT_EQ(rec.DelOnDmdAct(""), 0);
}

TEST_F(ChanLookupTest, LocalNumberByRemoteNumberWithZerosAndTheSwappedSearch)
{
    Ch(1)->strRemoteNum = "301234";
    Ch(2)->strRemoteNum = "55";
    EXPECT_EQ(rec.ChLocal("20", "00301234", false), 0);
    EXPECT_EQ(Ch(1)->strLocalNum, "20");
    EXPECT_EQ(rec.ChLocal("21", "301234", false), 0);
    EXPECT_EQ(Ch(1)->strLocalNum, "21");
    EXPECT_EQ(rec.ChLocal("22", "0301234", false), 1);

    // An empty remote number finds the first channel without one...
    EXPECT_EQ(rec.ChLocal("23", "", false), 0);
    EXPECT_EQ(Ch(0)->strLocalNum, "23");
    // ...but never in the second search, which swaps the numbers.
    Ch(0)->strRemoteNum = "9";
    EXPECT_EQ(rec.ChLocal("55", "0401", false), 1);
    rec.fCrecTestSwapLocRem = true;
    EXPECT_EQ(rec.ChLocal("55", "0401", false), 0);
    EXPECT_EQ(Ch(2)->strLocalNum, "0401");
    EXPECT_EQ(rec.ChLocal("", "0401", false), 1);

    CRecorder rEmpty;
    EXPECT_EQ(rEmpty.ChLocal("1", "2", false), 1);
}

TEST_F(ChanLookupTest, StoreOnDemandLastDefiniteUserSettingWins)
{
    Contact rLocal, rRemote;
    rLocal.iContactID = 10;
    rRemote.iContactID = 20;
    EXPECT_FALSE(rec.StoreOnDemand(rLocal, rRemote)) << "no accounts: the system value";
    db.Set("o", "RecOnDemand", "1");
    EXPECT_TRUE(rec.StoreOnDemand(rLocal, rRemote));

    db.usersOfPhone[10] = {1, 2};
    db.usersOfPhone[20] = {3};
    db.userInts["1 rod"] = 2; // always keep
    db.userInts["2 rod"] = 7; // no definite setting
    EXPECT_FALSE(rec.StoreOnDemand(rLocal, rRemote));
    db.userInts["3 rod"] = 1; // the remote party's user asks for on demand
    EXPECT_TRUE(rec.StoreOnDemand(rLocal, rRemote));
}

} // namespace
