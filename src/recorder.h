// recorder.h - the recorder core and the card set-up.
//
// TBoard is one card, present or remembered. TRecorderBoot is built anew
// for every start attempt by RecorderMain: it reads the settings, detects
// the cards, numbers the channels, writes the driver configuration, starts
// the cards and then runs the event loop with a CRecorder, which owns one
// channel object per driver channel. Everything here runs on the main
// thread; the one exception is mainQueue(), which other threads use to hand
// work to it.
//
// Implemented in recorderboot.cpp (settings store, boards, driver
// configuration, started-state analysis) and recorder.cpp (run loop,
// RecorderMain, CRecorder).
#ifndef RECORDER_H
#define RECORDER_H

#include <atomic>
#include <ctime>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "bgact.h"
#include "fstring.h"
#include "irecorder.h"

class BaseChannel;

enum ECfgLoadMethod { CFG_LIVE_LOAD = 0, CFG_CACHED_LOAD = 1 };

// One card event that starts, stops or rings.
struct StartStopCnd {
    DWORD dwEvent = 0;
    bool fSubReason = false;
    DWORD dwSubReason = 0;
};

class TBoard {
public:
    bool fPresent = true;
    std::string strSerial;
    std::string strModel;
    std::string strId;  // stored identity of a card that isn't present
    std::string strPBXType;
    std::string strPhoneType;
    std::vector<StartStopCnd> vStartCnds, vStopCnds, vRingOnCnds, vRingOffCnds;
    int iMaxCh = 0;       // channels in the driver's count
    int iWebMaxCh = 0;    // channels in the web's count
    int iStartCh = 0;     // first channel in the driver's count
    int iWebStartCh = 0;  // first channel in the web's count
    int iBoardId = 0;     // board number in the driver, -1 when absent
    int iChannels = 0;    // channels the started driver reports

    // "Syn" + serial when present, else the stored identity.
    std::string getId() const;
    ECardType GetCtType() const;
};

class TRecorderBoot {
public:
    // prDb: a database to use instead of the one Init() makes (tests).
    // The boot owns it either way.
    explicit TRecorderBoot(IDatabase* prDb = nullptr);
    ~TRecorderBoot();
    TRecorderBoot(const TRecorderBoot&) = delete;
    TRecorderBoot& operator=(const TRecorderBoot&) = delete;

    // ---- start sequence -----------------------------------------------------
    // Marker file, optional card function, database, settings parts,
    // the "crec" system switch. False: recording is disabled.
    bool Init();
    // DetectBoards, CreateBoardList, WriteConfig.
    void PrepareConfig();
    void WriteNewConfigsToDB();
    // Starts the card driver; 0 on success, 1 on failure.
    int InitBoards();
    // Blocks until stop; 0, or 1 if the recorder could not start.
    int RecorderUseBoardsLoop();

    // ---- main-thread queue (guarded by rListMutex) --------------------------
    void queue(ThreadAct* act);
    void emptyQueue();
    // Unlinks the front act, or returns false when the queue is empty.
    bool takeAct(ThreadAct*& act);

    // ---- boards ---------------------------------------------------------------
    void DetectBoards();
    // Parses the detection tool's ShConfig.ini into vrDetectedBoards.
    void ParseDetectedBoards(const std::string& strPath);
    void CreateBoardList();
    TBoard* GetBoard(int iBoardListIx);
    int GetBoardListIxForBoardId(int iBoardId);
    ECardType GetBoardCardType(int iBoardListIx);
    void LinkOptionalFunctions();
    void UnlinkOptionalFunctions();

    // ---- driver configuration -----------------------------------------------
    void WriteConfig();

