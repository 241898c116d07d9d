// commands.cpp - the control protocol's interpreter (see control.h) and
// the driver-wide commands; the line and audio commands live in their own
// units (cmdutil.h).
//
// A command is a word and its arguments, separated by blanks. Numbers are
// decimal or 0x hex. Each handler takes the state lock only for its own
// short work; queueing an event happens after the state change, so the
// daemon never sees an event before the state it reports.
#include "control.h"

#include "audio.h"
#include "cmdutil.h"
#include "eventq.h"
#include "simini.h"
#include "simstate.h"

#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <vector>

namespace {

const std::map<std::string, int> kEventNames = {
    {"E_CHG_PcmLinkStatus", E_CHG_PcmLinkStatus},
    {"E_CHG_RcvDTMF", E_CHG_RcvDTMF},
    {"E_PROC_RecordMem", E_PROC_RecordMem},
    {"E_CHG_ChState", E_CHG_ChState},
    {"E_CHG_CIDExBuf", E_CHG_CIDExBuf},
    {"E_CHG_FlashCount", E_CHG_FlashCount},
    {"E_CHG_ToneAnalyze", E_CHG_ToneAnalyze},
    {"E_SYS_BargeIn", E_SYS_BargeIn},
    {"E_SYS_NoSound", E_SYS_NoSound},
    {"E_CHG_SpyState", E_CHG_SpyState},
    {"E_RCV_DSTDChannel", E_RCV_DSTDChannel},
};

const size_t kMaxEventData = 4096;

std::string QueueOrDrop(const SimEvent& ev, const std::string& okText)
{
    return QueuedOrDropped(Events().Push(ev), okText);
}

// event <code|name> <ref> [param=N] [sub=N] [xtra=N] [hex=HEX | text=rest of line]
std::string CmdEvent(const Args& a, const std::string& line)
{
    if (a.size() < 3)
        return "ERR usage: event <code> <ref> [param=N] [sub=N] [xtra=N] [hex=HEX | text=TEXT]";
    SimEvent ev;
    long v = 0;
    auto name = kEventNames.find(a[1]);
    if (name != kEventNames.end())
        ev.wEventCode = static_cast<WORD>(name->second);
    else if (ArgInt(a[1], 0, 65535, v))
        ev.wEventCode = static_cast<WORD>(v);
    else
        return "ERR unknown event code '" + a[1] + "'";
    if (!ArgInt(a[2], -2147483647L - 1, 2147483647L, v))
        return "ERR bad reference '" + a[2] + "'";
    ev.nReference = static_cast<int>(v);
    for (size_t i = 3; i < a.size(); ++i) {
        size_t eq = a[i].find('=');
        std::string key = a[i].substr(0, eq);
        std::string val = eq == std::string::npos ? "" : a[i].substr(eq + 1);
        if (key == "text") {
            // The text runs to the end of the line, blanks included.
            ev.strData = line.substr(line.find("text=") + 5);
            break;
        }
        if (key == "hex") {
            if (!ParseHex(val, ev.strData))
                return "ERR bad hex data '" + val + "'";
            continue;
        }
        if (!ArgInt(val, -2147483647L - 1, 4294967295L, v))
            return "ERR bad value in '" + a[i] + "'";
        DWORD dw = static_cast<DWORD>(v);
        if (key == "param")
            ev.dwParam = dw;
        else if (key == "sub")
            ev.dwSubReason = dw;
        else if (key == "xtra")
            ev.dwXtraInfo = dw;
        else
            return "ERR unknown field '" + key + "'";
    }
    if (ev.strData.size() > kMaxEventData)
        return "ERR event data longer than 4096 bytes";
    return QueueOrDrop(ev, "queued event " + std::to_string(ev.wEventCode) + " for " +
                               std::to_string(ev.nReference));
}

// state <ch> <state>: sets the state, then queues E_CHG_ChState.
const std::map<std::string, int> kStateNames = {
    {"idle", S_CALL_STANDBY},
    {"pickup", S_CALL_PICKUPED},
    {"ringing", S_CALL_RINGING},
    {"talking", S_CALL_TALKING},
    {"offline", S_CALL_OFFLINE},
    {"waitanswer", S_CALL_WAIT_ANSWER},
    {"unavailable", S_CALL_UNAVAILABLE},
    {"recording", S_CALL_RECORDING},
    {"signalerror", S_CALL_SIGNAL_ERROR},
    {"frameerror", S_CALL_FRAME_ERROR},
};

std::string CmdState(const Args& a)
{
    long st = 0;
    auto name = a.size() == 3 ? kStateNames.find(a[2]) : kStateNames.end();
    if (name != kStateNames.end())
        st = name->second;
    else if (a.size() != 3 || !ArgInt(a[2], 0, 65535, st))
        return "ERR usage: state <ch> <state 0..65535>"; // or a name of kStateNames
    std::string reply = WithChannel(a[1], [&](SimChannel& ch, int) {
        ch.iState = static_cast<int>(st);
        return std::string("OK");
    });
    if (reply != "OK")
        return reply;
    SimEvent ev;
    ev.wEventCode = E_CHG_ChState;
    ev.nReference = static_cast<int>(strtol(a[1].c_str(), nullptr, 0));
    ev.dwParam = static_cast<DWORD>(st) & 0xFFFF;
    if (Events().Push(ev))
        return "OK channel " + a[1] + " state " + a[2];
    return "OK channel " + a[1] + " state " + a[2] + ", event dropped: events are not enabled";
}

std::string CmdStatus()
{
    size_t queued = Events().Size();
    bool fEvents = Events().Enabled();
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    AudioStats t = AudioTotalsLocked(s);
    return "OK started " + std::to_string(s.fStarted) + " events " + std::to_string(fEvents) + " queued " +
           std::to_string(queued) + " boards " + std::to_string(s.rTable.vBoards.size()) + " channels " +
           std::to_string(s.rTable.vChannels.size()) + " recordmem cadence " +
           std::to_string(s.dwRecMemCondition) + "/" + std::to_string(s.dwRecMemParam) + " audio delivered " +
           std::to_string(t.ullDelivered) + " reported " + std::to_string(t.ullReported) + " overruns " +
           std::to_string(t.ullOverruns) + " lost " + std::to_string(t.ullLost) + " timed " +
           std::to_string(s.mTimed.size());
}

std::string CmdGetState(const Args& a)
{
    if (a.size() != 2)
        return "ERR usage: getstate <ch>";
    return WithChannel(a[1], [](SimChannel& ch, int) { return "OK " + std::to_string(ch.iState); });
}

std::string CmdVoltage(const Args& a)
{
    long v = 0;
    if (a.size() != 3 || !ArgInt(a[2], -1000, 1000, v))
        return "ERR usage: voltage <ch> <volts>";
    return WithChannel(a[1], [&](SimChannel& ch, int) {
        ch.iLineVoltage = static_cast<int>(v);
        return std::string("OK");
    });
}

// cic <cic> [caller=X] [callee=Y] [con=Z]
std::string CmdCic(const Args& a)
{
    long c = 0;
    if (a.size() < 2 || !ArgInt(a[1], 0, 1000000, c))
        return "ERR usage: cic <cic> [caller=X] [callee=Y] [con=Z]";
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (!s.fStarted || static_cast<size_t>(c) >= s.rTable.vCics.size())
        return "ERR no circuit " + a[1];
    SimCic& cic = s.rTable.vCics[static_cast<size_t>(c)];
    for (size_t i = 2; i < a.size(); ++i) {
        size_t eq = a[i].find('=');
        std::string key = a[i].substr(0, eq);
        std::string val = eq == std::string::npos ? "" : a[i].substr(eq + 1);
        if (key == "caller")
            cic.strCaller = val;
        else if (key == "callee")
            cic.strCallee = val;
        else if (key == "con")
            cic.strConnected = val;
        else
            return "ERR unknown field '" + key + "'";
    }
    return "OK circuit " + a[1] + " channels " + std::to_string(cic.iInCh) + "/" + std::to_string(cic.iOutCh);
}

std::string CmdList()
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (!s.fStarted)
        return "OK 0 channels (the driver is not started)";
    std::ostringstream out;
    out << "OK " << s.rTable.vChannels.size() << " channels";
    for (size_t i = 0; i < s.rTable.vChannels.size(); ++i) {
        const SimChannel& ch = s.rTable.vChannels[i];
        out << (i ? "; " : ": ") << i << "=board " << ch.iBoardId << " ch " << ch.iBoardCh << " type "
            << ch.iType << " state " << ch.iState;
    }
    return out.str();
}

