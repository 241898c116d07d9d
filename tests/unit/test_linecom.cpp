// LineCom against real PHP children: start on first use, planned restart
// with the exit message, a crash, a hang, stderr, "ERROR" answers, reply
// sizes and pieces, a child that closed its stdin, a program that can't run,
// and the descriptors a child gets. A LineCom second is 50 ms here, so the
// time-outs keep their proportions without the wait; the pause between
// tries is 0.5 LineCom seconds times the try.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <unistd.h>

#include "LineCom.h"
#include "log_capture.h"
#include "tracker_script.h"

namespace {

typedef std::chrono::steady_clock Clock;
const long kUnitUs = 50000;

double SecondsSince(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::set<int> OpenDescriptors()
{
    std::set<int> s;
    DIR* d = opendir("/proc/self/fd");
    while (struct dirent* e = d ? readdir(d) : nullptr)
        if (e->d_name[0] != '.')
            s.insert(atoi(e->d_name));
    if (d)
        closedir(d);
    return s;
}

class LineComTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(access(kPhp, X_OK), 0) << "the tests need php-cli";
        char acDir[] = "/tmp/qlcXXXXXX";
        ASSERT_NE(mkdtemp(acDir), nullptr);
        strDir = acDir;
        strLog = strDir + "/tracker.log";
    }
    void TearDown() override { system(("rm -rf " + strDir).c_str()); }
    // php with these arguments; a script name is the stand-in of that name,
    // which gets the log (and an optional number), else inline code.
    void Start(LineCom& lc, const std::string& strScript, const char* pcNumber = nullptr)
    {
        bool fFile = strScript.size() > 4 && strScript.compare(strScript.size() - 4, 4, ".php") == 0;
        strScriptPath = fFile ? TrackerScript(strScript) : strScript;
        const char* apcFile[] = {kPhp, strScriptPath.c_str(), strLog.c_str(), pcNumber, nullptr};
        const char* apcCode[] = {kPhp, "-r", strScriptPath.c_str(), nullptr};
        lc.Init(kPhp, fFile ? apcFile : apcCode);
        lc.SetReadTimeout(40);
        lc.SetErrorRecheckInterval(1);
    }
    // The reply, or "<failed>".
    std::string Post(LineCom& lc, int id)
    {
        std::string strReply;
        bool fOk = lc.SendMsg("type=crec&act=post&id=" + std::to_string(id) + "\n", strReply);
        return fOk ? strReply : "<failed>";
    }

    std::string strDir;
    std::string strLog;
    std::string strScriptPath;
    LogCapture log;
    LineComTimeScale rScale{kUnitUs};
};

TEST_F(LineComTest, StartsOnFirstUseKeepsTheChildAndRestartsItWithExitWhenDue)
{
    LineCom lc;
    Start(lc, "tracker.php");
    lc.SupportsExitMsg();
    EXPECT_TRUE(lc.InvalidState());
    EXPECT_NE(access(strLog.c_str(), F_OK), 0); // nothing started yet

    EXPECT_EQ(Post(lc, 5), "OK id=5\n");
    EXPECT_FALSE(lc.InvalidState());
    EXPECT_EQ(Post(lc, 6), "OK id=6\n");

    // Due only at the next message, and then with "exit" to the old child.
    lc.SetRestartInterval(4);
    usleep(300000);
    EXPECT_EQ(Post(lc, 7), "OK id=7\n");
    std::vector<TrackerEntry> v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0].strText, "type=crec&act=post&id=5");
    EXPECT_EQ(v[1].iPid, v[0].iPid); // no restart without an interval
    EXPECT_EQ(v[2].strText, "exit");
    EXPECT_EQ(v[2].iPid, v[0].iPid);
    EXPECT_NE(v[3].iPid, v[0].iPid);
    EXPECT_TRUE(ProcessGone(v[0].iPid));
    EXPECT_TRUE(log.Contains("LineCom Restart", 5));

    // Stop lets a child that knows "exit" end by itself, and reaps it.
    lc.Stop();
    v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 5u);
    EXPECT_EQ(v[4].strText, "exit");
    EXPECT_EQ(v[4].iPid, v[3].iPid);
    EXPECT_TRUE(ProcessGone(v[3].iPid));
}

TEST_F(LineComTest, CrashedChildIsRestartedAndTheMessageSentAgain)
{
    LineCom lc;
    Start(lc, "tracker_crash.php", "2"); // each process dies on its 2nd request
    lc.SetErrorTimeout(100);
    EXPECT_EQ(Post(lc, 1), "OK id=1\n");
    auto t = Clock::now();
    EXPECT_EQ(Post(lc, 2), "OK id=2\n");
    EXPECT_LT(SecondsSince(t), 2.0);
    EXPECT_EQ(Post(lc, 3), "OK id=3\n");

    std::vector<TrackerEntry> v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 3u); // each post acted on once, each by a new child
    EXPECT_NE(v[1].iPid, v[0].iPid);
    EXPECT_NE(v[2].iPid, v[1].iPid);
    EXPECT_TRUE(ProcessGone(v[0].iPid));
    EXPECT_TRUE(ProcessGone(v[1].iPid));
    EXPECT_TRUE(log.Contains("LineCom. Read empty", 4));
    EXPECT_TRUE(log.Contains("LineCom try: 2 el: ", 5));
}

