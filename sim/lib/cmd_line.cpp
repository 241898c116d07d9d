// cmd_line.cpp - control commands of an analog line: caller ID, DTMF, hook
// flash, tone analysis, voice (barge-in) and no-sound events, and "line",
// which shows what the card holds for the channel.
//
// Each command changes the channel (caller ID text, digit buffer) and
// queues its event under the state lock, so the event never overtakes the
// state it reports. Digits after the first of a "dtmf" command are timed
// events (audio.h): they arrive as the simulator's clock moves on, in step
// mode too.
#include "audio.h"
#include "cmdutil.h"
#include "simclock.h"

#include <cstdio>

namespace {

const size_t kMaxCallerId = 1024;
const size_t kMaxDigits = 64;
const long kDefaultDigitGapMs = 100;

const std::map<std::string, int> kToneNames = {
    {"dial", TONE_DIAL},         {"busy", TONE_BUSY},
    {"ringback", TONE_RINGBACK}, {"silence", TONE_SILENCE_AFTER_RINGBACK},
    {"nosound", TONE_NO_SOUND},  {"voice", TONE_VOICE},
};

SimEvent ChannelEvent(WORD wCode, int nCh, DWORD dwParam)
{
    SimEvent ev;
    ev.wEventCode = wCode;
    ev.nReference = nCh;
    ev.dwParam = dwParam;
    return ev;
}

// A text as it stands when it is plain printable ASCII, else as hex=...
std::string Shown(const std::string& text)
{
    bool fPlain = true;
    for (char c : text)
        fPlain = fPlain && c >= 32 && c < 127 && c != '\'';
    if (fPlain)
        return "'" + text + "'";
    std::string hex = "hex=";
    char buf[3];
    for (char c : text) {
        snprintf(buf, sizeof(buf), "%02X", static_cast<unsigned char>(c));
        hex += buf;
    }
    return hex;
}

// The caller ID text of "callerid"/"cid": the rest of the line, or hex=...
bool CallerIdText(const Args& a, const std::string& line, std::string& text, std::string& err)
{
    text = RestOfLine(line, 2);
    if (a.size() == 3 && a[2].compare(0, 4, "hex=") == 0) {
        if (!ParseHex(a[2].substr(4), text)) {
            err = "ERR bad hex text '" + a[2].substr(4) + "'";
            return false;
        }
        if (text.find('\0') != std::string::npos) {
            err = "ERR a caller ID can't hold a NUL byte";
            return false;
        }
    }
    if (text.size() > kMaxCallerId) {
        err = "ERR caller ID longer than " + std::to_string(kMaxCallerId) + " bytes";
        return false;
    }
    return true;
}

// callerid <ch> [text | hex=HEX]: what SsmGetCallerIdA gives; no event.
// cid <ch> [text | hex=HEX]: the same, and E_CHG_CIDExBuf queued.
std::string CmdCallerId(const Args& a, const std::string& line, bool fEvent)
{
    std::string text, err;
    if (a.size() < 2)
        return "ERR usage: " + a[0] + " <ch> [text | hex=HEX]";
    if (!CallerIdText(a, line, text, err))
        return err;
    return WithChannel(a[1], [&](SimChannel& ch, int nCh) {
        ch.strCallerId = text;
        std::string ok = "caller id " + Shown(text);
        if (!fEvent)
            return "OK " + ok;
        return QueuedOrDropped(ArriveLocked(Sim(), ChannelEvent(E_CHG_CIDExBuf, nCh, 0)),
                               ok + ", event queued");
    });
}

bool IsDtmfDigit(char c)
{
    return (c >= '0' && c <= '9') || c == '*' || c == '#' || (c >= 'A' && c <= 'D') || (c >= 'a' && c <= 'd');
}

// dtmf <ch> <digits> [gap=<ms>]: the first digit now, each next one a gap later.
std::string CmdDtmf(const Args& a, const std::string&)
{
    long gap = kDefaultDigitGapMs;
    if (a.size() < 3 || a.size() > 4 ||
        (a.size() == 4 && (a[3].compare(0, 4, "gap=") != 0 || !ArgInt(a[3].substr(4), 0, 60000, gap))))
        return "ERR usage: dtmf <ch> <digits 0-9*#A-D> [gap=<ms 0..60000>]";
    const std::string& digits = a[2];
    if (digits.size() > kMaxDigits)
        return "ERR at most " + std::to_string(kMaxDigits) + " digits";
    for (char c : digits) {
        if (!IsDtmfDigit(c))
            return "ERR '" + std::string(1, c) + "' is no DTMF digit";
    }
    return WithChannel(a[1], [&](SimChannel&, int nCh) {
        SimState& s = Sim();
        int64_t now = Clock().NowUs();
        bool fFirst =
            ArriveLocked(s, ChannelEvent(E_CHG_RcvDTMF, nCh, static_cast<unsigned char>(digits[0])));
        for (size_t i = 1; i < digits.size(); ++i) {
            SimEvent ev = ChannelEvent(E_CHG_RcvDTMF, nCh, static_cast<unsigned char>(digits[i]));
            if (gap == 0)
                ArriveLocked(s, ev);
            else
                ScheduleEventLocked(s, now + static_cast<int64_t>(i) * gap * 1000, ev);
        }
        return QueuedOrDropped(fFirst, "digits " + digits + " gap " + std::to_string(gap) + " ms");
    });
}

// A command that only queues one event for a channel.
CommandFn SimpleEvent(WORD wCode, DWORD dwParam, const char* what)
{
    return [=](const Args& a, const std::string&) {
        if (a.size() != 2)
            return "ERR usage: " + a[0] + " <ch>";
        return WithChannel(a[1], [&](SimChannel&, int nCh) {
            return QueuedOrDropped(ArriveLocked(Sim(), ChannelEvent(wCode, nCh, dwParam)), what);
        });
    };
}

// tone <ch> <code 1..255 | dial | busy | ringback | silence | nosound | voice>
std::string CmdTone(const Args& a, const std::string&)
{
    long code = 0;
    auto name = a.size() == 3 ? kToneNames.find(a[2]) : kToneNames.end();
    if (name != kToneNames.end())
        code = name->second;
    else if (a.size() != 3 || !ArgInt(a[2], 0, 255, code))
        return "ERR usage: tone <ch> <code 0..255 | dial | busy | ringback | silence | nosound | voice>";
    return WithChannel(a[1], [&](SimChannel&, int nCh) {
        SimEvent ev = ChannelEvent(E_CHG_ToneAnalyze, nCh, static_cast<DWORD>(code));
        return QueuedOrDropped(ArriveLocked(Sim(), ev), "tone " + std::to_string(code));
    });
}

// bargein <ch> on|off: voice begins (1) or ends (0).
std::string CmdBargeIn(const Args& a, const std::string&)
{
    if (a.size() != 3 || (a[2] != "on" && a[2] != "off" && a[2] != "1" && a[2] != "0"))
        return "ERR usage: bargein <ch> on|off";
    DWORD dwOn = (a[2] == "on" || a[2] == "1") ? 1 : 0;
    return WithChannel(a[1], [&](SimChannel&, int nCh) {
        return QueuedOrDropped(ArriveLocked(Sim(), ChannelEvent(E_SYS_BargeIn, nCh, dwOn)),
                               std::string("voice ") + (dwOn ? "on" : "off"));
    });
}

// line <ch>: what the card holds for the channel.
std::string CmdLine(const Args& a, const std::string&)
{
    if (a.size() != 2)
        return "ERR usage: line <ch>";
    return WithChannel(a[1], [](SimChannel& ch, int nCh) {
        return "OK line " + std::to_string(nCh) + " type " + std::to_string(ch.iType) + " state " +
               std::to_string(ch.iState) + " voltage " + std::to_string(ch.iLineVoltage) + " volume " +
               std::to_string(ch.iRecVolume) + " agc " + std::to_string(ch.fRecAgc ? 1 : 0) +
               " bargeinsens " + std::to_string(ch.iBargeInSens) + " dtmf '" + ch.strDtmfBuf + "' callerid " +
               Shown(ch.strCallerId);
    });
}

} // namespace

const CommandTable& LineCommands()
{
    static const CommandTable kTable = {
        {"callerid", [](const Args& a, const std::string& l) { return CmdCallerId(a, l, false); }},
        {"cid", [](const Args& a, const std::string& l) { return CmdCallerId(a, l, true); }},
        {"dtmf", CmdDtmf},
        {"flash", SimpleEvent(E_CHG_FlashCount, 1, "hook flash")},
        {"nosound", SimpleEvent(E_SYS_NoSound, 0, "no sound")},
        {"tone", CmdTone},
        {"bargein", CmdBargeIn},
        {"line", CmdLine},
    };
    return kTable;
}
