// Service signalling against a real Unix-socket service in the test, and
// shell execution through a real sh.
#include <gtest/gtest.h>

#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "signaling.h"
#include "support_temp_root.h"

namespace {
// Listens on the service socket, records each message and answers it.
class FakeService {
public:
    enum EMode { ANSWER, CLOSE, SILENT };
    explicit FakeService(std::string reply, EMode mode = ANSWER) : strReply(reply), eMode(mode)
    {
        std::string strPath = ServiceSocketPath();
        EnsurePath(strPath.substr(0, strPath.rfind('/')));
        fdListen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un rAddr = {};
        rAddr.sun_family = AF_UNIX;
        strPath.copy(rAddr.sun_path, sizeof(rAddr.sun_path) - 1);
        EXPECT_EQ(bind(fdListen, reinterpret_cast<sockaddr*>(&rAddr), sizeof(rAddr)), 0);
        listen(fdListen, 8);
        rThread = std::thread([this] { Serve(); });
    }
    ~FakeService()
    {
        fStop = true;
        rThread.join();
        ::close(fdListen);
    }
    std::vector<std::string> Messages()
    {
        std::lock_guard<std::mutex> lock(rMutex);
        return vMessages;
    }
    void Answer(std::string reply, EMode mode = ANSWER)
    {
        std::lock_guard<std::mutex> lock(rMutex);
        strReply = reply;
        eMode = mode;
    }
    bool WaitFor(size_t n)
    {
        for (int i = 0; i < 300 && Messages().size() < n; i++)
            usleep(10000);
        return Messages().size() == n;
    }

private:
    void Serve()
    {
        std::vector<int> vHeld;
        while (!fStop) {
            struct pollfd p = {fdListen, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0)
                continue;
            int fd = accept(fdListen, nullptr, nullptr);
            char acBuf[1000];
            ssize_t n = read(fd, acBuf, sizeof(acBuf));
            std::lock_guard<std::mutex> lock(rMutex);
            vMessages.push_back(std::string(acBuf, n > 0 ? n : 0));
            if (eMode == SILENT) {
                vHeld.push_back(fd);
                continue;
            }
            if (eMode == ANSWER && write(fd, strReply.data(), strReply.size()) < 0)
                ADD_FAILURE();
            ::close(fd);
        }
        for (int fd : vHeld)
            ::close(fd);
    }

    int fdListen;
    std::atomic<bool> fStop{false};
    std::thread rThread;
    std::mutex rMutex; // guards all below
    std::vector<std::string> vMessages;
    std::string strReply;
    EMode eMode;
};

bool HasError(const LogCapture& rLog)
{
    for (const LoggedLine& l : rLog.Lines())
        if (l.iPri == 3)
            return true;
    return false;
}
} // namespace

class Signaling : public ::testing::Test {
protected:
    TempRoot rRoot;
    LogCapture rLog;
    SignalObj rObj; // never started: signal() runs on the test's thread
};

TEST_F(Signaling, ReplyRules)
{
    FakeService rService("OK\r\n");
    rObj.signal("email -loud x");
    EXPECT_FALSE(HasError(rLog));
    EXPECT_TRUE(rLog.Contains("Signal: email -loud x", 7));
    rService.Answer("OK");
    rObj.signal("sysinfo");
    EXPECT_FALSE(HasError(rLog));
    EXPECT_EQ(rService.Messages(), (std::vector<std::string>{"email -loud x", "sysinfo"}));

    // Only the pair CR LF is dropped.
    rService.Answer("OK\n");
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Error socket reply: OK\n", 3));
    rService.Answer("OK\r\n\r\n");
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Error socket reply: OK\r\n", 3));
    // A reply longer than the read is cut at 200 bytes, safely.
    rService.Answer(std::string(300, 'x'));
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Error socket reply: " + std::string(200, 'x'), 3));
    EXPECT_FALSE(rLog.Contains(std::string(201, 'x')));
    rLog.Clear();
    rService.Answer("", FakeService::CLOSE);
    rObj.signal("m");
    ASSERT_EQ(rLog.Lines().size(), 2u);
    EXPECT_EQ(rLog.Lines()[1].strText, "Error socket reply: ");
}

TEST_F(Signaling, NoServiceAndTooLongPath)
{
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Error connecting to socket", 3));

    SetSysRoot("/tmp/" + std::string(100, 'q'));
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Service socket path too long", 3));
}

TEST_F(Signaling, ThreadDeliversInOrderAndClosesPromptly)
{
    FakeService rService("OK\r\n");
    signal_service("early"); // before init: dropped with a warning
    EXPECT_TRUE(rLog.Contains("Signalling not running", 4));
    init_signaling();
    signal_service("first");
    signal_service("");
    signal_service("second");
    EXPECT_TRUE(rService.WaitFor(2));
    EXPECT_EQ(rService.Messages(), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(rLog.Contains("signal => ", 5));

    auto tStart = std::chrono::steady_clock::now();
    close_signaling();
    EXPECT_LT(std::chrono::steady_clock::now() - tStart, std::chrono::milliseconds(500));
    EXPECT_EQ(prSignalObj.load(), nullptr);
    EXPECT_FALSE(HasError(rLog));
}

TEST_F(Signaling, SilentServiceTimesOut)
{
    FakeService rService("", FakeService::SILENT);
    auto tStart = std::chrono::steady_clock::now();
    rObj.signal("m");
    auto tTaken = std::chrono::steady_clock::now() - tStart;
    EXPECT_TRUE(rLog.Contains("Error reading reply from socket", 3));
    EXPECT_GE(tTaken, std::chrono::milliseconds(4900));
    EXPECT_LT(tTaken, std::chrono::milliseconds(7000));
}

TEST(ShellExec, EscapedTextsReachTheCommandUnchanged)
{
    for (std::string s : {"", "a b", "it's", "'", "''x'", "$HOME `id` \"q\" \\ * ;|&", "two\nlines"})
        EXPECT_EQ(stdSystem("printf %s " + escapeShellArg(s)), s) << s;
    EXPECT_EQ(escapeShellArg("it's"), "'it'\\''s'");
}

TEST(ShellExec, OutputAndStatus)
{
    std::string strLong = std::string(700, 'y');
    EXPECT_EQ(stdSystem("echo " + strLong + "; echo z"), strLong + "\nz\n");
    EXPECT_EQ(stdSystem("true"), "");
    int iStatus = execCmd("echo dropped; exit 3");
    ASSERT_TRUE(WIFEXITED(iStatus));
    EXPECT_EQ(WEXITSTATUS(iStatus), 3);
}
