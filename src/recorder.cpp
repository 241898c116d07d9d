// recorder.cpp - RecorderMain's attempt loop, the run loop, the main-thread
// queue and CRecorder, the recorder object the channels see.
//
// DESIGN: RecorderMain builds a fresh TRecorderBoot for every start attempt
// and retries until cards are found and started. The run loop then owns a
// CRecorder and, on the main thread alone, takes one card event per pass,
// gives every channel one Periodic call per wall-clock second and runs at
// most one act that another thread queued with mainQueue(). A stop for a
// bit stream trace ends every call like a stop of the process, then runs
// the trace (bittrace.cpp) in 200 ms steps that serve only the main queue,
// and goes back to events when the trace is stopped.
// Locks: g_rBootMutex guards the pointer to the current boot against its
// destruction: mainQueue() checks the pointer and pushes under it, and
// RecorderMain clears the pointer under it before destroying the boot. The
// boot's rListMutex guards its act list; it is taken inside g_rBootMutex,
// never the other way round, and never held while an act runs.
#include "recorder.h"

#include <cctype>
#include <cstdio>
#include <sys/stat.h>

#include "AnalogChannel.h"
#include "BaseChannel.h"
#include "bittrace.h"
#include "filedir.h"
#include "ftime.h"
#include "logging.h"
#include "paths.h"
#include "quorda_crec.h"
#include "reactor.h"
#include "signaling.h"

namespace {
const int NO_CARDS_LIMIT_S = 600;
const int NO_CARDS_RETRY_MS = 10000;
const DWORD EVENT_WAIT_MS = 200;
const long STOPPING_PASS_US = 200000;
const double SLOW_HANDLER_S = 0.1;
const int ATTEMPT_AGAIN = -1;

std::mutex g_rBootMutex;
std::atomic<TRecorderBoot*> g_prBoot{nullptr}; // written under g_rBootMutex
IDatabase* (*g_pfnMakeBootDb)() = nullptr;

// The serial is cut at the first character that isn't a letter or digit,
// which drops the line end and anything after it.
std::string readSerial()
{
    char acBuf[50] = {0};
    FILE* f = fopen(SysPath("/var/quorda/conf/serial").c_str(), "re");
    if (!f)
        return std::string();
    size_t n = fread(acBuf, 1, sizeof(acBuf) - 1, f);
    fclose(f);
    size_t i = 0;
    while (i < n && isalnum(static_cast<unsigned char>(acBuf[i])))
        ++i;
    return std::string(acBuf, i);
}

// Splits text at "," into v (emptied first) and trims each element.
void SplitTrimmed(std::vector<std::string>& v, const std::string& strText)
{
    v.clear();
    lt_split(v, strText, ',');
    for (std::string& s : v)
        trim(s);
}

bool IsInList(const std::vector<std::string>& v, const std::string& strNum)
{
    for (const std::string& s : v)
        if (s == strNum)
            return true;
    return false;
}

// The class of a channel follows its driver channel type. Types without a
// line class of their own get the plain class, which follows the channel
// state alone, so that vChannels indices still equal driver channels.
BaseChannel* NewChannelOfType(int iType)
{
    if (iType == CH_ANALOG)
        return new AnalogChannel();
    return new BaseChannel();
}

void LogOldCardCount(TRecorderBoot& rBoot)
{
    std::vector<std::string> vCards;
    lt_split(vCards, rBoot.GetCrecSetting(g_cfgPrefix + "CardList", CFG_CACHED_LOAD), ',');
    int iCount = 0;
    for (const std::string& strCard : vCards)
        if (rBoot.GetCrecSetting("Prev_" + strCard + "_Present", CFG_CACHED_LOAD) != "0")
            ++iCount;
    lg(5, "Old card count: %d", iCount);
}

void NoteDriverVersion(TRecorderBoot& rBoot)
{
    _SSM_VERSION rVersion{};
    SsmGetDllVersion(&rVersion);
    lg(5, "Card driver version %d.%d.%d.%d", rVersion.ucMajor, rVersion.ucMinor, rVersion.usInternal,
       rVersion.usBuild);
    char acVersion[64];
    snprintf(acVersion, sizeof(acVersion), "%d.%d.%d.%d", rVersion.ucMajor, rVersion.ucMinor,
             rVersion.usInternal, rVersion.usBuild);
    rBoot.rNewConfigs["CardDriverVersion"] = acVersion;
}

// One start attempt on a fresh boot. Returns the result of RecorderMain, or
// ATTEMPT_AGAIN when no card was found and there is time left.
// fCardsStarted tells whether SsmCloseCti is due.
int RunAttempt(TRecorderBoot& rBoot, bool fFirstAttempt, time_t rStart, bool& fCardsStarted)
{
    if (!rBoot.Init())
        return 0; // recording disabled
    if (fFirstAttempt)
        LogOldCardCount(rBoot);
    rBoot.PrepareConfig();
    bool fNoBoards = rBoot.vrDetectedBoards.empty();
    if (fNoBoards)
        rBoot.rNewConfigs[g_cfgPrefix + "CardList"] = "";
    rBoot.WriteNewConfigsToDB();

    if (fNoBoards) {
        lg(4, "No cards found");
        if (WallNow() - rStart >= NO_CARDS_LIMIT_S)
            return 2;
        CheckedSleep(NO_CARDS_RETRY_MS);
        // A stop during the wait counts as no cards found.
        return fAppTerminate.load() ? 2 : ATTEMPT_AGAIN;
    }

    if (rBoot.InitBoards() != 0)
        return 1;
    fCardsStarted = true;

    if (StrToInt(rBoot.GetOSetting("TdmLogApi")) != 0) {
        std::string strLogDir = SysPath("/recordings/log");
        mkdir(strLogDir.c_str(), 0777);
        SsmSetLogAttribute(2, 36, -1, strLogDir.c_str());
    }
    NoteDriverVersion(rBoot);
    rBoot.AnalyseStartedState();
    rBoot.WriteNewConfigsToDB();
    rBoot.RecorderUseBoardsLoop();
    return 0;
}
} // namespace

