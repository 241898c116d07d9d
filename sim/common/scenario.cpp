// scenario.cpp - scenario player and control socket client (see scenario.h).
#include "scenario.h"

#include "simini.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

bool PlayScenario(const std::string& text, const ScenarioExec& exec, const ScenarioSleep& sleepMs,
                  std::string& err)
{
    std::istringstream in(text);
    std::string line;
    int iLine = 0;
    while (std::getline(in, line)) {
        ++iLine;
        line = TrimBlanks(line);
        if (line.empty() || line[0] == '#')
            continue;
        if (line.compare(0, 5, "wait ") == 0 || line == "wait") {
            long ms = 0;
            if (!ParseInt(line.substr(4), ms) || ms < 0) {
                err = "line " + std::to_string(iLine) + ": wait needs milliseconds";
                return false;
            }
            if (!sleepMs(ms)) {
                err = "line " + std::to_string(iLine) + ": stopped";
                return false;
            }
            continue;
        }
        std::string reply = exec(line);
        if (reply.compare(0, 2, "OK") != 0) {
            err = "line " + std::to_string(iLine) + ": " + reply;
            return false;
        }
    }
    return true;
}

namespace {

bool WriteAll(int fd, const std::string& s)
{
    size_t off = 0;
    while (off < s.size()) {
        ssize_t n = write(fd, s.data() + off, s.size() - off);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

int UnixSocketFor(const std::string& path, sockaddr_un& addr, unsigned& addrLen, std::string& err)
{
    addr = sockaddr_un{};
    if (path.size() >= sizeof(addr.sun_path)) {
        err = "socket path too long: " + path;
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        err = std::string("socket: ") + strerror(errno);
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size());
    addrLen = static_cast<unsigned>(offsetof(sockaddr_un, sun_path) + path.size());
    return fd;
}

bool SendControlLine(const std::string& path, const std::string& line, std::string& reply, std::string& err)
{
    sockaddr_un addr;
    unsigned len = 0;
    int fd = UnixSocketFor(path, addr, len, err);
    if (fd < 0)
        return false;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        err =
            "cannot connect to " + path + ": " + strerror(errno) + " (is the daemon's card library started?)";
        close(fd);
        return false;
    }
    bool fOk = WriteAll(fd, line + "\n");
    shutdown(fd, SHUT_WR);
    reply.clear();
    char c;
    while (fOk) {
        ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || c == '\n')
            break;
        reply += c;
    }
    close(fd);
    if (!fOk || reply.empty()) {
        err = "no reply from " + path;
        return false;
    }
    return true;
}
