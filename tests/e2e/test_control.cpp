// The command socket end to end: the daemon binary on the card simulator
// and the private PostgreSQL, driven through its real socket, partly by
// raw messages and partly by the crecctl client, on simulated analog calls.
// What a user of the web front end or of crecctl sees: the exact replies,
// what each command does to the call, record on demand with the parts kept
// by the keep rules, the time-out while the main thread is held up by the
// database, and a recorder that goes on recording while a client connects
// and stays silent. Each start costs the driver's board wait, so every test
// checks several facts on one start.
#include "e2e_util.h"

#include <chrono>
#include <glob.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

using namespace e2e;

namespace {

const char* kAnalogBoard = "[board]\nmodel=ATP-24A\nserial=10204\nchannels=4\n";

std::string SocketPath()
{
    return DaemonRunner::Path("/tmp/quorda_crec");
}

// A raw client: connected, or -1.
int Connect()
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, SocketPath().c_str(), sizeof(addr.sun_path) - 1);
    timeval tv{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// One message as the front end sends it; the whole reply.
std::string Command(const std::string& strMsg)
{
    int fd = Connect();
    if (fd == -1)
        return "<no connection>";
    send(fd, strMsg.data(), strMsg.size(), MSG_NOSIGNAL);
    std::string s;
    char ac[256];
    ssize_t n;
    while ((n = recv(fd, ac, sizeof(ac), 0)) > 0)
        s.append(ac, static_cast<size_t>(n));
    close(fd);
    return s;
}

struct CtlResult {
    int iExit = -1;
    std::string strOut;
    std::string strErr;
    // "<exit status>|<standard output>|<standard error>"
    std::string All() const { return std::to_string(iExit) + "|" + strOut + "|" + strErr; }
};

// Runs the built crecctl with these arguments (already shell-safe).
CtlResult Ctl(const std::string& strArgs)
{
    char acDir[] = "/tmp/qcXXXXXX";
    CtlResult r;
    if (!mkdtemp(acDir))
        return r;
    std::string strDir = acDir;
    int iStatus = system(
        (QUORDA_BINARY_DIR "/crecctl " + strArgs + " >" + strDir + "/out 2>" + strDir + "/err").c_str());
    r.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    r.strOut = ReadFile(strDir + "/out");
    r.strErr = ReadFile(strDir + "/err");
    unlink((strDir + "/out").c_str());
    unlink((strDir + "/err").c_str());
    rmdir(acDir);
    return r;
}

// The call id of the line's active row, waiting for it; "" if none comes.
std::string ActiveCallId(int iLine, const std::string& strNotId = "")
{
    std::string strSql = "SELECT remoteid FROM ActiveCalls WHERE linenr = " + std::to_string(iLine);
    for (int i = 0; i < 100; ++i) {
        std::string strId = PgQuery(strSql);
        if (!strId.empty() && strId != strNotId && strId.find('\n') == std::string::npos)
            return strId;
        SleepMs(50);
    }
    return std::string();
}

// Files below the recordings whose names begin with the call id.
int CountFiles(const std::string& strCallId)
{
    int iCount = 0;
    for (const char* acPattern : {"/recordings/*/*/*/*/", "/recordings/rectmp/"}) {
        glob_t g;
        std::string strPattern = DaemonRunner::Path(acPattern) + strCallId + "*";
        if (glob(strPattern.c_str(), 0, nullptr, &g) == 0)
            iCount += static_cast<int>(g.gl_pathc);
        globfree(&g);
    }
    return iCount;
}

TEST(ControlClient, HelpWrongUseAndNoDaemonAreToldApart)
{
    CtlResult r = Ctl("--help");
    EXPECT_EQ(r.iExit, 0);
    const std::string astrWords[] = {"start CALLID",   "stop CALLID",   "sound CALLID",
                                     "silence CALLID", "delete CALLID", "change-local LOCAL REMOTE [0|1]",
                                     "chst LINE",      "reconfig",      "trace start CHANNEL",
                                     "trace stop",     "--socket PATH", SocketPath()};
    for (const std::string& strWord : astrWords)
        EXPECT_NE(r.strOut.find(strWord), std::string::npos) << strWord;

    for (const char* acArgs : {"", "frobnicate", "start", "start a b", "chst x", "trace", "trace start",
                               "change-local 1", "change-local 1 2 yes", "reconfig now", "--socket"}) {
        r = Ctl(acArgs);
        EXPECT_EQ(r.iExit, 64) << acArgs;
        EXPECT_NE(r.strErr.find("crecctl --help"), std::string::npos) << acArgs;
    }
    r = Ctl("start " + std::string(100, '1'));
    EXPECT_EQ(r.iExit, 64);
    EXPECT_NE(r.strErr.find("at most 100 bytes"), std::string::npos);

    r = Ctl("--socket /tmp/qc-no-such-socket reconfig");
    EXPECT_EQ(r.iExit, 2);
    EXPECT_NE(r.strErr.find("quorda_crec is not running (no socket at /tmp/qc-no-such-socket)"),
              std::string::npos)
        << r.strErr;
}

TEST(ControlSocket, EveryCommandOnAnAnalogCallWithExactRepliesThenTracing)
{
    ASSERT_TRUE(DaemonRunner::PrepareRoot(kAnalogBoard) && DaemonRunner::SeedDatabase());
    ASSERT_TRUE(DaemonRunner::AddConfig("o", "SilOnDemand", "1"));
    ASSERT_TRUE(DaemonRunner::AddConfig("o", "DelOnDmdType", "1"));
    WriteFile(SocketPath(), ""); // the remains of a crashed daemon must not stand in the way
    DaemonRunner d;
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitForLine("** STARTED **", kStartMs));
    ASSERT_TRUE(d.WaitForLine("reactor started", 2000));
    EXPECT_FALSE(d.HasLine("Socket communication error"));

    ASSERT_TRUE(SimOk("audio 1 pattern 21"));
    RingAndPickUp(1, "0301112222", 1000);
    std::string strId = ActiveCallId(2);
    ASSERT_FALSE(strId.empty());

    // The call id commands, over the raw socket and through crecctl.
    EXPECT_EQ(Command("silence " + strId), "OK\n");
    EXPECT_EQ(Command("sound " + strId), "OK\n");
    EXPECT_EQ(Command("start " + strId), "E3: option RecOnDmd is off\n");
    EXPECT_EQ(Command("stop " + strId), "E3: option RecOnDmd is off\n");
    EXPECT_EQ(Command("sound 20200101_000000_002_01"), "E2: unknown call\n");
    EXPECT_EQ(Command("sound " + strId + "\n"), "E2: unknown call\n");
    EXPECT_EQ(Command("Sound " + strId), "E0: Unknown commmand\n");
    EXPECT_EQ(Ctl("silence " + strId).All(), "0|OK\n|");
    EXPECT_EQ(Ctl("start " + strId).All(), "1||E3: option RecOnDmd is off\n");
    EXPECT_EQ(Ctl("sound nobody").All(), "1||E2: unknown call\n");
    EXPECT_TRUE(d.HasLine("Command: 'sound' Param: 'nobody'"));

    // change_local answers with the result of the act before it.
    EXPECT_EQ(Command("change_local 31|0301112222|0"), "E2: unknown call\n");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT local FROM ActiveCalls WHERE linenr = 2", "31", 3000));
    EXPECT_EQ(Ctl("sound " + strId).iExit, 0);
    // "00" before the line's number
    EXPECT_EQ(Ctl("change-local 32 000301112222 0").All(), "0|OK\n|");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT local FROM ActiveCalls WHERE linenr = 2", "32", 3000));
    EXPECT_EQ(ActiveCallId(2), strId) << "0: the same recording goes on";

    // chst writes the line's state file; a line that doesn't exist is no error.
    std::string strState = DaemonRunner::Path("/var/quorda/data/chstate_2.dat");
    unlink(strState.c_str());
    EXPECT_EQ(Ctl("chst 2").iExit, 0);
    EXPECT_EQ(ReadFile(strState).compare(0, 9, "Voltage: "), 0) << ReadFile(strState);
    EXPECT_EQ(ReadFile(strState).back(), '\n');
    EXPECT_EQ(Command("chst 77"), "OK\n");
    EXPECT_EQ(Command("chst two"), "OK\n");

    // reconfig answers at once and reloads the options on the main thread.
    ASSERT_TRUE(DaemonRunner::AddConfig("o", "RecOnDmdType", "2"));
    EXPECT_EQ(Ctl("reconfig").All(), "0|OK\n|");
    EXPECT_TRUE(d.WaitForLine("RecOnDmdType: 2", 3000));

    // A client that connects and says nothing holds the socket; the
    // recorder meanwhile goes on taking the audio of the call.
    int fdSilent = Connect();
    ASSERT_NE(fdSilent, -1);
    long long iBefore = DaemonRunner::SimReportedBytes(1);
    SleepMs(2000);
    long long iAfter = DaemonRunner::SimReportedBytes(1);
    EXPECT_GE(iAfter - iBefore, 12000) << "the main loop stalled";
    EXPECT_EQ(Count("ActiveCalls", "linenr = 2"), 1);
    close(fdSilent);
    EXPECT_EQ(Command("chst 2"), "OK\n");

    // The main thread held up by the database: a command that waits for it
    // times out after 350 ms, and the daemon catches up afterwards.
    std::thread rLock(
        [] { PgExec("BEGIN; LOCK TABLE configs IN ACCESS EXCLUSIVE MODE; SELECT pg_sleep(2); COMMIT;"); });
    SleepMs(500);
    EXPECT_EQ(Command("reconfig"), "OK\n"); // its act blocks the main thread on the table
    SleepMs(300);
    auto t = std::chrono::steady_clock::now();
    EXPECT_EQ(Command("sound " + strId), "E4: time-out\n");
    EXPECT_LT(std::chrono::steady_clock::now() - t, std::chrono::milliseconds(1000));
    EXPECT_EQ(Ctl("chst 2").All(), "1||E4: time-out\n");
    rLock.join();
    EXPECT_EQ(Command("sound " + strId), "OK\n");

    // delete: the recording ends and is not kept, the call goes on.
    EXPECT_EQ(Command("delete " + strId), "OK\n");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls WHERE linenr = 2", "0", 3000));
    ASSERT_TRUE(SimOk("state 1 idle"));
    SleepMs(1000);
    EXPECT_EQ(Count("Calls", "true"), 0);
    EXPECT_EQ(CountFiles(strId), 0);

    // Tracing ends the calls, writes the trace files and stops back to normal.
    ASSERT_TRUE(SimOk("audio 2 pattern 41"));
    RingAndPickUp(2, "0508880000", 1000);
    ASSERT_FALSE(ActiveCallId(3).empty());
    SleepMs(1000);

    EXPECT_EQ(Command("bittrace_stop"), "ERR: already stopped\n");
    EXPECT_EQ(Ctl("trace start 2").All(), "0|OK\n|");
    ASSERT_TRUE(d.WaitForLine("Starting bit stream tracing on channel 2", 5000));
    EXPECT_EQ(Command("bittrace_start 3"), "ERR: already started\n");
    // The call in progress was ended, and kept, before the trace began.
    EXPECT_EQ(Count("ActiveCalls"), 0);
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls WHERE linenr = 3", "1", 5000));

    // Commands are still served, one act per step of the trace.
    EXPECT_EQ(Command("chst 3"), "OK\n");
    EXPECT_EQ(Command("sound nobody"), "E2: unknown call\n");
    SleepMs(1000);
    std::string strLog = DaemonRunner::Path("/recordings/log/");
    EXPECT_GT(ReadFile(strLog + "trace.bit").size(), 320u);
    EXPECT_TRUE(Exists(strLog + "trace.wav"));

    EXPECT_EQ(Ctl("trace stop").iExit, 0);
    ASSERT_TRUE(d.WaitForLine("Stopped bit stream tracing", 3000));
    EXPECT_EQ(Ctl("trace stop").All(), "1||ERR: already stopped\n");
    size_t iBits = ReadFile(strLog + "trace.bit").size();
    // The logs are complete once the files are closed.
    EXPECT_EQ(
        ReadFile(strLog + "dch.log").compare(0, 50, "[Ch] Seconds  EventCo. SubReas. XtraInfo DataLen.\n"),
        0);
    EXPECT_EQ(ReadFile(strLog + "dmsg.log").compare(0, 13, "[Ch] Seconds\n"), 0);

    // Events are handled again: the next call is tracked.
    RingAndPickUp(2, "0508880001", 1000);
    EXPECT_FALSE(ActiveCallId(3).empty());
    EXPECT_EQ(ReadFile(strLog + "trace.bit").size(), iBits) << "the stream has stopped";

    StopDaemon(d);
    EXPECT_LT(d.LineIndex("reactor exit"), d.LineIndex("QUORDA-CREC exit"));
    EXPECT_EQ(Ctl("chst 2").iExit, 2) << "the socket file stays, nobody listens";
}

