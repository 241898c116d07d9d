// api_core.cpp - the card library's start, stop, board and event operations.
//
// These are the operations the daemon calls around its run loop. The
// started table is built here from the daemon's ShConfig.ini; events leave
// through SsmWaitForEventA on the caller's thread. Every operation takes
// the state lock for its own short work only; the blocking wait (audio.cpp)
// holds no lock while it blocks, and threads are started and joined outside it.
#include "audio.h"
#include "control.h"
#include "eventq.h"
#include "simstate.h"
#include "trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string Str(const char* p)
{
    return p ? p : "(null)";
}

// Whether this call is one of the scripted failures; err says which.
bool ScriptedFailureLocked(SimState& s, std::string& err)
{
    int iFailFirst = s.fScriptOverride ? s.iFailFirst : s.rHw.iFailFirst;
    double dFailSeconds = s.fScriptOverride ? s.dFailSeconds : s.rHw.dFailSeconds;
    auto now = std::chrono::steady_clock::now();
    ++s.iStartCalls;
    if (!s.fHaveFirstCall) {
        s.fHaveFirstCall = true;
        s.rFirstCall = now;
    }
    if (s.iStartCalls <= iFailFirst) {
        err = "scripted start failure: call " + std::to_string(s.iStartCalls) + " of the first " +
              std::to_string(iFailFirst) + " fails";
        return true;
    }
    double elapsed = std::chrono::duration<double>(now - s.rFirstCall).count();
    if (elapsed < dFailSeconds) {
        char buf[120];
        snprintf(buf, sizeof(buf), "scripted start failure: %.1f s of %.1f s since the first call", elapsed,
                 dFailSeconds);
        err = buf;
        return true;
    }
    return false;
}

// The start under the lock; returns the control socket path on success.
bool StartLocked(SimState& s, const char* cfg, std::string& sockPath, std::string& err)
{
    std::string root = SimRootLocked(s);
    HardwareDesc hw;
    if (!LoadHardware(HardwarePathOf(root), hw, err))
        return false;
    s.rHw = hw;
    if (ScriptedFailureLocked(s, err))
        return false;
    if (!cfg) {
        err = "no configuration file given";
        return false;
    }
    StartedTable table;
    if (!BuildStartedTable(cfg, hw, table, err))
        return false;
    s.rTable = table;
    s.fStarted = true;
    s.fEventsEnabled = false;
    sockPath = ControlSocketPathOf(root);
    return true;
}

} // namespace

extern "C" {

int SsmStartCti(const char* pszConfigFile, const char* pszIndexFile)
{
    SsmCloseCti(); // a second start begins from nothing, as after a close
    SimState& s = Sim();
    std::string sockPath, err;
    {
        std::lock_guard<std::mutex> lock(s.rMutex);
        LogCallLocked(s, "SsmStartCti(" + Str(pszConfigFile) + ", " + Str(pszIndexFile) + ")");
        if (!StartLocked(s, pszConfigFile, sockPath, err)) {
            SetErrorLocked(s, err);
            LogCallLocked(s, "SsmStartCti failed: " + err);
            return -1;
        }
    }
    if (!StartControlServer(sockPath, err)) {
        // The cards work without it; the log tells why nobody can connect.
        std::lock_guard<std::mutex> lock(s.rMutex);
        LogCallLocked(s, "control socket not started: " + err);
    }
    return 0;
}

int SsmCloseCti(void)
{
    StopAllStreams();
    StopAutoplay();
    StopControlServer();
    Events().SetEnabled(false);
    Events().Clear();
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (s.fStarted)
        LogCallLocked(s, "SsmCloseCti()");
    s.fStarted = false;
    s.fEventsEnabled = false;
    s.rTable = StartedTable();
    s.mTimed.clear();
    return 0;
}

int SsmGetLastErrMsg(char* pszErrMsg)
{
    if (!pszErrMsg)
        return -1;
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    // The caller's buffer holds 300 bytes.
    size_t n = std::min<size_t>(s.strLastError.size(), 299);
    memcpy(pszErrMsg, s.strLastError.data(), n);
    pszErrMsg[n] = '\0';
    return 0;
}

int SsmSetLogAttribute(int nLogType, int nLevel, int nMaxSize, const char* pszLogDir)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    LogCallLocked(s, "SsmSetLogAttribute(" + std::to_string(nLogType) + ", " + std::to_string(nLevel) + ", " +
                         std::to_string(nMaxSize) + ", " + Str(pszLogDir) + ")");
    return 0;
}