// ---- attempt loop --------------------------------------------------------------

void SetCurrentBoot(TRecorderBoot* prBoot)
{
    std::lock_guard<std::mutex> lock(g_rBootMutex);
    g_prBoot = prBoot;
}

void SetBootDatabaseFactory(IDatabase* (*pfnMake)())
{
    g_pfnMakeBootDb = pfnMake;
}

TRecorderBoot* CurrentBoot()
{
    return g_prBoot.load();
}

int RecorderMain()
{
    time_t rStart = WallNow();
    InitCluster();
    if (fAppTerminate.load())
        return 0;
    for (bool fFirstAttempt = true;; fFirstAttempt = false) {
        TRecorderBoot* prBoot = new TRecorderBoot(g_pfnMakeBootDb ? g_pfnMakeBootDb() : nullptr);
        SetCurrentBoot(prBoot);
        bool fCardsStarted = false;
        int iResult = RunAttempt(*prBoot, fFirstAttempt, rStart, fCardsStarted);
        // From here on mainQueue() destroys what it gets.
        SetCurrentBoot(nullptr);
        if (fCardsStarted)
            SsmCloseCti();
        prBoot->emptyQueue();
        delete prBoot;
        if (iResult != ATTEMPT_AGAIN)
            return iResult;
        if (fAppTerminate.load())
            return 0;
    }
}

// ---- main-thread queue -----------------------------------------------------------

void mainQueue(ThreadAct* act)
{
    if (!act)
        return;
    {
        std::lock_guard<std::mutex> lock(g_rBootMutex);
        TRecorderBoot* prBoot = g_prBoot.load();
        if (prBoot) {
            prBoot->queue(act);
            return;
        }
    }
    delete act; // no loop is left to run it
}

void TRecorderBoot::queue(ThreadAct* act)
{
    std::lock_guard<std::mutex> lock(rListMutex);
    rActQueue.push_back(act);
}

void TRecorderBoot::emptyQueue()
{
    std::list<ThreadAct*> rDropped;
    {
        std::lock_guard<std::mutex> lock(rListMutex);
        rDropped.swap(rActQueue);
    }
    for (ThreadAct* act : rDropped)
        delete act;
}

bool TRecorderBoot::takeAct(ThreadAct*& act)
{
    std::lock_guard<std::mutex> lock(rListMutex);
    if (rActQueue.empty())
        return false;
    act = rActQueue.front();
    rActQueue.pop_front();
    return true;
}

void SlowHandlerMsg::performThread()
{
    signal_service(msg);
}

// ---- run loop --------------------------------------------------------------------

int TRecorderBoot::RecorderUseBoardsLoop()
{
    CRecorder* prRecorder = new CRecorder();
    prRecorder->strArchiveRoot = SysPath("/recordings");
    prRecorder->strRecordingRoot = prRecorder->strArchiveRoot;
    prRecorder->prDatabase = prDatabase;
    prRecorder->prBoot = this;
    if (prRecorder->InitRecorder() != 0) {
        delete prRecorder;
        return 1;
    }
    // Commands reach channels, so the socket opens only once they exist.
    init_reactor(prRecorder);
    RecorderLoop rLoop(*this, *prRecorder);
    while (rLoop.RunPass()) {
    }
    rLoop.LogLongest();
    // Closed before the queue is emptied: a client still waiting for an
    // act that is now dropped unrun gets "E4: time-out".
    close_reactor();
    emptyQueue();
    delete prRecorder;
    return 0;
}

