// The daemon binary on the card simulator and the private PostgreSQL: the
// start gates, a full start with the channel numbering and the Configs rows
// it leaves, event dispatch with a bad channel, the stop order and exit
// statuses, the crash marker, and the waits for cards, card start and
// database. Each start costs the driver's 10 s board wait, so every test
// checks several facts on one start.
#include "e2e_util.h"

#include <chrono>

using namespace e2e;

namespace {

const char* kPriAndDst = "[board]\nmodel=DTP-120\nserial=7001\nchannels=120\n\n"
                         "[board]\nmodel=DST-32\nserial=7002\nchannels=32\n";
const char* kOneAnalog = "[board]\nmodel=ATP-24A\nserial=7003\nchannels=24\n";

bool WaitForFileText(const std::string& strPath, const std::string& strText)
{
    for (int i = 0; i < 100; ++i) {
        if (ReadFile(strPath).find(strText) != std::string::npos)
            return true;
        SleepMs(20);
    }
    return false;
}

// A driver channel's creation line: web channel, driver channel and type.
bool HasChannelLine(DaemonRunner& d, int iWeb, int iDrv, int iType)
{
    std::string strHead = "Channel [" + std::to_string(iWeb) + "] {" + std::to_string(iDrv) + "} <";
    std::string strTail = "Type: " + std::to_string(iType);
    for (const std::string& l : d.Lines())
        if (l.find(strHead) != std::string::npos && l.size() >= strTail.size() &&
            l.compare(l.size() - strTail.size(), strTail.size(), strTail) == 0)
            return true;
    return false;
}

TEST(DaemonGates, WithoutTheCardDriverTheProcessEndsAtOnce)
{
    DaemonRunner d;
    ASSERT_TRUE(DaemonRunner::PrepareRoot(kOneAnalog) && DaemonRunner::SeedDatabase());
    ASSERT_EQ(system(("rm -rf " + DaemonRunner::Path("/usr/local/lib/shcti")).c_str()), 0);
    ASSERT_TRUE(d.Start());
    EXPECT_TRUE(ExitedWith(d.WaitExit(10000), 0));
    EXPECT_TRUE(d.HasLine("Not starting because card driver not there"));
    EXPECT_FALSE(d.HasLine("QUORDA-CREC start"));
    EXPECT_FALSE(Exists(DaemonRunner::Path("/var/quorda/data/err_crec.dat")));
}

TEST(DaemonGates, DisabledByFileWaitsForTheDatabaseThenIdlesUntilSigterm)
{
    // PGHOST names an empty directory until the test links the server's
    // socket into it: the daemon must wait, then go on by itself.
    PgUseTestServer();
    std::string strRealHost = getenv("PGHOST");
    char acDir[] = "/tmp/qpgXXXXXX";
    ASSERT_NE(mkdtemp(acDir), nullptr);
    std::string strDir = acDir;
    ASSERT_TRUE(DaemonRunner::PrepareRoot(kOneAnalog) && DaemonRunner::SeedDatabase());
    WriteFile(DaemonRunner::Path("/var/quorda/conf/crec_disabled"), "");
    DaemonRunner d;
    {
        ScopedEnv rHost("PGHOST", strDir);
        ASSERT_TRUE(d.Start());
    }
    EXPECT_TRUE(d.WaitForLine("Waiting to connect to database", 10000));
    std::string strSock = strRealHost + "/.s.PGSQL.5433";
    for (const char* pcPort : {"5432", "5433"})
        EXPECT_EQ(symlink(strSock.c_str(), (strDir + "/.s.PGSQL." + pcPort).c_str()), 0);
    ASSERT_TRUE(d.WaitForLine("waiting for exit", 20000));
    EXPECT_TRUE(d.HasLine("Card recording is disabled using file"));
    EXPECT_EQ(d.WaitExit(1000), -1); // still there, idle
    d.Signal(SIGTERM);
    EXPECT_TRUE(ExitedWith(d.WaitExit(3000), 0));
    EXPECT_LT(d.LineIndex("Closing extra threads"), d.LineIndex("QUORDA-CREC exit"));
    for (const char* pcPort : {"5432", "5433"})
        unlink((strDir + "/.s.PGSQL." + pcPort).c_str());
    rmdir(strDir.c_str());
}

TEST(DaemonGates, DisabledInTheDatabaseIdlesAndACrashLeavesItsMarkerAndBacktrace)
{
    DaemonRunner d;
    ASSERT_TRUE(DaemonRunner::PrepareRoot(kOneAnalog) && DaemonRunner::SeedDatabase("0"));
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitForLine("waiting for exit", 20000));
    EXPECT_TRUE(d.HasLine("Card recording is disabled in database"));

