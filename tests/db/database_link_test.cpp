// The connection frame of Database against a server that is missing,
// restarted or unreachable: neutral results, the log lines, reconnects and
// the start-up wait (on a fake clock, so 59 seconds pass instantly).
#include <gtest/gtest.h>

#include <unistd.h>

#include "database.h"
#include "fake_clock.h"
#include "log_capture.h"
#include "pg_test_util.h"

namespace {

class DatabaseLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(PgResetTables())
            << "is the private cluster running? scripts/pg-private start <build>/pgtest";
        ASSERT_TRUE(PgExec("INSERT INTO Configs (param, value, part) VALUES ('p', '17', 'crec')"));
        Database::Init();
    }
    void TearDown() override { Database::Deinit(); }

    static int CountLines(const LogCapture& rLog, const std::string& strText, int iPri)
    {
        int n = 0;
        for (const LoggedLine& l : rLog.Lines())
            n += l.iPri == iPri && l.strText.find(strText) != std::string::npos;
        return n;
    }
};

// Runs every operation once on a database that can't be reached and checks
// its neutral result; returns how many operations ran.
int ExpectNeutralResults(Database& db)
{
    StringMap rCall;
    rCall.AddUtf8("duration", "1");
    Contact rContact;
    rContact.iCallerID = 1;
    rContact.iContactID = 1;

    EXPECT_EQ(db.AddCall(rCall), -1);
    EXPECT_EQ(db.AddActiveCall(rCall), -1);
    EXPECT_EQ(db.AddCallGeneric("Calls", rCall), -1);
    EXPECT_EQ(db.GetCallBack(1, 1), -1);
    EXPECT_FALSE(db.UpdateActiveCall(1, rCall));
    EXPECT_EQ(db.GetConfigInt("p"), 0);
    EXPECT_EQ(db.GetUserIntOnAccID(1, "enabled"), 0);
    EXPECT_EQ(db.GetConfig("p"), "");
    EXPECT_EQ(db.GetContactName(1), "");
    EXPECT_EQ(db.GetUserStringOnAccID(1, "email"), "");
    EXPECT_EQ(db.GetOrCreateLineContact(1, 1, "x").iContactID, -1);
    Contact rCaller = db.GetOrCreateCallerIDContact("123", "", true, "x");
    EXPECT_EQ(rCaller.iCallerID, -1);
    EXPECT_EQ(rCaller.iContactID, -1);
    EXPECT_EQ(db.GetCallerIDContact("123").iCallerID, -1);
    EXPECT_FALSE(db.GetCustomLocal(1).fFound);
    EXPECT_FALSE(db.GetIdMapEntry("1").fFound);
    EXPECT_TRUE(db.GetActiveCallExtra(1).empty());
    EXPECT_TRUE(db.GetActiveCallCarryOver(1).empty());
    StdStringMap rConfigs = {{"keep", "me"}};
    db.GetConfigsPart(rConfigs, "crec");
    EXPECT_EQ(rConfigs, (StdStringMap{{"keep", "me"}}));
    std::vector<int> aiAccIDs = {3};
    db.GetUsersOfPhone(1, aiAccIDs);
    EXPECT_EQ(aiAccIDs, std::vector<int>{3});
    db.InitRecorder("SN", "name");
    EXPECT_EQ(db.GetRecorderID(), 0);
    // void operations: nothing to see but that nothing reaches the tables
    db.SetConfigsPart(rConfigs, "crec");
    db.DeleteActiveCall(1);
    db.UpdateActiveCallRemoteContact(1, rContact, "1");
    db.UpdateActiveCallLocalContact(1, rContact, "1");
    db.UpdateActiveCallConnectedNum(1, rContact, "1");
    db.UpdateActiveCallCategory(1, 1);
    db.SetActiveCallExtra(1, "k", "v");
    db.DeleteIfUnused(rContact);
    return 28; // every operation but GetRecorderID, SetDbUser and WaitForConnection
}

} // namespace

