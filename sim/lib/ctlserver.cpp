// ctlserver.cpp - the control socket thread and the demo scenario thread (see control.h).
//
// Both threads are started only from SsmStartCti / SsmSetEvent, never at
// load time, because the daemon forks after it has loaded the library.
// rCtlMutex guards the thread objects and descriptors below; it is held
// across start and stop (which join), so it is never taken by the threads.
#include "control.h"

#include "scenario.h"
#include "simini.h"
#include "simstate.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

std::mutex rCtlMutex;
std::thread rServer;
int hListen = -1;
int ahWake[2] = {-1, -1};
std::string strSockPath;

std::mutex rPlayerMutex; // guards rPlayer; held across its start and join
std::thread rPlayer;
std::mutex rPlayMutex; // with rPlayCond: the player's interruptible pauses
std::condition_variable rPlayCond;
std::atomic<bool> fPlayStop{false};

// Waits until fd is readable (true) or the wake-up pipe says stop (false).
bool WaitReadable(int fd, int hWake)
{
    for (;;) {
        pollfd p[2] = {{fd, POLLIN, 0}, {hWake, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 && errno == EINTR)
            continue;
        return p[1].revents == 0 && p[0].revents != 0;
    }
}

// Serves one client: a reply for every line, until it closes or we stop.
void ServeClient(int fd, int hWake)
{
    std::string buf;
    char chunk[1024];
    while (WaitReadable(fd, hWake)) {
        ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        buf.append(chunk, static_cast<size_t>(n));
        size_t nl;
        while ((nl = buf.find('\n')) != std::string::npos) {
            std::string reply = ExecuteCommand(buf.substr(0, nl)) + "\n";
            buf.erase(0, nl + 1);
            // MSG_NOSIGNAL: a client that left must not kill the daemon with SIGPIPE.
            if (send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0)
                return;
        }
        if (buf.size() > 65536)
            return;
    }
}

void ServerLoop(int hSock, int hWake)
{
    while (WaitReadable(hSock, hWake)) {
        int fd = accept4(hSock, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        ServeClient(fd, hWake);
        close(fd);
    }
}

bool SleepUnlessStopped(long ms)
{
    std::unique_lock<std::mutex> lock(rPlayMutex);
    return !rPlayCond.wait_for(lock, std::chrono::milliseconds(ms), [] { return fPlayStop.load(); });
}

} // namespace

bool StartControlServer(const std::string& path, std::string& err)
{
    StopControlServer();
    std::lock_guard<std::mutex> lock(rCtlMutex);
    sockaddr_un addr;
    unsigned len = 0;
    unlink(path.c_str()); // a stale socket of an earlier run
    int fd = UnixSocketFor(path, addr, len, err);
    if (fd < 0)
        return false;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, 8) != 0 ||
        pipe2(ahWake, O_CLOEXEC) != 0) {
        err = "control socket " + path + ": " + strerror(errno);
        close(fd);
        return false;
    }
    hListen = fd;
    strSockPath = path;
    rServer = std::thread(ServerLoop, hListen, ahWake[0]);
    return true;
}

void StopControlServer()
{
    std::lock_guard<std::mutex> lock(rCtlMutex);
    if (!rServer.joinable())
        return;
    char c = 1;
    if (write(ahWake[1], &c, 1) < 0) {
        // The pipe is empty and ours; a failed write leaves nothing to do.
    }
    rServer.join();
    close(hListen);
    close(ahWake[0]);
    close(ahWake[1]);
    hListen = ahWake[0] = ahWake[1] = -1;
    unlink(strSockPath.c_str());
}

void StartAutoplay(const std::string& path)
{
    StopAutoplay();
    std::lock_guard<std::mutex> lock(rPlayerMutex);
    std::string text;
    if (!ReadTextFile(path, text)) {
        SimState& s = Sim();
        std::lock_guard<std::mutex> slock(s.rMutex);
        LogCallLocked(s, "autoplay: cannot read " + path);
        return;
    }
    fPlayStop = false;
    rPlayer = std::thread([text, path] {
        std::string err;
        bool fOk = PlayScenario(text, ExecuteCommand, SleepUnlessStopped, err);
        SimState& s = Sim();
        std::lock_guard<std::mutex> slock(s.rMutex);
        LogCallLocked(s, "autoplay " + path + (fOk ? ": done" : ": " + err));
    });
}

void StopAutoplay()
{
    std::lock_guard<std::mutex> lock(rPlayerMutex);
    if (!rPlayer.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(rPlayMutex);
        fPlayStop = true;
    }
    rPlayCond.notify_all();
    rPlayer.join();
}