std::string CmdBoards()
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (!s.fStarted)
        return "OK 0 boards (the driver is not started)";
    std::ostringstream out;
    out << "OK " << s.rTable.vBoards.size() << " boards";
    for (size_t i = 0; i < s.rTable.vBoards.size(); ++i) {
        const StartedBoard& b = s.rTable.vBoards[i];
        out << (i ? "; " : ": ") << "id " << b.iBoardId << " " << b.strModel << " serial " << b.strSerial
            << " channels " << b.iFirstDrvCh << ".." << (b.iFirstDrvCh + b.iChannels - 1);
    }
    return out.str();
}

// startfail [first <N> | seconds <T> | off]
std::string CmdStartFail(const Args& a)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (a.size() == 3 && a[1] == "first") {
        long n = 0;
        if (!ArgInt(a[2], 0, 1000000, n))
            return "ERR bad count '" + a[2] + "'";
        s.fScriptOverride = true;
        s.iFailFirst = static_cast<int>(n);
        s.dFailSeconds = 0;
    } else if (a.size() == 3 && a[1] == "seconds") {
        char* end = nullptr;
        double d = strtod(a[2].c_str(), &end);
        if (!end || *end || d < 0)
            return "ERR bad seconds '" + a[2] + "'";
        s.fScriptOverride = true;
        s.iFailFirst = 0;
        s.dFailSeconds = d;
    } else if (a.size() == 2 && a[1] == "off") {
        s.fScriptOverride = true;
        s.iFailFirst = 0;
        s.dFailSeconds = 0;
    } else if (a.size() != 1) {
        return "ERR usage: startfail [first <N> | seconds <T> | off]";
    }
    if (a.size() > 1) {
        s.iStartCalls = 0;
        s.fHaveFirstCall = false;
    }
    return "OK fail first " + std::to_string(s.iFailFirst) + " seconds " + std::to_string(s.dFailSeconds) +
           " calls so far " + std::to_string(s.iStartCalls);
}

