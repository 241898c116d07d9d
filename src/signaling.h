// signaling.h - service messages to the local service socket, delivered
// one at a time by the signalling thread; and shell execution.
#ifndef SIGNALING_H
#define SIGNALING_H

#include <string>

void init_signaling();
void close_signaling();
// Queues a message for the service; any thread, after init_signaling.
void signal_service(std::string text);

// Runs a shell command, returns its standard output ("" on failure).
std::string stdSystem(std::string cmd);
// Runs a shell command, drops its output, returns the raw wait status (-1: no start).
int execCmd(std::string cmd);
// Single-quotes a text for a shell command line.
std::string escapeShellArg(std::string s);

#endif