TEST_F(DatabaseLinkTest, ServerDownGivesNeutralResultsThenHealsWhenItIsBack)
{
    LogCapture rLog;
    Database db;
    {
        ScopedPgDown rDown;
        int iOperations = ExpectNeutralResults(db);
        // Each operation tried to connect once and said so at level 3.
        EXPECT_EQ(CountLines(rLog, "DB connect error", 3), iOperations);
        EXPECT_EQ(CountLines(rLog, "DB connect error", 4), 0);
    }
    EXPECT_EQ(PgQuery("SELECT count(*) FROM Configs"), "1"); // keep/me wasn't written

    // The dead handle of the last attempt is noticed, closed and replaced.
    rLog.Clear();
    EXPECT_EQ(db.GetConfigInt("p"), 17);
    EXPECT_TRUE(rLog.Contains("Lost DB connection, need reconnect...", 7));
}

TEST_F(DatabaseLinkTest, ServerRestartBetweenTwoOperationsReconnectsOnTheNext)
{
    Database db;
    StdStringMap rFirst = {{"before", "1"}};
    db.SetConfigsPart(rFirst, "crec");
    ASSERT_TRUE(PgRestartServer());

    LogCapture rLog;
    StdStringMap rSecond = {{"after", "2"}};
    db.SetConfigsPart(rSecond, "crec");
    EXPECT_TRUE(rLog.Contains("Lost DB connection, need reconnect...", 7));
    EXPECT_FALSE(rLog.Contains("DB error"));
    EXPECT_EQ(PgQuery("SELECT string_agg(param, ',' ORDER BY param) FROM Configs"), "after,before,p");

    rLog.Clear();
    EXPECT_EQ(db.GetConfig("after"), "2"); // the new link is kept: no second reconnect
    EXPECT_FALSE(rLog.Contains("Lost DB connection"));
}

TEST_F(DatabaseLinkTest, WaitForConnectionReturnsAtOnceOrGivesUpAfterSixtyAttemptsWithoutRealWaiting)
{
    FakeClock rClock;
    ScopedFakeClock rUseClock(rClock);
    LogCapture rLog;
    const std::string strCount =
        "SELECT count(*) FROM pg_stat_activity WHERE usename='root' AND pid <> pg_backend_pid()";
    ASSERT_EQ(PgQuery(strCount), "0");

    // With a server: at once, and no connection left open (the server
    // notices a closed connection a moment later).
    Database db;
    EXPECT_EQ(db.WaitForConnection(), 0);
    EXPECT_TRUE(rLog.Contains("We can connect to database", 5));
    EXPECT_EQ(rClock.iSleptUs.load(), 0);
    std::string strOpen = PgQuery(strCount);
    for (int i = 0; i < 40 && strOpen != "0"; i++) {
        usleep(50000);
        strOpen = PgQuery(strCount);
    }
    EXPECT_EQ(strOpen, "0");

    rLog.Clear();
    ScopedPgDown rDown;
    EXPECT_EQ(db.WaitForConnection(), 1);
    EXPECT_EQ(CountLines(rLog, "DB connect error", 4), 60);
    EXPECT_EQ(CountLines(rLog, "DB connect error", 3), 0);
    EXPECT_EQ(CountLines(rLog, "Waiting to connect to database", 5), 59);
    EXPECT_EQ(CountLines(rLog, "Failed to connect to database", 5), 1);
    EXPECT_EQ(rClock.iSleptUs.load(), 59LL * 1000000);
}

TEST_F(DatabaseLinkTest, MissingPgsqlDriverCountsAsAFailedConnect)
{
    Database::Deinit();
    char acDir[] = "/tmp/qdrvXXXXXX";
    ASSERT_NE(mkdtemp(acDir), nullptr);
    Database::Init(acDir); // a driver directory without drivers
    {
        LogCapture rLog;
        Database db;
        EXPECT_EQ(db.AddCall(StringMap()), -1);
        EXPECT_EQ(db.GetConfig("p"), "");
        EXPECT_EQ(db.GetConfig("p"), ""); // a null handle is retried, not pinged
        EXPECT_EQ(CountLines(rLog, "DB connect error", 3), 3);

        FakeClock rClock;
        ScopedFakeClock rUseClock(rClock);
        EXPECT_EQ(db.WaitForConnection(), 1);
    }
    Database::Deinit();
    rmdir(acDir);
}

TEST_F(DatabaseLinkTest, ConnectionOutlivingDeinitIsNotClosedTwice)
{
    auto* prDb = new Database;
    EXPECT_EQ(prDb->GetConfig("p"), "17");
    Database::Deinit(); // frees every handle of the instance
    delete prDb;        // must not close its handle again
    Database::Init();
    Database db;
    EXPECT_EQ(db.GetConfig("p"), "17");
}
