// irecorder.h - ICRecorder, what a channel sees of the system.
//
// A channel holds a pointer to its ICRecorder and to nothing above it, so
// channel classes can be exercised against a fake recorder in tests.
// Every operation runs on the main thread only; the data members are set
// by CRecorder::InitRecorder and LoadReloadableSettings and read by the
// channels without locks for that reason.
#ifndef IRECORDER_H
#define IRECORDER_H

#include <string>
#include <vector>

#include "idatabase.h"
#include "shpa3api.h"

enum ERecEncodings { RECENC_G711A = 0, RECENC_G711U = 1, RECENC_GSM = 2, RECENC_MP3 = 3 };
enum ECardType { CT_UNKNOWN = -1, CT_ATP = 0, CT_DST = 1, CT_DTP = 2, CT_SHT = 3 };
enum EChannelType { CH_UNKNOWN = -1, CH_ANALOG = 3, CH_ISDN_USR = 7, CH_ISDN_NTW = 8, CH_DST = 12 };
enum ENotifyType { LOUD_TALKING = 1 };

class ICRecorder {
public:
    std::string strDTMF[11];     // entries 1..10 used
    std::string strDTMFact[11];  // action of the entry with the same index
    ERecEncodings eRecEnc = RECENC_G711A;
    bool fStereo = false;
    bool fMonitoring = false;
    bool fSilenceOnDemand = false;
    bool fRecCheck = false;
    bool fALE = false;
    int iMaskLastRemoteDigits = 0;
    int iNumberFilterType = 0;
    int iDelOnDmdType = 0;
    int iRecOnDmdType = 0;
    std::vector<std::string> astrNumberFilters;
    std::vector<std::string> astrCstaNumberFilters;
    std::vector<std::string> astrDelOnDmdList;
    std::vector<std::string> astrRecOnDmdList;
    int iCstaType = 0;
    int iCstaMonitors = 0;
    bool fLineNameInFileName = false;
    bool fCardNotInternal = false;
    bool fDebugRepeatRecord = false;
    bool fCrecTestSwapLocRem = false;
    std::string strArchiveRoot;
    std::string strRecordingRoot;
    int fStoreOnDemandDelay = 0;
    bool fNeedCallPost = false;

    virtual ~ICRecorder() = default;

    // 0 on success; 1 when card events could not be switched on.
    virtual int InitRecorder() = 0;
    virtual void HandleEvent(SSM_EVENT* prEvent) = 0;
    virtual std::string GetDtmfAct(std::string strDigits) = 0;
    virtual IDatabase* GetDatabaseHandle() = 0;
    // strPBXType of the board; "" for an index out of range.
    virtual std::string GetBoardPbxType(int iBoardListIx) = 0;
    // Channel parameters from the per-board comma lists (cached settings).
    // An invalid board index gives "" / the built-in default, and a log line.
    virtual std::string GetChannelParamStr(int iBoardCh, int iBoardListIx, std::string strParam) = 0;
    virtual int GetChannelParamInt(int iBoardCh, int iBoardListIx, std::string strParam) = 0;
    // The same read from the database at the moment of the call.
    virtual int GetChannelParamIntLive(int iBoardCh, int iBoardListIx, std::string strParam) = 0;
    virtual std::string GetBoardParamStr(int iBoardListIx, std::string strParam) = 0;
    // CT_UNKNOWN for an invalid index.
    virtual ECardType GetBoardCardType(int iBoardListIx) = 0;
    virtual int GetBoardParamInt(int iBoardListIx, std::string strParam) = 0;
    // Number of the cached crec setting, no defaults.
    virtual int GetParamInt(std::string strKey) = 0;
    // Start/stop/ring condition lists of the board; false for an invalid index.
    virtual bool IsBoardStartCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) = 0;
    virtual bool IsBoardStopCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) = 0;
    virtual bool IsBoardRingOnCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) = 0;
    virtual bool IsBoardRingOffCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) = 0;
    virtual void NotifyChAvail(int iBoardListIx, int iBoardCh, bool fChAvail) = 0;
    // Local number learnt before a restart, "" when older than 600 s.
    virtual std::string GetCachedLocalNum(int iBoardCh, int iBoardListIx) = 0;
    virtual void SetCachedLocalNum(int iBoardCh, int iBoardListIx, std::string strNum) = 0;
    // Ends all calls and removes the line status file.
    virtual void Shutdown() = 0;
    virtual void EmailRecording(int iID, int iContactID) = 0;
    virtual void EmailBackRecording(int iContactID, int iBack) = 0;
    virtual std::string GetCheckSumType() = 0;
    virtual int ChState(int iChannel) = 0;
    virtual bool IsInNumberFilter(std::string strNum) = 0;
    virtual bool IsInDelOnDmdList(std::string strNum) = 0;
    virtual bool IsInRecOnDmdList(std::string strNum) = 0;
    virtual void Reconfigure() = 0;
    virtual void NotifyAdmin(ENotifyType eType, std::string strText) = 0;
    virtual bool IsSpecial(std::string strName) = 0;
    virtual void NewLineHealth(int iChIx) = 0;
    // The status directory, ending in "/".
    virtual std::string GetDataDir() = 0;
    // True when the recording of a call between these contacts is kept only
    // on demand: the system value "RecOnDemand", overridden by the "rod"
    // setting of the users of either contact (the last definite one wins).
    virtual bool StoreOnDemand(Contact rContactLocal, Contact rContactRemote) = 0;
    // Commands naming a call by its strDbRemoteId: 0 done, 1 no channel has
    // that call, 2 the channel refused.
    virtual int SilencingAct(std::string strCallId, bool fSound) = 0;
    virtual int RecOnDmdAct(std::string strCallId, bool fStart) = 0;
};

#endif
