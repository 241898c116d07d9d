// LineCom.cpp - a long-lived child program spoken to in lines (see LineCom.h).
//
// The parent ends of the three pipes are made with pipe2(O_CLOEXEC), so no
// other child of the process (sox, shred, shell commands) inherits them and
// keeps the tracker's stdin open. Writes to the child are made with SIGPIPE
// held back on the writing thread: a child that died a moment ago gives
// EPIPE, and the exchange fails like any other.
#include "LineCom.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ftime.h"
#include "logging.h"

namespace {

// Room for the answer and for each read of stderr, plus the terminating NUL.
const size_t ANSWER_ROOM = 3000;

std::atomic<long> g_iUnitUs{1000000};

double UnitSeconds()
{
    return g_iUnitUs.load() / 1e6;
}

// LineCom seconds since tStart (a getRelativeTime value).
double Elapsed(double tStart)
{
    return (getRelativeTime() - tStart) / UnitSeconds();
}

void SleepUnits(double dUnits)
{
    SleepUs(static_cast<long>(dUnits * g_iUnitUs.load()));
}

// Holds SIGPIPE back on this thread while it lives and swallows one that
// its writes raised, so a dead child gives EPIPE instead of ending the
// process (tests run without the daemon's SIG_IGN).
class SigPipeGuard {
public:
    SigPipeGuard()
    {
        sigemptyset(&rPipeSet);
        sigaddset(&rPipeSet, SIGPIPE);
        sigset_t rPending;
        sigpending(&rPending);
        fWasPending = sigismember(&rPending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &rPipeSet, &rOldMask);
    }
    ~SigPipeGuard()
    {
        if (!fWasPending) {
            struct timespec rNoWait = {0, 0};
            while (sigtimedwait(&rPipeSet, nullptr, &rNoWait) == SIGPIPE) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &rOldMask, nullptr);
    }
    SigPipeGuard(const SigPipeGuard&) = delete;
    SigPipeGuard& operator=(const SigPipeGuard&) = delete;

private:
    sigset_t rPipeSet;
    sigset_t rOldMask;
    bool fWasPending = false;
};

// In the forked child: only async-signal-safe calls from here on. The ends
// are first moved above 2, so that none is overwritten by another's dup2,
// and a copy that is already 0, 1 or 2 still loses its close-on-exec.
void ExecChild(int fdIn, int fdOut, int fdErr, const char* pcProgram, char* const* apcArgs)
{
    int aiHigh[3] = {fcntl(fdIn, F_DUPFD, 3), fcntl(fdOut, F_DUPFD, 3), fcntl(fdErr, F_DUPFD, 3)};
    for (int i = 0; i < 3; ++i)
        if (aiHigh[i] < 0 || dup2(aiHigh[i], i) < 0)
            _exit(99);
    closefrom(3);
    execv(pcProgram, apcArgs);
    _exit(99);
}

} // namespace