int SsmGetDllVersion(_SSM_VERSION* pVersion)
{
    if (!pVersion)
        return -1;
    *pVersion = _SSM_VERSION{5, 3, 1, 7, 0, 0};
    return 0;
}

int SsmWaitForEventA(DWORD dwTimeOutMs, SSM_EVENT* pEvent)
{
    if (!pEvent) {
        SimState& s = Sim();
        std::lock_guard<std::mutex> lock(s.rMutex);
        SetErrorLocked(s, "SsmWaitForEventA without an event record");
        return -2;
    }
    SimEvent ev;
    if (!WaitForCardEvent(static_cast<long>(std::min<DWORD>(dwTimeOutMs, 86400000)), ev))
        return -1;
    FillSsmEvent(ev, pEvent);
    return 0;
}

int SsmSetEvent(WORD wEvent, int nReference, BOOL bEnable, const _EVENT_SET_INFO* pEventSet)
{
    SimState& s = Sim();
    std::string autoplay;
    {
        std::lock_guard<std::mutex> lock(s.rMutex);
        char buf[160];
        snprintf(buf, sizeof(buf), "SsmSetEvent(%u, %d, %d, mode=%u cond=%u param=%u)", wEvent, nReference,
                 bEnable, pEventSet ? pEventSet->dwWorkMode : 0, pEventSet ? pEventSet->dwOutCondition : 0,
                 pEventSet ? pEventSet->dwOutParamVal : 0);
        LogCallLocked(s, buf);
        if (!s.fStarted) {
            SetErrorLocked(s, "SsmSetEvent: the driver is not started");
            return -1;
        }
        if (nReference != -1 && !ChannelLocked(s, nReference)) {
            SetErrorLocked(s, "SsmSetEvent: no channel " + std::to_string(nReference));
            return -1;
        }
        if (wEvent == E_PROC_RecordMem && pEventSet && bEnable) {
            s.dwRecMemCondition = pEventSet->dwOutCondition;
            s.dwRecMemParam = pEventSet->dwOutParamVal;
        }
        if (wEvent == 0xFFFF && nReference == -1) {
            bool fWasOn = s.fEventsEnabled;
            s.fEventsEnabled = bEnable != 0;
            Events().SetEnabled(s.fEventsEnabled);
            if (s.fEventsEnabled && !fWasOn && !s.rHw.strAutoplay.empty())
                autoplay = s.rHw.strAutoplay[0] == '/' ? s.rHw.strAutoplay
                                                       : SimDirOf(SimRootLocked(s)) + "/" + s.rHw.strAutoplay;
        }
    }
    if (!autoplay.empty())
        StartAutoplay(autoplay);
    return 0;
}

int SsmGetMaxUsableBoard(void)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    return s.fStarted ? static_cast<int>(s.rTable.vBoards.size()) : -1;
}

int SsmGetMaxCh(void)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    return s.fStarted ? static_cast<int>(s.rTable.vChannels.size()) : -1;
}

int SsmGetChHdInfo(int nCh, int* pnBoardId, int* pnBoardCh)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    const SimChannel* ch = ChannelLocked(s, nCh);
    if (pnBoardId)
        *pnBoardId = ch ? ch->iBoardId : -1;
    if (pnBoardCh)
        *pnBoardCh = ch ? ch->iBoardCh : -1;
    if (!ch) {
        SetErrorLocked(s, "SsmGetChHdInfo: no channel " + std::to_string(nCh));
        return -1;
    }
    return 0;
}

int SsmGetChType(int nCh)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    const SimChannel* ch = ChannelLocked(s, nCh);
    return ch ? ch->iType : -1;
}

} // extern "C"
