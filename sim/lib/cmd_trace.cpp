// cmd_trace.cpp - control commands of the trace streams: what runs and what
// was delivered, the generated cycle of signalling records, and records
// injected into a channel's running signalling trace (see trace.h).
#include "cmdutil.h"
#include "trace.h"

namespace {

const char* const kUsage = "ERR usage: trace | trace cycle on|off | trace dst <ch> 0 <cmd> [hex=HEX] | "
                           "trace dst <ch> 1 <code> [sub=N] [xtra=N] [len=N] [hex=HEX|text=TEXT]";

// The key=value fields after the record's type and code.
std::string ParseFields(const Args& a, const std::string& line, DstRecord& rec)
{
    bool fLenGiven = false;
    for (size_t i = 5; i < a.size(); ++i) {
        size_t eq = a[i].find('=');
        std::string key = a[i].substr(0, eq);
        std::string val = eq == std::string::npos ? "" : a[i].substr(eq + 1);
        long v = 0;
        if (key == "text" && rec.ucType == 1) {
            rec.strData = line.substr(line.find("text=") + 5); // blanks included
            break;
        }
        if (key == "hex") {
            if (!ParseHex(val, rec.strData))
                return "ERR bad hex data '" + val + "'";
            continue;
        }
        if (rec.ucType != 1 || !ArgInt(val, 0, 4294967295L, v))
            return "ERR bad field '" + a[i] + "'";
        DWORD dw = static_cast<DWORD>(v);
        if (key == "sub")
            rec.dwSubReason = dw;
        else if (key == "xtra")
            rec.dwXtraInfo = dw;
        else if (key == "len")
            rec.dwDataLength = dw, fLenGiven = true;
        else
            return "ERR unknown field '" + key + "'";
    }
    if (rec.ucType == 1 && rec.strData.size() > 255)
        return "ERR an event buffer holds at most 255 bytes";
    if (rec.ucType == 0 && rec.strData.size() > 65535)
        return "ERR a command record holds at most 65535 bytes";
    if (!fLenGiven)
        rec.dwDataLength = static_cast<DWORD>(rec.strData.size());
    return "";
}

// trace dst <ch> <type> <cmd|code> ...
std::string CmdInject(const Args& a, const std::string& line)
{
    long nCh = 0, iType = 0, iCode = 0;
    if (a.size() < 5 || !ArgInt(a[2], 0, 1000000, nCh) || !ArgInt(a[3], 0, 1, iType) ||
        !ArgInt(a[4], 0, iType == 0 ? 255 : 4294967295L, iCode))
        return kUsage;
    DstRecord rec;
    rec.ucType = static_cast<UCHAR>(iType);
    if (iType == 0)
        rec.ucCmd = static_cast<UCHAR>(iCode);
    else
        rec.dwEventCode = static_cast<DWORD>(iCode);
    std::string err = ParseFields(a, line, rec);
    if (!err.empty())
        return err;
    if (!InjectDstRecord(static_cast<int>(nCh), rec))
        return "ERR no signalling trace runs on channel " + a[2];
    return "OK injected type " + a[3] + " record for " + a[2];
}

std::string CmdTrace(const Args& a, const std::string& line)
{
    if (a.size() == 1)
        return TraceReport();
    if (a.size() == 3 && a[1] == "cycle" && (a[2] == "on" || a[2] == "off")) {
        SetDstCycle(a[2] == "on");
        return "OK cycle " + a[2];
    }
    if (a[1] == "dst")
        return CmdInject(a, line);
    return kUsage;
}

} // namespace

const CommandTable& TraceCommands()
{
    static const CommandTable kTable = {
        {"trace", CmdTrace},
    };
    return kTable;
}
