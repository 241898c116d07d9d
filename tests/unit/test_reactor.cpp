// The command socket and its commands, through real Unix sockets in a
// temporary root: the reactor thread of init_reactor, a stand-in for the
// main loop that runs queued acts on a thread of its own (and can be held
// up), and a CRecorder with plain channels. Round trips of every command
// first, then the message edges, then the faults: time-outs, silent and
// vanishing clients, many clients, a stale or impossible socket path.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "BaseChannel.h"
#include "fake_database.h"
#include "log_capture.h"
#include "plain_channels.h"
#include "reactor.h"
#include "recorder.h"
#include "support_temp_root.h"

namespace {

typedef std::chrono::steady_clock SteadyClock;

long MsSince(SteadyClock::time_point t)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - t).count());
}

// Runs what the reactor queues, as the run loop does: performMain,
// completed, delete; one act at a time. fHold stands for a main thread
// that is busy elsewhere.
class FakeMainLoop {
public:
    explicit FakeMainLoop(TRecorderBoot& rBoot_) : rBoot(rBoot_), rThread([this] { Run(); }) {}
    ~FakeMainLoop()
    {
        fStop = true;
        rThread.join();
    }
    std::atomic<bool> fHold{false};
    std::atomic<int> iActsRun{0};

private:
    void Run()
    {
        while (!fStop) {
            ThreadAct* act = nullptr;
            if (fHold || !rBoot.takeAct(act)) {
                usleep(1000);
                continue;
            }
            act->performMain();
            act->completed();
            delete act;
            ++iActsRun;
        }
    }
    TRecorderBoot& rBoot;
    std::atomic<bool> fStop{false};
    std::thread rThread;
};

sockaddr_un Address(const std::string& strPath)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, strPath.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

// A connected client socket, or -1; replies are read with a time-out.
int Connect(const std::string& strPath, int iTimeoutMs = 3000)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = Address(strPath);
    timeval tv{iTimeoutMs / 1000, (iTimeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Everything the server sends until it closes (or the time-out).
std::string ReadAll(int fd)
{
    std::string s;
    char ac[256];
    ssize_t n;
    while ((n = recv(fd, ac, sizeof(ac), 0)) > 0)
        s.append(ac, static_cast<size_t>(n));
    return s;
}

class ReactorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        prBoot = new TRecorderBoot(new FakeDatabase());
        SetCurrentBoot(prBoot);
        rec.prBoot = prBoot;
        rec.prDatabase = prBoot->prDatabase;
        AddPlainChannels(rec, 3);
        for (int i = 0; i < 3; ++i)
            prBoot->rWebToDrvChMap[i] = i;
        Ch(0)->strDbRemoteId = "20240131_084501_001_01";
        Ch(1)->strDbRemoteId = "20240131_084502_002_01";
        strSocket = SysPath("/tmp/quorda_crec");
    }
    void TearDown() override
    {
        StopReactor();
        SetCurrentBoot(nullptr);
        delete prBoot;
    }

    void StartReactor()
    {
        prLoop = new FakeMainLoop(*prBoot);
        init_reactor(&rec);
        struct stat st;
        for (int i = 0; i < 200 && stat(strSocket.c_str(), &st) != 0; ++i)
            usleep(5000);
    }
    // The loop first, so that no act runs against a reactor being destroyed.
    void StopReactor()
    {
        delete prLoop;
        prLoop = nullptr;
        close_reactor();
    }

    // One connection: the raw bytes out, the raw reply back.
    std::string Send(const std::string& strMsg)
    {
        int fd = Connect(strSocket);
        if (fd == -1)
            return "<no connection>";
        send(fd, strMsg.data(), strMsg.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR); // lets an empty message through as one
        std::string s = ReadAll(fd);
        close(fd);
        return s;
    }

    BaseChannel* Ch(int i) { return rec.vChannels[static_cast<size_t>(i)]; }
    // Waits until the stand-in main loop has run exactly n acts.
    bool WaitActs(int n)
    {
        for (int i = 0; i < 200 && prLoop->iActsRun < n; ++i)
            usleep(5000);
        return prLoop->iActsRun == n;
    }

    TempRoot root;
    TRecorderBoot* prBoot = nullptr;
    CRecorder rec; // owns the channels
    FakeMainLoop* prLoop = nullptr;
    std::string strSocket;
};

