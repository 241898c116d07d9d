// e2e_util.h - helpers of the end-to-end tests: starting and stopping the
// daemon on a fresh root, simulator commands, calls rows, recording files,
// the daemon's environment for the tool stand-ins, and the independent
// tools (soxi, the sum tools, openssl) that judge the result.
#ifndef E2E_UTIL_H
#define E2E_UTIL_H

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "daemon_runner.h"
#include "pg_test_util.h"
#include "shsim.h"

namespace e2e {

const int kStartMs = 60000; // board wait, detection tool, driver start
const size_t kWaveHeader = 56;

inline void SleepMs(int iMs)
{
    usleep(static_cast<useconds_t>(iMs) * 1000);
}

// Standard output of a shell command, without the last line end.
inline std::string Output(const std::string& strCmd)
{
    std::string strOut = RunCommand(strCmd);
    if (!strOut.empty() && strOut.back() == '\n')
        strOut.pop_back();
    return strOut;
}

inline std::string ReadFile(const std::string& strPath)
{
    std::ifstream f(strPath, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& strPath, const std::string& strText)
{
    std::ofstream(strPath, std::ios::binary) << strText;
}

inline bool Exists(const std::string& strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0;
}

inline bool SimOk(const std::string& strCommand)
{
    std::string strReply = DaemonRunner::SimCommand(strCommand);
    EXPECT_EQ(strReply.compare(0, 2, "OK"), 0) << strCommand << ": " << strReply;
    return strReply.compare(0, 2, "OK") == 0;
}

inline bool Config(const std::string& strPart, const std::string& strParam, const std::string& strValue)
{
    return PgExec("DELETE FROM Configs WHERE param = '" + strParam + "'") &&
           DaemonRunner::AddConfig(strPart, strParam, strValue);
}

inline int Count(const std::string& strTable, const std::string& strWhere = "true")
{
    return std::atoi(PgQuery("SELECT count(*) FROM " + strTable + " WHERE " + strWhere).c_str());
}

struct ConfigRow {
    const char* pcPart;
    std::string strParam, strValue;
};

inline bool ExitedWith(int iStatus, int iCode)
{
    return iStatus != -1 && WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == iCode;
}

// A fresh root with the board and the database seeded with the rows; the
// daemon started and, unless fWaitStarted is false, its cards running.
inline bool StartDaemon(DaemonRunner& d, const std::string& strBoard,
                        const std::vector<ConfigRow>& vRows = {}, bool fWaitStarted = true)
{
    if (!DaemonRunner::PrepareRoot(strBoard) || !DaemonRunner::SeedDatabase())
        return false;
    for (const ConfigRow& r : vRows)
        if (!Config(r.pcPart, r.strParam, r.strValue))
            return false;
    return d.Start() && (!fWaitStarted || d.WaitForLine("** STARTED **", kStartMs));
}

// SIGTERM, and a clean exit within 10 s.
inline void StopDaemon(DaemonRunner& d)
{
    d.Signal(SIGTERM);
    int iStatus = d.WaitExit(10000);
    EXPECT_TRUE(ExitedWith(iStatus, 0)) << iStatus;
}

// Ring, the caller ID ("" for none) half way, pick-up after iRingMs on
// driver channel iCh; the pick-up's wall time.
inline time_t RingAndPickUp(int iCh, const std::string& strCallerId, int iRingMs)
{
    std::string strCh = std::to_string(iCh);
    SimOk("state " + strCh + " ringing");
    SleepMs(iRingMs / 2);
    if (!strCallerId.empty())
        SimOk("cid " + strCh + " " + strCallerId);
    SleepMs(iRingMs / 2);
    time_t tPickup = time(nullptr);
    SimOk("state " + strCh + " pickup");
    return tPickup;
}

// The same, after setting the channel's audio to a fresh pattern of seed iSeed.
inline void StartCall(int iCh, const std::string& strCallerId, int iSeed, int iRingMs = 300)
{
    SimOk("audio " + std::to_string(iCh) + " pattern " + std::to_string(iSeed));
    RingAndPickUp(iCh, strCallerId, iRingMs);
}

// Path of the recording a row of ActiveCalls or Calls names, below root.
inline std::string RowFile(const std::string& strTable, const std::string& strWhere,
                           const std::string& strRoot = "/recordings/")
{
    std::string strRel =
        PgQuery("SELECT directory || '/' || filename FROM " + strTable + " WHERE " + strWhere);
    return strRel.empty() ? std::string() : DaemonRunner::Path(strRoot) + strRel;
}

// The audio of a G.711 WAVE file as the daemon writes it (56-byte header).
inline std::string WaveAudio(const std::string& strPath)
{
    std::string s = ReadFile(strPath);
    return s.size() < kWaveHeader || s.compare(0, 4, "RIFF") != 0 ? std::string() : s.substr(kWaveHeader);
}

inline std::string Pattern(unsigned long long iSeed, size_t iBytes)
{
    std::string s(iBytes, '\0');
    shsim_pattern_bytes(iSeed, 0, reinterpret_cast<unsigned char*>(&s[0]), s.size());
    return s;
}

// soxi's view of a file: "-D" duration, "-e" encoding, "-c" channels,
// "-B" bit rate, "-t" type.
inline std::string Soxi(const std::string& strOption, const std::string& strPath)
{
    return Output("soxi " + strOption + " " + ShellQuote(strPath) + " 2>/dev/null");
}

// What the checksum tool prints for the file, up to the first blank.
inline std::string ToolSum(const std::string& strTool, const std::string& strPath)
{
    std::string s = Output(strTool + " " + ShellQuote(strPath));
    return s.substr(0, s.find(' '));
}

// callextra of the Calls row, with its line ends made visible.
inline std::string CallExtra(const std::string& strWhere)
{
    return PgQuery("SELECT replace(replace(callextra, E'\\r', 'CR'), E'\\n', 'LF') FROM Calls WHERE " +
                   strWhere);
}

// Sets an environment variable for the daemon about to start; the old
// value comes back when the object goes.
class ScopedEnv {
public:
    ScopedEnv(const char* pcName, const std::string& strValue) : strName(pcName)
    {
        const char* pcOld = getenv(pcName);
        fHadOld = pcOld != nullptr;
        if (pcOld)
            strOld = pcOld;
        setenv(pcName, strValue.c_str(), 1);
    }
    ~ScopedEnv()
    {
        if (fHadOld)
            setenv(strName.c_str(), strOld.c_str(), 1);
        else
            unsetenv(strName.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string strName, strOld;
    bool fHadOld = false;
};

// The daemon's PATH for these tests: the stand-ins of quorda_reccheck and
// quorda_crypt (tests/data/bin), then a directory with a sox wrapper that
// runs the real sox, fails, or acts as if sox were not installed, by what
// the file SoxMode() holds ("fail", "missing", or nothing). The tool
// stand-ins append their arguments to StandInLog().
class ToolPath {
public:
    ToolPath()
        : strDir(DaemonRunner::Root() + ".tools"), rLog("QUORDA_STANDIN_LOG", StandInLog()),
          rPath("PATH", QUORDA_SOURCE_DIR "/tests/data/bin:" + strDir + ":" + getenv("PATH"))
    {
        std::string strSox = Output("command -v sox");
        EXPECT_FALSE(strSox.empty()) << "sox is not installed (Debian packages sox, libsox-fmt-mp3)";
        Output("rm -rf " + ShellQuote(strDir) + "; mkdir -p " + ShellQuote(strDir));
        WriteFile(strDir + "/sox", "#!/bin/sh\n"
                                   "case \"$(cat " +
                                       ShellQuote(SoxMode()) +
                                       " 2>/dev/null)\" in\n"
                                       "fail) echo 'sox FAIL formats: stand-in failure' >&2; exit 2 ;;\n"
                                       "missing) echo 'sh: 1: sox: not found' >&2; exit 127 ;;\n"
                                       "esac\n"
                                       "exec " +
                                       strSox + " \"$@\"\n");
        chmod((strDir + "/sox").c_str(), 0755);
        unlink(StandInLog().c_str());
    }
    ~ToolPath() { Output("rm -rf " + ShellQuote(strDir)); }
    std::string SoxMode() const { return strDir + "/sox.mode"; }
    void SetSoxMode(const std::string& strMode) const { WriteFile(SoxMode(), strMode); }
    static std::string StandInLog() { return DaemonRunner::Root() + ".standin.log"; }

private:
    std::string strDir;
    ScopedEnv rLog;
    ScopedEnv rPath;
};

} // namespace e2e

#endif