RecorderLoop::RecorderLoop(TRecorderBoot& rBoot_, CRecorder& rRecorder_, WaitEventFn pfnWait)
    : rBoot(rBoot_), rRecorder(rRecorder_), pfnWaitEvent(pfnWait), rLastPeriod(WallNow())
{
}

RecorderLoop::~RecorderLoop()
{
    if (fTracing)
        StopBitStreamTracing();
}

bool RecorderLoop::RunPass()
{
    if (fTracing)
        return TracingStep();
    // While stopping no event is taken and no Periodic runs: the calls are
    // ended, and only the queue is served until the background is idle.
    bool fToStop_Cached = fAppTerminate.load() || rRecorder.fBitStreamTracing.load();
    if (fToStop_Cached)
        SleepUs(STOPPING_PASS_US);
    else
        TakeEvent();

    if ((fAppTerminate.load() || rRecorder.fBitStreamTracing.load()) && !fCalledShutDown) {
        rRecorder.Shutdown();
        fCalledShutDown = true;
    }

    bool fQueueIsEmpty = true;
    if (fToStop_Cached)
        fQueueIsEmpty = isBgQueueReady();
    else
        RunPeriodic();
    if (RunOneAct())
        fQueueIsEmpty = false;

    if (!fToStop_Cached)
        return true;
    // Leave only once the background is idle, so no finished action can
    // still be on its way to the main queue.
    if (!(isBgQueueReady() && fCalledShutDown && fQueueIsEmpty))
        return true;
    if (!rRecorder.fBitStreamTracing.load())
        return false;
    // Every call is ended and nothing is waiting: the trace replaces event
    // handling until it is stopped. fCalledShutDown stays true, so a later
    // stop doesn't end the calls a second time.
    StartBitStreamTracing(rRecorder.iBitStreamChNr.load());
    fTracing = true;
    fTraceFoundAct = false;
    return true;
}

bool RecorderLoop::TracingStep()
{
    // Acts still run, one per step, and a queue that held one is looked at
    // again before the trace ends; events and Periodic wait.
    if ((!fAppTerminate.load() && rRecorder.fBitStreamTracing.load()) || fTraceFoundAct) {
        SleepUs(STOPPING_PASS_US);
        fTraceFoundAct = RunOneAct();
        return true;
    }
    StopBitStreamTracing();
    fTracing = false;
    return !fAppTerminate.load();
}

void RecorderLoop::TakeEvent()
{
    SSM_EVENT rSsmEvent{};
    char acBuf[1024];
    acBuf[0] = 0;
    rSsmEvent.pvBuffer = acBuf;
    rSsmEvent.dwBufferLength = sizeof(acBuf);
    int iResult = pfnWaitEvent(EVENT_WAIT_MS, &rSsmEvent);
    if (iResult == 0) {
        double dStart = getRelativeTime();
        rRecorder.HandleEvent(&rSsmEvent);
        double dTook = getRelativeTime() - dStart;
        if (dTook > dLongestEvent)
            dLongestEvent = dTook;
        if (dTook > SLOW_HANDLER_S)
            lg(4, "Event handling took: %.4f s", dTook);
    } else if (iResult != -1) {
        LogSsmError("SsmWaitForEventA");
    }
}

void RecorderLoop::RunPeriodic()
{
    // Only a positive step counts, so a clock set back delays the ticks
    // until it has passed the last one again.
    time_t rNow = WallNow();
    if (rNow - rLastPeriod <= 0)
        return;
    double dPassStart = getRelativeTime();
    for (BaseChannel* prChannel : rRecorder.vChannels) {
        double dStart = getRelativeTime();
        prChannel->Periodic();
        double dTook = getRelativeTime() - dStart;
        if (dTook > SLOW_HANDLER_S)
            lg(4, "Periodic took: %.4f s", dTook);
    }
    double dPass = getRelativeTime() - dPassStart;
    if (dPass > dLongestPeriodic)
        dLongestPeriodic = dPass;
    rLastPeriod = rNow;
}

void RecorderLoop::LogLongest() const
{
    lg(5, "Longest event handling: %.4f s, longest Periodic: %.4f s", dLongestEvent, dLongestPeriodic);
}