TEST_F(ReactorTest, CallIdCommandsReplyWithTheChannelsAnswer)
{
    StartReactor();
    for (const char* acWord : {"sound", "silence", "start", "stop", "delete"})
        EXPECT_EQ(Send(std::string(acWord) + " 20990101_000000_009_01"), "E2: unknown call\n") << acWord;

    // Every option off: the channel refuses, each with its own text.
    const std::string strId = " 20240131_084502_002_01";
    const std::pair<const char*, const char*> aRefusals[] = {{"silence", "silence-on-demand"},
                                                             {"sound", "silence-on-demand"},
                                                             {"start", "RecOnDmd"},
                                                             {"stop", "RecOnDmd"},
                                                             {"delete", "DelOnDmd"}};
    for (const auto& r : aRefusals)
        EXPECT_EQ(Send(r.first + strId), std::string("E3: option ") + r.second + " is off\n");

    rec.fSilenceOnDemand = true;
    EXPECT_EQ(Send("silence" + strId), "OK\n");
    EXPECT_TRUE(Ch(1)->fSilencing);
    EXPECT_EQ(Send("sound" + strId), "OK\n");
    EXPECT_FALSE(Ch(1)->fSilencing);
    Ch(1)->fRecOnDmd = true; // waiting for a demand, not recording: stop is a no-op
    EXPECT_EQ(Send("stop" + strId), "OK\n");
    rec.iDelOnDmdType = 1;
    EXPECT_EQ(Send("delete" + strId), "OK\n");
    EXPECT_TRUE(Ch(1)->fDontRecord);
    EXPECT_FALSE(Ch(0)->fDontRecord);
}

TEST_F(ReactorTest, ChangeLocalSplitsItsElementsAndRepliesWithTheLastReportedResult)
{
    Ch(1)->strRemoteNum = "301234";
    rec.iNumberFilterType = 1; // an empty list: a split call never records again here
    StartReactor();
    LogCapture log;
    // ChLocal's own result is dropped: the reply is what the act before left.
    EXPECT_EQ(Send("delete nobody"), "E2: unknown call\n");
    EXPECT_EQ(Send("change_local 20|00301234|0"), "E2: unknown call\n");
    EXPECT_EQ(Ch(1)->strLocalNum, "20");
    EXPECT_FALSE(log.Contains("[2] LocalNumberChanged: STOP")) << "0: the recording goes on";
    rec.fSilenceOnDemand = true;
    EXPECT_EQ(Send("sound 20240131_084502_002_01"), "OK\n");
    EXPECT_EQ(Send("change_local 21|999"), "OK\n");
    EXPECT_EQ(Ch(1)->strLocalNum, "20");
    // Any flag but "0", and none at all, split the call.
    EXPECT_EQ(Send("change_local 21|301234|yes|more"), "OK\n");
    EXPECT_EQ(Ch(1)->strLocalNum, "21");
    EXPECT_TRUE(log.Contains("[2] LocalNumberChanged: STOP", 5));
    // A lone element: the remote number is empty, which finds the first
    // channel without one.
    EXPECT_EQ(Send("change_local 22"), "OK\n");
    EXPECT_EQ(Ch(0)->strLocalNum, "22");
    EXPECT_TRUE(log.Contains("[1] LocalNumberChanged: STOP", 5));
    // After a refusal (2) the reply is nothing at all.
    rec.fSilenceOnDemand = false;
    EXPECT_EQ(Send("sound 20240131_084502_002_01"), "E3: option silence-on-demand is off\n");
    EXPECT_EQ(Send("change_local 23|301234|0"), "");
}

