// shsim.cpp - command line of the card simulator.
//
//   shsim [--root R] init <root> <hardware-file>   prepare a simulator root
//   shsim [--root R] send <command...>             one control command
//   shsim [--root R] play <scenario-file>          a scenario over the socket
//
// The root of send and play is --root, else SHSIM_ROOT, else the root
// compiled into the build. The control socket is served by the card library
// inside the running daemon, so send and play need a daemon whose cards
// are started.
#include "hwdesc.h"
#include "scenario.h"
#include "simini.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef QUORDA_ROOT
#define QUORDA_ROOT ""
#endif

namespace {

const char* kUsage =
    "usage: shsim [--root <root>] <command>\n"
    "  init <root> <hardware-file>  prepare a simulator root: the detection tool, the hardware\n"
    "                               description and the daemon's directories\n"
    "  send <command...>            send one control command and print the reply\n"
    "                               (exit status 0 for OK); 'send help' lists the commands\n"
    "  play <scenario-file>         send the commands of a scenario file (with 'wait <ms>')\n"
    "  --help                       this text\n"
    "The root is --root, else $SHSIM_ROOT, else the root compiled into the build.\n";

bool MakeDirs(const std::string& path)
{
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') {
            std::string part = path.substr(0, pos);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
                fprintf(stderr, "shsim: mkdir %s: %s\n", part.c_str(), strerror(errno));
                return false;
            }
        }
    }
    return true;
}

bool WriteFile(const std::string& path, const std::string& text, mode_t mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out || chmod(path.c_str(), mode) != 0) {
        fprintf(stderr, "shsim: cannot write %s\n", path.c_str());
        return false;
    }
    return true;
}

// The detection tool is built next to this program.
std::string ToolBinary()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0)
        return "config";
    std::string self(buf, static_cast<size_t>(n));
    return self.substr(0, self.rfind('/') + 1) + "config";
}

int Init(const std::string& root, const std::string& hwFile)
{
    std::string hwText, err, tool;
    HardwareDesc hw;
    if (!ReadTextFile(hwFile, hwText) || !ParseHardware(hwText, hw, err)) {
        fprintf(stderr, "shsim: %s: %s\n", hwFile.c_str(), err.empty() ? "cannot read" : err.c_str());
        return 1;
    }
    if (!ReadTextFile(ToolBinary(), tool)) {
        fprintf(stderr, "shsim: detection tool %s is missing\n", ToolBinary().c_str());
        return 1;
    }
    for (const char* dir : {"/var/quorda/conf", "/var/quorda/data", "/var/quorda/cmd", "/var/run",
                            "/recordings", "/tmp", "/etc"}) {
        if (!MakeDirs(root + dir))
            return 1;
    }
    if (!MakeDirs(ToolsDirOf(root)) || !MakeDirs(SimDirOf(root)))
        return 1;
    std::string issue;
    if (!ReadTextFile("/etc/issue.net", issue))
        issue = "Debian GNU/Linux 12\n";
    if (!WriteFile(ToolsDirOf(root) + "/config", tool, 0755) ||
        !WriteFile(HardwarePathOf(root), hwText, 0644) || !WriteFile(root + "/etc/issue.net", issue, 0644))
        return 1;
    // The autoplay scenario is named relative to the hardware file.
    if (!hw.strAutoplay.empty() && hw.strAutoplay[0] != '/') {
        std::string scn;
        std::string from = hwFile.substr(0, hwFile.rfind('/') + 1) + hw.strAutoplay;
        if (hwFile.find('/') == std::string::npos)
            from = hw.strAutoplay;
        if (ReadTextFile(from, scn) && !WriteFile(SimDirOf(root) + "/" + hw.strAutoplay, scn, 0644))
            return 1;
    }
    printf("simulator root %s ready with %zu boards\n", root.c_str(), hw.vBoards.size());
    return 0;
}

int Send(const std::string& root, const std::string& line)
{
    std::string reply, err;
    if (!SendControlLine(ControlSocketPathOf(root), line, reply, err)) {
        fprintf(stderr, "shsim: %s\n", err.c_str());
        return 2;
    }
    printf("%s\n", reply.c_str());
    return reply.compare(0, 2, "OK") == 0 ? 0 : 1;
}

int Play(const std::string& root, const std::string& file)
{
    std::string text, err;
    if (!ReadTextFile(file, text)) {
        fprintf(stderr, "shsim: cannot read %s\n", file.c_str());
        return 2;
    }
    std::string path = ControlSocketPathOf(root);
    auto exec = [&path](const std::string& line) {
        std::string reply, e;
        if (!SendControlLine(path, line, reply, e))
            return "ERR " + e;
        printf("%s -> %s\n", line.c_str(), reply.c_str());
        return reply;
    };
    auto pause = [](long ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return true;
    };
    if (!PlayScenario(text, exec, pause, err)) {
        fprintf(stderr, "shsim: %s: %s\n", file.c_str(), err.c_str());
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    const char* env = getenv("SHSIM_ROOT");
    std::string root = (env && *env) ? env : QUORDA_ROOT;
    if (args.size() >= 2 && args[0] == "--root") {
        root = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    if (args[0] == "init" && args.size() == 3)
        return Init(args[1], args[2]);
    if (args[0] == "send" && args.size() >= 2) {
        std::string line;
        for (size_t i = 1; i < args.size(); ++i)
            line += (i > 1 ? " " : "") + args[i];
        return Send(root, line);
    }
    if (args[0] == "play" && args.size() == 2)
        return Play(root, args[1]);
    fputs(kUsage, stderr);
    return 2;
}
