// AudioConvAct::performMain, the end of a kept call, against a database
// fake that records the order of its operations: the merge of what the
// front end wrote into the active row, the normal move to Calls with the
// mail, and the store-on-demand delay that leaves the row marked.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "bgact.h"
#include "datafile.h"
#include "fake_database.h"
#include "fake_recorder.h"

namespace {

class CompletionDb : public FakeDatabase {
public:
    StdStringMap GetActiveCallCarryOver(int iID) override
    {
        vOps.push_back("GetActiveCallCarryOver " + std::to_string(iID));
        return rCarryOver;
    }
    void DeleteActiveCall(int iID) override { vOps.push_back("DeleteActiveCall " + std::to_string(iID)); }
    int AddCall(const StringMap& rInfo) override
    {
        vOps.push_back("AddCall");
        rAdded = rInfo.data;
        return iCallID;
    }
    bool UpdateActiveCall(int iID, const StringMap& rInfo) override
    {
        vOps.push_back("UpdateActiveCall " + std::to_string(iID));
        rUpdated = rInfo.data;
        return true;
    }

    StdStringMap rCarryOver;
    std::vector<std::string> vOps;
    StdStringMap rAdded;
    StdStringMap rUpdated;
    int iCallID = 501;
};

class MailRecorder : public FakeRecorder {
public:
    void EmailRecording(int iID, int iContactID) override { vMailed.emplace_back(iID, iContactID); }
    std::vector<std::pair<int, int>> vMailed;
};

class AudioConvMainTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        act.prDB = &db;
        act.prRecorder = &rec;
        act.iActiveCallID = 17;
        act.iEmailContactID = 9;
    }
    // What the front end left in the active row during the call.
    void RowWrittenByFrontEnd()
    {
        db.rCarryOver = {
            {"notes", "row note"},    {"notes2", ""},
            {"notes3", "third"},      {"notes4", ""},
            {"notes5", ""},           {"category", "1"},
            {"processingstate", "4"}, {"callextra", ArrayToString({{"tag", "x"}, {"chk", "stale"}})}};
    }

    CompletionDb db;
    MailRecorder rec;
    AudioConvAct act;
};

TEST_F(AudioConvMainTest, CarryOverMergesIntoTheCallThatMovesToCalls)
{
    RowWrittenByFrontEnd();
    act.rCallInfo.AddUtf8("notes", "call note");
    act.rCallInfo.AddUtf8("processingstate", "1");
    act.rCallInfo.AddUtf8("callextra", ArrayToString({{"chk", "abc"}, {"chktype", "md5"}}));
    act.rCallInfo.AddUtf8("linenr", "3");
    act.fToEmail = true;
    act.performMain();

    EXPECT_EQ(db.vOps,
              (std::vector<std::string>{"GetActiveCallCarryOver 17", "DeleteActiveCall 17", "AddCall"}));
    EXPECT_EQ(db.rAdded["notes"], "call note");
    EXPECT_EQ(db.rAdded["notes3"], "third");
    EXPECT_EQ(db.rAdded["category"], "1");
    EXPECT_EQ(db.rAdded["processingstate"], "5");
    EXPECT_EQ(db.rAdded["linenr"], "3");
    EXPECT_EQ(StringToArray(db.rAdded["callextra"]),
              (StdStringMap{{"chk", "abc"}, {"chktype", "md5"}, {"tag", "x"}}));
    EXPECT_EQ(rec.vMailed, (std::vector<std::pair<int, int>>{{501, 9}}));
}

TEST_F(AudioConvMainTest, RowGoneOrDatabaseDownFinishesWithTheCallsOwnValues)
{
    db.iCallID = -1; // AddCall failed
    act.rCallInfo.AddUtf8("processingstate", "2");
    act.fToEmail = true;
    act.performMain();
    EXPECT_EQ(db.rAdded, (StdStringMap{{"processingstate", "2"}}));
    // Nothing is retried: the mail goes out with the failed id.
    EXPECT_EQ(rec.vMailed, (std::vector<std::pair<int, int>>{{-1, 9}}));

    rec.vMailed.clear();
    act.fToEmail = false;
    act.performMain();
    EXPECT_TRUE(rec.vMailed.empty());
}

TEST_F(AudioConvMainTest, StoreOnDemandDelayMarksTheRowAndKeepsItActive)
{
    RowWrittenByFrontEnd();
    db.rCarryOver["processingstate"] = "3"; // 3 | 1 = 3, not 4
    act.fStoreOnDemandDelay = true;
    act.fToEmail = true;
    act.rCallInfo.AddUtf8("processingstate", "1");
    act.rCallInfo.AddUtf8("callextra", ArrayToString({{"chk", "abc"}}));
    act.performMain();

    EXPECT_EQ(db.vOps, (std::vector<std::string>{"GetActiveCallCarryOver 17", "UpdateActiveCall 17"}));
    EXPECT_EQ(db.rUpdated["processingstate"], "131");
    EXPECT_EQ(db.rUpdated["notes3"], "third");
    EXPECT_EQ(StringToArray(db.rUpdated["callextra"]),
              (StdStringMap{{"chk", "abc"}, {"tag", "x"}, {"to-email", "L"}}));
    EXPECT_TRUE(rec.vMailed.empty());

    // No state anywhere: the mark alone; no mail wanted: no to-email.
    db.rCarryOver.clear();
    db.vOps.clear();
    act.rCallInfo = StringMap();
    act.fToEmail = false;
    act.performMain();
    EXPECT_EQ(db.rUpdated["processingstate"], "128");
    EXPECT_EQ(StringToArray(db.rUpdated["callextra"]).count("to-email"), 0u);
}

} // namespace
