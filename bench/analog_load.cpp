// analog_load - the analog load benchmark: N simulated analog lines record
// at once for a fixed time, and the figures that say whether the daemon
// keeps up come out at the end (see bench/README.md).
//
// One program plays two roles. Run normally it is the driver: it starts the
// private PostgreSQL (scripts/pg-private), prepares a simulator root of its
// own with ATP boards of up to 60 lines (shsim init), starts itself a second
// time as the daemon on that root, picks up every line with a patterned
// audio source, measures the daemon's CPU over the recording window, hangs
// up, waits for every call to reach Calls, and compares what the simulated
// cards reported with what the WAVE files hold. Run as `analog_load
// --daemon <root>` it is the daemon: the same entry as the quorda_crec
// binary, with the root of its paths and of the simulator set first, since
// the real binary's root is fixed at build time.
//
// The driver is single-threaded; it talks to the simulator over its control
// socket (one connection, one line per command) and to the database with
// psql, and it reads /proc/<pid> of the daemon.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "paths.h"
#include "quorda_crec.h"
#include "shsim.h"

namespace {

const unsigned long long kSeedBase = 1000; // line i gets pattern kSeedBase + i
const int kLinesPerBoard = 60;

struct Options {
    int iChannels = 30;
    int iSeconds = 60;
    std::string strRoot = "/tmp/qbench";
    std::string strPgDir = QUORDA_BINARY_DIR "/pgbench";
    bool fKeepRoot = false;
};

void Die(const std::string& strWhy)
{
    fprintf(stderr, "analog_load: %s\n", strWhy.c_str());
    exit(2);
}

std::string ShellQuote(const std::string& s)
{
    std::string strOut = "'";
    for (char c : s)
        strOut += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return strOut + "'";
}

// Runs a shell command; its stdout without the last line end.
std::string Run(const std::string& strCmd, bool* pfOk = nullptr)
{
    FILE* p = popen(strCmd.c_str(), "re");
    if (!p)
        Die("cannot run " + strCmd);
    std::string strOut;
    char acBuf[4096];
    size_t n;
    while ((n = fread(acBuf, 1, sizeof(acBuf), p)) > 0)
        strOut.append(acBuf, n);
    int iStatus = pclose(p);
    if (pfOk)
        *pfOk = iStatus == 0;
    while (!strOut.empty() && strOut.back() == '\n')
        strOut.pop_back();
    return strOut;
}

std::string Psql(const std::string& strSql)
{
    bool fOk;
    std::string strOut =
        Run("/usr/lib/postgresql/15/bin/psql -X -q -At -v ON_ERROR_STOP=1 -U root -d quorda -c " +
                ShellQuote(strSql) + " 2>&1",
            &fOk);
    if (!fOk)
        Die("psql: " + strOut);
    return strOut;
}

double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Polls fnDone every 100 ms; false when iSeconds passed first.
template <class F> bool WaitFor(F fnDone, double dSeconds)
{
    double dEnd = Now() + dSeconds;
    while (!fnDone()) {
        if (Now() > dEnd)
            return false;
        usleep(100000);
    }
    return true;
}

std::string ReadFile(const std::string& strPath)
{
    std::ifstream f(strPath, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The simulator's control socket, one connection for all commands.
class SimControl {
public:
    explicit SimControl(const std::string& strRoot)
    {
        std::string strPath = strRoot + "/usr/local/lib/shcti/sim/control.sock";
        sockaddr_un rAddr{};
        rAddr.sun_family = AF_UNIX;
        if (strPath.size() >= sizeof(rAddr.sun_path))
            Die("socket path too long: " + strPath);
        memcpy(rAddr.sun_path, strPath.c_str(), strPath.size() + 1);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&rAddr), sizeof(rAddr)) != 0)
            Die("cannot reach the simulator at " + strPath);
    }
    ~SimControl() { close(fd); }
    SimControl(const SimControl&) = delete;
    SimControl& operator=(const SimControl&) = delete;

    // Sends one command; its reply line. Dies on ERR.
    std::string Command(const std::string& strCommand)
    {
        std::string strLine = strCommand + "\n";
        if (write(fd, strLine.data(), strLine.size()) != static_cast<ssize_t>(strLine.size()))
            Die("write to the simulator failed");
        size_t iEnd;
        while ((iEnd = strPending.find('\n')) == std::string::npos) {
            char acBuf[4096];
            ssize_t n = read(fd, acBuf, sizeof(acBuf));
            if (n <= 0)
                Die("the simulator closed its socket");
            strPending.append(acBuf, static_cast<size_t>(n));
        }
        std::string strReply = strPending.substr(0, iEnd);
        strPending.erase(0, iEnd + 1);
        if (strReply.compare(0, 2, "OK") != 0)
            Die(strCommand + ": " + strReply);
        return strReply;
    }

private:
    int fd = -1;
    std::string strPending;
};

