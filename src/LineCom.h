// LineCom.h - a long-lived child program spoken to in lines.
//
// One request line goes to the child's standard input, one reply line comes
// back from its standard output, and whatever it writes to standard error
// is logged. The child is started by the first message, restarted after any
// failed exchange with a growing pause until the error time-out has passed,
// and, if asked, restarted at a fixed interval: politely with "exit" when
// the program understands it, else with SIGTERM.
//
// DESIGN: an object carries one exchange at a time; callers take turns
// with SendMsg (the tracker holds its mutex for that). SignalStop and the
// setters may be called from any thread, so what they set is atomic; a
// running exchange looks at the stop flag at least once per poll. Every
// time-out, pause and poll is counted in LineCom seconds on the monotonic
// clock of ftime.h; a LineCom second is a real second unless a test
// shortens it with SetTimeUnit. The child gets exactly its three standard
// descriptors: the parent ends are close-on-exec and the child closes the
// rest before execv.
#ifndef LINECOM_H
#define LINECOM_H

#include <atomic>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <vector>

class LineCom {
public:
    LineCom() = default;
    // Closes the pipes and reaps the child; one that outlives a short wait
    // after its stdin closed is killed. Stop() first for a gentle end.
    ~LineCom();
    LineCom(const LineCom&) = delete;
    LineCom& operator=(const LineCom&) = delete;

    // Stores the program and its null-terminated argument list (argument 0
    // included). Starts nothing.
    void Init(const char* program, const char** args);
    // One exchange, with restarts and retries until the error time-out.
    // msg must hold its own "\n". True with the reply (its "\n" included);
    // false when shutting down, on the error time-out, or for "ERROR\n".
    bool SendMsg(std::string msg, std::string& reply);
    void SetRestartInterval(int seconds); // 0: no planned restarts
    void SetReadTimeout(int seconds);
    void SetErrorTimeout(int seconds);
    void SetErrorRecheckInterval(int factor); // pause after try n: factor * n * 0.5 s
    // The child understands "exit\n" and ends by itself on it.
    void SupportsExitMsg();
    // From any thread: no more messages; a running exchange gives up
    // within a poll.
    void SignalStop();
    // Ends a live child: "exit\n" when it understands it, SIGTERM if it is
    // still there a second later (at once otherwise).
    void Stop();
    // True while there is no stream to the child.
    bool InvalidState();

    // Tests only: the length of a LineCom second in microseconds.
    static void SetTimeUnit(long usec);

private:
    bool StartProgram();
    bool IsProgramActive();
    bool EnsureProgramStarted();
    void RestartProgram(bool fAllowExitMsg);
    bool InternalSendMsg(std::string msg, std::string& reply);
    // Reads what is there of the reply; 1 complete, 0 not yet, -1 failed.
    int ReadAnswer(char* acAnswer, size_t& iCount);
    // Logs what the child wrote to stderr; false on a read error.
    bool ReadStderr(bool& fOpen);
    bool WaitForExit(int seconds);
    bool WriteToChild(const std::string& msg);
    void CloseParentEnds();

    pid_t childPid = 0;
    std::string program;
    std::vector<std::string> args;
    // Parent ends: child's stdout (read), its stdin (write, owned by
    // writeToChild once that is open), its stderr (read); -1 when closed.
    int pipesfd[3] = {-1, -1, -1};
    FILE* writeToChild = nullptr;
    double lastStarted = 0; // monotonic seconds of the last start
    bool supportsExitMsg = false;
    std::atomic<bool> shuttingDown{false};
    std::atomic<int> restartInterval{0};
    std::atomic<int> readTimeout{10};
    std::atomic<int> errorTimeout{60};
    std::atomic<int> errorRecheckInterval{3};
};

#endif
