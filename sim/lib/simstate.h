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

#include "hwdesc.h"
#include "shpa3api.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

// A card's own memory recording of one channel (registered by SsmRecToMem).
struct RecMemReg {
    bool fActive = false;
    char* pBuf = nullptr;
    DWORD dwSize = 0;
    int iFormat = 0;
    DWORD dwOffset = 0;
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
    RecMemReg rRecMem;
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
};

SimState& Sim();

// Callers hold rMutex for the functions below.
std::string SimRootLocked(SimState& s);
void SetErrorLocked(SimState& s, const std::string& text);
void LogCallLocked(SimState& s, const std::string& entry);
// The channel, or null when the driver has no such channel.
SimChannel* ChannelLocked(SimState& s, int nCh);

// Builds the started table from the daemon's ShConfig.ini and the hardware.
bool BuildStartedTable(const std::string& cfgPath, const HardwareDesc& hw, StartedTable& table,
                       std::string& err);

#endif
