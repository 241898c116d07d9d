// cmdutil.h - pieces shared by the control protocol's command units.
//
// commands.cpp holds the interpreter and the driver-wide commands,
// cmd_line.cpp the analog line commands, cmd_audio.cpp the audio, overrun
// and clock commands, cmd_trace.cpp the trace streams. Each unit offers a
// table of handlers; a handler gets the words of the line and the whole
// (trimmed) line and returns the reply.
// Handlers take the state lock themselves, for their own short work only.
#ifndef SIM_CMDUTIL_H
#define SIM_CMDUTIL_H

#include "eventq.h"
#include "simstate.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

using Args = std::vector<std::string>;
using CommandFn = std::function<std::string(const Args& a, const std::string& line)>;
using CommandTable = std::map<std::string, CommandFn>;

const CommandTable& LineCommands();
const CommandTable& AudioCommands();
const CommandTable& TraceCommands();

// A number in lo..hi (decimal or 0x hex).
bool ArgInt(const std::string& s, long lo, long hi, long& v);
// Pairs of hex digits to bytes; false for anything else.
bool ParseHex(const std::string& hex, std::string& out);
// The line after its first nWords words, blanks around it trimmed.
std::string RestOfLine(const std::string& line, size_t nWords);
// The reply for an event that was queued (okText) or dropped.
std::string QueuedOrDropped(bool fQueued, const std::string& okText);
// Runs fn on the channel under the state lock; the reply names a bad channel.
std::string WithChannel(const std::string& arg, const std::function<std::string(SimChannel&, int)>& fn);

#endif