TEST_F(ReactorTest, ReconfigChstAndTracingReplyAndTheirActsRun)
{
    StartReactor();
    static_cast<FakeDatabase*>(prBoot->prDatabase)->Set("o", "RecOnDmdType", "2");
    EXPECT_EQ(Send("reconfig"), "OK\n");
    EXPECT_EQ(Send("chst 2"), "OK\n"); // waits, so the reconfig act before it has run
    EXPECT_EQ(rec.iRecOnDmdType, 2);
    EXPECT_EQ(Send("chst 99"), "OK\n") << "a line that doesn't exist is no error";

    EXPECT_EQ(Send("bittrace_stop"), "ERR: already stopped\n");
    EXPECT_EQ(Send("bittrace_start 7"), "OK\n");
    EXPECT_EQ(Send("chst 1"), "OK\n");
    EXPECT_TRUE(rec.fBitStreamTracing);
    EXPECT_EQ(rec.iBitStreamChNr, 7);
    EXPECT_EQ(Send("bittrace_start 8"), "ERR: already started\n");
    EXPECT_EQ(Send("bittrace_stop"), "OK\n");
    EXPECT_EQ(Send("chst 1"), "OK\n");
    EXPECT_FALSE(rec.fBitStreamTracing);
    EXPECT_EQ(rec.iBitStreamChNr, 7) << "stop leaves the channel number";

    // A channel that isn't a number is channel 0; one past int is cut to it.
    EXPECT_EQ(Send("bittrace_start x12"), "OK\n");
    EXPECT_EQ(Send("chst -99999999999999999999"), "OK\n");
    EXPECT_EQ(rec.iBitStreamChNr, 0);
    // The flag changes only when the act has run: until then a second
    // start is refused.
    prLoop->fHold = true;
    EXPECT_EQ(Send("bittrace_stop"), "OK\n");
    EXPECT_EQ(Send("bittrace_start 1"), "ERR: already started\n");
    prLoop->fHold = false;
    EXPECT_EQ(Send("chst 1"), "OK\n");
    EXPECT_EQ(Send("bittrace_start 99999999999999999999"), "OK\n");
    EXPECT_EQ(Send("chst abc"), "OK\n");
    EXPECT_EQ(rec.iBitStreamChNr, 2147483647);
}

TEST_F(ReactorTest, MessageEdgesFollowTheWireFormat)
{
    rec.fSilenceOnDemand = true;
    // An id that fills the 100 bytes exactly with "silence ".
    Ch(2)->strDbRemoteId = std::string(92, '7');
    StartReactor();
    LogCapture log;
    const std::string strUnknown = "E0: Unknown commmand\n", strNoCall = "E2: unknown call\n";
    const std::pair<std::string, std::string> aCases[] = {
        {"silence " + Ch(2)->strDbRemoteId + "EXTRA BYTES PAST THE LIMIT", "OK\n"},
        {"frobnicate 1", strUnknown},
        {"Sound 20240131_084502_002_01", strUnknown}, // case matters
        {"", strUnknown},
        // A trailing newline or blank is part of the call id.
        {"silence 20240131_084502_002_01\n", strNoCall},
        {"silence 20240131_084502_002_01 ", strNoCall},
        // The text ends at the first NUL byte.
        {std::string("silence 20240131_084502_002_01\0garbage", 38), "OK\n"},
        {std::string("\0silence 20240131_084502_002_01", 31), strUnknown},
        {"silence \xff\xfe", strNoCall},
        {"\xff", strUnknown},
        // Only the first blank splits; the rest belongs to the parameter.
        {"silence  20240131_084502_002_01", strNoCall}};
    for (const auto& c : aCases)
        EXPECT_EQ(Send(c.first), c.second) << c.first;
    EXPECT_TRUE(Ch(2)->fSilencing);
    EXPECT_TRUE(log.Contains("Command: '' Param: ''", 5));
    EXPECT_TRUE(log.Contains("Command: 'silence' Param: ' 20240131_084502_002_01'", 5));
}

// ---- faults -----------------------------------------------------------------------------

TEST_F(ReactorTest, HeldUpMainThreadGivesTimeOutAndLateActsRunEvenAfterTheClose)
{
    StartReactor();
    prLoop->fHold = true;
    auto t = SteadyClock::now();
    EXPECT_EQ(Send("delete 20240131_084502_002_01"), "E4: time-out\n");
    long iMs = MsSince(t);
    EXPECT_GE(iMs, 340);
    EXPECT_LT(iMs, 1000);
    EXPECT_EQ(Send("chst 1"), "E4: time-out\n");
    EXPECT_EQ(Send("change_local 1|2"), "E4: time-out\n");
    // Commands that don't wait are served as usual meanwhile.
    EXPECT_EQ(Send("reconfig"), "OK\n");
    EXPECT_EQ(Send("nothing"), "E0: Unknown commmand\n");
    EXPECT_EQ(prLoop->iActsRun, 0);
    // The run loop's order: the reactor goes first; later acts find none
    // and must do no harm.
    close_reactor();
    EXPECT_EQ(g_prReactor.load(), nullptr);
    rec.iDelOnDmdType = 1;
    prLoop->fHold = false;
    EXPECT_TRUE(WaitActs(4));
    EXPECT_TRUE(Ch(1)->fDontRecord) << "the late delete still ran";
}

