// The simulated driver's start: the channel table it builds from the
// daemon's ShConfig.ini, the configurations it refuses, scripted failures.
#include "sim_fixture.h"

#include <chrono>
#include <cstring>
#include <dlfcn.h>
#include <thread>

TEST_F(SimTest, StartBuildsChannelTableFromDaemonConfig)
{
    ASSERT_EQ(Start(), 0) << LastError();
    EXPECT_EQ(SsmGetMaxUsableBoard(), 2);
    EXPECT_EQ(SsmGetMaxCh(), 84);

    // Channel -> board, board channel, type. The driver opens only 20 of
    // the analog board's 24 channels.
    const int table[][4] = {
        {59, 0, 59, SSM_CH_ISDN_NTW}, {61, 1, 1, SSM_CH_ANALOG}, {79, 1, 19, SSM_CH_ANALOG}};
    int iBoard = 0, iBoardCh = 0;
    for (const auto& t : table) {
        ASSERT_EQ(SsmGetChHdInfo(t[0], &iBoard, &iBoardCh), 0);
        EXPECT_EQ(iBoard, t[1]) << t[0];
        EXPECT_EQ(iBoardCh, t[2]) << t[0];
        EXPECT_EQ(SsmGetChType(t[0]), t[3]) << t[0];
    }
    EXPECT_EQ(SsmGetChType(80), -1);
    EXPECT_EQ(SsmGetChType(83), -1);

    // Past the end and negative: -1, and the outputs say "none".
    for (int iCh : {84, 1000, -1}) {
        iBoard = iBoardCh = 5;
        EXPECT_EQ(SsmGetChHdInfo(iCh, &iBoard, &iBoardCh), -1);
        EXPECT_EQ(iBoard, -1);
        EXPECT_EQ(iBoardCh, -1);
        EXPECT_EQ(SsmGetChType(iCh), -1);
        EXPECT_EQ(SsmGetChState(iCh), -1);
    }
    EXPECT_EQ(SsmGetChHdInfo(0, nullptr, nullptr), 0);

    // PRI numbering: CIC c on the first half of each 60, partner c + 30.
    EXPECT_EQ(SpyGetCallInCh(0), 0);
    EXPECT_EQ(SpyGetCallOutCh(0), 30);
    EXPECT_EQ(SpyGetCallInCh(29), 29);
    EXPECT_EQ(SpyGetCallOutCh(29), 59);
    EXPECT_EQ(SpyGetCallInCh(30), -1);

    _SSM_VERSION v{};
    ASSERT_EQ(SsmGetDllVersion(&v), 0);
    EXPECT_EQ(v.ucMajor, 5);
    EXPECT_EQ(v.usBuild, 7);

    SsmCloseCti();
    EXPECT_EQ(SsmGetMaxCh(), -1);
    EXPECT_EQ(SsmGetChType(0), -1);
}

TEST_F(SimTest, StartRefusesConfigurationsThatDontMatchTheHardware)
{
    struct Case {
        std::string from, to, error;
    } cases[] = {
        {"BoardSerialNumber=1234", "BoardSerialNumber=1235",
         "board serial 1235 in ShConfig.ini is not installed"},
        {"AppCh[60]=1,0..23", "AppCh[60]=1,0..19",
         "channel range 0..19 of board 1 (serial 1234) does not match its 24 channels"},
        {"AppCh[60]=1,0..23", "AppCh[60]=4,0..23", "names board 4, which has no BoardSerialNumber"},
        {"AppCh[60]=1,0..23", "AppCh[50]=1,0..23", "driver channel 50 is placed twice"},
        {"TotalAppCh=84", "TotalAppCh=70", "TotalAppCh=70 in ShConfig.ini is less than the 84 channels"},
        {"AppCh[60]=1,0..23", "AppCh[60]=1,0-23", "bad channel range AppCh[60]=1,0-23"},
        // A board the daemon counts must be installed even without channels.
        {"TotalBoards=2", "TotalBoards=3", "board serial 7777 in ShConfig.ini is not installed"},
    };
    for (const Case& c : cases) {
        std::string text = kDaemonShConfig;
        text.replace(text.find(c.from), c.from.size(), c.to);
        WriteFile(CfgPath(), text);
        EXPECT_NE(Start(), 0) << c.to;
        EXPECT_NE(LastError().find(c.error), std::string::npos) << LastError();
        EXPECT_EQ(SsmGetMaxCh(), -1);
    }

    // The error text is cut to the caller's 300 bytes.
    std::string text = kDaemonShConfig;
    text.replace(text.find("=1234"), 5, "=" + std::string(400, '7'));
    WriteFile(CfgPath(), text);
    ASSERT_NE(Start(), 0);
    char ac[310];
    memset(ac, 'X', sizeof(ac));
    ASSERT_EQ(SsmGetLastErrMsg(ac), 0);
    EXPECT_EQ(strlen(ac), 299u);
    EXPECT_EQ(ac[300], 'X');
    EXPECT_EQ(SsmGetLastErrMsg(nullptr), -1);

    unlink(CfgPath().c_str());
    EXPECT_NE(Start(), 0);
    EXPECT_EQ(LastError(), "configuration file " + CfgPath() + " is missing");
    EXPECT_NE(SsmStartCti(nullptr, nullptr), 0);
    WriteFile(CfgPath(), kDaemonShConfig);

    // A faulty hardware description, or none.
    const char* bad[][2] = {
        {"[board]\nmodel=ATP-24A\nserial=1\n", "needs model, serial and channels"},
        {"[board]\nmodel=ATP-24A\nserial=1\nchannels=0x\n", "channels=0x is not a number"},
        {"[board]\nmodel=ATP-24A\nserial=1\nchannels=24\npritype=9\n", "pritype=9"},
        {"[board]\nmodel=ATP-24A\nserial=1\nchannels=24\ncolour=red\n", "unknown key 'colour'"},
        {"[boards]\n", "unknown section [boards]"},
        {"[start]\nfail_seconds=soon\n", "fail_seconds=soon"},
    };
    for (auto& b : bad) {
        WriteFile(SimDir() + "/hardware.ini", b[0]);
        EXPECT_NE(Start(), 0);
        EXPECT_NE(LastError().find(b[1]), std::string::npos) << LastError();
    }
    unlink((SimDir() + "/hardware.ini").c_str());
    EXPECT_NE(Start(), 0);
    EXPECT_NE(LastError().find("hardware.ini is missing"), std::string::npos);
}

