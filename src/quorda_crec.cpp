// quorda_crec.cpp - the process shell: arguments, the driver and cluster
// gates, daemonising, signals, the start sequence and the stop order.
//
// DESIGN: the process has one thread until the signalling thread and the
// background pair start; RecorderMain then runs the card work on the main
// thread. SIGINT and SIGTERM only set the atomic fAppTerminate, which every
// loop polls. The crash handler (SIGSEGV, SIGABRT) uses async-signal-safe
// calls alone: everything it needs (the marker file's path, a datagram
// socket to the system log, a pipe to turn backtrace lines into log
// messages) is prepared by setSignalHandlers before any crash can happen.
// Whatever ends early (recording disabled, no cards, cards not started),
// the process idles until it is told to stop, so its supervisor sees one
// steady process.
#include "quorda_crec.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "bgact.h"
#include "database.h"
#include "filedir.h"
#include "fstring.h"
#include "ftime.h"
#include "logging.h"
#include "paths.h"
#include "recorder.h"
#include "signaling.h"

std::atomic<bool> fAppTerminate{false};
std::atomic<int> g_DebugMode{0};
bool g_fClustering = false;
std::string g_cfgPrefix;

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler writes fAppTerminate");

namespace {
const long MAIN_POLL_US = 500000;
const int MAX_FRAMES = 15;

// ---- state of the crash handler, prepared outside it ---------------------------
char g_acErrCrecPath[512];
int g_iSyslogFd = -1;            // datagram socket to the system log, or -1
int g_aiTracePipe[2] = {-1, -1}; // backtrace lines on their way to the log
char g_acTraceBuf[8192];
void* g_apvFrames[MAX_FRAMES];

void SafeWrite(int fd, const char* acText, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, acText, n);
        if (w <= 0)
            return;
        acText += w;
        n -= static_cast<size_t>(w);
    }
}

void SafeWriteStr(int fd, const char* acText)
{
    SafeWrite(fd, acText, strlen(acText));
}

// One message at LOG_ERR in the system log's datagram format.
void SyslogLine(const char* acText, size_t n)
{
    if (g_iSyslogFd < 0)
        return;
    static const char acHead[] = "<11>quorda_crec: ";
    char acMsg[600];
    size_t iHead = sizeof(acHead) - 1;
    if (n > sizeof(acMsg) - iHead)
        n = sizeof(acMsg) - iHead;
    memcpy(acMsg, acHead, iHead);
    memcpy(acMsg + iHead, acText, n);
    send(g_iSyslogFd, acMsg, iHead + n, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void WriteCrashMarker(const char* acText)
{
    int fd = open(g_acErrCrecPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    SafeWriteStr(fd, acText);
    close(fd);
}

// The frames but the handler's own: to stdout in debug mode, and each one as
// a log line by way of the pipe, since backtrace_symbols_fd only writes to a
// descriptor.
void LogBacktrace()
{
    int n = backtrace(g_apvFrames, MAX_FRAMES);
    if (n <= 1)
        return;
    if (g_DebugMode.load())
        backtrace_symbols_fd(g_apvFrames + 1, n - 1, STDOUT_FILENO);
    if (g_aiTracePipe[1] < 0)
        return;
    backtrace_symbols_fd(g_apvFrames + 1, n - 1, g_aiTracePipe[1]);
    ssize_t iLen = read(g_aiTracePipe[0], g_acTraceBuf, sizeof(g_acTraceBuf));
    size_t iStart = 0;
    for (ssize_t i = 0; i < iLen; ++i) {
        if (g_acTraceBuf[i] != '\n')
            continue;
        SyslogLine(g_acTraceBuf + iStart, static_cast<size_t>(i) - iStart);
        iStart = static_cast<size_t>(i) + 1;
    }
}

void signal_handler(int sig, siginfo_t*, void*)
{
    if (sig == SIGINT || sig == SIGTERM) {
        fAppTerminate = true;
        return;
    }
    const char* acMarker;
    if (sig == SIGABRT)
        acMarker = "Signal SIGABRT";
    else if (sig == SIGSEGV)
        acMarker = "Signal SIGSEGV";
    else
        return;
    SyslogLine(acMarker, strlen(acMarker));
    WriteCrashMarker(acMarker);
    if (g_DebugMode.load()) {
        SafeWriteStr(STDOUT_FILENO, acMarker);
        SafeWriteStr(STDOUT_FILENO, "\n");
    }
    LogBacktrace();

    // Die by the same signal, so that a core dump shows it.
    struct sigaction rAction;
    memset(&rAction, 0, sizeof(rAction));
    rAction.sa_handler = SIG_DFL;
    if (sigaction(sig, &rAction, nullptr) != 0)
        _exit(1);
    raise(sig);
}

void PrepareCrashHandler()
{
    snprintf(g_acErrCrecPath, sizeof(g_acErrCrecPath), "%s", ErrCrecPath().c_str());
    if (g_aiTracePipe[0] < 0 && pipe2(g_aiTracePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        g_aiTracePipe[0] = -1;
        g_aiTracePipe[1] = -1;
    }
    if (g_iSyslogFd < 0) {
        // The system's log socket, a device of the system like /dev/null.
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un rAddr;
        memset(&rAddr, 0, sizeof(rAddr));
        rAddr.sun_family = AF_UNIX;
        snprintf(rAddr.sun_path, sizeof(rAddr.sun_path), "%s", "/dev/log");
        if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&rAddr), sizeof(rAddr)) == 0)
            g_iSyslogFd = fd;
        else if (fd >= 0)
            close(fd);
    }
    // The first backtrace() loads the unwinder, which allocates: do it now.
    backtrace(g_apvFrames, MAX_FRAMES);
}

// Sleeps in polling steps until the stop signal.
void WaitForTerminate()
{
    while (!fAppTerminate.load())
        SleepUs(MAIN_POLL_US);
}

// A passive cluster node waits for primacy or for the stop, and then ends:
// only a new start passes the gate.
int RunPassiveNode()
{
    lg(5, "Not starting, this node is passive, waiting until we become primary or until termination");
    setSignalHandlers();
    std::string strActive = SysPath("/var/quorda/data/node_active");
    while (!file_exists(strActive) && !fAppTerminate.load())
        SleepUs(MAIN_POLL_US);
    lg(5, "QUORDA-CREC exit");
    return 0;
}

bool IsPassiveNode()
{
    return file_exists(SysPath("/var/quorda/conf/opt_cluster")) &&
           !file_exists(SysPath("/var/quorda/data/node_active"));
}

// From the database wait to the stop order; the process is a daemon by now.
int RunDaemon()
{
    Database::Init();
    Database rDb("root");
    if (rDb.WaitForConnection() != 0) {
        Database::Deinit();
        WriteErrCrec("No database connection");
        return 1;
    }
    init_signaling();
    init_bgact();
    int iStatus = RecorderMain();
    Database::Deinit();
    if (!fAppTerminate.load()) {
        lg(5, "waiting for exit");
        WaitForTerminate();
    }
    lg(5, "Closing extra threads");
    close_bgact();
    close_signaling();
    lg(5, "QUORDA-CREC exit");
    return iStatus;
}
} // namespace

