// crecctl - sends one command to the running quorda_crec over its command
// socket and prints the reply line.
//
// DESIGN: one connection per command, as the daemon serves them: connect,
// send the message in one write (word, a blank, the parameter; no line
// end), read until the daemon closes, print the first line. The socket is
// SysPath("/tmp/quorda_crec") of the build, so a simulator build talks to
// its own daemon. Exit status: 0 "OK", 1 any other reply or none, 2 the
// daemon isn't running, 64 wrong use.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "paths.h"

namespace {

const int EXIT_OK = 0;
const int EXIT_REPLY = 1;
const int EXIT_NOT_RUNNING = 2;
const int EXIT_USAGE = 64;
const size_t MAX_MESSAGE = 100; // the daemon reads no more than this
const int REPLY_TIMEOUT_S = 5;  // the daemon answers within 350 ms unless busy with another client

void PrintUsage(FILE* f)
{
    fprintf(f,
            "Usage: crecctl [--socket PATH] COMMAND [ARGS]\n"
            "Sends one command to the running quorda_crec and prints its reply.\n"
            "\n"
            "Commands:\n"
            "  start CALLID          start recording a call that waits for a demand\n"
            "  stop CALLID           stop recording it (the call waits again)\n"
            "  sound CALLID          let the call's sound into the recording again\n"
            "  silence CALLID        record silence instead of the call's sound\n"
            "  delete CALLID         delete the call's recording\n"
            "  change-local LOCAL REMOTE [0|1]\n"
            "                        set the local number of the line whose call has\n"
            "                        REMOTE; 0 keeps the recording going (default 1)\n"
            "  chst LINE             write the state file of line LINE (from 1)\n"
            "  reconfig              reload the number lists and options\n"
            "  trace start CHANNEL   trace the bit stream of driver channel CHANNEL\n"
            "                        (ends every call in progress)\n"
            "  trace stop            end the tracing\n"
            "\n"
            "CALLID is the call's remoteid, as in 20240131_084501_012_07.\n"
            "Options:\n"
            "  --socket PATH         the daemon's socket (default %s)\n"
            "  -h, --help            this text\n"
            "Exit status: 0 reply OK, 1 error reply or none, 2 daemon not running,\n"
            "64 wrong use.\n",
            SysPath("/tmp/quorda_crec").c_str());
}

int Usage(const char* acWhy)
{
    fprintf(stderr, "crecctl: %s\n", acWhy);
    fprintf(stderr, "Try 'crecctl --help'.\n");
    return EXIT_USAGE;
}

bool IsNumber(const std::string& s)
{
    size_t i = (!s.empty() && s[0] == '-') ? 1 : 0;
    if (i == s.size())
        return false;
    for (; i < s.size(); ++i)
        if (s[i] < '0' || s[i] > '9')
            return false;
    return true;
}

// The wire message for the command line, or "" with *acWhy set on wrong use.
std::string BuildMessage(const std::vector<std::string>& v, const char** acWhy)
{
    *acWhy = "unknown command";
    if (v.empty()) {
        *acWhy = "no command given";
        return std::string();
    }
    const std::string& cmd = v[0];
    size_t n = v.size() - 1;
    if (cmd == "start" || cmd == "stop" || cmd == "sound" || cmd == "silence" || cmd == "delete") {
        *acWhy = "this command takes one CALLID";
        return n == 1 && !v[1].empty() ? cmd + " " + v[1] : std::string();
    }
    if (cmd == "change-local") {
        *acWhy = "change-local takes LOCAL REMOTE and an optional 0 or 1";
        if (n < 2 || n > 3 || (n == 3 && v[3] != "0" && v[3] != "1"))
            return std::string();
        if (v[1].find('|') != std::string::npos || v[2].find('|') != std::string::npos) {
            *acWhy = "a number must not contain '|'";
            return std::string();
        }
        return "change_local " + v[1] + "|" + v[2] + (n == 3 ? "|" + v[3] : std::string());
    }
    if (cmd == "chst") {
        *acWhy = "chst takes one LINE number";
        return n == 1 && IsNumber(v[1]) ? "chst " + v[1] : std::string();
    }
    if (cmd == "reconfig") {
        *acWhy = "reconfig takes no arguments";
        return n == 0 ? cmd : std::string();
    }
    if (cmd == "trace") {
        *acWhy = "use 'trace start CHANNEL' or 'trace stop'";
        if (n == 2 && v[1] == "start" && IsNumber(v[2]))
            return "bittrace_start " + v[2];
        if (n == 1 && v[1] == "stop")
            return "bittrace_stop";
    }
    return std::string();
}

// Sends the message and reads the reply; the exit status.
int Exchange(const std::string& strSocket, const std::string& strMsg)
{
    sockaddr_un addr{};
    if (strSocket.size() >= sizeof(addr.sun_path)) {
        fprintf(stderr, "crecctl: socket path too long: %s\n", strSocket.c_str());
        return EXIT_USAGE;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, strSocket.c_str(), strSocket.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        fprintf(stderr, "crecctl: socket: %s\n", strerror(errno));
        return EXIT_REPLY;
    }
    // Bounds the connect too when the daemon's backlog is full.
    timeval tv{REPLY_TIMEOUT_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    socklen_t iLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strSocket.size());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), iLen) == -1) {
        int iErr = errno;
        close(fd);
        if (iErr == ENOENT || iErr == ECONNREFUSED) {
            fprintf(stderr, "crecctl: quorda_crec is not running (no socket at %s)\n", strSocket.c_str());
            return EXIT_NOT_RUNNING;
        }
        fprintf(stderr, "crecctl: connect to %s: %s\n", strSocket.c_str(), strerror(iErr));
        return EXIT_REPLY;
    }
    if (send(fd, strMsg.data(), strMsg.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(strMsg.size())) {
        fprintf(stderr, "crecctl: send: %s\n", strerror(errno));
        close(fd);
        return EXIT_REPLY;
    }
    std::string strReply;
    char acBuf[256];
    ssize_t iGot;
    while (strReply.find('\n') == std::string::npos && (iGot = recv(fd, acBuf, sizeof(acBuf), 0)) > 0)
        strReply.append(acBuf, static_cast<size_t>(iGot));
    close(fd);
    size_t iEnd = strReply.find('\n');
    if (iEnd == std::string::npos) {
        fprintf(stderr, "crecctl: no reply from quorda_crec\n");
        return EXIT_REPLY;
    }
    strReply.erase(iEnd);
    if (strReply == "OK") {
        printf("%s\n", strReply.c_str());
        return EXIT_OK;
    }
    fprintf(stderr, "%s\n", strReply.c_str());
    return EXIT_REPLY;
}

} // namespace

int main(int argc, char** argv)
{
    std::string strSocket = SysPath("/tmp/quorda_crec");
    std::vector<std::string> vArgs;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help" || (vArgs.empty() && a == "help")) {
            PrintUsage(stdout);
            return EXIT_OK;
        }
        if (vArgs.empty() && a == "--socket") {
            if (++i == argc)
                return Usage("--socket needs a PATH");
            strSocket = argv[i];
            continue;
        }
        if (vArgs.empty() && a.compare(0, 9, "--socket=") == 0) {
            strSocket = a.substr(9);
            continue;
        }
        vArgs.push_back(a);
    }
    const char* acWhy = "";
    std::string strMsg = BuildMessage(vArgs, &acWhy);
    if (strMsg.empty())
        return Usage(acWhy);
    if (strMsg.size() > MAX_MESSAGE)
        return Usage("command too long: the daemon reads at most 100 bytes");
    return Exchange(strSocket, strMsg);
}
