// The post-call tracker with the system's php running the stand-in scripts
// as the daemon's tracker.php: nothing is started before the first post,
// the post lines, close and a later start, two CallPostActs at once on the
// workers taking turns without the queuing thread waiting, and the
// CallPostAct that the end of a kept call queues (or doesn't).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <unistd.h>

#include "bgact.h"
#include "fake_database.h"
#include "fake_recorder.h"
#include "log_capture.h"
#include "paths.h"
#include "support_temp_root.h"
#include "tracker_script.h"

namespace {

typedef std::chrono::steady_clock Clock;

class TrackerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(access(kPhp, X_OK), 0) << "the tests need php-cli";
        SetPhpPath(kPhp);
        strLog = SysPath("/var/quorda/cmd/tracker.log");
    }
    void TearDown() override
    {
        theTracker.close();
        SetPhpPath("");
    }
    // The stand-in strScript becomes the daemon's tracker.php.
    void InstallScript(const std::string& strScript)
    {
        for (const std::string& strName : {std::string("tracker_lib.php"), strScript})
            root.Write("/var/quorda/cmd/" + (strName == strScript ? "tracker.php" : strName),
                       TempRoot::Read(TrackerScript(strName)));
    }

    TempRoot root;
    std::string strLog;
    LogCapture log;
};

TEST_F(TrackerTest, FirstPostStartsTheScriptOnceAndCloseEndsIt)
{
    InstallScript("tracker.php");
    theTracker.close(); // nothing to close yet
    EXPECT_TRUE(log.Lines().empty());

    theTracker.postCall(7);
    theTracker.postCall(-1); // a call whose Calls row failed is posted as it is
    std::vector<TrackerEntry> v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0].strText, "type=crec&act=post&id=7");
    EXPECT_EQ(v[1].strText, "type=crec&act=post&id=-1");
    EXPECT_EQ(v[1].iPid, v[0].iPid);
    EXPECT_TRUE(log.Contains("LineCom reply: OK id=7\n", 5));

    theTracker.close();
    v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 3u);
    EXPECT_EQ(v[2].strText, "exit");
    EXPECT_TRUE(ProcessGone(v[0].iPid));

    // After a close the next post starts a new child.
    theTracker.postCall(8);
    v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_NE(v[3].iPid, v[0].iPid);
}

TEST_F(TrackerTest, MissingPhpFailsThePostWithAnError)
{
    LineComTimeScale rFast(2000); // the 120 s of retrying pass in 0.24 s
    SetPhpPath("/nonexistent/php");
    theTracker.postCall(3);
    EXPECT_TRUE(log.Contains("LineCom SendMsg post failed", 3));
}

TEST_F(TrackerTest, TwoPostsAtOnceTakeTurnsOnTheWorkersWithoutHoldingUpTheQueuer)
{
    InstallScript("tracker_slow.php"); // 300 ms per request
    init_bgact();
    auto t = Clock::now();
    queueAction(new CallPostAct(11));
    queueAction(new CallPostAct(12));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - t).count(), 0.1);

    // Both are the first post of a fresh tracker; the second one waits for
    // the first answer all the same, so the script never finds a request
    // waiting while it works on one.
    ASSERT_TRUE(WaitForTrackerEntries(strLog, 2, 10000));
    std::vector<std::string> v = TrackerTexts(strLog);
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v, (std::vector<std::string>{"type=crec&act=post&id=11", "type=crec&act=post&id=12"}));
    EXPECT_TRUE(log.Contains("Call Post id=11", 5));
    EXPECT_TRUE(log.Contains("Call Post id=12", 5));

    // close_bgact waits for the posts and then ends the tracker.
    close_bgact();
    EXPECT_EQ(TrackerTexts(strLog).back(), "exit");
    EXPECT_TRUE(log.Contains("Post done", 5));
}

TEST_F(TrackerTest, AKeptCallIsPostedOnlyWhenCallsNeedPostProcessing)
{
    InstallScript("tracker.php");
    FakeDatabase db;
    FakeRecorder rec;
    // Not wanted, wanted, and wanted with AddCall failing: the tracker
    // still hears of that call. Without workers the post runs right here.
    for (int i = 0; i < 3; ++i) {
        rec.fNeedCallPost = i > 0;
        db.fDown = i == 2;
        AudioConvAct act;
        act.prDB = &db;
        act.prRecorder = &rec;
        act.iActiveCallID = 4;
        act.performMain();
    }
    std::vector<std::string> v = TrackerTexts(strLog);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0], "type=crec&act=post&id=" + std::to_string(db.iNextCallID - 1));
    EXPECT_EQ(v[1], "type=crec&act=post&id=-1");
}

} // namespace