TEST_F(SimTest, ScriptedStartFailures)
{
    // From hardware.ini: the first two calls fail, then the start works.
    WriteFile(SimDir() + "/hardware.ini", std::string(kSampleHardware) + "[start]\nfail_first=2\n");
    EXPECT_NE(Start(), 0);
    EXPECT_EQ(LastError(), "scripted start failure: call 1 of the first 2 fails");
    EXPECT_NE(Start(), 0);
    EXPECT_EQ(Start(), 0) << LastError();

    // The in-process switch wins over the file and restarts the count.
    shsim_script_start_failures(1, 0);
    EXPECT_NE(Start(), 0);
    EXPECT_EQ(SsmGetMaxCh(), -1);
    EXPECT_EQ(Start(), 0);

    // By time: failing until 0.3 s after the first call.
    shsim_script_start_failures(0, 0.3);
    EXPECT_NE(Start(), 0);
    EXPECT_NE(LastError().find("s since the first call"), std::string::npos) << LastError();
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_EQ(Start(), 0) << LastError();

    // And over the control protocol.
    EXPECT_EQ(Command("startfail first 1").substr(0, 2), "OK");
    EXPECT_NE(Start(), 0);
    EXPECT_EQ(Start(), 0);
    EXPECT_EQ(Command("startfail sometimes").substr(0, 3), "ERR");
}

TEST_F(SimTest, PerChannelCallsCheckTheChannelAndKeepTheirTexts)
{
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(SsmGetCallerIdA(60), nullptr);
    EXPECT_EQ(Command("callerid 60 030 1234"), "OK caller id '030 1234'");
    ASSERT_NE(SsmGetCallerIdA(60), nullptr);
    EXPECT_STREQ(SsmGetCallerIdA(60), "030 1234");
    EXPECT_EQ(SsmClearCallerId(60), 0);
    EXPECT_EQ(SsmGetCallerIdA(60), nullptr);
    EXPECT_EQ(SsmGetCallerIdA(84), nullptr);
    EXPECT_EQ(SsmGetLineVoltage(60), 48);

    char acBuf[1024];
    EXPECT_EQ(SsmRecToMem(84, REC_FORMAT_ALAW, acBuf, 1024, 0), -1);
    EXPECT_NE(LastError().find("no channel 84"), std::string::npos);
    EXPECT_EQ(SsmRecToMem(60, 99, acBuf, 1024, 0), -1);
    EXPECT_EQ(SsmRecToMem(60, REC_FORMAT_ALAW, nullptr, 1024, 0), -1);
    EXPECT_EQ(SsmRecToMem(60, REC_FORMAT_ALAW, acBuf, 1024, 0), 0);
    EXPECT_EQ(SsmSetRecVolume(-3, 0), -1);

    // Spy texts are cut to 63 bytes and always terminated, also on failure.
    std::string longText(100, 'n');
    EXPECT_EQ(Command("cic 3 caller=" + longText + " callee=200").substr(0, 2), "OK");
    char acSpy[64];
    memset(acSpy, 'X', sizeof(acSpy));
    EXPECT_EQ(SpyGetCallerId(3, acSpy), 0);
    EXPECT_EQ(std::string(acSpy), longText.substr(0, 63));
    EXPECT_EQ(SpyGetCalleeId(3, acSpy), 0);
    EXPECT_STREQ(acSpy, "200");
    memset(acSpy, 'X', sizeof(acSpy));
    EXPECT_EQ(SpyGetConId(30, acSpy), -1);
    EXPECT_STREQ(acSpy, "");
    EXPECT_EQ(SpyGetConId(0, nullptr), -1);
}

TEST_F(SimTest, OptionalClearExportAndSharedInstance)
{
    // dlopen by name finds the linked library: one instance, one state.
    void* h = dlopen("libshpa3.so", RTLD_LAZY);
    ASSERT_NE(h, nullptr) << dlerror();
    EXPECT_EQ(dlsym(h, "SsmStartCti"), reinterpret_cast<void*>(&SsmStartCti));
    EXPECT_NE(dlsym(h, "SsmClearR2callToneBuf"), nullptr);
    dlclose(h);

    void* hNo = dlopen(QUORDA_BINARY_DIR "/sim/noclear/libshpa3.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(hNo, nullptr) << dlerror();
    EXPECT_NE(dlsym(hNo, "SsmWaitForEventA"), nullptr);
    EXPECT_EQ(dlsym(hNo, "SsmClearR2callToneBuf"), nullptr);
    dlclose(hNo);
}
