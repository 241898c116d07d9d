// simstate.cpp - the global simulator state and its small helpers (see simstate.h).
#include "simstate.h"

#include <cstdlib>

#ifndef QUORDA_ROOT
#define QUORDA_ROOT ""
#endif

namespace {
const size_t kCallLogMax = 1000;
}

SimState& Sim()
{
    // Built on first use, never destroyed: threads of the library may still
    // look at it while the process runs its exit handlers.
    static SimState* prState = new SimState;
    return *prState;
}

std::string SimRootLocked(SimState& s)
{
    if (!s.fRootSet) {
        const char* env = getenv("SHSIM_ROOT");
        s.strRoot = (env && *env) ? env : QUORDA_ROOT;
        s.fRootSet = true;
    }
    return s.strRoot;
}

void SetErrorLocked(SimState& s, const std::string& text)
{
    s.strLastError = text;
}

void LogCallLocked(SimState& s, const std::string& entry)
{
    s.vCallLog.push_back(entry);
    if (s.vCallLog.size() > kCallLogMax)
        s.vCallLog.pop_front();
}

SimChannel* ChannelLocked(SimState& s, int nCh)
{
    if (!s.fStarted || nCh < 0 || static_cast<size_t>(nCh) >= s.rTable.vChannels.size())
        return nullptr;
    return &s.rTable.vChannels[static_cast<size_t>(nCh)];
}

bool ArriveLocked(SimState& s, const SimEvent& ev)
{
    if (ev.wEventCode == E_CHG_RcvDTMF) {
        SimChannel* ch = ChannelLocked(s, ev.nReference);
        // The card keeps what it heard even when nobody is told.
        if (ch && ch->strDtmfBuf.size() < 1000)
            ch->strDtmfBuf += static_cast<char>(ev.dwParam & 0xFF);
    }
    return Events().Push(ev);
}