    d.Signal(SIGSEGV);
    int iStatus = d.WaitExit(5000);
    ASSERT_NE(iStatus, -1);
    EXPECT_TRUE(WIFSIGNALED(iStatus) && WTERMSIG(iStatus) == SIGSEGV);
    EXPECT_EQ(ReadFile(DaemonRunner::Path("/var/quorda/data/err_crec.dat")), "Signal SIGSEGV");
    int iMarker = d.LineIndex("Signal SIGSEGV");
    ASSERT_GE(iMarker, 0);
    std::vector<std::string> vLines = d.Lines();
    int iFrames = 0;
    for (size_t i = static_cast<size_t>(iMarker) + 1; i < vLines.size(); ++i)
        if (vLines[i].find("[0x") != std::string::npos)
            ++iFrames;
    EXPECT_GE(iFrames, 2);
}

TEST(DaemonRun, StartsNumbersTheChannelsRoutesEventsAndStopsInOrder)
{
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kPriAndDst));
    EXPECT_TRUE(d.HasLine("QUORDA-CREC start"));
    EXPECT_TRUE(d.HasLine("Boards: 2"));
    EXPECT_TRUE(d.HasLine("Total Drv. Max. Ch.: 152"));
    EXPECT_TRUE(d.HasLine("Card driver version "));

    // A PRI card numbers its first 30 of each 60 driver channels for the web.
    const int aiChannels[][3] = {{1, 0, 7},    {30, 29, 7},   {-1, 30, 7},  {31, 60, 7},
                                 {-1, 119, 7}, {61, 120, 12}, {92, 151, 12}};
    for (const auto& c : aiChannels)
        EXPECT_TRUE(HasChannelLine(d, c[0], c[1], c[2])) << c[0] << " {" << c[1] << "}";
    EXPECT_TRUE(d.HasLine("Board audio detect "));

    std::string strCrec = PgQuery("SELECT param || '=' || value FROM Configs WHERE part = 'crec'");
    for (const char* acRow :
         {"Syn7001_Present=1", "Syn7002_Present=1", "Syn7001_MaxChannels=60", "Syn7002_StartCh=60",
          "Syn7002_MaxChannels=32", "Syn7001_Channels=60", "CardList=", "CardDriverVersion="})
        EXPECT_NE(strCrec.find(acRow), std::string::npos) << acRow << " in\n" << strCrec;
    std::string strStatus = ReadFile(DaemonRunner::Path("/var/quorda/data/linestatus.dat"));
    EXPECT_EQ(strStatus.find("Line_1: ok\n"), 0u);
    EXPECT_NE(strStatus.find("Line_92: ok\n"), std::string::npos);

    // An event past the last channel is logged and dropped; the daemon
    // goes on, as the next event's effect shows.
    SimOk("event 24 152 param=8");
    EXPECT_TRUE(d.WaitForLine("Channel out of range: 152", 5000));
    SimOk("state 0 8");
    EXPECT_TRUE(d.WaitForLine("[1] Line health: offline", 5000));
    EXPECT_TRUE(Exists(DaemonRunner::Path("/var/quorda/data/crec_event")));
    // The log line comes just before the status file is rewritten.
    EXPECT_TRUE(WaitForFileText(DaemonRunner::Path("/var/quorda/data/linestatus.dat"), "Line_1: offline\n"));

    auto tStop = std::chrono::steady_clock::now();
    d.Signal(SIGTERM);
    EXPECT_TRUE(ExitedWith(d.WaitExit(5000), 0));
    EXPECT_LT(std::chrono::steady_clock::now() - tStop, std::chrono::seconds(2));
    EXPECT_LT(d.LineIndex("** STARTED **"), d.LineIndex("Closing extra threads"));
    EXPECT_LT(d.LineIndex("Closing extra threads"), d.LineIndex("QUORDA-CREC exit"));
    EXPECT_FALSE(d.HasLine("waiting for exit"));
    // Shutdown removes the status file: its presence means the recorder is up.
    EXPECT_FALSE(Exists(DaemonRunner::Path("/var/quorda/data/linestatus.dat")));
}

TEST(DaemonRun, SigtermWhileWaitingForCardsGivesStatusTwo)
{
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, "# no cards in this machine\n", {}, false));
    ASSERT_TRUE(d.WaitForLine("No cards found", kStartMs));
    EXPECT_TRUE(d.HasLine("Old card count: "));
    d.Signal(SIGTERM);
    EXPECT_TRUE(ExitedWith(d.WaitExit(3000), 2));
    EXPECT_EQ(PgQuery("SELECT value FROM Configs WHERE param = 'CardList'"), "");
}

TEST(DaemonRun, CardsThatNeverStartGiveStatusOneAfterSigterm)
{
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, std::string(kOneAnalog) + "\n[start]\nfail_first=1000000\n", {}, false));
    ASSERT_TRUE(d.WaitForLine("Could not (yet) start", kStartMs));
    ASSERT_TRUE(d.WaitForLine("waiting for exit", 40000));
    EXPECT_TRUE(d.HasLine("Error in SsmStartCti: "));
    EXPECT_FALSE(d.HasLine("** STARTED **"));
    d.Signal(SIGTERM);
    EXPECT_TRUE(ExitedWith(d.WaitExit(3000), 1));
}

} // namespace