bool RecorderLoop::RunOneAct()
{
    ThreadAct* act = nullptr;
    if (!rBoot.takeAct(act))
        return false;
    if (act) {
        act->performMain();
        act->completed();
        delete act;
    }
    return true;
}

// ---- CRecorder: construction and channels ------------------------------------------

CRecorder::CRecorder() = default;

CRecorder::~CRecorder()
{
    for (BaseChannel* prChannel : vChannels)
        delete prChannel;
}

int CRecorder::InitRecorder()
{
    fInitializing = true;
    for (int i = 1; i <= 10; ++i) {
        strDTMF[i] = prBoot->GetSysSetting("DTMF" + ToStdString(i));
        strDTMFact[i] = prBoot->GetSysSetting("DTMFact" + ToStdString(i));
        if (!strDTMF[i].empty())
            lg(5, "DTMF %s act %s", strDTMF[i].c_str(), strDTMFact[i].c_str());
    }
    LoadFixedSettings();
    LoadReloadableSettings();
    prBoot->LoadBoardSettings();
    lg(5, "Boards: %d", SsmGetMaxUsableBoard());
    lg(5, "Phys. channels: %d", SsmGetMaxCh());
    strSerial = readSerial();
    lg(5, "Serial number %s", strSerial.c_str());
    prDatabase->InitRecorder(strSerial, "Quorda" + strSerial);
    lg(5, "Total Drv. Max. Ch.: %d", prBoot->iTotalDrvMaxCh);
    CreateChannels();
    WriteLineStatus();
    RecheckHealth();

    // Events are switched on only now that every channel exists.
    _EVENT_SET_INFO rInfo{};
    rInfo.dwWorkMode = EVENT_POLLING;
    if (SsmSetEvent(0xFFFF, -1, 1, &rInfo) != 0) {
        LogSsmError("SsmSetEvent");
        return 1;
    }
    rInfo.dwOutCondition = 2048;
    rInfo.dwOutParamVal = 3;
    if (SsmSetEvent(E_PROC_RecordMem, -1, 1, &rInfo) != 0) {
        LogSsmError("SsmSetEvent2");
        return 1;
    }
    fInitializing = false;
    lg(5, "** STARTED **");
    return 0;
}

void CRecorder::LoadFixedSettings()
{
    TRecorderBoot& b = *prBoot;
    fDebugRepeatRecord = StrToInt(b.GetCrecSetting("DebugRepeatRecord", CFG_CACHED_LOAD)) != 0;
    fCrecTestSwapLocRem = StrToInt(b.GetCrecSetting("CrecTestSwapLocRem", CFG_CACHED_LOAD)) != 0;
    fMonitoring = StrToInt(b.GetOSetting("Monitoring")) != 0;
    fSilenceOnDemand = StrToInt(b.GetOSetting("SilOnDemand")) != 0;
    fLineNameInFileName = StrToInt(b.GetCrecSetting("LineNameInFileName", CFG_CACHED_LOAD)) != 0;
    fCardNotInternal = StrToInt(b.GetOSetting("CardNotInternal")) != 0;
    iMaskLastRemoteDigits = StrToInt(b.GetSysSetting("MaskLastRemoteDigits"));
    fStoreOnDemandDelay = StrToInt(b.GetOSetting("StoreOnDemandDelay")) > 0 ? 1 : 0;
    fRecCheck = StrToInt(b.GetOSetting("RecCheck")) != 0;
    fALE = StrToInt(b.GetOSetting("ALE")) != 0;
    bool fAleDisk = StrToInt(b.GetOSetting("AleDisk")) != 0;

    std::string strRecEnc = b.GetOSetting("RecEnc");
    if (strRecEnc == "ulaw")
        eRecEnc = RECENC_G711U;
    else if (strRecEnc == "gsm")
        eRecEnc = RECENC_GSM;
    else if (strRecEnc == "mp3")
        eRecEnc = RECENC_MP3;
    else
        eRecEnc = RECENC_G711A; // unknown words and empty record A-law
    lg(5, "Encoding: %s", strRecEnc.c_str());
    lg(5, "Silence-On-Demand: %d", fSilenceOnDemand ? 1 : 0);
    fStereo = StrToInt(b.GetOSetting("RecStereo")) != 0;
    iCstaType = StrToInt(b.GetOSetting("CSTAType"));
    lg(5, "CSTAType: %d", iCstaType);

    // With encryption, recordings in progress live outside the archive.
    if (fALE) {
        if (fAleDisk) {
            strRecordingRoot = SysPath("/recordings/rectmp");
            mkdir(strRecordingRoot.c_str(), 0700);
        } else {
            strRecordingRoot = SysPath("/dev/shm/quorda");
        }
    }
}

