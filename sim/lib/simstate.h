// simstate.h - the state of the simulated card driver.
//
// One global SimState per process, shared by the daemon's link and its
// dlopen of the same library. It holds the root, the last error text, the
// log of card calls, the scripted start failures and the started table
// (driver channel -> board, board channel, type, and the channel's own
// state). The event queue lives apart (eventq.h) because the waiting thread
// must not hold this lock.
//
// Locking: every member is guarded by rMutex, which a caller holds only for
// short work and never while it waits, joins a thread or takes a socket
// request. Lock order: rMutex before the event queue's lock, never after.
#ifndef SIM_SIMSTATE_H
#define SIM_SIMSTATE_H

#include "audiosrc.h"
#include "eventq.h"
#include "hwdesc.h"
#include "shpa3api.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// A card's own memory recording of one channel (registered by SsmRecToMem).
// Positions count bytes since the start of this recording; the ring offset
// of position p is (dwOffset + p) % dwSize.
struct RecMemReg {
    bool fActive = false;
    char* pBuf = nullptr;
    DWORD dwSize = 0;
    int iFormat = 0;
    DWORD dwOffset = 0;        // the start offset the caller gave
    uint32_t uSerial = 0;      // tells this recording's progress events from older ones
    int64_t llLastUs = 0;      // clock reading up to which time is accounted
    int64_t llElapsedUs = 0;   // recorded time so far
    uint64_t ullWritten = 0;   // bytes written into the ring
    uint64_t ullNextEvent = 0; // position of the next progress event
    uint64_t ullTaken = 0;     // position of the last progress event the reader took
    uint64_t ullIntact = 0;    // oldest position not yet overwritten unread (>= ullTaken)
};

// What the card has delivered on a channel since the driver started.
struct AudioStats {
    uint64_t ullDelivered = 0; // bytes written into recording buffers
    uint64_t ullReported = 0;  // bytes covered by progress events the reader took
    uint64_t ullEventsQueued = 0;
    uint64_t ullEventsTaken = 0;
    uint64_t ullOverruns = 0; // deliveries that overwrote unread audio
    uint64_t ullLost = 0;     // bytes overwritten unread
    uint64_t ullRecordings = 0;
};

struct SimChannel {
    int iBoardId = -1;
    int iBoardCh = -1;
    int iType = -1; // -1: no channel the driver opened
    int iState = S_CALL_STANDBY;
    std::string strCallerId;    // what SsmGetCallerIdA will give
    std::string strCallerIdOut; // the copy its pointer refers to
    int iLineVoltage = 0;
    int iRecVolume = 0;
    bool fRecAgc = false;
    int iBargeInSens = 0;
    std::string strDtmfBuf; // digits received since SsmClearRxDtmfBuf
    RecMemReg rRecMem;
    AudioSource rSource;
    AudioStats rAudio;
};

struct StartedBoard {
    int iBoardId = -1;
    std::string strSerial;
    std::string strModel;
    int iFirstDrvCh = 0;
    int iChannels = 0;
};

// One PRI circuit: its two driver channels and the spy call data.
struct SimCic {
    int iInCh = -1;
    int iOutCh = -1;
    std::string strCaller;
    std::string strCallee;
    std::string strConnected;
};

struct StartedTable {
    std::vector<StartedBoard> vBoards;
    std::vector<SimChannel> vChannels; // index = driver channel
    std::vector<SimCic> vCics;         // index = CIC number
};

struct SimState {
    std::mutex rMutex;
    std::string strRoot;
    bool fRootSet = false;
    std::string strLastError;
    std::deque<std::string> vCallLog;

    // Scripted start failures; fScriptOverride makes them win over hardware.ini.
    bool fScriptOverride = false;
    int iFailFirst = 0;
    double dFailSeconds = 0;
    int iStartCalls = 0;
    bool fHaveFirstCall = false;
    std::chrono::steady_clock::time_point rFirstCall;

    bool fStarted = false;
    HardwareDesc rHw;
    StartedTable rTable;
    bool fEventsEnabled = false;
    DWORD dwRecMemCondition = 0; // cadence asked for E_PROC_RecordMem
    DWORD dwRecMemParam = 0;
    uint32_t uRecSerial = 0;                 // last SsmRecToMem's serial
    std::multimap<int64_t, SimEvent> mTimed; // events due at a clock reading (e.g. DTMF gaps)
    std::deque<std::string> vOverruns;       // "overrun <ch> <bytes lost>", the last 1000
};

SimState& Sim();

// Callers hold rMutex for the functions below.
std::string SimRootLocked(SimState& s);
void SetErrorLocked(SimState& s, const std::string& text);
void LogCallLocked(SimState& s, const std::string& entry);
// The channel, or null when the driver has no such channel.
SimChannel* ChannelLocked(SimState& s, int nCh);
// An event reaches the card's outside: a DTMF digit also enters the
// channel's digit buffer. False when the queue dropped it.
bool ArriveLocked(SimState& s, const SimEvent& ev);

// Builds the started table from the daemon's ShConfig.ini and the hardware.
bool BuildStartedTable(const std::string& cfgPath, const HardwareDesc& hw, StartedTable& table,
                       std::string& err);

#endif
