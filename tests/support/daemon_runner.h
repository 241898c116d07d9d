// daemon_runner.h - runs the real quorda_crec binary for end-to-end tests.
//
// The simulator root compiled into the build (QUORDA_TEST_ROOT) is wiped and
// prepared with `shsim init` for each test; the private PostgreSQL (PGHOST /
// PGPORT from ctest) is reset and seeded through psql. The daemon's stdout
// and stderr are read by a thread into a list of lines that a test can wait
// on. The destructor kills a daemon that is still running.
#ifndef DAEMON_RUNNER_H
#define DAEMON_RUNNER_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

class DaemonRunner {
public:
    DaemonRunner() = default;
    ~DaemonRunner();
    DaemonRunner(const DaemonRunner&) = delete;
    DaemonRunner& operator=(const DaemonRunner&) = delete;

    // The root of all daemon paths, and a path below it.
    static std::string Root();
    static std::string Path(const std::string& strAbs);
    // Wipes the root and runs `shsim init` with this hardware description.
    static bool PrepareRoot(const std::string& strHardware);
    // Empties the tables and seeds Configs part "s" with crec = strCrec.
    static bool SeedDatabase(const std::string& strCrec = "1");
    // One control command to the simulator inside the running daemon; the
    // reply line, or "" when the command could not be sent.
    static std::string SimCommand(const std::string& strCommand);
    // Polls the simulator's control socket until it answers (the daemon has
    // started the cards); false after iMs.
    static bool WaitForSim(int iMs);
    // The "reported" count of `audio <ch>`: the audio bytes the daemon was
    // told about on that channel since the cards started; -1 on failure.
    static long long SimReportedBytes(int iCh);
    // Adds a Configs row (after SeedDatabase).
    static bool AddConfig(const std::string& strPart, const std::string& strParam,
                          const std::string& strValue);
    // Polls the query until its result equals strExpected; false after iMs.
    static bool WaitForQuery(const std::string& strSql, const std::string& strExpected, int iMs);

    // Starts the binary with these arguments ("debug" by default).
    bool Start(const std::vector<std::string>& vArgs = {"debug"});
    // True once some output line contains strText; waits up to iMs.
    bool WaitForLine(const std::string& strText, int iMs);
    bool HasLine(const std::string& strText);
    // Index of the first line containing strText, -1 none.
    int LineIndex(const std::string& strText);
    std::vector<std::string> Lines();
    void Signal(int sig);
    // Waits up to iMs for the exit; the raw wait status, or -1 on time-out.
    int WaitExit(int iMs);
    bool Running() const { return pid > 0; }

private:
    void ReadOutput(int fd);

    pid_t pid = -1;
    std::thread rReader;
    std::mutex rMutex; // guards vLines
    std::condition_variable rNewLine;
    std::vector<std::string> vLines;
};

#endif