TEST_F(ReactorTest, SilentClientIsWaitedForAndCloseIsStillPrompt)
{
    StartReactor();
    int fdSilent = Connect(strSocket);
    ASSERT_NE(fdSilent, -1);
    // The next client sits in the backlog, unserved, while the first is silent.
    int fdNext = Connect(strSocket, 400);
    ASSERT_NE(fdNext, -1);
    send(fdNext, "chst 1", 6, MSG_NOSIGNAL);
    EXPECT_EQ(ReadAll(fdNext), "");
    close(fdNext);
    // Once the silent one leaves, the others are served again.
    close(fdSilent);
    EXPECT_EQ(Send("chst 1"), "OK\n");

    fdSilent = Connect(strSocket);
    ASSERT_NE(fdSilent, -1);
    usleep(50000);
    auto t = SteadyClock::now();
    StopReactor();
    EXPECT_LT(MsSince(t), 200);
    EXPECT_EQ(ReadAll(fdSilent), "") << "closed without a reply";
    close(fdSilent);
}

TEST_F(ReactorTest, ManyClientsInARowAndOneThatVanishesBeforeTheReply)
{
    StartReactor();
    int iOk = 0;
    for (int i = 0; i < 1000; ++i)
        iOk += Send(i % 2 ? "bogus" : "reconfig") == (i % 2 ? "E0: Unknown commmand\n" : "OK\n");
    EXPECT_EQ(iOk, 1000);

    // Gone before the reply: sending to it must not raise SIGPIPE, which
    // would end this test process.
    prLoop->fHold = true;
    int fd = Connect(strSocket);
    ASSERT_NE(fd, -1);
    send(fd, "chst 1", 6, MSG_NOSIGNAL);
    close(fd);
    usleep(400000);
    prLoop->fHold = false;
    EXPECT_EQ(Send("chst 2"), "OK\n");
    EXPECT_TRUE(WaitActs(502));
}

TEST_F(ReactorTest, StaleSocketFileIsReplacedAndTheSocketIsOpenToAll)
{
    EnsurePath(SysPath("/tmp"));
    // A socket left by a crash: bound, no longer listened on.
    int fdOld = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = Address(strSocket);
    ASSERT_EQ(bind(fdOld, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fdOld);
    ASSERT_EQ(Connect(strSocket), -1);
    struct stat st;
    ASSERT_EQ(stat(strSocket.c_str(), &st), 0);
    ino_t iStale = st.st_ino;

    StartReactor();
    for (int i = 0; i < 200 && stat(strSocket.c_str(), &st) == 0 && st.st_ino == iStale; ++i)
        usleep(5000);
    EXPECT_EQ(Send("chst 1"), "OK\n");
    ASSERT_EQ(stat(strSocket.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0766u);
}

TEST_F(ReactorTest, PathThatDoesNotFitIsRefusedAndTheRecorderGoesOn)
{
    std::string strLong = root.strRoot + "/" + std::string(100, 'd');
    SetSysRoot(strLong);
    LogCapture log;
    StartReactor();
    for (int i = 0; i < 200 && !log.Contains("reactor exit"); ++i)
        usleep(5000);
    EXPECT_TRUE(log.Contains("Socket communication error: path too long: " + strLong, 3));
    // No socket was bound under a cut name either.
    struct stat st;
    EXPECT_NE(stat((strLong + "/tmp/quorda_crec").substr(0, 107).c_str(), &st), 0);
    auto t = SteadyClock::now();
    StopReactor();
    EXPECT_LT(MsSince(t), 200);
    SetSysRoot(root.strRoot);
}

} // namespace
