// api_clear.cpp - the optional SsmClearR2callToneBuf.
//
// Not every version of the card library has this operation; the daemon
// looks it up with dlsym. The "noclear" variant of the library is built
// without this file, so tests can run the daemon against both.
#include "simstate.h"

extern "C" int SsmClearR2callToneBuf(int nCh)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    LogCallLocked(s, "SsmClearR2callToneBuf(" + std::to_string(nCh) + ")");
    if (!ChannelLocked(s, nCh)) {
        SetErrorLocked(s, "SsmClearR2callToneBuf: no channel " + std::to_string(nCh));
        return -1;
    }
    return 0;
}
