// control.h - the simulator's control interface.
//
// ExecuteCommand runs one line of the control protocol against the
// simulator state and returns one reply line, "OK ..." or "ERR ...". It is
// the single interpreter behind the control socket, the scenario player and
// the in-process test API, so all three accept the same commands.
//
// The control socket (<root>/usr/local/lib/shcti/sim/control.sock) is
// served by one thread that SsmStartCti starts and SsmCloseCti stops; it
// serves one client at a time, a reply for every line, until the client
// closes. A wake-up pipe ends the thread's poll, so stopping never waits
// for a client. The demo scenario plays on a thread of its own, started
// when the daemon enables events and stopped with the socket.
#ifndef SIM_CONTROL_H
#define SIM_CONTROL_H

#include <string>

std::string ExecuteCommand(const std::string& line);

// Starts the socket thread; false with a reason when the socket can't be made.
bool StartControlServer(const std::string& path, std::string& err);
void StopControlServer();

// Plays the scenario file on its own thread (one at a time).
void StartAutoplay(const std::string& path);
void StopAutoplay();

#endif