void CRecorder::CreateChannels()
{
    int iPrevBoardId = -1;
    int iPrevType = -1;
    for (int d = 0; d < prBoot->iTotalDrvMaxCh; ++d) {
        int iWebCh = -1;
        auto itWeb = prBoot->rDrvToWebChMap.find(d);
        if (itWeb != prBoot->rDrvToWebChMap.end()) {
            iWebCh = itWeb->second + 1;
            prDatabase->GetOrCreateLineContact(iWebCh, prDatabase->GetRecorderID(),
                                               ToStdString(iWebCh) + "@" + strSerial);
        }
        int iBoardId = -1;
        int iBoardCh = -1;
        SsmGetChHdInfo(d, &iBoardId, &iBoardCh);
        int iType = SsmGetChType(d);
        lg(5, "Channel [%d] {%d} <%d,%d> Type: %d", iWebCh, d, iBoardId, iBoardCh, iType);
        int iBoardListIx = prBoot->GetBoardListIxForBoardId(iBoardId);

        // The audio settings of a DST board are logged once, on the first
        // channel of a run of channels of that board.
        if (iType == CH_DST && (iPrevType != CH_DST || iPrevBoardId != iBoardId)) {
            int iAudioDetect = prBoot->GetBoardParamInt(iBoardListIx, "AudioDetect");
            int iSilenceT = prBoot->GetBoardParamInt(iBoardListIx, "SilenceT");
            int iAudioSens = prBoot->GetBoardParamInt(iBoardListIx, "AudioSens");
            lg(5, "Board audio detect %d Sensitivity %d Silence time-out %d", iAudioDetect != 0 ? 1 : 0,
               iAudioSens, iSilenceT);
        }
        iPrevType = iType;
        iPrevBoardId = iBoardId;

        BaseChannel* prChannel = NewChannelOfType(iType);
        vChannels.push_back(prChannel);
        prChannel->Init(iWebCh, iBoardListIx, iBoardCh, this, d);
    }
}

// ---- CRecorder: events and shutdown --------------------------------------------------

TBoard* CRecorder::BoardAt(int iBoardListIx)
{
    if (iBoardListIx < 0 || iBoardListIx >= static_cast<int>(prBoot->vrBoardList.size()))
        return nullptr;
    return &prBoot->vrBoardList[iBoardListIx];
}

bool CRecorder::IsValidChannelIx(int iChIx, int iReported)
{
    if (iChIx == -1)
        return false; // no channel meant
    if (iChIx < 0 || iChIx >= static_cast<int>(vChannels.size())) {
        lg(4, "Channel out of range: %d", iReported);
        return false;
    }
    return true;
}

void CRecorder::HandleEvent(SSM_EVENT* prEvent)
{
    // The file's time stamp is a heartbeat for the front end: it moves at
    // most once a second and only while events arrive.
    time_t rNow = WallNow();
    if (lastEventReportTime < rNow) {
        lastEventReportTime = rNow;
        FILE* f = fopen((GetDataDir() + "crec_event").c_str(), "we");
        if (f)
            fclose(f);
    }
    if (prEvent->wEventCode == E_CHG_PcmLinkStatus)
        return;
    int iChIx = prEvent->nReference;
    if (prEvent->wEventCode == E_CHG_SpyState) {
        // nReference is a circuit number here.
        if (!prBoot)
            return;
        auto it = prBoot->rCicToAppChMap.find(prEvent->nReference);
        if (it == prBoot->rCicToAppChMap.end())
            return;
        iChIx = it->second;
    }
    if (!IsValidChannelIx(iChIx, prEvent->nReference))
        return;
    vChannels[iChIx]->HandleEvent(prEvent);
}

void CRecorder::Shutdown()
{
    for (BaseChannel* prChannel : vChannels) {
        prChannel->EndOfCall();
        prChannel->Finalize();
    }
    DeleteFn((GetDataDir() + "linestatus.dat").c_str());
}

// ---- CRecorder: settings ------------------------------------------------------------------