bool CheckCardDriver()
{
    struct stat rStat;
    return stat(SysPath("/usr/local/lib/shcti").c_str(), &rStat) == 0;
}

void setSignalHandlers()
{
    PrepareCrashHandler();
    struct sigaction rAction;
    memset(&rAction, 0, sizeof(rAction));
    rAction.sa_sigaction = signal_handler;
    rAction.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&rAction.sa_mask);
    for (int sig : {SIGSEGV, SIGABRT, SIGTERM, SIGINT})
        sigaction(sig, &rAction, nullptr);
}

int spawn_me()
{
    pid_t pid = fork();
    if (pid < 0)
        return 1;
    if (pid > 0)
        return 0;
    if (setsid() < 0 || chdir(SysPath("/").c_str()) != 0)
        return 1;
    FILE* f = fopen(SysPath("/var/run/quorda_crec.pid").c_str(), "we");
    if (f) {
        fprintf(f, "%d\n", static_cast<int>(getpid()));
        fclose(f);
    }
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    // Lowest free descriptors: 0, then 1 and 2 by dup.
    int fd = open("/dev/null", O_RDWR);
    if (fd >= 0) {
        if (dup(fd) < 0 || dup(fd) < 0)
            return 1;
    }
    return -1;
}

std::string ReadSN()
{
    std::string strSN = StdGetFileContent(SysPath("/var/quorda/conf/serial"));
    trim(strSN);
    return strSN;
}

void OnKnowSN(const std::string& sn)
{
    g_cfgPrefix = g_fClustering ? sn + "-" : std::string();
}

void InitCluster()
{
    g_fClustering = false;
    if (!file_exists(SysPath("/var/quorda/conf/opt_cluster")))
        return;
    lg(5, "Clustering is ON");
    g_fClustering = true;
    OnKnowSN(ReadSN());
}

int quorda_crec_main(int argc, char** argv)
{
    bool fFork = true;
    if (argc > 1 && strcmp(argv[1], "debug") == 0) {
        printf("Opened in debug mode.....\n");
        fflush(stdout);
        g_DebugMode = 1;
        fFork = false;
    } else if (argc > 1 && strcmp(argv[1], "nofork") == 0) {
        fFork = false;
    }

    if (!CheckCardDriver()) {
        lg(4, "Not starting because card driver not there");
        return 0;
    }
    if (IsPassiveNode())
        return RunPassiveNode();

    if (fFork) {
        int iResult = spawn_me();
        if (iResult == 0)
            return 0; // the parent
        if (iResult != -1) {
            WriteErrCrec("Could not start");
            return iResult;
        }
    }
    lg(5, "QUORDA-CREC start");
    signal(SIGPIPE, SIG_IGN);
    setSignalHandlers();
    umask(0);
    return RunDaemon();
}
