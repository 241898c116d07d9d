// cmd_audio.cpp - control commands of the card's audio: the source of a
// channel and its delivery figures ("audio"), the overruns seen
// ("overruns") and the simulator's clock ("clock").
//
// A source set with "audio all" goes to every channel; a pattern then gets
// seed + channel, so that each line's bytes differ and stay reproducible.
#include "audio.h"
#include "cmdutil.h"
#include "simclock.h"

namespace {

std::string SetSource(SimState& s, SimChannel& ch, int nCh, const Args& words)
{
    AudioSource src;
    std::string err;
    if (!ParseSource(words, SimDirOf(SimRootLocked(s)), src, err))
        return "ERR " + err;
    ch.rSource = src;
    return "OK audio " + std::to_string(nCh) + " source " + DescribeSource(src);
}

// audio <ch> | audio <ch> <source...> | audio all <source...>
std::string CmdAudio(const Args& a, const std::string&)
{
    if (a.size() < 2)
        return "ERR usage: audio <ch> [silence | tone <hz> [<dBFS>] | file <path> | pattern <seed>]";
    Args words(a.begin() + 2, a.end());
    if (a[1] == "all") {
        AudioSource src;
        std::string err;
        SimState& s = Sim();
        std::lock_guard<std::mutex> lock(s.rMutex);
        if (!ParseSource(words, SimDirOf(SimRootLocked(s)), src, err))
            return "ERR " + err;
        for (size_t i = 0; i < s.rTable.vChannels.size(); ++i) {
            s.rTable.vChannels[i].rSource = src;
            s.rTable.vChannels[i].rSource.ullSeed = src.ullSeed + i;
        }
        return "OK audio all " + std::to_string(s.rTable.vChannels.size()) + " channels source " +
               DescribeSource(src) + (src.eKind == SourceKind::Pattern ? " + channel" : "");
    }
    return WithChannel(a[1], [&](SimChannel& ch, int nCh) {
        if (words.empty())
            return "OK audio " + std::to_string(nCh) + " " + AudioReportLocked(Sim(), ch);
        return SetSource(Sim(), ch, nCh, words);
    });
}

// overruns [clear]
std::string CmdOverruns(const Args& a, const std::string&)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (a.size() == 2 && a[1] == "clear") {
        s.vOverruns.clear();
        return "OK cleared";
    }
    if (a.size() != 1)
        return "ERR usage: overruns [clear]";
    std::string out = "OK " + std::to_string(s.vOverruns.size()) + " overruns";
    for (size_t i = 0; i < s.vOverruns.size(); ++i)
        out += (i ? "; " : ": ") + s.vOverruns[i];
    return out;
}

// clock [advance <ms>]
std::string CmdClock(const Args& a, const std::string&)
{
    long ms = 0;
    if (a.size() == 3 && a[1] == "advance" && ArgInt(a[2], 0, 86400000, ms))
        Clock().Advance(static_cast<int64_t>(ms) * 1000);
    else if (a.size() != 1)
        return "ERR usage: clock [advance <ms>]";
    return "OK clock " + std::to_string(Clock().NowUs() / 1000) + " ms step " +
           std::to_string(Clock().StepMode() ? 1 : 0);
}

} // namespace

const CommandTable& AudioCommands()
{
    static const CommandTable kTable = {
        {"audio", CmdAudio},
        {"overruns", CmdOverruns},
        {"clock", CmdClock},
    };
    return kTable;
}