    // ---- settings store -------------------------------------------------------
    std::string GetCrecSetting(std::string strKey, ECfgLoadMethod eMethod);
    std::string GetSysSetting(std::string strKey);
    std::string GetOSetting(std::string strKey);
    std::string GetBoardParamStr(int iBoardListIx, std::string strParam);
    int GetBoardParamInt(int iBoardListIx, std::string strParam);
    std::string GetChannelParamStr(int iBoardCh, int iBoardListIx, std::string strParam,
                                   ECfgLoadMethod eMethod);
    int GetChannelParamInt(int iBoardCh, int iBoardListIx, std::string strParam,
                           ECfgLoadMethod eMethod);
    int GetBoardDataInt(int iBoardListIx, std::string strKey);
    std::string GetChannelDataStr(int iBoardCh, int iBoardListIx, std::string strKey);
    void SetCrecSetting(std::string strKey, std::string strValue);
    void SetBoardDataInt(int iBoardListIx, std::string strKey, int iValue);
    void SetChannelDataStr(int iBoardCh, int iBoardListIx, std::string strKey, std::string strValue);
    void ReloadDbConfig();
    static void AddCndList(std::string strList, std::vector<StartStopCnd>& arr);
    static bool IsCondition(const std::vector<StartStopCnd>& arr, DWORD dwEvent, DWORD dwSubReason);
    void LoadBoardSettings();
    bool IsBoardStartCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason);
    bool IsBoardStopCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason);
    bool IsBoardRingOnCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason);
    bool IsBoardRingOffCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason);
    std::string GetCachedLocalNum(int iBoardCh, int iBoardListIx);
    void SetCachedLocalNum(int iBoardCh, int iBoardListIx, std::string strNum);

    // ---- started-state analysis ---------------------------------------------
    void AnalyseStartedState();

    // ---- members ----------------------------------------------------------------
    std::mutex rListMutex;            // guards rActQueue only
    std::list<ThreadAct*> rActQueue;  // owns its entries
    IDatabase* prDatabase = nullptr;  // owned
    std::vector<TBoard> vrDetectedBoards;
    std::vector<TBoard> vrBoardList;
    StdStringMap rConfigs;     // part "crec"
    StdStringMap rConfigsO;    // part "o"
    StdStringMap rConfigsSys;  // part "s"
    StdStringMap rNewConfigs;  // to be written to part "crec"
    std::map<int, int> rDrvToWebChMap, rWebToDrvChMap;
    std::map<int, int> rCicToAppChMap, rAppToCicChMap;
    int iTotalDrvMaxCh = 0;
    int iTotalWebMaxCh = 0;
    std::string strCardList;
    void* shpaDll = nullptr;
};

// The optional card function, or null.
extern PSSMCLEARR2CALLTONEBUF SsmClearR2callToneBuf_FP;

// Operating system version from /etc/issue.net (6..12), -1 otherwise.
int GetDebianVersion();

// lg(3, "Error in %s: %s") with the card library's last error text.
void LogSsmError(const char* pos);

// Sleeps ms milliseconds in 500 ms steps, returning early on fAppTerminate.
void CheckedSleep(int ms);

// 0 ran and stopped (or disabled), 1 cards could not start, 2 no cards in time.
int RecorderMain();

// Any thread: hands act to the main thread; destroyed unrun when no boot runs.
void mainQueue(ThreadAct* act);

// The boot of the current attempt, null between attempts. Read it only on
// the main thread; other threads go through mainQueue().
TRecorderBoot* CurrentBoot();

// Sets the boot that mainQueue() feeds (RecorderMain, and tests that run a
// loop of their own). Main thread only.
void SetCurrentBoot(TRecorderBoot* prBoot);

// For tests: makes the database of every boot that RecorderMain builds
// (each boot owns what it gets). Null restores the real Database.
void SetBootDatabaseFactory(IDatabase* (*pfnMake)());

// A service message carried through the background queue.
class SlowHandlerMsg : public ThreadAct {
public:
    explicit SlowHandlerMsg(std::string strMsg) : msg(std::move(strMsg)) {}
    void performThread() override;
    void performMain() override {}

    std::string msg;
};

class CRecorder : public ICRecorder {
public:
    CRecorder();
    ~CRecorder() override;
    CRecorder(const CRecorder&) = delete;
    CRecorder& operator=(const CRecorder&) = delete;

