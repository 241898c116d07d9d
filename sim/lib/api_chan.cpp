// api_chan.cpp - the per-channel and per-circuit operations of the card library.
//
// They record the call in the call log and keep what the card's behaviour
// needs (memory recording, gains, caller ID, digit buffer, line voltage,
// spy call data) in the channel's state; a channel the driver doesn't have
// gives -1 and an error text. The memory recording itself runs in audio.cpp,
// the trace streams on threads of their own in trace.cpp.
// Every operation holds the state lock for its own short work only.
#include "audio.h"
#include "eventq.h"
#include "simstate.h"
#include "trace.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

namespace {

// Logs "name(nCh, args)" and runs fn on the channel, or fails for a bad channel.
int OnChannel(const char* name, int nCh, const std::string& args, const std::function<int(SimChannel&)>& fn)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    LogCallLocked(s, std::string(name) + "(" + std::to_string(nCh) + (args.empty() ? "" : ", " + args) + ")");
    SimChannel* ch = ChannelLocked(s, nCh);
    if (!ch) {
        SetErrorLocked(s, std::string(name) + ": no channel " + std::to_string(nCh));
        return -1;
    }
    return fn(*ch);
}

// The same without a log entry, for operations the daemon calls every second.
int PeekChannel(int nCh, const std::function<int(SimChannel&)>& fn)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    SimChannel* ch = ChannelLocked(s, nCh);
    return ch ? fn(*ch) : -1;
}

int Ok(SimChannel&)
{
    return 0;
}

// Spy texts: always NUL-terminated within the caller's 64 bytes.
int SpyText(int nCic, char* pszBuf, std::string SimCic::*field)
{
    if (!pszBuf)
        return -1;
    memset(pszBuf, 0, 64);
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (!s.fStarted || nCic < 0 || static_cast<size_t>(nCic) >= s.rTable.vCics.size())
        return -1;
    const std::string& text = s.rTable.vCics[static_cast<size_t>(nCic)].*field;
    memcpy(pszBuf, text.data(), std::min<size_t>(text.size(), 63));
    return 0;
}

int SpyChannel(int nCic, bool fIn)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    if (!s.fStarted || nCic < 0 || static_cast<size_t>(nCic) >= s.rTable.vCics.size())
        return -1;
    const SimCic& c = s.rTable.vCics[static_cast<size_t>(nCic)];
    return fIn ? c.iInCh : c.iOutCh;
}

} // namespace

extern "C" {

int SsmGetChState(int nCh)
{
    return PeekChannel(nCh, [](SimChannel& ch) { return ch.iState; });
}

int SsmClearCallerId(int nCh)
{
    return OnChannel("SsmClearCallerId", nCh, "", [](SimChannel& ch) {
        ch.strCallerId.clear();
        return 0;
    });
}

int SsmRecToMem(int nCh, int nFormat, char* pBuf, DWORD dwBufSize, DWORD dwStartOffset)
{
    std::string args = std::to_string(nFormat) + ", buf, " + std::to_string(dwBufSize) + ", " +
                       std::to_string(dwStartOffset);
    return OnChannel("SsmRecToMem", nCh, args, [&](SimChannel& ch) {
        if (!pBuf || dwBufSize == 0 || dwStartOffset >= dwBufSize ||
            (nFormat != REC_FORMAT_ALAW && nFormat != REC_FORMAT_ULAW))
            return -1;
        RecMemReg reg;
        reg.fActive = true;
        reg.pBuf = pBuf;
        reg.dwSize = dwBufSize;
        reg.iFormat = nFormat;
        reg.dwOffset = dwStartOffset;
        BeginRecordingLocked(Sim(), nCh, ch, reg);
        return 0;
    });
}

int SsmStopRecToMem(int nCh)
{
    return OnChannel("SsmStopRecToMem", nCh, "", [nCh](SimChannel& ch) {
        // Progress events of the stopped recording would point into a buffer
        // the caller may free now: they go too.
        EndRecordingLocked(nCh, ch);
        return 0;
    });
}

int SsmSetRecVolume(int nCh, int nVolume)
{
    return OnChannel("SsmSetRecVolume", nCh, std::to_string(nVolume), [nVolume](SimChannel& ch) {
        ch.iRecVolume = nVolume;
        return 0;
    });
}

int SsmSetRecAGC(int nCh, BOOL bEnable)
{
    return OnChannel("SsmSetRecAGC", nCh, std::to_string(bEnable), [bEnable](SimChannel& ch) {
        ch.fRecAgc = bEnable != 0;
        return 0;
    });
}

int SsmClearRxDtmfBuf(int nCh)
{
    return OnChannel("SsmClearRxDtmfBuf", nCh, "", [](SimChannel& ch) {
        ch.strDtmfBuf.clear();
        return 0;
    });
}

char* SsmGetCallerIdA(int nCh)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    SimChannel* ch = ChannelLocked(s, nCh);
    if (!ch || ch->strCallerId.empty())
        return nullptr;
    // The pointer stays valid until the next call for this channel.
    ch->strCallerIdOut = ch->strCallerId;
    return &ch->strCallerIdOut[0];
}

