// signaling.cpp - service messages and shell execution.
//
// A local service outside this process (mail, health checks) is told
// things over the Unix socket /tmp/quorda. Callers only queue the text;
// the signalling thread delivers one message per connection, in the order
// queued, so no caller ever waits on the service. A failed delivery is
// logged at level 3 and the message is lost: nothing is retried.
//
// DESIGN: one SignalObj (prSignalObj) with one thread. rMutex guards rList
// only and is never held during a delivery. The thread sleeps on rWakeUp,
// which schedule() and close() notify, so a new message goes out at once
// and close() never waits on an idle thread; close() waits at most for the
// delivery in hand (5 s reply time-out). fPleaseStop is set under rMutex
// so the wake-up can't be lost.
//
// stdSystem and execCmd run on their caller's thread through popen with
// close-on-exec, so the child inherits none of the daemon's descriptors
// besides its own output pipe.
#include "signaling.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "logging.h"
#include "paths.h"

namespace {
const int SERVICE_REPLY_TIMEOUT_S = 5;
const size_t SERVICE_REPLY_MAX = 200;
const int SHELL_LINE_BUF = 300;

// Runs cmd; its output goes to prOut, or is dropped for nullptr.
// Returns the wait status of the shell, or -1 when it can't be started.
int RunShell(const std::string& cmd, std::string* prOut)
{
    FILE* p = popen(cmd.c_str(), "re");
    if (!p)
        return -1;
    char acBuf[SHELL_LINE_BUF];
    while (fgets(acBuf, sizeof(acBuf), p))
        if (prOut)
            *prOut += acBuf;
    return pclose(p);
}

// The reply is the text up to the bytes read (or a NUL), less one trailing
// CR LF pair; only "OK" counts as success.
void CheckReply(int fd)
{
    char acReply[SERVICE_REPLY_MAX + 1];
    ssize_t n = read(fd, acReply, SERVICE_REPLY_MAX);
    if (n < 0) {
        lg(3, "Error reading reply from socket");
        return;
    }
    acReply[n] = '\0';
    std::string strReply(acReply);
    if (strReply.size() >= 2 && strReply.compare(strReply.size() - 2, 2, "\r\n") == 0)
        strReply.resize(strReply.size() - 2);
    if (strReply != "OK")
        lg(3, "Error socket reply: %s", strReply.c_str());
}
} // namespace

std::atomic<SignalObj*> prSignalObj{nullptr};

std::string ServiceSocketPath()
{
    return SysPath("/tmp/quorda");
}

SignalObj::~SignalObj()
{
    close();
}

void SignalObj::init()
{
    if (rThread.joinable())
        return; // already running
    fPleaseStop = false;
    rThread = std::thread(&SignalObj::run, this);
}

void SignalObj::close()
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        fPleaseStop = true;
    }
    rWakeUp.notify_all();
    if (rThread.joinable())
        rThread.join();
}

void SignalObj::schedule(std::string text)
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        rList.push_back(text);
    }
    rWakeUp.notify_one();
}

void SignalObj::run()
{
    // Lock rule: rMutex only to take the front of rList; delivery outside it.
    for (;;) {
        std::string strMessage;
        {
            std::unique_lock<std::mutex> lock(rMutex);
            rWakeUp.wait(lock, [this] { return fPleaseStop.load() || !rList.empty(); });
            if (fPleaseStop)
                return;
            strMessage = rList.front();
            rList.pop_front();
        }
        // An empty message counts as none.
        if (!strMessage.empty())
            signal(strMessage);
    }
}

void SignalObj::signal(std::string message)
{
    lg(7, "Signal: %s", message.c_str());
    std::string strPath = ServiceSocketPath();
    struct sockaddr_un rAddr;
    // The address carries no NUL (length offsetof + strlen), so a path may
    // fill sun_path completely but not more.
    if (strPath.size() > sizeof(rAddr.sun_path)) {
        lg(3, "Service socket path too long: %s", strPath.c_str());
        return;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        lg(3, "Error creating socket");
        return;
    }
    struct timeval tv;
    tv.tv_sec = SERVICE_REPLY_TIMEOUT_S;
    tv.tv_usec = 0;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    // A service that stops accepting fills its backlog, and connect would
    // then block for good; the send time-out bounds connect and write too.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));

    memset(&rAddr, 0, sizeof(rAddr));
    rAddr.sun_family = AF_UNIX;
    memcpy(rAddr.sun_path, strPath.data(), strPath.size());
    socklen_t iLen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + strPath.size());
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&rAddr), iLen) != 0) {
        lg(3, "Error connecting to socket");
        ::close(fd);
        return;
    }
    // The result isn't looked at: a vanished service shows in the read.
    // MSG_NOSIGNAL keeps a closed peer from raising SIGPIPE.
    send(fd, message.data(), message.size(), MSG_NOSIGNAL);
    CheckReply(fd);
    ::close(fd);
}

void init_signaling()
{
    if (prSignalObj.load())
        return;
    SignalObj* prObj = new SignalObj();
    prObj->init();
    prSignalObj.store(prObj);
}

void close_signaling()
{
    SignalObj* prObj = prSignalObj.exchange(nullptr);
    delete prObj; // the destructor stops the thread; waiting messages are dropped
}

void signal_service(std::string text)
{
    lg(5, "signal => %s", text.c_str());
    SignalObj* prObj = prSignalObj.load();
    if (!prObj) {
        lg(4, "Signalling not running, message dropped");
        return;
    }
    prObj->schedule(text);
}

std::string stdSystem(std::string cmd)
{
    lg(5, "Command: %s", cmd.c_str());
    std::string strOut;
    RunShell(cmd, &strOut);
    return strOut;
}

int execCmd(std::string cmd)
{
    lg(5, "Exec: %s", cmd.c_str());
    return RunShell(cmd, nullptr);
}

std::string escapeShellArg(std::string s)
{
    std::string strResult = "'";
    for (char c : s) {
        if (c == '\'')
            strResult += "'\\''";
        else
            strResult += c;
    }
    return strResult + "'";
}