    int InitRecorder() override;
    void HandleEvent(SSM_EVENT* prEvent) override;
    std::string GetDtmfAct(std::string strDigits) override;
    IDatabase* GetDatabaseHandle() override { return prDatabase; }
    std::string GetBoardPbxType(int iBoardListIx) override;
    std::string GetChannelParamStr(int iBoardCh, int iBoardListIx, std::string strParam) override;
    int GetChannelParamInt(int iBoardCh, int iBoardListIx, std::string strParam) override;
    int GetChannelParamIntLive(int iBoardCh, int iBoardListIx, std::string strParam) override;
    std::string GetBoardParamStr(int iBoardListIx, std::string strParam) override;
    ECardType GetBoardCardType(int iBoardListIx) override;
    int GetBoardParamInt(int iBoardListIx, std::string strParam) override;
    int GetParamInt(std::string strKey) override;
    bool IsBoardStartCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) override;
    bool IsBoardStopCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) override;
    bool IsBoardRingOnCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) override;
    bool IsBoardRingOffCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason) override;
    void NotifyChAvail(int iBoardListIx, int iBoardCh, bool fChAvail) override;
    std::string GetCachedLocalNum(int iBoardCh, int iBoardListIx) override;
    void SetCachedLocalNum(int iBoardCh, int iBoardListIx, std::string strNum) override;
    void Shutdown() override;
    void EmailRecording(int iID, int iContactID) override;
    void EmailBackRecording(int iContactID, int iBack) override;
    std::string GetCheckSumType() override;
    int ChState(int iChannel) override;
    bool IsInNumberFilter(std::string strNum) override;
    bool IsInDelOnDmdList(std::string strNum) override;
    bool IsInRecOnDmdList(std::string strNum) override;
    void Reconfigure() override;
    void NotifyAdmin(ENotifyType eType, std::string strText) override;
    bool IsSpecial(std::string strName) override;
    void NewLineHealth(int iChIx) override;
    std::string GetDataDir() override;
    bool StoreOnDemand(Contact rContactLocal, Contact rContactRemote) override;
    int SilencingAct(std::string strCallId, bool fSound) override;
    int RecOnDmdAct(std::string strCallId, bool fStart) override;
    // Same codes as SilencingAct.
    int DelOnDmdAct(std::string strCallId);
    // Finds the channel by its remote number (also with "00" before it) and
    // hands it the new local number; with fCrecTestSwapLocRem a second
    // search by the local number, with the numbers swapped.
    int ChLocal(std::string strLocalPhoneNumber, std::string strRemotePhoneNumber, bool stopstart);

    void LoadReloadableSettings();
    void WriteLineStatus();
    void RecheckHealth();

    std::vector<BaseChannel*> vChannels;  // owned; index = driver channel
    IDatabase* prDatabase = nullptr;      // the boot's connection, not owned
    std::string strSerial;
    TRecorderBoot* prBoot = nullptr;      // not owned
    std::atomic<bool> fBitStreamTracing{false};
    std::atomic<int> iBitStreamChNr{-1};
    bool fInitializing = true;
    time_t lastEventReportTime = 0;

private:
    // Null for an index outside vrBoardList.
    TBoard* BoardAt(int iBoardListIx);
    // False for -1 (silently) and, with a log line, for any index outside vChannels.
    bool IsValidChannelIx(int iChIx, int iReported);
    // First channel whose strDbRemoteId is strCallId, or null.
    BaseChannel* FindByCallId(const std::string& strCallId);
    void LoadFixedSettings();
    void CreateChannels();
};

// The run loop of TRecorderBoot::RecorderUseBoardsLoop, one pass at a time
// so that tests can step it with their own event source. Main thread only.
class RecorderLoop {
public:
    typedef int (*WaitEventFn)(DWORD dwTimeOutMs, SSM_EVENT* pEvent);

    RecorderLoop(TRecorderBoot& rBoot, CRecorder& rRecorder, WaitEventFn pfnWait = SsmWaitForEventA);
    // Ends a bit stream trace still running, so no card thread writes on.
    ~RecorderLoop();
    RecorderLoop(const RecorderLoop&) = delete;
    RecorderLoop& operator=(const RecorderLoop&) = delete;
    // One pass: at most one event, the once-a-second Periodic, at most one
    // act of the main queue; while tracing, one tracing step instead. False
    // when the loop is to be left.
    bool RunPass();
    // Logs the longest single event handling and the longest Periodic pass
    // seen so far; the run loop calls it once when it ends.
    void LogLongest() const;

private:
    void TakeEvent();
    void RunPeriodic();
    // Runs the front act of the main queue; false when it was empty.
    bool RunOneAct();
    // One 200 ms step of bit stream tracing, or its end.
    bool TracingStep();

    TRecorderBoot& rBoot;
    CRecorder& rRecorder;
    WaitEventFn pfnWaitEvent;
    time_t rLastPeriod;
    bool fCalledShutDown = false;
    bool fTracing = false;       // inside the bit stream tracing block
    bool fTraceFoundAct = false; // the last tracing step ran an act
    double dLongestEvent = 0;    // seconds, one HandleEvent
    double dLongestPeriodic = 0; // seconds, Periodic of all channels
};

#endif
