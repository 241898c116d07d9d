// BaseChannel.h - one tapped line: the channel model and its event frame.
//
// A channel follows its line's state from the card's events, smooths the
// state reports into one health value with two leaky counters, and (as the
// line types and the recording path join) follows the call and records it.
// The line-type classes derive from it. Everything here runs on the main
// thread: the recorder owns the channels and calls HandleEvent and Periodic
// from the run loop, so no member has a lock. prRecorder is borrowed; the
// channel sees the system through ICRecorder only, so it can be exercised
// against a fake recorder.
#ifndef BASECHANNEL_H
#define BASECHANNEL_H

#include <cstdio>
#include <ctime>
#include <string>

#include "idatabase.h"
#include "irecorder.h"
#include "shpa3api.h"

enum ELineHealth { LINEHEALTH_OK = 0, LINEHEALTH_OFFLINE = 1, LINEHEALTH_ERROR = 2 };

class BaseChannel {
public:
    BaseChannel();
    virtual ~BaseChannel();
    BaseChannel(const BaseChannel&) = delete;
    BaseChannel& operator=(const BaseChannel&) = delete;

    // iChannel: web channel from 1, -1 none; iBoardListIx: -1 when no board
    // of the list has the channel's board id; iDrvCh: driver channel, which
    // is also the index in the recorder's vChannels.
    virtual void Init(int iChannel, int iBoardListIx, int iBoardCh, ICRecorder* prRecorder, int iDrvCh);
    // The base class tracks the channel state only.
    virtual void HandleEvent(SSM_EVENT* prEvent);
    // Once a second from the run loop.
    virtual void Periodic();
    virtual bool InCall() { return fInCall_ChState; }
    virtual bool CanStereo() { return false; }
    // Once per channel at shutdown, after EndOfCall.
    virtual void Finalize() {}
    virtual void ClearInfo();
    virtual void AlwaysClearInfo();
    // Writes the line's state file; -1: this line type has none.
    virtual int WriteChState() { return -1; }
    virtual void ReloadSettingsLive();
    virtual bool GetNewRecOnDmd() { return fRecOnDmd; }

    void EndOfCall();

    // ---- line health ------------------------------------------------------
    void NewChannelState();
    void PeriodicChannelState();
    void FinalCalcChannelState();
    void NewLineHealth();
    static bool IsChStateDisconnected(int iState);
    static bool IsChStateError(int iState);
    // "" for a state or health value without a text.
    static std::string GetChannelStateDescr(int iState);
    static std::string GetLineHealthDescr(ELineHealth eHealth);

    // ---- identity -----------------------------------------------------------
    ICRecorder* prRecorder = nullptr;
    int iChIx = 0;
    int iChannel = -1;
    int iDrvCh = 0;
    int iBoardListIx = 0;
    int iBoardCh = -1;
    int iRecSource = 0; // 0 base, 1 analog, 5 DST, 6 PRI

    // ---- call state -------------------------------------------------------
    bool fCallBusy = false;
    bool fInCall_ChState = false;
    bool fRinging = false;
    time_t rFirstRing = 0;
    time_t rLastRing = 0;
    bool fIncoming = false;
    bool fKnowIncoming = false;
    bool fRingsUntilPickup = false;
    time_t rCallStopTime = 0;
    int iWaitTime = -1;

    // ---- numbers and digits -------------------------------------------------
    time_t rRemoteNumTime = 0;
    std::string strRemoteNum;
    std::string strLocalNum;
    std::string strNonMonitoredNum;
    CallerIdContact rCustomLocal;
    std::string strConnectedNum;
    bool fUseLocalNum = false;
    bool fHasConnectedNum = false;
    std::string strPrevRemoteNum;
    std::string strPrevConnectedNum;
    std::string strPrevCallRemoteNum;
    bool fUsePressedDigitsForRemote = false;
    time_t rDigitTime = 0;
    bool fResetLocalNum = false;

    // ---- recording ----------------------------------------------------------
    bool fRecording = false;
    time_t rStartTime = 0;
    int iDuration = 0;
    int iLinkedCh = -1;
    int iBaseRecCh = -1;
    int iBaseCh = -1;
    bool fDontRecord = false;
    bool fDontKeepThisPart = false;
    int iRecUniqCnt = 0;
    std::string strFullFilename;
    std::string strFullFilenameFinal;
    std::string strArchiveFilename;
    std::string strFilename;
    std::string strDirectory;
    int iEncoding = 0;
    FILE* hRawFile = nullptr;
    int iRecordOffset = 0;
    int iRecordBufSize = 0;
    long long iRecordByteCnt = 0; // 64-bit: a long recording passes 2 GB
    BYTE* acRecordBuf = nullptr;
    FILE* hAudioFile = nullptr;
    bool fSilencing = false;
    int iMixBufIx[2] = {0, 0};
    BYTE* acMixBuffer = nullptr;
    bool fDoStereo = false;
    int iCalcLoudnessSamples = 0;

    // ---- active row and actions ---------------------------------------------
    int iActiveCallID = -1;
    std::string strDbRemoteId;
    int iActiveContactLocal = 0;
    std::string strDigits;
    bool fDigitFreeze = false;
    bool fToEmail = false;

    // ---- ticks and loudness ---------------------------------------------------
    int iPeriodicCounter = 0;
    int iPeriodicCounter2 = 0;
    bool fCalcLoudness = false;
    int iCalcLoudnessIndex = 0;
    double dLoudness = 0;
    int iLast_dB = -999;
    bool fHighDetect = false;
    int iHighDbThr = 0;
    int iHighMaxCnt = 0;
    int iHighCnt = 0;
    int iHighAge = 0;
    int iHighNotify = 0;
    bool fHighSwitchedOff = false;

    // ---- options and line health ----------------------------------------------
    bool fRecOnDmd = false;
    bool fRecOnDmdStart = false;
    bool fLongRecordings = false;
    int iLongRecordingsLen = 0;
    bool fCheckLineStatus = false;
    int iLastChannelState = -1;
    int iLineErrCalc = 0;
    int iLineOfflineCalc = 0;
    ELineHealth eLineHealth = LINEHEALTH_OK;
};

#endif