// log [clear | <last n>]
std::string CmdLog(const Args& a)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (a.size() == 2 && a[1] == "clear") {
        s.vCallLog.clear();
        return "OK cleared";
    }
    long n = static_cast<long>(s.vCallLog.size());
    if (a.size() == 2 && !ArgInt(a[1], 1, 1000000, n))
        return "ERR usage: log [clear | <last n>]";
    size_t first =
        s.vCallLog.size() > static_cast<size_t>(n) ? s.vCallLog.size() - static_cast<size_t>(n) : 0;
    std::string out = "OK " + std::to_string(s.vCallLog.size() - first) + " calls";
    for (size_t i = first; i < s.vCallLog.size(); ++i)
        out += (i == first ? ": " : "; ") + s.vCallLog[i];
    return out;
}

const char* kHelp =
    "OK commands: event <code|name> <ref> [param=N] [sub=N] [xtra=N] [hex=HEX|text=TEXT]; "
    "state <ch> <state|name>; getstate <ch>; callerid <ch> [text|hex=HEX]; "
    "cid <ch> [text|hex=HEX]; dtmf <ch> <digits> [gap=MS]; flash <ch>; tone <ch> <code|name>; "
    "bargein <ch> on|off; nosound <ch>; line <ch>; voltage <ch> <volts>; "
    "audio <ch> [silence|tone HZ [DBFS]|file PATH|pattern SEED]; audio all <source>; "
    "overruns [clear]; clock [advance MS]; "
    "trace [cycle on|off | dst <ch> 0 <cmd> [hex=HEX] | dst <ch> 1 <code> [sub=N] [xtra=N] [len=N] "
    "[hex=HEX|text=TEXT]]; "
    "cic <cic> [caller=X] [callee=Y] [con=Z]; list; boards; status; "
    "startfail [first N|seconds T|off]; log [clear|N]; ping; help";

} // namespace

