// The process shell and RecorderMain's attempt loop on a fake clock. Both
// chdir, umask or install signal handlers, so each case runs in a forked
// child, which reports the first failed check as its exit status. The
// attempt loop runs on the card simulator in-process (a simulator root made
// by shsim init, step mode) with a FakeDatabase for every boot.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <mutex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "fake_clock.h"
#include "fake_database.h"
#include "logging.h"
#include "paths.h"
#include "quorda_crec.h"
#include "recorder.h"
#include "shsim.h"

namespace {

std::vector<std::string> g_vLog;  // the child's log lines
const char* g_acStopAt = nullptr; // a log text that sets fAppTerminate

void Hook(int, const std::string& strText)
{
    g_vLog.push_back(strText);
    if (g_acStopAt && strText == g_acStopAt)
        fAppTerminate = true;
}

int CountLines(const std::string& strText)
{
    int n = 0;
    for (const std::string& l : g_vLog)
        n += l.find(strText) != std::string::npos ? 1 : 0;
    return n;
}

// Runs body in a child with its output silenced; its exit status, or -1
// when it died otherwise.
int RunInChild(const std::function<int()>& body)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open("/dev/null", O_WRONLY);
        dup2(fd, STDOUT_FILENO);
        SetLogHook(&Hook);
        _exit(body());
    }
    int iStatus = 0;
    waitpid(pid, &iStatus, 0);
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char acRoot[] = "/tmp/qXXXXXX";
        ASSERT_NE(mkdtemp(acRoot), nullptr);
        strRoot = acRoot;
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf " + strRoot).c_str()), 0); }
    // A simulator root with this hardware, made by the simulator's own tool.
    void SimRoot(const std::string& strHardware)
    {
        std::string strHw = strRoot + ".hw";
        std::ofstream(strHw) << strHardware;
        std::string strCmd =
            std::string(QUORDA_BINARY_DIR "/sim/shsim init ") + strRoot + " " + strHw + " >/dev/null";
        ASSERT_EQ(system(strCmd.c_str()), 0);
        unlink(strHw.c_str());
    }
    std::string strRoot;
};

IDatabase* MakeEnabledDb()
{
    FakeDatabase* prDb = new FakeDatabase();
    prDb->Set("s", "crec", "1");
    return prDb;
}

// Points the daemon and the simulator at root, with a fake clock.
void EnterRoot(const std::string& strRoot, FakeClock& clock)
{
    SetSysRoot(strRoot);
    shsim_set_root(strRoot.c_str());
    shsim_set_step_mode(1);
    SetClock(&clock);
    SetBootDatabaseFactory(&MakeEnabledDb);
}