void CRecorder::LoadReloadableSettings()
{
    TRecorderBoot& b = *prBoot;
    iNumberFilterType = StrToInt(b.GetOSetting("NumberFilterType"));
    lg(5, "NumberFilterType: %d", iNumberFilterType);
    SplitTrimmed(astrNumberFilters, b.GetOSetting("NumberFilters"));
    // Only here is a lone empty element dropped: an empty filter list is
    // truly empty, while the on-demand lists keep their empty element.
    if (astrNumberFilters.size() == 1 && astrNumberFilters[0].empty())
        astrNumberFilters.clear();

    iCstaMonitors = StrToInt(b.GetOSetting("CSTATelIPType"));
    lg(5, "CSTAFilterType: %d", iCstaMonitors);
    astrCstaNumberFilters.clear();
    lt_split(astrCstaNumberFilters, b.GetOSetting("CSTATelIPFilter"), ',');
    for (std::string& s : astrCstaNumberFilters) {
        size_t iSemi = s.find(';');
        if (iSemi != std::string::npos)
            s.erase(iSemi);
    }

    iDelOnDmdType = StrToInt(b.GetOSetting("DelOnDmdType"));
    lg(5, "DelOnDmdType: %d", iDelOnDmdType);
    SplitTrimmed(astrDelOnDmdList, b.GetOSetting("DelOnDmdList"));

    iRecOnDmdType = StrToInt(b.GetOSetting("RecOnDmdType"));
    lg(5, "RecOnDmdType: %d", iRecOnDmdType);
    SplitTrimmed(astrRecOnDmdList, b.GetOSetting("RecOnDmdList"));
    for (const std::string& s : astrRecOnDmdList)
        lg(5, "RecOnDmd item: %s", s.c_str());

    fNeedCallPost = !b.GetSysSetting("EmailRecs").empty() || StrToInt(b.GetOSetting("SforceLink")) > 0;
}

void CRecorder::Reconfigure()
{
    prBoot->ReloadDbConfig();
    LoadReloadableSettings();
}

bool CRecorder::IsInNumberFilter(std::string strNum)
{
    return IsInList(astrNumberFilters, strNum);
}

bool CRecorder::IsInDelOnDmdList(std::string strNum)
{
    return IsInList(astrDelOnDmdList, strNum);
}

bool CRecorder::IsInRecOnDmdList(std::string strNum)
{
    return IsInList(astrRecOnDmdList, strNum);
}

std::string CRecorder::GetDtmfAct(std::string strDigits)
{
    if (strDigits.empty())
        return std::string();
    // The table is matched against the tail of the digits; the first entry
    // that fits wins, even when a later one would match more digits.
    for (int i = 1; i <= 10; ++i) {
        const std::string& strKey = strDTMF[i];
        if (strKey.empty() || strKey.size() > strDigits.size())
            continue;
        if (strDigits.compare(strDigits.size() - strKey.size(), strKey.size(), strKey) == 0)
            return strDTMFact[i];
    }
    return std::string();
}

int CRecorder::ChState(int iChannel)
{
    auto& rMap = prBoot->rWebToDrvChMap;
    auto it = rMap.find(iChannel - 1);
    if (it == rMap.end())
        return 1;
    int d = it->second;
    if (d < 0 || d >= static_cast<int>(vChannels.size()))
        return 2;
    return vChannels[d]->WriteChState() != 0 ? 3 : 0;
}

// ---- CRecorder: channel lookups by call ------------------------------------------------------
// Commands name a call, not a channel. A call id is unique in practice;
// should two channels show the same one, the lower position is acted on.
// An idle channel has an empty id, so an empty call id reaches the first
// idle channel, which then decides by itself.

BaseChannel* CRecorder::FindByCallId(const std::string& strCallId)
{
    for (BaseChannel* prCh : vChannels)
        if (prCh && prCh->strDbRemoteId == strCallId)
            return prCh;
    return nullptr;
}

int CRecorder::SilencingAct(std::string strCallId, bool fSound)
{
    BaseChannel* prCh = FindByCallId(strCallId);
    if (!prCh)
        return 1;
    return prCh->TrySetSilencing(!fSound) ? 0 : 2;
}

int CRecorder::RecOnDmdAct(std::string strCallId, bool fStart)
{
    BaseChannel* prCh = FindByCallId(strCallId);
    if (!prCh)
        return 1;
    return prCh->RecOnDmdAct(fStart) ? 0 : 2;
}

int CRecorder::DelOnDmdAct(std::string strCallId)
{
    BaseChannel* prCh = FindByCallId(strCallId);
    if (!prCh)
        return 1;
    return prCh->DeleteAct() ? 0 : 2;
}

namespace {

// Position of the first channel whose masked remote number is strNum, or
// with f00 is strNum without a leading "00"; -1 when none. With fFirstTry
// false an empty number never matches.
int FindByRemoteNum(const std::vector<BaseChannel*>& vChannels, const std::string& strNum, bool fFirstTry)
{
    for (size_t i = 0; i < vChannels.size(); ++i) {
        if (!vChannels[i])
            continue;
        std::string n = vChannels[i]->GetDbRemoteNum();
        if (fFirstTry ? (n == strNum || "00" + n == strNum) : (!n.empty() && n == strNum))
            return static_cast<int>(i);
    }
    return -1;
}

} // namespace