bool ArgInt(const std::string& s, long lo, long hi, long& v)
{
    return ParseInt(s, v) && v >= lo && v <= hi;
}

bool ParseHex(const std::string& hex, std::string& out)
{
    if (hex.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        if (!isxdigit(static_cast<unsigned char>(hex[i])) ||
            !isxdigit(static_cast<unsigned char>(hex[i + 1])))
            return false;
        out += static_cast<char>(strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    }
    return true;
}

std::string RestOfLine(const std::string& line, size_t nWords)
{
    size_t at = 0;
    for (size_t i = 0; i < nWords; ++i) {
        at = line.find_first_not_of(" \t", at);
        at = at == std::string::npos ? line.size() : line.find_first_of(" \t", at);
        if (at == std::string::npos)
            return "";
    }
    return TrimBlanks(line.substr(at));
}

std::string QueuedOrDropped(bool fQueued, const std::string& okText)
{
    if (fQueued)
        return "OK " + okText;
    return "ERR event dropped: events are not enabled (SsmSetEvent) or the queue is full";
}

std::string WithChannel(const std::string& arg, const std::function<std::string(SimChannel&, int)>& fn)
{
    long v = 0;
    if (!ArgInt(arg, 0, 1000000, v))
        return "ERR bad channel '" + arg + "'";
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    SimChannel* ch = ChannelLocked(s, static_cast<int>(v));
    if (!ch)
        return "ERR no channel " + arg + (s.fStarted ? "" : " (the driver is not started)");
    return fn(*ch, static_cast<int>(v));
}

std::string ExecuteCommand(const std::string& rawLine)
{
    std::string line = TrimBlanks(rawLine);
    Args a;
    std::istringstream in(line);
    for (std::string w; in >> w;)
        a.push_back(w);
    if (a.empty())
        return "ERR empty command";
    const std::string& c = a[0];
    std::string reply;
    if (c == "event")
        reply = CmdEvent(a, line);
    else if (c == "state")
        reply = CmdState(a);
    else if (c == "getstate")
        reply = CmdGetState(a);
    else if (c == "voltage")
        reply = CmdVoltage(a);
    else if (c == "cic")
        reply = CmdCic(a);
    else if (c == "list" || c == "channels")
        reply = CmdList();
    else if (c == "boards")
        reply = CmdBoards();
    else if (c == "status")
        reply = CmdStatus();
    else if (c == "startfail")
        reply = CmdStartFail(a);
    else if (c == "log")
        reply = CmdLog(a);
    else if (c == "ping")
        reply = "OK pong";
    else if (c == "help")
        reply = kHelp;
    else if (LineCommands().count(c))
        reply = LineCommands().at(c)(a, line);
    else if (AudioCommands().count(c))
        reply = AudioCommands().at(c)(a, line);
    else if (TraceCommands().count(c))
        reply = TraceCommands().at(c)(a, line);
    else
        reply = "ERR unknown command '" + c + "' (try help)";
    // One reply line, whatever the texts in it hold.
    for (char& ch : reply) {
        if (ch == '\n' || ch == '\r')
            ch = ' ';
    }
    return reply;
}
