// The post-call tracker end to end: the daemon binary on the card simulator
// and the private PostgreSQL, with the system's php running a stand-in
// tracker.php under the daemon's root. A burst of analog calls with
// "SforceLink" on must reach the tracker exactly once per Calls row, with
// the row's id, although the stand-in dies on every third request of each
// process; at the stop the daemon ends the tracker with its exit message.
#include "e2e_util.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

using namespace e2e;

namespace {

const char* kAnalogBoard = "[board]\nmodel=ATP-24A\nserial=10204\nchannels=4\n";
const char* kPostPrefix = "type=crec&act=post&id=";

// The stand-in as the daemon's tracker.php, and the daemon's php path
// leading to the system's php.
bool InstallTracker(const std::string& strVariant)
{
    std::string strCmd = DaemonRunner::Path("/var/quorda/cmd");
    std::string strBin = DaemonRunner::Path("/usr/bin");
    if (system(("mkdir -p " + strCmd + " " + strBin).c_str()) != 0)
        return false;
    std::string strData = QUORDA_SOURCE_DIR "/tests/data/tracker/";
    WriteFile(strCmd + "/tracker_lib.php", ReadFile(strData + "tracker_lib.php"));
    WriteFile(strCmd + "/tracker.php", ReadFile(strData + strVariant));
    return symlink("/usr/bin/php", (strBin + "/php").c_str()) == 0;
}

// "<pid> <text>" lines of the stand-in's log.
std::vector<std::pair<std::string, std::string>> TrackerLog()
{
    std::vector<std::pair<std::string, std::string>> v;
    std::ifstream f(DaemonRunner::Path("/var/quorda/cmd/tracker.log"));
    std::string strLine;
    while (std::getline(f, strLine)) {
        size_t iBlank = strLine.find(' ');
        if (iBlank != std::string::npos)
            v.emplace_back(strLine.substr(0, iBlank), strLine.substr(iBlank + 1));
    }
    return v;
}

// The ids posted so far, in order.
std::vector<std::string> PostedIds()
{
    std::vector<std::string> v;
    for (const auto& e : TrackerLog())
        if (e.second.compare(0, strlen(kPostPrefix), kPostPrefix) == 0)
            v.push_back(e.second.substr(strlen(kPostPrefix)));
    return v;
}

template <class Pred> bool WaitUntil(Pred pred, int iMs)
{
    for (int i = 0; i < iMs / 100; ++i) {
        if (pred())
            return true;
        SleepMs(100);
    }
    return pred();
}

int CountLines(DaemonRunner& d, const std::string& strText)
{
    std::vector<std::string> v = d.Lines();
    return static_cast<int>(std::count_if(
        v.begin(), v.end(), [&](const std::string& l) { return l.find(strText) != std::string::npos; }));
}

// Calls on all channels at once: pick-up, a short talk, hang-up.
void CallsOnChannels(int iFirst, int iLast)
{
    for (int ch = iFirst; ch <= iLast; ++ch) {
        SimOk("audio " + std::to_string(ch) + " pattern " + std::to_string(30 + ch));
        SimOk("state " + std::to_string(ch) + " ringing");
    }
    SleepMs(500);
    for (int ch = iFirst; ch <= iLast; ++ch)
        SimOk("state " + std::to_string(ch) + " pickup");
    SleepMs(2500);
    for (int ch = iFirst; ch <= iLast; ++ch)
        SimOk("state " + std::to_string(ch) + " idle");
}

TEST(TrackerDaemon, EveryFinishedCallIsPostedOnceAcrossTrackerCrashes)
{
    ASSERT_TRUE(DaemonRunner::PrepareRoot(kAnalogBoard) && DaemonRunner::SeedDatabase());
    ASSERT_TRUE(DaemonRunner::AddConfig("o", "SforceLink", "1"));
    ASSERT_TRUE(InstallTracker("tracker_crash.php")); // dies on each process's 3rd request
    DaemonRunner d;
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitForLine("** STARTED **", kStartMs));
    EXPECT_TRUE(TrackerLog().empty()); // not started before the first call ends

    CallsOnChannels(0, 3);
    SleepMs(300);
    CallsOnChannels(0, 1);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "6", 15000));
    ASSERT_TRUE(WaitUntil([] { return PostedIds().size() >= 6; }, 20000)) << PostedIds().size();
    SleepMs(500); // a late duplicate would show by now

    std::vector<std::string> vPosted = PostedIds();
    std::sort(vPosted.begin(), vPosted.end());
    std::string strIds = PgQuery("SELECT id FROM Calls ORDER BY id::text");
    std::vector<std::string> vCalls;
    std::stringstream ss(strIds);
    for (std::string s; std::getline(ss, s);)
        vCalls.push_back(s);
    EXPECT_EQ(vPosted, vCalls);

    // Six posts and the stand-in's crashes: at least two restarts.
    std::set<std::string> sPids;
    for (const auto& e : TrackerLog())
        sPids.insert(e.first);
    EXPECT_GE(sPids.size(), 3u);
    EXPECT_EQ(CountLines(d, "Call Post id="), 6);
    EXPECT_EQ(CountLines(d, "Post done"), 6);
    EXPECT_GE(CountLines(d, "LineCom Restart"), 2);
    EXPECT_EQ(CountLines(d, "LineCom SendMsg post failed"), 0);

    StopDaemon(d);
    std::vector<std::pair<std::string, std::string>> vLog = TrackerLog();
    ASSERT_FALSE(vLog.empty());
    EXPECT_EQ(vLog.back().second, "exit");
}

} // namespace