TEST(ControlSocket, RecordOnDemandWaitsForStartAndKeepsThePartsByTheRules)
{
    DaemonRunner d;
    ASSERT_TRUE(
        StartDaemon(d, kAnalogBoard, {{"crec", "Syn10204_RecOnDmd", "1,0,0,0"}, {"o", "RecMinDur", "3"}}));
    ASSERT_TRUE(SimOk("audio 0 pattern 31"));
    RingAndPickUp(0, "0407770000", 1000);

    // Waiting: an active row, no recording, no file.
    std::string strFirst = ActiveCallId(1);
    ASSERT_FALSE(strFirst.empty());
    SleepMs(1500);
    EXPECT_EQ(PgQuery("SELECT isarchived FROM ActiveCalls WHERE linenr = 1"), "0");
    EXPECT_EQ(CountFiles(strFirst), 0);
    EXPECT_NE(DaemonRunner::SimCommand("audio 0").find(" recordings 0 "), std::string::npos);

    // start: a recording under a new id; stop after 4 s: kept.
    EXPECT_EQ(Ctl("start " + strFirst).All(), "0|OK\n|");
    std::string strKept = ActiveCallId(1, strFirst);
    ASSERT_FALSE(strKept.empty());
    EXPECT_EQ(PgQuery("SELECT isarchived FROM ActiveCalls WHERE linenr = 1"), "1");
    EXPECT_EQ(Command("start " + strKept), "OK\n") << "a second start changes nothing";
    EXPECT_EQ(ActiveCallId(1), strKept);
    SleepMs(4000);
    EXPECT_EQ(Command("stop " + strKept), "OK\n");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls WHERE remoteid = '" + strKept + "'",
                                           "1", 5000));
    EXPECT_EQ(PgQuery("SELECT filename FROM Calls"), strKept + ".wav");
    int iDuration = std::stoi("0" + PgQuery("SELECT duration FROM Calls"));
    EXPECT_GE(iDuration, 3);
    EXPECT_LE(iDuration, 5);

    // Back to waiting; a part shorter than RecMinDur is not kept.
    std::string strShort = ActiveCallId(1, strKept);
    ASSERT_FALSE(strShort.empty());
    EXPECT_EQ(PgQuery("SELECT isarchived FROM ActiveCalls WHERE linenr = 1"), "0");
    EXPECT_EQ(Command("start " + strShort), "OK\n");
    std::string strPart = ActiveCallId(1, strShort);
    ASSERT_FALSE(strPart.empty());
    SleepMs(1000);
    EXPECT_EQ(Command("stop " + strPart), "OK\n");
    EXPECT_TRUE(d.WaitForLine("Duration too short", 3000));
    std::string strWaiting = ActiveCallId(1, strPart);
    EXPECT_FALSE(strWaiting.empty());

    // The end of the call while waiting leaves nothing more.
    ASSERT_TRUE(SimOk("state 0 idle"));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "0", 3000));
    SleepMs(1000);
    EXPECT_EQ(Count("Calls", "true"), 1);
    EXPECT_EQ(CountFiles(strPart), 0);
    EXPECT_EQ(CountFiles(strKept), 1);
    // Ids of earlier parts no longer name the line.
    EXPECT_EQ(Command("stop " + strFirst), "E2: unknown call\n");
    EXPECT_EQ(Command("stop " + strKept), "E2: unknown call\n");

    StopDaemon(d);
}

} // namespace
