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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "fake_clock.h"
#include "fake_database.h"
#include "filedir.h"
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

// The number of the first check that failed, or 0: a child's exit status.
int FirstFailure(std::initializer_list<bool> afChecks)
{
    int i = 1;
    for (bool f : afChecks) {
        if (!f)
            return i;
        ++i;
    }
    return 0;
}

IDatabase* MakeEnabledDb()
{
    FakeDatabase* prDb = new FakeDatabase();
    prDb->Set("s", "crec", "1");
    return prDb;
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
    // Runs body in a child with its output silenced, the root and a fake
    // clock set (and, with fSim, the simulator in step mode and a boot
    // database with the recorder enabled); expects exit status 0.
    void ExpectChild(bool fSim, const std::function<int(FakeClock&)>& body)
    {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open("/dev/null", O_WRONLY);
            dup2(fd, STDOUT_FILENO);
            SetLogHook(&Hook);
            FakeClock clock;
            SetClock(&clock);
            SetSysRoot(strRoot);
            if (fSim) {
                shsim_set_root(strRoot.c_str());
                shsim_set_step_mode(1);
                SetBootDatabaseFactory(&MakeEnabledDb);
            }
            _exit(body(clock));
        }
        int iStatus = 0;
        waitpid(pid, &iStatus, 0);
        EXPECT_TRUE(WIFEXITED(iStatus));
        EXPECT_EQ(WEXITSTATUS(iStatus), 0) << "the number of the failed check";
    }
    void Dirs(std::initializer_list<const char*> apcDirs)
    {
        for (const char* pc : apcDirs)
            EnsurePath(strRoot + pc);
    }
    std::string strRoot;
};

TEST_F(ProcessTest, UnreachableDatabaseEndsTheStartWithStatusOneAndItsMarker)
{
    Dirs({"/usr/local/lib/shcti", "/var/quorda/data", "/nodb"});
    ExpectChild(false, [&](FakeClock& clock) {
        setenv("PGHOST", (strRoot + "/nodb").c_str(), 1);
        char acName[] = "quorda_crec", acDebug[] = "debug";
        char* argv[] = {acName, acDebug, nullptr};
        int iStatus = quorda_crec_main(2, argv);
        std::ifstream f(strRoot + "/var/quorda/data/err_crec.dat");
        std::string strMarker((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        return FirstFailure({iStatus == 1, strMarker == "No database connection",
                             CountLines("Waiting to connect to database") == 59,
                             CountLines("Failed to connect to database") == 1,
                             clock.iSleptUs == 59LL * 1000000});
    });
}

TEST_F(ProcessTest, PassiveClusterNodeWaitsForPrimacyAndEnds)
{
    Dirs({"/usr/local/lib/shcti", "/var/quorda/data", "/var/quorda/conf", "/var/run"});
    std::ofstream(strRoot + "/var/quorda/conf/opt_cluster");
    ExpectChild(false, [&](FakeClock& clock) {
        std::string strActive = strRoot + "/var/quorda/data/node_active";
        clock.onSleep = [&] {
            if (clock.iSleptUs >= 3000000)
                std::ofstream(strActive.c_str());
        };
        char acName[] = "quorda_crec";
        char* argv[] = {acName, nullptr}; // would fork, but the gate comes first
        int iStatus = quorda_crec_main(1, argv);
        return FirstFailure({iStatus == 0, CountLines("this node is passive") == 1,
                             CountLines("QUORDA-CREC exit") == 1, CountLines("QUORDA-CREC start") == 0,
                             access((strRoot + "/var/run/quorda_crec.pid").c_str(), F_OK) != 0,
                             clock.iSleptUs == 3000000}); // 500 ms polls until the file is there
    });
}

TEST_F(ProcessTest, NoCardsAreRetriedForSixHundredSecondsThenStatusTwo)
{
    SimRoot("# no cards\n");
    ExpectChild(true, [&](FakeClock& clock) {
        int iStatus = RecorderMain();
        // An attempt every 20 s (10 s board wait, 10 s pause); the one that
        // finds the 600 s passed is the 31st, at 610 s.
        return FirstFailure({iStatus == 2, CountLines("No cards found") == 31,
                             CountLines("Old card count: ") == 1, clock.iSleptUs == 610LL * 1000000});
    });
}

TEST_F(ProcessTest, CardsThatAppearLaterAreUsedWithoutARestart)
{
    SimRoot("# no cards yet\n");
    ExpectChild(true, [&](FakeClock& clock) {
        std::string strHw = strRoot + "/usr/local/lib/shcti/sim/hardware.ini";
        bool fPlugged = false;
        clock.onSleep = [&] {
            if (!fPlugged && clock.iSleptUs > 35LL * 1000000) {
                std::ofstream(strHw.c_str()) << "[board]\nmodel=ATP-24A\nserial=99\nchannels=24\n";
                fPlugged = true;
            }
        };
        g_acStopAt = "** STARTED **";
        int iStatus = RecorderMain();
        return FirstFailure({iStatus == 0, CountLines("No cards found") == 2,
                             CountLines("Old card count: ") == 1, CountLines("Channel [24] {23} <") == 1,
                             CountLines("Board init. OK") == 1,
                             // The boot is gone with the attempt: later acts are destroyed unrun.
                             CurrentBoot() == nullptr});
    });
}

TEST_F(ProcessTest, CardsThatNeverStartAreGivenUpAfterTwentySecondsWithStatusOne)
{
    SimRoot("[board]\nmodel=ATP-24A\nserial=98\nchannels=24\n\n[start]\nfail_first=1000000\n");
    ExpectChild(true, [&](FakeClock& clock) {
        int iStatus = RecorderMain();
        // 10 s board wait, then 500 ms steps until more than 20 s have passed.
        long long llStartUs = clock.iSleptUs - 10LL * 1000000;
        return FirstFailure({iStatus == 1, CountLines("Error in SsmStartCti: ") == 1,
                             CountLines("** STARTED **") == 0, llStartUs >= 20LL * 1000000,
                             llStartUs <= 22LL * 1000000, CountLines("Could not (yet) start: ") >= 40});
    });
}

} // namespace