TEST_F(LineComTest, HungChildHitsTheReadTimeoutIsEndedAndReplaced)
{
    LineCom lc;
    Start(lc, "tracker_hang.php");
    lc.SupportsExitMsg(); // a failed exchange restarts with SIGTERM all the same
    lc.SetReadTimeout(20);
    lc.SetErrorTimeout(200);
    auto t = Clock::now();
    EXPECT_EQ(Post(lc, 3), "OK id=3\n");
    double dTook = SecondsSince(t);
    EXPECT_GE(dTook, 20 * kUnitUs / 1e6);
    EXPECT_LT(dTook, 5.0);

    std::vector<TrackerEntry> v = ReadTrackerLog(strLog);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0].strText, "hang type=crec&act=post&id=3");
    EXPECT_EQ(v[1].strText, "type=crec&act=post&id=3");
    EXPECT_TRUE(ProcessGone(v[0].iPid));
    EXPECT_TRUE(log.Contains("LineCom answer is delayed. Msg was: type=crec&act=post&id=3", 5));
    EXPECT_TRUE(log.Contains("LineCom Restart", 5));
}

TEST_F(LineComTest, StderrTextIsLoggedAsAnErrorAndTheReplyStillCounts)
{
    LineCom lc;
    Start(lc, "tracker_stderr.php");
    EXPECT_EQ(Post(lc, 4), "OK id=4\n");
    EXPECT_TRUE(log.Contains("LineCom stderr: tracker warning: type=crec&act=post&id=4\n", 3));
}

TEST_F(LineComTest, ErrorAnswersAreRetriedUntilTheErrorTimeoutAndStopRefusesMore)
{
    LineCom lc;
    Start(lc, "tracker_error.php");
    lc.SetErrorTimeout(10);
    auto t = Clock::now();
    EXPECT_EQ(Post(lc, 8), "<failed>");
    EXPECT_GE(SecondsSince(t), 10 * kUnitUs / 1e6);
    EXPECT_TRUE(log.Contains("LineCom program reports ERROR", 3));
    EXPECT_TRUE(log.Contains("LineCom. Error time-out reached", 4));
    std::vector<TrackerEntry> v = ReadTrackerLog(strLog);
    ASSERT_GE(v.size(), 2u);
    EXPECT_NE(v[1].iPid, v[0].iPid); // restarted between the tries

    lc.SignalStop();
    t = Clock::now();
    EXPECT_EQ(Post(lc, 9), "<failed>");
    EXPECT_LT(SecondsSince(t), 0.1);
    EXPECT_TRUE(log.Contains("LineCom shutting down, not sending msg", 4));
    EXPECT_EQ(ReadTrackerLog(strLog).size(), v.size());
}

TEST_F(LineComTest, RepliesAreJoinedFromPiecesAndBoundedTo3000Bytes)
{
    const std::pair<const char*, std::string> aCases[] = {
        {"while (fgets(STDIN) !== false) { echo 'ab'; flush(); usleep(200000); echo \"cd\\n\"; }", "abcd\n"},
        {"while (fgets(STDIN) !== false) echo str_repeat('x', 2999), \"\\n\";",
         std::string(2999, 'x') + "\n"},
        {"while (fgets(STDIN) !== false) echo str_repeat('x', 3000);", "<failed>"}};
    for (const auto& c : aCases) {
        LineCom lc;
        Start(lc, c.first);
        lc.SetErrorTimeout(1);
        EXPECT_EQ(Post(lc, 1), c.second) << c.first;
    }
    EXPECT_TRUE(log.Contains("LineCom. Buffer overflow", 4));
}

// ---- faults of the child and its descriptors ----

TEST_F(LineComTest, ChildThatClosedItsStdinOrCannotRunFailsTheExchangeNotTheProcess)
{
    {
        // Without the SIGPIPE guard this write would end the test process.
        LineCom lc;
        Start(lc, "fgets(STDIN); echo \"ready\\n\"; fclose(STDIN); sleep(30);");
        lc.SetErrorTimeout(100);
        EXPECT_EQ(Post(lc, 1), "ready\n");
        usleep(300000);
        EXPECT_EQ(Post(lc, 2), "ready\n"); // from a new child
        EXPECT_TRUE(log.Contains("LineCom. Write failure", 4));
    }
    {
        LineCom lc;
        const char* apcArgs[] = {"/nonexistent/php", nullptr};
        lc.Init("/nonexistent/php", apcArgs);
        lc.SetErrorRecheckInterval(1);
        lc.SetErrorTimeout(4);
        EXPECT_EQ(Post(lc, 1), "<failed>");
        EXPECT_TRUE(log.Contains("LineCom. Error time-out reached", 4));
    }
}

TEST_F(LineComTest, ChildGetsOnlyItsStandardDescriptorsAndOursAreCloseOnExec)
{
    int fdLeaky = open("/dev/null", O_RDONLY); // no O_CLOEXEC on purpose
    ASSERT_GE(fdLeaky, 0);
    ASSERT_EQ(dup2(fdLeaky, 200), 200);
    close(fdLeaky);
    std::set<int> sBefore = OpenDescriptors();

    LineCom lc;
    Start(lc, "while (fgets(STDIN) !== false) "
              "echo implode(',', array_diff(scandir('/proc/self/fd'), ['.', '..'])), \"\\n\";");
    std::string strFds = Post(lc, 1);
    // 0, 1, 2 and the directory scandir is reading.
    EXPECT_EQ(strFds.compare(0, 6, "0,1,2,"), 0) << strFds;
    EXPECT_EQ(std::count(strFds.begin(), strFds.end(), ','), 3) << strFds;

    for (int fd : OpenDescriptors()) {
        if (!sBefore.count(fd)) {
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "descriptor " << fd;
        }
    }
    close(200);
}

} // namespace