int SsmGetLineVoltage(int nCh)
{
    return PeekChannel(nCh, [](SimChannel& ch) { return ch.iLineVoltage; });
}

int SsmSetBargeInSens(int nCh, int nSensitivity)
{
    return OnChannel("SsmSetBargeInSens", nCh, std::to_string(nSensitivity), [nSensitivity](SimChannel& ch) {
        ch.iBargeInSens = nSensitivity;
        return 0;
    });
}

int DTRSetMixerVolume(int nCh, int nGroup, int nInVolume, int nOutVolume)
{
    std::string args =
        std::to_string(nGroup) + ", " + std::to_string(nInVolume) + ", " + std::to_string(nOutVolume);
    return OnChannel("DTRSetMixerVolume", nCh, args, Ok);
}

int SsmStartRecBitFlow(int nCh, PRECRAWDATACALLBACK pfnCallback)
{
    if (OnChannel("SsmStartRecBitFlow", nCh, pfnCallback ? "callback" : "null", Ok) != 0)
        return -1;
    // The thread starts outside the state lock, which it never takes.
    StartBitFlowStream(nCh, pfnCallback);
    return 0;
}

int SsmStopRecBitFlow(int nCh)
{
    if (OnChannel("SsmStopRecBitFlow", nCh, "", Ok) != 0)
        return -1;
    StopBitFlowStream(nCh);
    return 0;
}

int SsmRecToFile(int nCh, const char* pszFile, int nFormat, DWORD dwStartPos, DWORD dwBytes, DWORD dwTime,
                 int nMask)
{
    std::string args = std::string(pszFile ? pszFile : "(null)") + ", " + std::to_string(nFormat) + ", " +
                       std::to_string(dwStartPos) + ", " + std::to_string(static_cast<int>(dwBytes)) + ", " +
                       std::to_string(dwTime) + ", " + std::to_string(nMask);
    AudioSource src;
    if (OnChannel("SsmRecToFile", nCh, args, [&src](SimChannel& ch) {
            src = ch.rSource;
            return 0;
        }) != 0)
        return -1;
    std::string err = "no file name";
    if (pszFile && StartFileStream(nCh, pszFile, nFormat, src, err))
        return 0;
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    SetErrorLocked(s, "SsmRecToFile: " + err);
    return -1;
}

int SsmStopRecToFile(int nCh)
{
    if (OnChannel("SsmStopRecToFile", nCh, "", Ok) != 0)
        return -1;
    StopFileStream(nCh);
    return 0;
}

int DTRSendRawData2A3(int nReserved, PUCHAR pucBuf, int nCh, int nMask, int nEnable, PDSTCALLBACK pfnCallback)
{
    (void)pucBuf;
    std::string args = "reserved " + std::to_string(nReserved) + ", mask " + std::to_string(nMask) +
                       ", enable " + std::to_string(nEnable) + (pfnCallback ? ", callback" : ", null");
    if (OnChannel("DTRSendRawData2A3", nCh, args, Ok) != 0)
        return -1;
    if (nEnable && pfnCallback)
        StartDstStream(nCh, pfnCallback);
    else
        StopDstStream(nCh);
    return 0;
}

int SpyGetCallInCh(int nCic)
{
    return SpyChannel(nCic, true);
}

int SpyGetCallOutCh(int nCic)
{
    return SpyChannel(nCic, false);
}

int SpyGetCalleeId(int nCic, char* pszBuf)
{
    return SpyText(nCic, pszBuf, &SimCic::strCallee);
}

int SpyGetCallerId(int nCic, char* pszBuf)
{
    return SpyText(nCic, pszBuf, &SimCic::strCaller);
}

int SpyGetConId(int nCic, char* pszBuf)
{
    return SpyText(nCic, pszBuf, &SimCic::strConnected);
}

} // extern "C"
