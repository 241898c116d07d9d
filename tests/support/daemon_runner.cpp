// daemon_runner.cpp - see daemon_runner.h.
#include "daemon_runner.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "pg_test_util.h"

namespace {
std::string ShsimBinary()
{
    return QUORDA_BINARY_DIR "/sim/shsim";
}
} // namespace

DaemonRunner::~DaemonRunner()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (rReader.joinable())
        rReader.join();
}

std::string DaemonRunner::Root()
{
    return QUORDA_TEST_ROOT;
}

std::string DaemonRunner::Path(const std::string& strAbs)
{
    return Root() + strAbs;
}

bool DaemonRunner::PrepareRoot(const std::string& strHardware)
{
    if (Root().size() < 5)
        return false; // never wipe something like "/"
    if (system(("rm -rf " + ShellQuote(Root())).c_str()) != 0)
        return false;
    std::string strHwFile = Root() + ".hardware.ini";
    {
        std::ofstream f(strHwFile);
        f << strHardware;
    }
    std::string strCmd =
        ShsimBinary() + " init " + ShellQuote(Root()) + " " + ShellQuote(strHwFile) + " >/dev/null";
    bool fOk = system(strCmd.c_str()) == 0;
    unlink(strHwFile.c_str());
    return fOk;
}

bool DaemonRunner::SeedDatabase(const std::string& strCrec)
{
    return PgResetTables() &&
           PgExec("INSERT INTO Configs (param, value, part) VALUES ('crec', '" + strCrec + "', 's')");
}

std::string DaemonRunner::SimCommand(const std::string& strCommand)
{
    std::string strOut =
        RunCommand(ShsimBinary() + " --root " + ShellQuote(Root()) + " send " + strCommand + " 2>&1");
    while (!strOut.empty() && strOut.back() == '\n')
        strOut.pop_back();
    return strOut;
}

bool DaemonRunner::WaitForSim(int iMs)
{
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMs);
    while (SimCommand("ping").compare(0, 2, "OK") != 0) {
        if (std::chrono::steady_clock::now() > tEnd)
            return false;
        usleep(50000);
    }
    return true;
}

long long DaemonRunner::SimReportedBytes(int iCh)
{
    std::string strReply = SimCommand("audio " + std::to_string(iCh));
    const std::string strKey = " reported ";
    size_t iPos = strReply.find(strKey);
    if (strReply.compare(0, 2, "OK") != 0 || iPos == std::string::npos)
        return -1;
    return strtoll(strReply.c_str() + iPos + strKey.size(), nullptr, 10);
}

bool DaemonRunner::AddConfig(const std::string& strPart, const std::string& strParam,
                             const std::string& strValue)
{
    return PgExec("INSERT INTO Configs (param, value, part) VALUES ('" + strParam + "', '" + strValue +
                  "', '" + strPart + "')");
}

bool DaemonRunner::WaitForQuery(const std::string& strSql, const std::string& strExpected, int iMs)
{
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMs);
    while (PgQuery(strSql) != strExpected) {
        if (std::chrono::steady_clock::now() > tEnd)
            return false;
        usleep(100000);
    }
    return true;
}

bool DaemonRunner::Start(const std::vector<std::string>& vArgs)
{
    PgUseTestServer();
    int aiPipe[2];
    if (pipe2(aiPipe, O_CLOEXEC) != 0)
        return false;
    std::string strBinary = QUORDA_BINARY_DIR "/quorda_crec";
    pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        dup2(aiPipe[1], STDOUT_FILENO);
        dup2(aiPipe[1], STDERR_FILENO);
        std::vector<char*> vArgv;
        vArgv.push_back(const_cast<char*>(strBinary.c_str()));
        for (const std::string& s : vArgs)
            vArgv.push_back(const_cast<char*>(s.c_str()));
        vArgv.push_back(nullptr);
        execv(strBinary.c_str(), vArgv.data());
        _exit(127);
    }
    close(aiPipe[1]);
    int fd = aiPipe[0];
    rReader = std::thread([this, fd] { ReadOutput(fd); });
    return true;
}

void DaemonRunner::ReadOutput(int fd)
{
    std::string strPartial;
    char acBuf[4096];
    for (;;) {
        ssize_t n = read(fd, acBuf, sizeof(acBuf));
        if (n <= 0)
            break;
        strPartial.append(acBuf, static_cast<size_t>(n));
        size_t iEnd;
        while ((iEnd = strPartial.find('\n')) != std::string::npos) {
            std::lock_guard<std::mutex> lock(rMutex);
            vLines.push_back(strPartial.substr(0, iEnd));
            strPartial.erase(0, iEnd + 1);
            rNewLine.notify_all();
        }
    }
    close(fd);
    std::lock_guard<std::mutex> lock(rMutex);
    if (!strPartial.empty())
        vLines.push_back(strPartial);
    rNewLine.notify_all();
}

bool DaemonRunner::WaitForLine(const std::string& strText, int iMs)
{
    std::unique_lock<std::mutex> lock(rMutex);
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMs);
    size_t iChecked = 0;
    for (;;) {
        for (; iChecked < vLines.size(); ++iChecked)
            if (vLines[iChecked].find(strText) != std::string::npos)
                return true;
        if (rNewLine.wait_until(lock, tEnd) == std::cv_status::timeout)
            return false;
    }
}

int DaemonRunner::LineIndex(const std::string& strText)
{
    std::lock_guard<std::mutex> lock(rMutex);
    for (size_t i = 0; i < vLines.size(); ++i)
        if (vLines[i].find(strText) != std::string::npos)
            return static_cast<int>(i);
    return -1;
}

bool DaemonRunner::HasLine(const std::string& strText)
{
    return LineIndex(strText) >= 0;
}

std::vector<std::string> DaemonRunner::Lines()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return vLines;
}

void DaemonRunner::Signal(int sig)
{
    if (pid > 0)
        kill(pid, sig);
}

int DaemonRunner::WaitExit(int iMs)
{
    if (pid <= 0)
        return -1;
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMs);
    for (;;) {
        int iStatus = 0;
        pid_t r = waitpid(pid, &iStatus, WNOHANG);
        if (r == pid) {
            pid = -1;
            if (rReader.joinable())
                rReader.join();
            return iStatus;
        }
        if (std::chrono::steady_clock::now() > tEnd)
            return -1;
        usleep(20000);
    }
}