// The number after " <key> " in a reply, -1 if absent.
long long Field(const std::string& strReply, const std::string& strKey)
{
    size_t iPos = strReply.find(" " + strKey + " ");
    if (iPos == std::string::npos)
        return -1;
    return strtoll(strReply.c_str() + iPos + strKey.size() + 2, nullptr, 10);
}

// utime + stime of a process, all its threads, in seconds.
double CpuSeconds(pid_t pid)
{
    std::string strStat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    size_t iParen = strStat.rfind(')');
    if (iParen == std::string::npos)
        Die("cannot read the daemon's /proc stat");
    std::istringstream s(strStat.substr(iParen + 2));
    std::string strField;
    unsigned long long ullUtime = 0, ullStime = 0;
    // Fields from the state (3) on: utime is 14, stime 15.
    for (int i = 3; i <= 15 && s >> strField; ++i) {
        if (i == 14)
            ullUtime = strtoull(strField.c_str(), nullptr, 10);
        if (i == 15)
            ullStime = strtoull(strField.c_str(), nullptr, 10);
    }
    return static_cast<double>(ullUtime + ullStime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long long PeakMemoryKb(pid_t pid)
{
    std::istringstream s(ReadFile("/proc/" + std::to_string(pid) + "/status"));
    std::string strLine;
    while (std::getline(s, strLine))
        if (strLine.compare(0, 6, "VmHWM:") == 0)
            return strtoll(strLine.c_str() + 6, nullptr, 10);
    return -1;
}

uint32_t Le32(const std::string& s, size_t iAt)
{
    uint32_t u = 0;
    for (int i = 3; i >= 0; --i)
        u = u << 8 | static_cast<unsigned char>(s[iAt + static_cast<size_t>(i)]);
    return u;
}

struct Recordings {
    int iFiles = 0;
    int iBadHeaders = 0;        // size fields that disagree with each other or the file
    int iPatternMismatches = 0; // audio that isn't the line's pattern from its first byte
    long long llDataBytes = 0;
    std::string strMismatchLines; // their line numbers
};

// Every .wav below strDir: header sizes, data sum, and the audio against the
// pattern of its line (the line number is the third part of the name).
void ScanRecordings(const std::string& strDir, Recordings& r)
{
    DIR* prDir = opendir(strDir.c_str());
    if (!prDir)
        return;
    while (dirent* prEntry = readdir(prDir)) {
        std::string strName = prEntry->d_name;
        if (strName == "." || strName == "..")
            continue;
        std::string strPath = strDir + "/" + strName;
        struct stat rStat;
        if (stat(strPath.c_str(), &rStat) != 0)
            continue;
        if (S_ISDIR(rStat.st_mode)) {
            ScanRecordings(strPath, r);
            continue;
        }
        if (strName.size() < 4 || strName.compare(strName.size() - 4, 4, ".wav") != 0)
            continue;
        ++r.iFiles;
        std::string s = ReadFile(strPath);
        if (s.size() < 56) {
            ++r.iBadHeaders;
            continue;
        }
        uint32_t uData = Le32(s, 52);
        if (uData != s.size() - 56 || Le32(s, 44) != uData || Le32(s, 4) != uData + 48)
            ++r.iBadHeaders;
        r.llDataBytes += uData;
        // 20240131_084501_012_07.wav: line 12 is driver channel 11.
        int iLine = atoi(strName.substr(16, 3).c_str());
        std::string strExpected(s.size() - 56, '\0');
        shsim_pattern_bytes(kSeedBase + static_cast<unsigned long long>(iLine - 1), 0,
                            reinterpret_cast<unsigned char*>(&strExpected[0]), strExpected.size());
        if (s.compare(56, std::string::npos, strExpected) != 0) {
            ++r.iPatternMismatches;
            r.strMismatchLines += " " + std::to_string(iLine);
        }
    }
    closedir(prDir);
}

std::string HardwareIni(int iChannels)
{
    std::string strIni = "# analog_load: " + std::to_string(iChannels) + " analog lines\n";
    for (int iBoard = 0; iBoard * kLinesPerBoard < iChannels; ++iBoard) {
        int iLines = std::min(kLinesPerBoard, iChannels - iBoard * kLinesPerBoard);
        strIni += "[board]\nmodel=ATP-" + std::to_string(iLines) +
                  "A\nserial=" + std::to_string(20001 + iBoard) + "\nchannels=" + std::to_string(iLines) +
                  "\n\n";
    }
    return strIni;
}

struct AudioSums {
    long long llReported = 0, llDelivered = 0, llOverruns = 0, llLost = 0;
    int iLinesWithOverruns = 0;
};

// The simulator's audio figures of every line, summed (since the cards started).
AudioSums SumAudio(SimControl& rSim, int iChannels)
{
    AudioSums r;
    for (int i = 0; i < iChannels; ++i) {
        std::string strAudio = rSim.Command("audio " + std::to_string(i));
        r.llReported += Field(strAudio, "reported");
        r.llDelivered += Field(strAudio, "delivered");
        r.llOverruns += Field(strAudio, "overruns");
        r.llLost += Field(strAudio, "lost");
        if (Field(strAudio, "overruns") > 0)
            ++r.iLinesWithOverruns;
    }
    return r;
}

pid_t StartDaemon(const Options& o, const std::string& strLog)
{
    pid_t pid = fork();
    if (pid < 0)
        Die("fork failed");
    if (pid == 0) {
        int fd = open(strLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            _exit(127);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execl("/proc/self/exe", "analog_load", "--daemon", o.strRoot.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

int Usage()
{
    fprintf(stderr, "usage: analog_load [-n channels] [-t seconds] [-r root] [-p pgdir] [-k]\n"
                    "  -n  simulated analog lines recording at once (default 30)\n"
                    "  -t  seconds of recording (default 60)\n"
                    "  -r  simulator and daemon root, wiped first (default /tmp/qbench)\n"
                    "  -p  private PostgreSQL cluster directory (default <build>/pgbench)\n"
                    "  -k  keep the root afterwards (recordings and daemon.log)\n");
    return 2;
}

int RunBenchmark(const Options& o)
{
    printf("== analog_load: %d lines, %d s, root %s\n", o.iChannels, o.iSeconds, o.strRoot.c_str());
    fflush(stdout);
    bool fOk;
    std::string strOut =
        Run(QUORDA_SOURCE_DIR "/scripts/pg-private start " + ShellQuote(o.strPgDir) + " 2>&1", &fOk);
    if (!fOk)
        Die("pg-private start: " + strOut);
    setenv("PGHOST", (o.strPgDir + "/run").c_str(), 1);
    setenv("PGPORT", "5433", 1);
    Psql("TRUNCATE recorders, Lines, Contacts, CallerIDs, LocalIdMapping, UserPhones, Users, ActiveCalls, "
         "Calls, "
         "Configs, IdMap RESTART IDENTITY; INSERT INTO Configs (param, value, part) VALUES ('crec', '1', "
         "'s')");

    if (o.strRoot.size() < 5 || o.strRoot[0] != '/')
        Die("the root must be an absolute path: " + o.strRoot);
    Run("rm -rf " + ShellQuote(o.strRoot));
    std::string strHw = o.strRoot + ".hardware.ini";
    {
        std::ofstream f(strHw);
        f << HardwareIni(o.iChannels);
    }
    strOut =
        Run(QUORDA_BINARY_DIR "/sim/shsim init " + ShellQuote(o.strRoot) + " " + ShellQuote(strHw) + " 2>&1",
            &fOk);
    unlink(strHw.c_str());
    if (!fOk)
        Die("shsim init: " + strOut);

    std::string strLog = o.strRoot + "/daemon.log";
    pid_t pid = StartDaemon(o, strLog);
    if (!WaitFor([&] { return ReadFile(strLog).find("** STARTED **") != std::string::npos; }, 120))
        Die("the daemon did not start, see " + strLog);
    SimControl rSim(o.strRoot);

    // Every line picks up at once: off-hook is the default trigger.
    rSim.Command("audio all pattern " + std::to_string(kSeedBase));
    double dPickup = Now();
    for (int i = 0; i < o.iChannels; ++i)
        rSim.Command("state " + std::to_string(i) + " pickup");
    std::string strN = std::to_string(o.iChannels);
    if (!WaitFor([&] { return Psql("SELECT count(*) FROM ActiveCalls") == strN; }, 60))
        Die("not every line got its ActiveCalls row");
    double dAllRecording = Now() - dPickup;

    double dCpu0 = CpuSeconds(pid), dWall0 = Now();
    std::this_thread::sleep_for(std::chrono::seconds(o.iSeconds));
    double dCpu = CpuSeconds(pid) - dCpu0, dWall = Now() - dWall0;

    // Overruns up to here happened while the lines only recorded; the rest
    // come with the burst of hang-ups.
    AudioSums rWindow = SumAudio(rSim, o.iChannels);
    for (int i = 0; i < o.iChannels; ++i)
        rSim.Command("state " + std::to_string(i) + " idle");
    double dHangup = Now();
    bool fAllCalls = WaitFor([&] { return Psql("SELECT count(*) FROM Calls") == strN; }, 120);
    double dFinish = Now() - dHangup;
    std::string strActiveLeft = Psql("SELECT count(*) FROM ActiveCalls");

    AudioSums rAll = SumAudio(rSim, o.iChannels);
    long long llPeakKb = PeakMemoryKb(pid);

    kill(pid, SIGTERM);
    int iStatus = 0;
    waitpid(pid, &iStatus, 0);
    std::string strLongest;
    {
        std::string strText = ReadFile(strLog);
        size_t iPos = strText.find("Longest event handling: ");
        if (iPos != std::string::npos)
            strLongest = strText.substr(iPos, strText.find('\n', iPos) - iPos);
    }

    Recordings rRec;
    ScanRecordings(o.strRoot + "/recordings", rRec);
    double dChannelHours = o.iChannels * dWall / 3600.0;
    bool fEqual = rAll.llReported == rRec.llDataBytes;

    printf("lines recording at once           %d (all recording %.2f s after the first pick-up)\n",
           o.iChannels, dAllRecording);
    printf("recording window                  %.1f s\n", dWall);
    printf("bytes delivered (reported, sum)   %lld\n", rAll.llReported);
    printf("bytes written (WAVE data, sum)    %lld  %s\n", rRec.llDataBytes, fEqual ? "equal" : "DIFFERENT");
    printf(
        "bytes the cards wrote (delivered) %lld (the tail after the last progress event is not reported)\n",
        rAll.llDelivered);
    printf("recordings                        %d files, %d bad headers, %d not the line's pattern%s%s\n",
           rRec.iFiles, rRec.iBadHeaders, rRec.iPatternMismatches,
           rRec.strMismatchLines.empty() ? "" : ": lines", rRec.strMismatchLines.c_str());
    printf(
        "Calls rows                        %s (all within %.1f s of the hang-up: %s), ActiveCalls left %s\n",
        Psql("SELECT count(*) FROM Calls").c_str(), dFinish, fAllCalls ? "yes" : "NO", strActiveLeft.c_str());
    printf("overruns while recording          %lld on %d lines (%lld bytes lost)\n", rWindow.llOverruns,
           rWindow.iLinesWithOverruns, rWindow.llLost);
    printf("overruns in all (with hang-ups)   %lld on %d lines (%lld bytes lost)\n", rAll.llOverruns,
           rAll.iLinesWithOverruns, rAll.llLost);
    printf("daemon CPU in the window          %.2f s = %.3f CPU s per channel-hour\n", dCpu,
           dCpu / dChannelHours);
    printf("%-33s %s\n", "longest handling (whole run)",
           strLongest.empty() ? "not logged" : strLongest.c_str());
    printf("daemon peak memory (VmHWM)        %lld kB\n", llPeakKb);
    printf("daemon exit status                %d\n", WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1);

    if (!o.fKeepRoot)
        Run("rm -rf " + ShellQuote(o.strRoot));
    bool fGood = fEqual && fAllCalls && rAll.llOverruns == 0 && rRec.iFiles == o.iChannels &&
                 rRec.iBadHeaders == 0 && rRec.iPatternMismatches == 0;
    return fGood ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--daemon") == 0) {
        // The simulator reads SHSIM_ROOT once, at its first use.
        SetSysRoot(argv[2]);
        setenv("SHSIM_ROOT", argv[2], 1);
        char acName[] = "quorda_crec";
        char acDebug[] = "debug";
        char* apcArgv[] = {acName, acDebug, nullptr};
        return quorda_crec_main(2, apcArgv);
    }
    Options o;
    int c;
    while ((c = getopt(argc, argv, "n:t:r:p:k")) != -1) {
        switch (c) {
        case 'n':
            o.iChannels = atoi(optarg);
            break;
        case 't':
            o.iSeconds = atoi(optarg);
            break;
        case 'r':
            o.strRoot = optarg;
            break;
        case 'p':
            o.strPgDir = optarg;
            break;
        case 'k':
            o.fKeepRoot = true;
            break;
        default:
            return Usage();
        }
    }
    if (optind != argc || o.iChannels < 1 || o.iChannels > 4096 || o.iSeconds < 1)
        return Usage();
    return RunBenchmark(o);
}
