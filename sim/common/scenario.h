// scenario.h - playing a scenario file and talking to the control socket.
//
// A scenario is a text of control commands, one per line, with blank lines,
// "#" comments and "wait <ms>" pauses. The same player serves the CLI
// (commands sent over the socket) and the library's automatic demo play
// (commands run in-process); the caller supplies both halves. Playing stops
// at the first command answered with "ERR" or the first refused pause.
#ifndef SIM_SCENARIO_H
#define SIM_SCENARIO_H

#include <functional>
#include <string>
#include <sys/un.h>

// Runs one command line; returns the reply line ("OK ..." or "ERR ...").
using ScenarioExec = std::function<std::string(const std::string& line)>;
// Pauses ms milliseconds; false when the play must stop.
using ScenarioSleep = std::function<bool(long ms)>;

// True when every line ran with "OK"; else err names the line and its reply.
bool PlayScenario(const std::string& text, const ScenarioExec& exec, const ScenarioSleep& sleepMs,
                  std::string& err);

// A new Unix stream socket (close-on-exec) and the address of path; -1 with
// err when the path doesn't fit the address or no socket can be made.
int UnixSocketFor(const std::string& path, struct sockaddr_un& addr, unsigned& addrLen, std::string& err);

// One request and its reply line over the control socket at path.
bool SendControlLine(const std::string& path, const std::string& line, std::string& reply, std::string& err);

#endif
