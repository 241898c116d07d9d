// The simulator's programs: the detection tool "config" that the daemon runs,
// and the command line "shsim" (init, send, play).
#include "sim_fixture.h"

#include <cstdio>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const std::string kShsim = QUORDA_BINARY_DIR "/sim/shsim";

// Runs a shell command; returns its exit status and its standard output.
int RunShell(const std::string& cmd, std::string& out)
{
    out.clear();
    FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r");
    if (!p)
        return -1;
    char ac[512];
    size_t n;
    while ((n = fread(ac, 1, sizeof(ac), p)) > 0)
        out.append(ac, n);
    int st = pclose(p);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

} // namespace

class SimToolTest : public SimTest {
protected:
    std::string strTools;
    std::string strOut;

    void SetUp() override
    {
        SimTest::SetUp();
        std::string hw = strRoot + "/hw.ini";
        WriteFile(hw, kSampleHardware);
        ASSERT_EQ(RunShell(kShsim + " init " + strRoot + " " + hw, strOut), 0);
        strTools = strRoot + "/usr/local/lib/shcti/CurrentVersion/tools";
    }

    // As the daemon runs it: in the tools directory, through the shell.
    int RunTool() { return RunShell("cd " + strTools + " && ./config", strOut); }
};

TEST_F(SimToolTest, InitPreparesTheRoot)
{
    for (const char* dir :
         {"/var/quorda/conf", "/var/quorda/data", "/var/quorda/cmd", "/var/run", "/recordings", "/tmp"}) {
        struct stat st;
        EXPECT_EQ(stat((strRoot + dir).c_str(), &st), 0) << dir;
    }
    EXPECT_EQ(access((strTools + "/config").c_str(), X_OK), 0);
    EXPECT_EQ(ReadFile(SimDir() + "/hardware.ini"), kSampleHardware);
    EXPECT_EQ(ReadFile(strRoot + "/etc/issue.net").compare(0, 6, "Debian"), 0);

    // A faulty hardware file is refused before anything is written.
    WriteFile(strRoot + "/bad.ini", "[board]\nmodel=ATP-24A\n");
    EXPECT_NE(RunShell(kShsim + " init " + strRoot + "/other " + strRoot + "/bad.ini", strOut), 0);
    EXPECT_NE(access((strRoot + "/other").c_str(), F_OK), 0);
    EXPECT_EQ(RunShell(kShsim + " --help", strOut), 0);
    EXPECT_NE(strOut.find("init <root> <hardware-file>"), std::string::npos);
    EXPECT_EQ(RunShell(kShsim + " frobnicate", strOut), 2);
}

TEST_F(SimToolTest, ToolWritesTheVendorFormatFreshFromTheHardware)
{
    ASSERT_EQ(RunTool(), 0);
    EXPECT_EQ(ReadFile(strTools + "/ShConfig.ini"), "[SystemConfig]\n"
                                                    "TotalBoards=3\n"
                                                    "[AppChToBoardChTable]\n"
                                                    "TotalAppCh=92\n"
                                                    "AppCh[0]=0,0..59\n"
                                                    "AppCh[60]=1,0..23\n"
                                                    "AppCh[84]=2,0..7\n"
                                                    "[BoardId=0]\n"
                                                    "BoardSerialNumber=5001\n"
                                                    "BoardModel=DTP-60\n"
                                                    "[BoardId=1]\n"
                                                    "BoardSerialNumber=1234\n"
                                                    "BoardModel=ATP-24A\n"
                                                    "[BoardId=2]\n"
                                                    "BoardSerialNumber=999\n"
                                                    "BoardModel=XYZ-8\n");

    // A board added to the hardware shows at the next run.
    WriteFile(SimDir() + "/hardware.ini", std::string(kSampleHardware) + "[board]\nmodel=SHR-24\nserial=42\n"
                                                                         "channels=24\n");
    ASSERT_EQ(RunTool(), 0);
    std::string text = ReadFile(strTools + "/ShConfig.ini");
    EXPECT_NE(text.find("AppCh[92]=3,0..23\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[BoardId=3]\nBoardSerialNumber=42\nBoardModel=SHR-24\n"), std::string::npos) << text;

    // A faulty description writes nothing: the daemon then finds no boards.
    unlink((strTools + "/ShConfig.ini").c_str());
    WriteFile(SimDir() + "/hardware.ini", "[board]\nmodel=DST-32\nchannels=32\n");
    EXPECT_NE(RunTool(), 0);
    EXPECT_NE(access((strTools + "/ShConfig.ini").c_str(), F_OK), 0);
}

TEST_F(SimToolTest, SendAndPlayTalkToTheRunningLibrary)
{
    auto shsim = [this](const std::string& args) {
        return RunShell(kShsim + " --root " + strRoot + " " + args, strOut);
    };
    EXPECT_EQ(shsim("send ping"), 2); // the driver isn't started yet

    StartWithEvents();
    shsim_set_step_mode(1);
    EXPECT_EQ(shsim("send ping"), 0);
    EXPECT_EQ(strOut, "OK pong\n");
    EXPECT_EQ(shsim("send state 61 2"), 0);
    EXPECT_EQ(SsmGetChState(61), S_CALL_RINGING);
    EXPECT_EQ(shsim("send state 99 2"), 1);
    EXPECT_EQ(strOut, "ERR no channel 99\n");

    WriteFile(strRoot + "/s.scn", "state 61 1\nwait 10\nevent 12 61 param=0x31\n");
    EXPECT_EQ(shsim("play " + strRoot + "/s.scn"), 0);
    EXPECT_EQ(shsim_pending_events(), 3);
    EXPECT_EQ(SsmGetChState(61), S_CALL_PICKUPED);
    WriteFile(strRoot + "/s.scn", "state 61 0\nbogus\nstate 61 2\n");
    EXPECT_EQ(shsim("play " + strRoot + "/s.scn"), 1);
    EXPECT_EQ(SsmGetChState(61), S_CALL_STANDBY);

    // SHSIM_ROOT names the root when --root doesn't.
    EXPECT_EQ(RunShell("SHSIM_ROOT=" + strRoot + " " + kShsim + " send getstate 61", strOut), 0);
    EXPECT_EQ(strOut, "OK 0\n");
}