int CRecorder::ChLocal(std::string strLocalPhoneNumber, std::string strRemotePhoneNumber, bool stopstart)
{
    if (vChannels.empty())
        return 1;
    // A telephony server may send the remote number with the international
    // "00" in front of what the line delivered.
    int i = FindByRemoteNum(vChannels, strRemotePhoneNumber, true);
    if (i >= 0) {
        lg(5, "[%d] Channel found for RemoteNumber: %s", i + 1, strRemotePhoneNumber.c_str());
        return vChannels[i]->LocalNumberChanged(strLocalPhoneNumber, strRemotePhoneNumber, stopstart) ? 0 : 2;
    }
    if (!fCrecTestSwapLocRem)
        return 1;
    // Test set-ups with local and remote swapped: the channel knows the
    // command's local number as its remote one.
    i = FindByRemoteNum(vChannels, strLocalPhoneNumber, false);
    if (i < 0)
        return 1;
    lg(5, "[%d] Channel found (second attempt) for RemoteNumber: %s", i + 1, strLocalPhoneNumber.c_str());
    return vChannels[i]->LocalNumberChanged(strRemotePhoneNumber, strLocalPhoneNumber, stopstart) ? 0 : 2;
}

bool CRecorder::StoreOnDemand(Contact rContactLocal, Contact rContactRemote)
{
    int iRecOnDemand = prDatabase->GetConfigInt("RecOnDemand");
    std::vector<int> aiAccIDs;
    prDatabase->GetUsersOfPhone(static_cast<int>(rContactLocal.iContactID), aiAccIDs);
    prDatabase->GetUsersOfPhone(static_cast<int>(rContactRemote.iContactID), aiAccIDs);
    // The last account with a definite setting wins: 1 on demand, 2 always kept.
    for (int iAccID : aiAccIDs) {
        int v = prDatabase->GetUserIntOnAccID(iAccID, "rod");
        if (v == 1)
            iRecOnDemand = 1;
        else if (v == 2)
            iRecOnDemand = 0;
    }
    return iRecOnDemand != 0;
}

// ---- CRecorder: forwarding to the settings store ------------------------------------------

std::string CRecorder::GetBoardPbxType(int iBoardListIx)
{
    TBoard* prBoard = BoardAt(iBoardListIx);
    return prBoard ? prBoard->strPBXType : std::string();
}

std::string CRecorder::GetChannelParamStr(int iBoardCh, int iBoardListIx, std::string strParam)
{
    return prBoot->GetChannelParamStr(iBoardCh, iBoardListIx, strParam, CFG_CACHED_LOAD);
}

int CRecorder::GetChannelParamInt(int iBoardCh, int iBoardListIx, std::string strParam)
{
    return prBoot->GetChannelParamInt(iBoardCh, iBoardListIx, strParam, CFG_CACHED_LOAD);
}

int CRecorder::GetChannelParamIntLive(int iBoardCh, int iBoardListIx, std::string strParam)
{
    return prBoot->GetChannelParamInt(iBoardCh, iBoardListIx, strParam, CFG_LIVE_LOAD);
}

std::string CRecorder::GetBoardParamStr(int iBoardListIx, std::string strParam)
{
    return prBoot->GetBoardParamStr(iBoardListIx, strParam);
}

ECardType CRecorder::GetBoardCardType(int iBoardListIx)
{
    return prBoot->GetBoardCardType(iBoardListIx);
}

int CRecorder::GetBoardParamInt(int iBoardListIx, std::string strParam)
{
    return prBoot->GetBoardParamInt(iBoardListIx, strParam);
}

int CRecorder::GetParamInt(std::string strKey)
{
    return StrToInt(prBoot->GetCrecSetting(strKey, CFG_CACHED_LOAD));
}

bool CRecorder::IsBoardStartCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason)
{
    return prBoot->IsBoardStartCondition(iBoardListIx, dwEvent, dwSubReason);
}

bool CRecorder::IsBoardStopCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason)
{
    return prBoot->IsBoardStopCondition(iBoardListIx, dwEvent, dwSubReason);
}

bool CRecorder::IsBoardRingOnCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason)
{
    return prBoot->IsBoardRingOnCondition(iBoardListIx, dwEvent, dwSubReason);
}