TEST_F(ProcessTest, UnreachableDatabaseEndsTheStartWithStatusOneAndItsMarker)
{
    ASSERT_EQ(system(("mkdir -p " + strRoot + "/usr/local/lib/shcti " + strRoot + "/var/quorda/data " +
                      strRoot + "/nodb")
                         .c_str()),
              0);
    std::string strRootCopy = strRoot;
    int iResult = RunInChild([strRootCopy] {
        FakeClock clock;
        SetClock(&clock);
        SetSysRoot(strRootCopy);
        setenv("PGHOST", (strRootCopy + "/nodb").c_str(), 1);
        char acName[] = "quorda_crec";
        char acDebug[] = "debug";
        char* argv[] = {acName, acDebug, nullptr};
        if (quorda_crec_main(2, argv) != 1)
            return 10;
        std::ifstream f(strRootCopy + "/var/quorda/data/err_crec.dat");
        std::string strMarker((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        if (strMarker != "No database connection")
            return 11;
        if (CountLines("Waiting to connect to database") != 59 ||
            CountLines("Failed to connect to database") != 1)
            return 12;
        if (clock.iSleptUs != 59LL * 1000000)
            return 13;
        return 0;
    });
    EXPECT_EQ(iResult, 0);
}

TEST_F(ProcessTest, PassiveClusterNodeWaitsForPrimacyAndEnds)
{
    ASSERT_EQ(system(("mkdir -p " + strRoot + "/usr/local/lib/shcti " + strRoot + "/var/quorda/data " +
                      strRoot + "/var/quorda/conf " + strRoot + "/var/run && touch " + strRoot +
                      "/var/quorda/conf/opt_cluster")
                         .c_str()),
              0);
    std::string strRootCopy = strRoot;
    int iResult = RunInChild([strRootCopy] {
        FakeClock clock;
        SetClock(&clock);
        SetSysRoot(strRootCopy);
        std::string strActive = strRootCopy + "/var/quorda/data/node_active";
        clock.onSleep = [&] {
            if (clock.iSleptUs >= 3000000)
                std::ofstream(strActive.c_str());
        };
        char acName[] = "quorda_crec";
        char* argv[] = {acName, nullptr}; // would fork, but the gate comes first
        if (quorda_crec_main(1, argv) != 0)
            return 20;
        if (CountLines("this node is passive") != 1 || CountLines("QUORDA-CREC exit") != 1)
            return 21;
        if (CountLines("QUORDA-CREC start") != 0 ||
            access((strRootCopy + "/var/run/quorda_crec.pid").c_str(), F_OK) == 0)
            return 22;
        if (clock.iSleptUs != 3000000)
            return 23; // 500 ms polls until the file is there
        return 0;
    });
    EXPECT_EQ(iResult, 0);
}

TEST_F(ProcessTest, NoCardsAreRetriedForSixHundredSecondsThenStatusTwo)
{
    SimRoot("# no cards\n");
    std::string strRootCopy = strRoot;
    int iResult = RunInChild([strRootCopy] {
        FakeClock clock;
        EnterRoot(strRootCopy, clock);
        if (RecorderMain() != 2)
            return 30;
        // An attempt every 20 s (10 s board wait, 10 s pause); the one that
        // finds the 600 s passed is the 31st, at 610 s.
        if (CountLines("No cards found") != 31)
            return 31;
        if (CountLines("Old card count: ") != 1)
            return 32;
        if (clock.iSleptUs != 610LL * 1000000)
            return 33;
        return 0;
    });
    EXPECT_EQ(iResult, 0);
}

TEST_F(ProcessTest, CardsThatAppearLaterAreUsedWithoutARestart)
{
    SimRoot("# no cards yet\n");
    std::string strRootCopy = strRoot;
    int iResult = RunInChild([strRootCopy] {
        FakeClock clock;
        EnterRoot(strRootCopy, clock);
        std::string strHw = strRootCopy + "/usr/local/lib/shcti/sim/hardware.ini";
        bool fPlugged = false;
        clock.onSleep = [&] {
            if (!fPlugged && clock.iSleptUs > 35LL * 1000000) {
                std::ofstream(strHw.c_str()) << "[board]\nmodel=ATP-24A\nserial=99\nchannels=24\n";
                fPlugged = true;
            }
        };
        g_acStopAt = "** STARTED **";
        if (RecorderMain() != 0)
            return 40;
        if (CountLines("No cards found") != 2 || CountLines("Old card count: ") != 1)
            return 41;
        if (CountLines("Channel [24] {23} <") != 1 || CountLines("Board init. OK") != 1)
            return 42;
        // The boot is gone with the attempt: later acts are destroyed unrun.
        if (CurrentBoot() != nullptr)
            return 43;
        return 0;
    });
    EXPECT_EQ(iResult, 0);
}

TEST_F(ProcessTest, CardsThatNeverStartAreGivenUpAfterTwentySecondsWithStatusOne)
{
    SimRoot("[board]\nmodel=ATP-24A\nserial=98\nchannels=24\n\n[start]\nfail_first=1000000\n");
    std::string strRootCopy = strRoot;
    int iResult = RunInChild([strRootCopy] {
        FakeClock clock;
        EnterRoot(strRootCopy, clock);
        if (RecorderMain() != 1)
            return 50;
        if (CountLines("Error in SsmStartCti: ") != 1 || CountLines("** STARTED **") != 0)
            return 51;
        // 10 s board wait, then 500 ms steps until more than 20 s have passed.
        long long llStartUs = clock.iSleptUs - 10LL * 1000000;
        if (llStartUs < 20LL * 1000000 || llStartUs > 22LL * 1000000)
            return 52;
        if (CountLines("Could not (yet) start: ") < 40)
            return 53;
        return 0;
    });
    EXPECT_EQ(iResult, 0);
}

} // namespace
