// sim_fixture.h - a temporary simulator root for the simulator's tests.
//
// Each test gets a short root (/tmp/qsXXXXXX, so the control socket path
// stays far below 108 bytes), a hardware description and the driver
// configuration file as the daemon writes it, and leaves the library as a
// fresh process would find it.
#ifndef SIM_FIXTURE_H
#define SIM_FIXTURE_H

#include "shpa3api.h"
#include "shsim.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

// PRI board (60 channels, network side), analog board of 24 channels of
// which the driver opens 20, and a board of a model the daemon doesn't know.
inline const char* kSampleHardware = "# test cards\n"
                                     "[board]\nmodel=DTP-60\nserial=5001\nchannels=60\npritype=8\n"
                                     "[board]\nmodel = ATP-24A\nserial = 1234\nchannels = 24\nopened = 20\n"
                                     "[board]\nmodel=XYZ-8\nserial=999\nchannels=8\n";

// What the daemon writes for that hardware: the unknown board dropped, and
// a section left over from an earlier card set beyond TotalBoards.
inline const char* kDaemonShConfig =
    "[SystemConfig]\nTotalBoards=2\nEventInterfaceType=1\nWhoSupplySysClock=0\n"
    "[AppChToBoardChTable]\nTotalAppCh=84\nAppCh[0]=0,0..59\nAppCh[60]=1,0..23\n"
    "[BoardId=0]\nBoardModel=DTP-60\nPBXType=\nBoardSerialNumber=5001\n"
    "DstRecRawData=0\nUseHdlc=1\n"
    "[BoardId=1]\nBoardModel=ATP-24A\nPBXType=\nBoardSerialNumber=1234\n"
    "DstRecRawData=0\n"
    "[BoardId=2]\nBoardModel=DST-32\nBoardSerialNumber=7777\n"
    "[PcmInfo]\nTotalPcm=2\nPcm[0]=0,0\nPcm[1]=0,1\n";

class SimTest : public ::testing::Test {
protected:
    std::string strRoot;

    void SetUp() override
    {
        char acDir[] = "/tmp/qsXXXXXX";
        ASSERT_NE(mkdtemp(acDir), nullptr);
        strRoot = acDir;
        shsim_reset();
        shsim_set_root(strRoot.c_str());
        ASSERT_EQ(system(("mkdir -p " + SimDir() + " " + strRoot + "/var/quorda/data").c_str()), 0);
        WriteFile(SimDir() + "/hardware.ini", kSampleHardware);
        WriteFile(CfgPath(), kDaemonShConfig);
    }

    void TearDown() override
    {
        shsim_reset();
        ASSERT_EQ(system(("rm -rf " + strRoot).c_str()), 0);
    }

    std::string SimDir() const { return strRoot + "/usr/local/lib/shcti/sim"; }
    std::string CfgPath() const { return strRoot + "/var/quorda/data/ShConfig.ini"; }
    std::string SockPath() const { return SimDir() + "/control.sock"; }

    static void WriteFile(const std::string& path, const std::string& text)
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }

    static std::string ReadFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    // Bytes offset..offset+n-1 of the pattern source of this seed.
    static std::vector<unsigned char> Pattern(unsigned long long seed, size_t offset, size_t n)
    {
        std::vector<unsigned char> v(n);
        shsim_pattern_bytes(seed, offset, v.data(), n);
        return v;
    }

    // Progress events of memory recording, as the daemon asks for them.
    static int EnableRecordMem(DWORD dwCondition, DWORD dwParam)
    {
        _EVENT_SET_INFO info{};
        info.dwWorkMode = EVENT_POLLING;
        info.dwOutCondition = dwCondition;
        info.dwOutParamVal = dwParam;
        return SsmSetEvent(E_PROC_RecordMem, -1, 1, &info);
    }

    int Start() { return SsmStartCti(CfgPath().c_str(), (strRoot + "/var/quorda/data/ShIndex.ini").c_str()); }

    static std::string LastError()
    {
        char ac[300];
        SsmGetLastErrMsg(ac);
        return ac;
    }

    // Starts the cards and turns events on as the daemon does.
    void StartWithEvents()
    {
        ASSERT_EQ(Start(), 0) << LastError();
        _EVENT_SET_INFO info{};
        info.dwWorkMode = EVENT_POLLING;
        ASSERT_EQ(SsmSetEvent(0xFFFF, -1, 1, &info), 0);
    }

    static std::string Command(const std::string& line)
    {
        char ac[4096];
        shsim_command(line.c_str(), ac, sizeof(ac));
        return ac;
    }
};

#endif