bool CRecorder::IsBoardRingOffCondition(int iBoardListIx, unsigned dwEvent, unsigned dwSubReason)
{
    return prBoot->IsBoardRingOffCondition(iBoardListIx, dwEvent, dwSubReason);
}

std::string CRecorder::GetCachedLocalNum(int iBoardCh, int iBoardListIx)
{
    return prBoot->GetCachedLocalNum(iBoardCh, iBoardListIx);
}

void CRecorder::SetCachedLocalNum(int iBoardCh, int iBoardListIx, std::string strNum)
{
    prBoot->SetCachedLocalNum(iBoardCh, iBoardListIx, strNum);
}

std::string CRecorder::GetCheckSumType()
{
    return prDatabase->GetConfig("CalcChecksum");
}

bool CRecorder::IsSpecial(std::string strName)
{
    return StrToInt(prBoot->GetCrecSetting("Special_" + strName, CFG_CACHED_LOAD)) != 0;
}

std::string CRecorder::GetDataDir()
{
    return SysPath("/var/quorda/data/");
}

// ---- CRecorder: line status, notifications, e-mail -----------------------------------------

void CRecorder::WriteLineStatus()
{
    // Written under a temporary name and renamed, so a reader sees the old
    // file or the new one, never half of one.
    std::string strName = GetDataDir() + "linestatus.dat";
    std::string strTmp = strName + ".new";
    FILE* f = fopen(strTmp.c_str(), "we");
    if (!f)
        return;
    for (BaseChannel* prChannel : vChannels) {
        if (prChannel->iChannel == -1)
            continue;
        std::string strLine = "Line_" + ToStdString(prChannel->iChannel) + ": " +
                              BaseChannel::GetLineHealthDescr(prChannel->eLineHealth) + "\n";
        if (fwrite(strLine.data(), 1, strLine.size(), f) != strLine.size()) {
            fclose(f); // the real file keeps its old content
            return;
        }
    }
    if (fclose(f) == 0)
        rename(strTmp.c_str(), strName.c_str());
}

void CRecorder::NewLineHealth(int iChIx)
{
    if (fInitializing)
        return; // the burst of changes during channel creation writes nothing
    if (!IsValidChannelIx(iChIx, iChIx))
        return;
    WriteLineStatus();
    BaseChannel* prChannel = vChannels[iChIx];
    prChannel->ReloadSettingsLive();
    if (prChannel->eLineHealth != LINEHEALTH_OK && prChannel->fCheckLineStatus)
        RecheckHealth();
}

void CRecorder::RecheckHealth()
{
    queueAction(new SlowHandlerMsg("sysinfo"));
}

void CRecorder::NotifyChAvail(int iBoardListIx, int iBoardCh, bool fChAvail)
{
    // One record per card: only the first channel of a PRI card reports.
    TBoard* prBoard = BoardAt(iBoardListIx);
    if (!prBoard || iBoardCh != 0 || prBoard->GetCtType() != CT_DTP)
        return;
    std::string strId = prBoard->getId();
    if (fChAvail)
        lg(4, "PRI-line of card %s is available", strId.c_str());
    else
        lg(4, "PRI-line of card %s is unavailable", strId.c_str());
    StdStringMap rMap;
    rMap[strId + "_Line"] = fChAvail ? "1" : "0";
    prDatabase->SetConfigsPart(rMap, "crec_line");
}

void CRecorder::NotifyAdmin(ENotifyType eType, std::string strText)
{
    if (eType == LOUD_TALKING)
        signal_service("email -loud " + strText);
}

void CRecorder::EmailRecording(int iID, int iContactID)
{
    std::vector<int> aiAccIDs;
    prDatabase->GetUsersOfPhone(iContactID, aiAccIDs);
    if (aiAccIDs.empty())
        return;
    // The first user, whether enabled or not.
    signal_service("email -recid " + ToStdString(iID) + " " + ToStdString(aiAccIDs[0]));
}

void CRecorder::EmailBackRecording(int iContactID, int iBack)
{
    std::vector<int> aiAccIDs;
    prDatabase->GetUsersOfPhone(iContactID, aiAccIDs);
    if (aiAccIDs.empty())
        return;
    // The last enabled user wins; with none the message still goes, to -1.
    int iUserAcc = -1;
    for (int iAcc : aiAccIDs)
        if (prDatabase->GetUserIntOnAccID(iAcc, "enabled") == 1)
            iUserAcc = iAcc;
    if (iUserAcc == -1)
        lg(5, "%s", "");
    int iID = prDatabase->GetCallBack(iContactID, iBack);
    if (iID == -1)
        return;
    signal_service("email -recid " + ToStdString(iID) + " " + ToStdString(iUserAcc));
}