LineCom::~LineCom()
{
    if (childPid == 0) {
        CloseParentEnds();
        return;
    }
    {
        SigPipeGuard rGuard;
        CloseParentEnds(); // stdin at end of file: a line-reading child ends
    }
    pid_t pid = childPid;
    if (!WaitForExit(1)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

void LineCom::SetTimeUnit(long usec)
{
    g_iUnitUs = usec > 0 ? usec : 1000000;
}

void LineCom::Init(const char* pcProgram, const char** apcArgs)
{
    program = pcProgram ? pcProgram : "";
    args.clear();
    for (const char** p = apcArgs; p && *p; ++p)
        args.push_back(*p);
}

void LineCom::SetRestartInterval(int seconds)
{
    restartInterval = seconds;
}

void LineCom::SetReadTimeout(int seconds)
{
    readTimeout = seconds;
}

void LineCom::SetErrorTimeout(int seconds)
{
    errorTimeout = seconds;
}

void LineCom::SetErrorRecheckInterval(int factor)
{
    errorRecheckInterval = factor;
}

void LineCom::SupportsExitMsg()
{
    supportsExitMsg = true;
}

void LineCom::SignalStop()
{
    shuttingDown = true;
}

bool LineCom::InvalidState()
{
    return writeToChild == nullptr;
}

void LineCom::CloseParentEnds()
{
    // fclose closes pipesfd[1] as well: one close per descriptor, since a
    // second one could hit a descriptor another thread has just opened.
    if (writeToChild) {
        fclose(writeToChild);
        writeToChild = nullptr;
        pipesfd[1] = -1;
    }
    for (int& fd : pipesfd) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

bool LineCom::StartProgram()
{
    // Everything the child needs is built before fork: after it, the child
    // of a threaded process may not allocate.
    std::vector<char*> vArgv;
    for (std::string& s : args)
        vArgv.push_back(&s[0]);
    vArgv.push_back(nullptr);

    int aiIn[2], aiOut[2], aiErr[2];
    if (pipe2(aiIn, O_CLOEXEC) != 0)
        return false;
    if (pipe2(aiOut, O_CLOEXEC) != 0) {
        close(aiIn[0]);
        close(aiIn[1]);
        return false;
    }
    if (pipe2(aiErr, O_CLOEXEC) != 0) {
        for (int fd : {aiIn[0], aiIn[1], aiOut[0], aiOut[1]})
            close(fd);
        return false;
    }
    childPid = fork();
    if (childPid == 0)
        ExecChild(aiIn[0], aiOut[1], aiErr[1], program.c_str(), vArgv.data());
    for (int fd : {aiIn[0], aiOut[1], aiErr[1]})
        close(fd);
    if (childPid < 0) {
        childPid = 0;
        for (int fd : {aiIn[1], aiOut[0], aiErr[0]})
            close(fd);
        return false;
    }
    pipesfd[0] = aiOut[0];
    pipesfd[1] = aiIn[1];
    pipesfd[2] = aiErr[0];
    fcntl(pipesfd[0], F_SETFL, fcntl(pipesfd[0], F_GETFL) | O_NONBLOCK);
    fcntl(pipesfd[2], F_SETFL, fcntl(pipesfd[2], F_GETFL) | O_NONBLOCK);
    writeToChild = fdopen(pipesfd[1], "w");
    if (!writeToChild)
        return false; // pipesfd[1] stays open and is closed with the others
    lastStarted = getRelativeTime();
    return true;
}

bool LineCom::IsProgramActive()
{
    if (childPid == 0)
        return false;
    if (waitpid(childPid, nullptr, WNOHANG) == 0)
        return true;
    // Gone and reaped (or reaped elsewhere: ECHILD).
    childPid = 0;
    SigPipeGuard rGuard;
    CloseParentEnds();
    return false;
}

bool LineCom::EnsureProgramStarted()
{
    if (IsProgramActive())
        return true;
    StartProgram();
    return IsProgramActive();
}

bool LineCom::WaitForExit(int seconds)
{
    double tStart = getRelativeTime();
    while (IsProgramActive()) {
        if (Elapsed(tStart) >= seconds)
            return false;
        SleepUnits(0.1);
    }
    return true;
}

void LineCom::RestartProgram(bool fAllowExitMsg)
{
    lg(5, "LineCom Restart");
    if (!IsProgramActive()) {
        StartProgram();
        return;
    }
    if (supportsExitMsg && fAllowExitMsg) {
        std::string strDropped;
        InternalSendMsg("exit\n", strDropped);
        if (WaitForExit(readTimeout)) {
            StartProgram();
            return;
        }
    }
    // A child that outlives SIGTERM stays; the next exchange fails with it.
    kill(childPid, SIGTERM);
    if (WaitForExit(readTimeout))
        StartProgram();
}

bool LineCom::WriteToChild(const std::string& msg)
{
    SigPipeGuard rGuard;
    bool fOk = fwrite(msg.data(), 1, msg.size(), writeToChild) == msg.size();
    // A dead reader shows only when the buffer goes out.
    return fflush(writeToChild) == 0 && fOk;
}

int LineCom::ReadAnswer(char* acAnswer, size_t& iCount)
{
    ssize_t n = read(pipesfd[0], acAnswer + iCount, ANSWER_ROOM - iCount);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return 0;
    if (n < 0) {
        lg(4, "LineCom. Read error");
        return -1;
    }
    if (n == 0) {
        lg(4, "LineCom. Read empty");
        return -1;
    }
    iCount += static_cast<size_t>(n);
    return acAnswer[iCount - 1] == '\n' ? 1 : 0;
}

bool LineCom::ReadStderr(bool& fOpen)
{
    char acErr[ANSWER_ROOM + 1];
    ssize_t n = read(pipesfd[2], acErr, ANSWER_ROOM);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return true;
    if (n < 0) {
        lg(4, "LineCom. Read -1");
        return false;
    }
    if (n == 0) {
        fOpen = false; // closed by the child: poll it no more
        return true;
    }
    acErr[n] = '\0';
    lg(3, "LineCom stderr: %s", acErr);
    return true;
}

bool LineCom::InternalSendMsg(std::string msg, std::string& reply)
{
    if (!EnsureProgramStarted()) {
        lg(4, "LineCom. Ensure program is started failed");
        return false;
    }
    if (!writeToChild) {
        lg(4, "LineCom. Invalid state");
        return false;
    }
    if (!WriteToChild(msg)) {
        lg(4, "LineCom. Write failure");
        return false;
    }
    double tStart = getRelativeTime();
    if (shuttingDown)
        return false;

    char acAnswer[ANSWER_ROOM + 1];
    size_t iCount = 0;
    bool fStderrOpen = true;
    int iPollMs = static_cast<int>(g_iUnitUs.load() / 1000);
    for (;;) {
        struct pollfd arFds[2] = {{pipesfd[0], POLLIN, 0}, {fStderrOpen ? pipesfd[2] : -1, POLLIN, 0}};
        int iReady = poll(arFds, 2, iPollMs > 0 ? iPollMs : 1);
        if (iReady < 0 && errno != EINTR) {
            lg(4, "LineCom. Select error");
            return false;
        }
        if (iReady == 0)
            lg(5, "LineCom answer is delayed. Msg was: %s", msg.c_str());
        int iDone = 0;
        if (iReady > 0 && arFds[0].revents != 0)
            iDone = ReadAnswer(acAnswer, iCount);
        if (iDone < 0)
            return false;
        if (iDone > 0)
            break;
        if (iReady > 0 && arFds[1].revents != 0 && !ReadStderr(fStderrOpen))
            return false;
        if (Elapsed(tStart) >= readTimeout || shuttingDown) {
            lg(4, "LineCom. No answer in time");
            return false;
        }
        if (iCount >= ANSWER_ROOM) {
            lg(4, "LineCom. Buffer overflow");
            return false;
        }
    }
    acAnswer[iCount] = '\0';
    reply = acAnswer; // up to the first NUL
    if (reply == "ERROR\n") {
        lg(3, "LineCom program reports ERROR");
        return false;
    }
    return true;
}

bool LineCom::SendMsg(std::string msg, std::string& reply)
{
    if (shuttingDown) {
        lg(4, "LineCom shutting down, not sending msg");
        return false;
    }
    // Planned restart: only when a message is due, and never for a child
    // that isn't running.
    if (restartInterval != 0 && Elapsed(lastStarted) >= restartInterval && IsProgramActive())
        RestartProgram(true);

    double tStart = getRelativeTime();
    for (int iTry = 1;; ++iTry) {
        if (InternalSendMsg(msg, reply))
            return true;
        // Retrying is of no use once the owner is stopping.
        if (Elapsed(tStart) >= errorTimeout || shuttingDown)
            break;
        RestartProgram(false);
        SleepUnits(errorRecheckInterval * iTry * 0.5);
        int iElapsed = static_cast<int>(Elapsed(tStart));
        lg(5, "LineCom try: %d el: %d / %d", iTry + 1, iElapsed, errorTimeout.load());
        if (iElapsed >= errorTimeout)
            break;
    }
    lg(4, "LineCom. Error time-out reached");
    return false;
}

void LineCom::Stop()
{
    if (!IsProgramActive())
        return;
    if (supportsExitMsg && WriteToChild("exit\n") && WaitForExit(1))
        return;
    kill(childPid, SIGTERM);
}
