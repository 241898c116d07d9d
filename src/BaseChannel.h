// BaseChannel.h - one tapped line: the channel model and its event frame.
//
// A channel follows its line's call from the facts its line type feeds in
// (InCall, ringing, numbers, digits), decides whether a call is recorded,
// writes the card's audio into a WAVE file, keeps the call's ActiveCalls
// row current, and at the end of a recording decides whether it is kept:
// a kept one is handed to the background as an AudioConvAct. It also
// smooths the state reports into one health value. The line-type classes
// derive from it and call the operations below.
//
// Everything here runs on the main thread: the recorder owns the channels
// and calls HandleEvent and Periodic from the run loop, and commands reach
// a channel as acts run on that thread, so no member has a lock. prRecorder
// is borrowed; the channel sees the system through ICRecorder and IDatabase
// only, so it can be exercised against fakes.
#ifndef BASECHANNEL_H
#define BASECHANNEL_H

#include <cstdio>
#include <ctime>
#include <string>

#include "fstring.h"
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
    // Ends the recording and decides whether it is kept. Clears fClearInfo
    // when the caller needn't run ClearInfo (done here, or the facts are to
    // survive a too short recording). Nothing happens when not recording.
    virtual void StopRecording(bool& fClearInfo);
    // Once a second from the run loop: digit expiry, the WAVE header every
    // 5 ticks, the loud alarm, long-recording cuts, line health.
    virtual void Periodic();
    virtual bool InCall() { return fInCall_ChState; }
    virtual bool CanStereo() { return false; }
    // May this call be recorded, by its numbers? fTell logs a refusal.
    virtual bool MayStartRecording(bool fTell);
    // Does the weekly schedule (wall clock, part "o" read afresh) allow
    // recording now?
    virtual bool RecordingScheduled();
    // Once per channel at shutdown, after EndOfCall.
    virtual void Finalize() {}
    virtual void ClearInfo();
    virtual void AlwaysClearInfo();
    // Writes the line's state file; -1: this line type has none.
    virtual int WriteChState() { return -1; }
    // Just before collected digits expire.
    virtual void WhenDigitExpiring() {}
    // Seconds of ringing before the call, -1 unknown or outgoing.
    virtual int GetWaitTime();
    // When a new ring sequence begins.
    virtual void WhenNewRing() {}
    virtual void ReloadSettingsLive();
    virtual bool GetNewRecOnDmd() { return fRecOnDmd; }

    // ---- call frame -----------------------------------------------------------
    // The audio event (and nothing else) for events a line type leaves.
    void DefaultEventHandle(SSM_EVENT* prEvent);
    // Edge detector on InCall(): the only place where a call begins or ends.
    void InCallMaybeChanged();
    void WhenCallStarts();
    void WhenCallStops();
    // Shutdown: ends the call whatever the line says.
    void EndOfCall();
    void RingingStarted();
    void RingingStopped();
    void RemoteExpired();
    void CheckRemoteExpired();
    // Now while ringing, else rRemoteNumTime.
    time_t GetRemoteNumTime();
    // Ends a recording (true: at the end of the call; false: a cut within it)
    // and removes an active row that no keeping action took over.
    void FinalizeRecording(bool fClearInfo);

    // ---- recording decision -----------------------------------------------------
    void TryStartRecording();
    void StartRecording();
    // Do the present numbers ask for recording on demand (RecOnDmdType)?
    bool QRecOnDmd();
    // Start or stop on demand; false when the option is off for this line.
    bool RecOnDmdAct(bool fStart);
    bool MayDeleteOnDemand();
    // Drops the call's recording now; false when delete on demand doesn't apply.
    bool DeleteAct();

    // ---- file naming ------------------------------------------------------------
    void DetermineDbRemoteId();
    void DetermineFilename();

    // ---- audio path ---------------------------------------------------------------
    void BasicRecordingPreparation();
    void WriteMemRange(int iStart, int iStop);
    void WriteBuf(BYTE* buf, int len);
    void OpenAudioFile();
    void CloseAudioFile();
    void UpdateAudioFileHeader();
    void OpenRawFile();
    void CloseRawFile();
    void OnRecordingData(void* pData, unsigned int uiLen);
    // False (and a log line) when silence on demand is off.
    bool TrySetSilencing(bool fToSet);
    void NewLoudness();

    // ---- call record --------------------------------------------------------------
    // Columns of the call. fFinal: for Calls (contacts are made if missing);
    // otherwise for the ActiveCalls row.
    void FillCallInfo(StringMap* rCallInfo, IDatabase* prDB, bool fFinal);
    void AddActive();
    void RemoveActive();

    // ---- numbers and digits ---------------------------------------------------------
    void RemoteNumberChanged();
    bool ChangeLocalNum(std::string strLocalPhoneNum);
    // Command from outside; strRemotePhoneNum only served to find the channel.
    bool LocalNumberChanged(std::string strLocalPhoneNum, std::string strRemotePhoneNum, bool stopstart);
    void PhoneNumberChanged(bool stopIsFinal);
    // Local number for the database, UTF-8.
    std::string GetLocalNum();
    bool QUseLocalNum();
    // strRemoteNum with its last iMaskLastRemoteDigits characters as "X".
    std::string GetDbRemoteNum();
    void CheckDigitsExpired(bool fForceExpired);
    void DetectedDigit(char ch);
    void DtmfAction(std::string strAction);

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

// Card-callback form that hands data to OnRecordingData of the channel in pVoid.
int RecordingCallBack(int iCh, BYTE* lpData, DWORD dwDataLen, PVOID pVoid);
// Debugging aid: counts zero bytes of buf[iStart..iStop) and logs at 51 or more.
void CheckForNull(BYTE* buf, int iStart, int iStop, int iType);

#endif
