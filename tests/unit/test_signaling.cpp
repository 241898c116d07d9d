// Service signalling against a real Unix-socket service in the test, and
// shell execution through a real sh.
#include <gtest/gtest.h>

#include <chrono>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "signaling.h"
#include "support_temp_root.h"

namespace {
// Serves n connections on the service socket: records each message and
// answers with strReply (then closes), or holds the connection unanswered.
class FakeService {
public:
    FakeService(int n, std::string strReply, bool fHold = false)
    {
        std::string strPath = ServiceSocketPath();
        EnsurePath(strPath.substr(0, strPath.rfind('/')));
        unlink(strPath.c_str());
        fdListen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un rAddr = {};
        rAddr.sun_family = AF_UNIX;
        strPath.copy(rAddr.sun_path, sizeof(rAddr.sun_path) - 1);
        EXPECT_EQ(bind(fdListen, reinterpret_cast<sockaddr*>(&rAddr), sizeof(rAddr)), 0);
        listen(fdListen, 8);
        struct timeval tv = {10, 0}; // accept gives up rather than hang a failing test
        setsockopt(fdListen, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        rThread = std::thread([this, n, strReply, fHold] {
            for (int i = 0; i < n; i++) {
                int fd = accept(fdListen, nullptr, nullptr);
                char acBuf[1000];
                ssize_t iLen = fd < 0 ? 0 : read(fd, acBuf, sizeof(acBuf));
                vMessages.push_back(std::string(acBuf, iLen > 0 ? iLen : 0));
                if (fHold) {
                    vHeld.push_back(fd);
                } else {
                    send(fd, strReply.data(), strReply.size(), MSG_NOSIGNAL);
                    ::close(fd);
                }
            }
        });
    }
    ~FakeService() { Join(); }
    // The messages received, once all n connections are served.
    std::vector<std::string> Join()
    {
        if (!rThread.joinable())
            return vMessages;
        rThread.join();
        for (int fd : vHeld)
            ::close(fd);
        ::close(fdListen);
        return vMessages;
    }

private:
    int fdListen;
    std::thread rThread;
    std::vector<std::string> vMessages;
    std::vector<int> vHeld;
};
} // namespace

class Signaling : public ::testing::Test {
protected:
    TempRoot rRoot;
    LogCapture rLog;
    SignalObj rObj; // never started: signal() runs on the test's thread
};

TEST_F(Signaling, ReplyRules)
{
    // Only the pair CR LF is dropped; a long reply is cut at 200 bytes; no
    // reply at all is an empty one.
    const std::pair<std::string, std::string> aCases[] = {
        {"OK\r\n", ""},
        {"OK", ""},
        {"OK\n", "Error socket reply: OK\n"},
        {"OK\r\n\r\n", "Error socket reply: OK\r\n"},
        {std::string(300, 'x'), "Error socket reply: " + std::string(200, 'x')},
        {"", "Error socket reply: "}};
    for (const auto& c : aCases) {
        rLog.Clear();
        FakeService rService(1, c.first);
        rObj.signal("email -loud a b");
        EXPECT_EQ(rService.Join(), std::vector<std::string>{"email -loud a b"});
        std::vector<LoggedLine> vLines = rLog.Lines();
        ASSERT_GE(vLines.size(), 1u);
        EXPECT_EQ(vLines[0].strText, "Signal: email -loud a b");
        EXPECT_EQ(vLines.size() == 2 ? vLines[1].strText : "", c.second) << c.first;
    }
}

TEST_F(Signaling, NoServiceTooLongPathAndTimeOut)
{
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Error connecting to socket", 3));

    FakeService rService(1, "", true);
    auto tStart = std::chrono::steady_clock::now();
    rObj.signal("m");
    auto tTaken = std::chrono::steady_clock::now() - tStart;
    rService.Join();
    EXPECT_TRUE(rLog.Contains("Error reading reply from socket", 3));
    EXPECT_GE(tTaken, std::chrono::milliseconds(4900));
    EXPECT_LT(tTaken, std::chrono::milliseconds(7000));

    SetSysRoot("/tmp/" + std::string(100, 'q'));
    rObj.signal("m");
    EXPECT_TRUE(rLog.Contains("Service socket path too long", 3));
}

TEST_F(Signaling, ThreadDeliversInOrderAndClosesPromptly)
{
    signal_service("early"); // before init: dropped with a warning
    EXPECT_TRUE(rLog.Contains("Signalling not running", 4));
    FakeService rService(2, "OK\r\n");
    init_signaling();
    signal_service("first");
    signal_service(""); // logged, then dropped without a connection
    signal_service("second");
    EXPECT_EQ(rService.Join(), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(rLog.Contains("signal => ", 5));

    auto tStart = std::chrono::steady_clock::now();
    close_signaling();
    EXPECT_LT(std::chrono::steady_clock::now() - tStart, std::chrono::milliseconds(500));
    EXPECT_EQ(prSignalObj.load(), nullptr);
}

TEST(ShellExec, EscapedTextsReachTheCommandUnchangedAndOutputAndStatusComeBack)
{
    for (std::string s : {"", "a b", "it's", "'", "''x'", "$HOME `id` \"q\" \\ * ;|&", "two\nlines"})
        EXPECT_EQ(stdSystem("printf %s " + escapeShellArg(s)), s) << s;
    EXPECT_EQ(escapeShellArg("it's"), "'it'\\''s'");

    std::string strLong = std::string(700, 'y');
    EXPECT_EQ(stdSystem("echo " + strLong + "; echo z"), strLong + "\nz\n");
    EXPECT_EQ(stdSystem("true"), "");
    int iStatus = execCmd("echo dropped; exit 3");
    ASSERT_TRUE(WIFEXITED(iStatus));
    EXPECT_EQ(WEXITSTATUS(iStatus), 3);
}
