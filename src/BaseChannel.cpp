// BaseChannel.cpp - the channel's call frame, recording decision, file
// naming, audio path, recording stop and call record, numbers and digits,
// and line health (see BaseChannel.h).
//
// DESIGN: main thread only, no locks. A call is the edge of InCall() seen by
// InCallMaybeChanged; a recording is one attempt within it (TryStartRecording
// is the single entry), so one call can give several recordings, each with
// its own name, file and ActiveCalls row. While iActiveCallID isn't -1 the
// channel owns that row; a kept recording hands file and row to an
// AudioConvAct on the background queue and the channel is free at once.
// Audio: the card writes a 4096-byte ring (acRecordBuf) and reports its
// write position; the channel appends the new part to the WAVE file.
// Failures of the card, the disk or the database are logged and the call
// goes on: a channel never ends a call because something below it failed.
//
// Line health: a state report alone says little, so the channel keeps two
// leaky counters, one for disconnected states (counted at each change into
// one) and one for error states (counted each second while one lasts), and
// derives one health value from them. A change of that value is logged and
// reported to the recorder, which rewrites the line status file.
#include "BaseChannel.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <sys/stat.h>

#include "bgact.h"
#include "datafile.h"
#include "filedir.h"
#include "ftime.h"
#include "g711.h"
#include "logging.h"
#include "recorder.h"

namespace {
const int HEALTH_COUNT_STEP = 60;   // added per counted state
const int HEALTH_COUNT_MAX = 200;   // counters are clamped to 0..200
const int HEALTH_FAULT_LEVEL = 150; // above this the line is at fault
const int HEADER_REFRESH_TICKS = 5;
const int RING_RECENT_S = 6;        // a call this soon after a ring is incoming
const int DIGIT_RECENT_S = 10;      // ... unless digits were dialled this recently
const int RING_SEQUENCE_GAP_S = 11; // a longer pause starts a new ring sequence
const int REMOTE_EXPIRY_S = 11;     // a number this old belongs to an earlier ring
const int DIGIT_EXPIRY_S = 6;       // a pause this long ends a run of digits
const size_t MAX_DIGITS = 100;

int Clamp(int iValue, int iLow, int iHigh)
{
    return iValue < iLow ? iLow : (iValue > iHigh ? iHigh : iValue);
}
} // namespace

BaseChannel::BaseChannel()
{
    // Qualified: a derived ClearInfo must not run on a half-built object.
    BaseChannel::ClearInfo();
}

BaseChannel::~BaseChannel()
{
    if (hAudioFile)
        fclose(hAudioFile);
    if (hRawFile)
        fclose(hRawFile);
    delete[] acRecordBuf;
    delete[] acMixBuffer;
}

void BaseChannel::Init(int iChannel_, int iBoardListIx_, int iBoardCh_, ICRecorder* prRecorder_, int iDrvCh_)
{
    iChIx = iDrvCh_;
    iDrvCh = iDrvCh_;
    iChannel = iChannel_;
    iBoardListIx = iBoardListIx_;
    iBoardCh = iBoardCh_;
    prRecorder = prRecorder_;

    fHighDetect = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "LoudVoiceDetect") != 0;
    iHighDbThr = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "LoudnessThr");
    iHighMaxCnt = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "LoudnessLen") * 2;
    fLongRecordings = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "LongRecordings") != 0;
    iLongRecordingsLen = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "LongRecordingsLen");
    fCalcLoudness = fHighDetect;
    fRecOnDmd = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "RecOnDmd") != 0;
    fRecOnDmdStart = false;
    fCheckLineStatus = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "CheckLineStatus") != 0;

    // A line that is down at start counts from the first moment.
    iLastChannelState = SsmGetChState(iDrvCh);
    NewChannelState();
}

void BaseChannel::HandleEvent(SSM_EVENT* prEvent)
{
    if (prEvent->wEventCode != E_CHG_ChState)
        return;
    int iState = static_cast<int>(prEvent->dwParam & 0xFFFF);
    if (iState == iLastChannelState)
        return;
    iLastChannelState = iState;
    NewChannelState();
}

void BaseChannel::Periodic()
{
    CheckDigitsExpired(false);
    // The file stays a valid WAVE file to within 5 seconds even if the
    // process dies.
    if (++iPeriodicCounter >= HEADER_REFRESH_TICKS) {
        iPeriodicCounter = 0;
        UpdateAudioFileHeader();
    }
    if (iHighNotify == 1) {
        lg(5, "[%d] Loud audio detected", iChannel);
        iHighNotify = 2; // one alarm per call
        prRecorder->GetDatabaseHandle()->UpdateActiveCallCategory(iActiveCallID, 1);
        prRecorder->NotifyAdmin(LOUD_TALKING, strDbRemoteId);
    }
    if (fRecording && fLongRecordings) {
        // ">=": a length of 0 cuts at the first tick instead of never.
        if (++iPeriodicCounter2 >= iLongRecordingsLen * 60) {
            iPeriodicCounter2 = 0;
            FinalizeRecording(false);
            TryStartRecording();
            lg(5, "[%d] %d minutes of recording saved!", iChannel, iLongRecordingsLen);
        }
    }
    PeriodicChannelState();
}

void BaseChannel::ClearInfo()
{
    strPrevRemoteNum.clear();
    strPrevConnectedNum.clear();
    strRemoteNum.clear();
    strConnectedNum.clear();
    if (fResetLocalNum)
        strLocalNum.clear();
    fRinging = false;
    fKnowIncoming = false;
    rLastRing = 0;
    rFirstRing = 0;
    rDigitTime = 0;
    rRemoteNumTime = 0;
    iWaitTime = -1;
    strDigits.clear();
    iCalcLoudnessIndex = 0;
    fDigitFreeze = false;
    fToEmail = false;
    dLoudness = 0;
    iHighCnt = 0;
    iHighAge = 0;
    iHighNotify = 0;
    fHighSwitchedOff = false;
    iLast_dB = -999;
    fDontRecord = false;
    AlwaysClearInfo();
}

void BaseChannel::AlwaysClearInfo()
{
    fToEmail = false;
    fDontKeepThisPart = false;
}

void BaseChannel::ReloadSettingsLive()
{
    fCheckLineStatus = prRecorder->GetChannelParamIntLive(iBoardCh, iBoardListIx, "CheckLineStatus") != 0;
}

bool BaseChannel::IsChStateDisconnected(int iState)
{
    return iState == S_CALL_OFFLINE || iState == S_CALL_UNAVAILABLE;
}

bool BaseChannel::IsChStateError(int iState)
{
    return iState == S_CALL_SIGNAL_ERROR || iState == S_CALL_FRAME_ERROR;
}

void BaseChannel::NewChannelState()
{
    if (IsChStateDisconnected(iLastChannelState))
        iLineOfflineCalc += HEALTH_COUNT_STEP;
    if (IsChStateError(iLastChannelState))
        iLineErrCalc += HEALTH_COUNT_STEP;
    FinalCalcChannelState();
}

void BaseChannel::PeriodicChannelState()
{
    // A standing disconnect is reported directly by FinalCalcChannelState,
    // so only a lasting error state counts every second.
    iLineOfflineCalc -= 1;
    if (IsChStateError(iLastChannelState))
        iLineErrCalc += HEALTH_COUNT_STEP;
    else
        iLineErrCalc -= 1;
    FinalCalcChannelState();
}

void BaseChannel::FinalCalcChannelState()
{
    iLineErrCalc = Clamp(iLineErrCalc, 0, HEALTH_COUNT_MAX);
    iLineOfflineCalc = Clamp(iLineOfflineCalc, 0, HEALTH_COUNT_MAX);
    ELineHealth eNew = LINEHEALTH_OK;
    if (iLineErrCalc > HEALTH_FAULT_LEVEL)
        eNew = LINEHEALTH_ERROR;
    // Offline wins over error.
    if (iLineOfflineCalc > HEALTH_FAULT_LEVEL)
        eNew = LINEHEALTH_OFFLINE;
    if (IsChStateDisconnected(iLastChannelState))
        eNew = LINEHEALTH_OFFLINE;
    if (eNew == eLineHealth)
        return;
    eLineHealth = eNew;
    NewLineHealth();
}

void BaseChannel::NewLineHealth()
{
    if (iChannel == -1)
        return;
    lg(5, "[%d] Line health: %s", iChannel, GetLineHealthDescr(eLineHealth).c_str());
    prRecorder->NewLineHealth(iChIx);
}

std::string BaseChannel::GetChannelStateDescr(int iState)
{
    switch (iState) {
    case S_CALL_STANDBY:
        return "idle";
    case S_CALL_PICKUPED:
        return "off-hook";
    case S_CALL_RINGING:
        return "ring";
    case S_CALL_TALKING:
        return "talking";
    case S_CALL_OFFLINE:
        return "offline";
    case S_CALL_WAIT_ANSWER:
        return "wait-answer";
    case S_CALL_UNAVAILABLE:
        return "unusable";
    case S_CALL_RECORDING:
        return "recording";
    case S_CALL_SIGNAL_ERROR:
        return "sign-err";
    case S_CALL_FRAME_ERROR:
        return "frame-err";
    default:
        return std::string();
    }
}

std::string BaseChannel::GetLineHealthDescr(ELineHealth eHealth)
{
    switch (eHealth) {
    case LINEHEALTH_OK:
        return "ok";
    case LINEHEALTH_OFFLINE:
        return "offline";
    case LINEHEALTH_ERROR:
        return "error";
    default:
        return std::string();
    }
}

// ---- call frame ---------------------------------------------------------------------------

void BaseChannel::InCallMaybeChanged()
{
    bool fInCall = InCall();
    if (fInCall == fCallBusy)
        return;
    if (!fInCall) {
        lg(5, "[%d] Call stops", iChannel);
        // Pending digits may still become the remote number of this call.
        CheckDigitsExpired(true);
        fCallBusy = false;
        strPrevCallRemoteNum = strRemoteNum;
        WhenCallStops();
        return;
    }
    lg(5, "[%d] Call starts", iChannel);
    // A number from an earlier ring must not be taken into this call.
    CheckRemoteExpired();
    fCallBusy = true;
    WhenCallStarts();
}

void BaseChannel::WhenCallStarts()
{
    time_t rNow = GetSrTime();
    fDigitFreeze = false;
    if (!fKnowIncoming) {
        fIncoming = false;
        if (fRinging) {
            fIncoming = true;
        } else if (!fRingsUntilPickup && rNow - rLastRing < RING_RECENT_S &&
                   rNow - rDigitTime > DIGIT_RECENT_S) {
            // Answered just after the ringing ended, and nobody dialled:
            // still the incoming call. A line that never rang has
            // rLastRing 0 and stays outgoing.
            fIncoming = true;
            lg(5, "[%d] Incoming, last ring: %d s. ago", iChannel, static_cast<int>(rNow - rLastRing));
            iWaitTime = GetWaitTime();
            TryStartRecording();
            return;
        }
    }
    iWaitTime = GetWaitTime();
    if (fIncoming)
        lg(5, "[%d] Incoming call, ringing time: %d", iChannel, iWaitTime);
    else
        lg(5, "[%d] Outgoing call", iChannel);
    TryStartRecording();
}

int BaseChannel::GetWaitTime()
{
    if (!fIncoming || rFirstRing == 0)
        return -1;
    return static_cast<int>(GetSrTime() - rFirstRing);
}

void BaseChannel::WhenCallStops()
{
    rCallStopTime = GetSrTime();
    FinalizeRecording(true);
    SsmClearCallerId(iDrvCh);
    if (SsmClearR2callToneBuf_FP)
        SsmClearR2callToneBuf_FP(iDrvCh);
}

void BaseChannel::EndOfCall()
{
    fCallBusy = false;
    WhenCallStops();
}

void BaseChannel::FinalizeRecording(bool fClearInfo)
{
    fRecOnDmdStart = false;
    StopRecording(fClearInfo);
    if (fClearInfo)
        ClearInfo();
    AlwaysClearInfo();
    // Left only when no keeping action took the row over.
    if (iActiveCallID != -1)
        RemoveActive();
}

void BaseChannel::RingingStarted()
{
    time_t rNow = GetSrTime();
    fRinging = true;
    if (rFirstRing == 0 || (rLastRing != 0 && rNow - rLastRing >= RING_SEQUENCE_GAP_S)) {
        rFirstRing = rNow;
        WhenNewRing();
    }
    rLastRing = rNow;
    if (!fCallBusy)
        CheckRemoteExpired();
}

void BaseChannel::RingingStopped()
{
    if (!fRinging)
        return;
    fRinging = false;
    rLastRing = GetSrTime();
    // Where the ring lasts until the pick-up, an end without a call means
    // the caller gave up: the number is of no further use.
    if (!fCallBusy && fRingsUntilPickup) {
        lg(5, "[%d] Ringing stopped, remote num. expired", iChannel);
        rFirstRing = 0;
        RemoteExpired();
    }
}

void BaseChannel::RemoteExpired()
{
    strPrevRemoteNum.clear();
    strRemoteNum.clear();
    rRemoteNumTime = 0;
}

void BaseChannel::CheckRemoteExpired()
{
    if (fCallBusy || rRemoteNumTime == 0)
        return;
    long long iAge = static_cast<long long>(GetSrTime() - GetRemoteNumTime());
    if (iAge < REMOTE_EXPIRY_S)
        return;
    lg(5, "[%d] Remote expired, %d seconds old", iChannel, static_cast<int>(iAge));
    RemoteExpired();
}

time_t BaseChannel::GetRemoteNumTime()
{
    // A number never expires while the line rings.
    return fRinging ? GetSrTime() : rRemoteNumTime;
}

// ---- recording decision --------------------------------------------------------------------

void BaseChannel::TryStartRecording()
{
    if (fRecording) {
        lg(5, "[%d] Already recording", iChannel);
        return;
    }
    // It is the row, not the recording, that marks a tracked call: a call
    // waiting for a demand has a row and no recording.
    if (iActiveCallID != -1) {
        lg(5, "[%d] Call already active", iChannel);
        return;
    }
    if (!MayStartRecording(true))
        return;
    rStartTime = GetSrTime();
    iPeriodicCounter2 = 0;
    if (!RecordingScheduled())
        return;
    ++iRecUniqCnt;
    iEncoding = 0;
    DetermineDbRemoteId();
    fRecOnDmd = GetNewRecOnDmd();
    if (fRecOnDmd && !fRecOnDmdStart) {
        // The call shows in ActiveCalls and waits for the start command.
        lg(5, "[%d] Recording on demand", iChannel);
        AddActive();
        return;
    }
    StartRecording();
    AddActive();
}

bool BaseChannel::MayStartRecording(bool fTell)
{
    if (fDontRecord)
        return false;
    int iType = prRecorder->iNumberFilterType;
    if (iType == 0)
        return true;
    bool fHit = prRecorder->IsInNumberFilter(strLocalNum) || prRecorder->IsInNumberFilter(strRemoteNum) ||
                prRecorder->IsInNumberFilter(strConnectedNum);
    if (iType == 2) {
        // Type 2: the list names numbers that are never recorded.
        if (fHit && fTell)
            lg(5, "[%d] Not recording because in number filter", iChannel);
        return !fHit;
    }
    // Any other type: only the numbers on the list are recorded.
    if (!fHit && fTell)
        lg(5, "[%d] Not recording because not in number filter", iChannel);
    return fHit;
}

namespace {

struct HourMin {
    long iHour;
    long iMin;
};

bool operator<(const HourMin& a, const HourMin& b)
{
    return a.iHour != b.iHour ? a.iHour < b.iHour : a.iMin < b.iMin;
}

// "hh:mm" by strtol rules; a text without ":" gives its number for both
// hour and minute, so a plain "8" means 8:08.
HourMin ParseHourMin(const std::string& s)
{
    size_t iColon = s.find(':');
    if (iColon == std::string::npos)
        return HourMin{StrToLong(s), StrToLong(s)};
    return HourMin{StrToLong(s.substr(0, iColon)), StrToLong(s.substr(iColon + 1))};
}

std::string MapValue(const StdStringMap& m, const std::string& strKey)
{
    auto it = m.find(strKey);
    return it == m.end() ? std::string() : it->second;
}

// The start minute counts, the stop minute doesn't; a span whose stop lies
// before its start holds no minute (there is no wrap over midnight).
bool InSpan(const HourMin& rNow, const HourMin& rStart, const HourMin& rStop)
{
    return !(rNow < rStart) && rNow < rStop;
}

} // namespace

bool BaseChannel::RecordingScheduled()
{
    static const char* const aDayNames[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                             "Thursday", "Friday", "Saturday"};
    time_t rNow = WallNow();
    struct tm tmNow {};
    localtime_r(&rNow, &tmNow);
    int iWeekday = tmNow.tm_wday >= 0 && tmNow.tm_wday < 7 ? tmNow.tm_wday : 0;

    // Read afresh at each decision; the reloadable option map isn't touched.
    StdStringMap rOptions;
    prRecorder->GetDatabaseHandle()->GetConfigsPart(rOptions, "o");
    std::string strWeekdays = MapValue(rOptions, "srWeekdays");
    if (strWeekdays.empty())
        return true;
    if (strWeekdays.find(ToStdString(iWeekday + 1)) == std::string::npos) {
        lg(5, "[%d] Recording not scheduled", iChannel);
        return false;
    }
    std::string strPrefix = std::string("sr") + aDayNames[iWeekday];
    std::string strStart1 = MapValue(rOptions, strPrefix + "Start1");
    std::string strStop1 = MapValue(rOptions, strPrefix + "Stop1");
    std::string strStart2 = MapValue(rOptions, strPrefix + "Start2");
    std::string strStop2 = MapValue(rOptions, strPrefix + "Stop2");
    // A day allowed without times is allowed all day.
    if (strStart1.empty())
        return true;
    const HourMin rEndOfDay{24, 0};
    HourMin rStart1 = ParseHourMin(strStart1);
    HourMin rStop1 = strStop1.empty() ? rEndOfDay : ParseHourMin(strStop1);
    HourMin rStart2 = rStart1;
    HourMin rStop2 = rStop1; // no second span: it repeats the first, a given Stop2 is ignored
    if (!strStart2.empty()) {
        rStart2 = ParseHourMin(strStart2);
        rStop2 = strStop2.empty() ? rEndOfDay : ParseHourMin(strStop2);
    }
    HourMin rHere{tmNow.tm_hour, tmNow.tm_min};
    if (InSpan(rHere, rStart1, rStop1) || InSpan(rHere, rStart2, rStop2))
        return true;
    lg(5, "[%d] Recording not scheduled", iChannel);
    return false;
}

void BaseChannel::StartRecording()
{
    fRecording = true;
    lg(5, "[%d] Starting recording", iChannel);
    BasicRecordingPreparation();
    int iFormat = 6; // A-law on the card for every encoding but u-law
    iEncoding = 554;
    if (prRecorder->eRecEnc == RECENC_G711U) {
        iFormat = 7;
        iEncoding = 555;
    }

    // A custom local identity set from outside holds for a minute.
    IDatabase* prDB = prRecorder->GetDatabaseHandle();
    Contact rLine = prDB->GetOrCreateLineContact(iChannel, prDB->GetRecorderID(), "");
    rCustomLocal = prDB->GetCustomLocal(rLine.iContactID);
    if (rCustomLocal.fFound) {
        long long iAge = static_cast<long long>(WallNow()) - rCustomLocal.iUpdateTime;
        if (iAge > 60)
            rCustomLocal.fFound = false;
        lg(5, "CustomLocal CT:%lld CID:%lld T:%s age:%lld (%d)", rCustomLocal.iContactID,
           rCustomLocal.iCallerID, rCustomLocal.strText.c_str(), iAge, rCustomLocal.fFound ? 1 : 0);
    }

    DetermineFilename();
    OpenAudioFile();
    iRecordOffset = 0;
    if (SsmRecToMem(iDrvCh, iFormat, reinterpret_cast<char*>(acRecordBuf), static_cast<DWORD>(iRecordBufSize),
                    0) != 0) {
        // The channel stays in the recording state with its (empty) file;
        // the end of the call cleans up as usual.
        LogSsmError("SsmRecToMem");
        return;
    }
    lg(5, "[%d] Recording to file %s", iChannel, strFullFilename.c_str());
}

bool BaseChannel::QRecOnDmd()
{
    switch (prRecorder->iRecOnDmdType) {
    case 1:
        return true;
    case 2:
    case 3:
        return prRecorder->IsInRecOnDmdList(strLocalNum) || prRecorder->IsInRecOnDmdList(strConnectedNum) ||
               prRecorder->IsInRecOnDmdList(strRemoteNum);
    default:
        return false;
    }
}

bool BaseChannel::RecOnDmdAct(bool fStart)
{
    if (!fRecOnDmd) {
        lg(5, "[%d] RecOnDmd not done, the option is off", iChannel);
        return false;
    }
    if (fStart) {
        lg(5, "[%d] RecOnDmd: START", iChannel);
        if (!fRecording) {
            FinalizeRecording(false); // removes the row of the waiting call
            fRecOnDmdStart = true;
            TryStartRecording();
        }
        return true;
    }
    lg(5, "[%d] RecOnDmd: STOP", iChannel);
    if (fRecording) {
        FinalizeRecording(false); // the part so far goes by the keep rules
        fRecOnDmdStart = false;
        TryStartRecording(); // back to waiting, with a new row
    }
    return true;
}

bool BaseChannel::MayDeleteOnDemand()
{
    switch (prRecorder->iDelOnDmdType) {
    case 0:
        lg(5, "[%d] delete on demand is switched off in options", iChannel);
        return false;
    case 1:
        return true;
    case 2:
    case 3:
        // A line can be listed by its number, as "#12".
        if (prRecorder->IsInDelOnDmdList(strLocalNum) || prRecorder->IsInDelOnDmdList(strConnectedNum) ||
            prRecorder->IsInDelOnDmdList(strRemoteNum) ||
            prRecorder->IsInDelOnDmdList("#" + ToStdString(iChannel)))
            return true;
        lg(5, "[%d] not in delete on demand list", iChannel);
        return false;
    default:
        return false;
    }
}

bool BaseChannel::DeleteAct()
{
    if (!MayDeleteOnDemand())
        return false;
    // Holds until ClearInfo: nothing more of this call is recorded.
    fDontRecord = true;
    FinalizeRecording(false);
    return true;
}

// ---- file naming ----------------------------------------------------------------------------

void BaseChannel::DetermineDbRemoteId()
{
    struct tm tmStart {};
    localtime_r(&rStartTime, &tmStart);
    char ac[64];
    // The counter tells apart two attempts on one line in the same second.
    snprintf(ac, sizeof(ac), "%d%02d%02d_%02d%02d%02d_%03d_%02d", tmStart.tm_year + 1900, tmStart.tm_mon + 1,
             tmStart.tm_mday, tmStart.tm_hour, tmStart.tm_min, tmStart.tm_sec, iChannel, iRecUniqCnt % 100);
    strDbRemoteId = ac;
}

void BaseChannel::DetermineFilename()
{
    std::string strName = strDbRemoteId;
    if (prRecorder->fLineNameInFileName) {
        IDatabase* prDB = prRecorder->GetDatabaseHandle();
        Contact rLine = prDB->GetOrCreateLineContact(iChannel, prDB->GetRecorderID(), "");
        strName += "_" + MakeValidFileNameStr(prDB->GetContactName(static_cast<int>(rLine.iContactID)));
    }
    ERecEncodings eEnc = prRecorder->eRecEnc;
    strFilename = strName + (eEnc == RECENC_MP3 ? ".mp3" : ".wav");

    struct tm tmStart {};
    localtime_r(&rStartTime, &tmStart);
    char ac[32];
    snprintf(ac, sizeof(ac), "%d/%02d/%02d/%02d", tmStart.tm_year + 1900, tmStart.tm_mon + 1, tmStart.tm_mday,
             tmStart.tm_hour);
    strDirectory = ac;

    // Both trees get the directory before any file is there.
    EnsurePath(prRecorder->strArchiveRoot + "/" + strDirectory);
    EnsurePath(prRecorder->strRecordingRoot + "/" + strDirectory);
    strFullFilenameFinal = prRecorder->strRecordingRoot + "/" + strDirectory + "/" + strFilename;
    strFullFilename = strFullFilenameFinal;
    strArchiveFilename = prRecorder->strArchiveRoot + "/" + strDirectory + "/" + strFilename;
    // GSM and MP3 are made after the call from the captured G.711 file.
    if (eEnc == RECENC_GSM || eEnc == RECENC_MP3)
        strFullFilename += ".g711";
}

// ---- audio path ---------------------------------------------------------------------------------
// The card records into acRecordBuf, a ring of iRecordBufSize bytes, and
// reports with E_PROC_RecordMem how far it has written. The channel writes
// the new part to the file itself, so that it can silence and measure on
// the way; the WAVE header's size fields are brought up to date at opening,
// every 5 ticks and at closing.

namespace {

const int RECORD_BUF_SIZE = 4096;
const int WAVE_HEADER_SIZE = 56;
const BYTE SILENCE_ALAW = 213;
const BYTE SILENCE_ULAW = 255;

void Put16(BYTE* p, unsigned v)
{
    p[0] = static_cast<BYTE>(v);
    p[1] = static_cast<BYTE>(v >> 8);
}

void Put32(BYTE* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<BYTE>(v >> (8 * i));
}

// Writes a 32-bit little-endian value at iOffset of the file.
bool WriteField32(FILE* f, long iOffset, uint32_t v)
{
    BYTE ac[4];
    Put32(ac, v);
    return fseek(f, iOffset, SEEK_SET) == 0 && fwrite(ac, sizeof(ac), 1, f) == 1;
}

} // namespace

void BaseChannel::BasicRecordingPreparation()
{
    // Silencing holds only for the recording part in which it was set.
    fSilencing = false;
    if (!acRecordBuf) {
        iRecordBufSize = RECORD_BUF_SIZE;
        acRecordBuf = new BYTE[RECORD_BUF_SIZE]();
    }
}

void BaseChannel::DefaultEventHandle(SSM_EVENT* prEvent)
{
    if (prEvent->wEventCode != E_PROC_RecordMem)
        return;
    DWORD dwPos = prEvent->dwParam;
    // A position outside the ring would read (and, silencing, write) past it.
    if (dwPos > static_cast<DWORD>(iRecordBufSize)) {
        lg(4, "[%d] Recording position %u out of range 0..%d, ignored", iChannel,
           static_cast<unsigned>(dwPos), iRecordBufSize);
        return;
    }
    int iPos = static_cast<int>(dwPos);
    if (iRecordOffset <= iPos) {
        WriteMemRange(iRecordOffset, iPos);
    } else {
        // The card wrapped: the tail of the ring first, then its head.
        WriteMemRange(iRecordOffset, iRecordBufSize);
        WriteMemRange(0, iPos);
    }
    iRecordOffset = iPos;
}

void BaseChannel::WriteMemRange(int iStart, int iStop)
{
    // Linked PRI mixing (iBaseRecCh, iLinkedCh) comes with the PRI line type;
    // on the other lines both stay -1 and the audio goes straight to the file.
    if (!hAudioFile || iStart < 0 || iStop > iRecordBufSize || iStop <= iStart)
        return;
    if (fSilencing)
        memset(acRecordBuf + iStart, prRecorder->eRecEnc == RECENC_G711U ? SILENCE_ULAW : SILENCE_ALAW,
               static_cast<size_t>(iStop - iStart));
    WriteBuf(acRecordBuf + iStart, iStop - iStart);
}

void BaseChannel::WriteBuf(BYTE* buf, int len)
{
    if (!hAudioFile || len <= 0)
        return;
    if (fCalcLoudness && iCalcLoudnessSamples > 0) {
        bool fULaw = prRecorder->eRecEnc == RECENC_G711U;
        for (int i = 0; i < len; ++i) {
            double d = (fULaw ? ulaw2linear(buf[i]) : alaw2linear(buf[i])) * 3.0517578125e-5;
            dLoudness += d * d;
            if (++iCalcLoudnessIndex >= iCalcLoudnessSamples)
                NewLoudness();
        }
    }
    if (fwrite(buf, static_cast<size_t>(len), 1, hAudioFile) != 1)
        LogCapiError("Write to recording file");
    if (prRecorder->fMonitoring && hRawFile) {
        if (fwrite(buf, static_cast<size_t>(len), 1, hRawFile) != 1)
            LogCapiError("Write to monitoring recording file");
        fflush(hRawFile);
    }
    // Counted even after a failed write: the header then claims what the
    // call lasted, not what the disk took.
    iRecordByteCnt += len;
}

void BaseChannel::OpenAudioFile()
{
    // A file left open by a refused card stop ends here.
    if (hAudioFile) {
        fclose(hAudioFile);
        hAudioFile = nullptr;
    }
    hAudioFile = fopen(strFullFilename.c_str(), "wbe");
    if (!hAudioFile) {
        LogCapiError("OpenAudioFile");
        return;
    }
    iRecordByteCnt = 0;
    fDoStereo = prRecorder->fStereo && CanStereo();
    iCalcLoudnessSamples = fDoStereo ? 8000 : 4000; // half a second either way
    int iChannels = fDoStereo ? 2 : 1;

    BYTE ac[WAVE_HEADER_SIZE] = {};
    memcpy(ac + 0, "RIFF", 4);
    memcpy(ac + 8, "WAVE", 4);
    memcpy(ac + 12, "fmt ", 4);
    Put32(ac + 16, 16);
    Put16(ac + 20, prRecorder->eRecEnc == RECENC_G711U ? 7 : 6);
    Put16(ac + 22, static_cast<unsigned>(iChannels));
    Put32(ac + 24, 8000);
    Put32(ac + 28, static_cast<uint32_t>(8000 * iChannels));
    Put16(ac + 32, static_cast<unsigned>(iChannels));
    Put16(ac + 34, 8);
    memcpy(ac + 36, "fact", 4);
    Put32(ac + 40, 4);
    memcpy(ac + 48, "data", 4);
    if (fwrite(ac, sizeof(ac), 1, hAudioFile) != 1)
        LogCapiError("Write to recording file");
    UpdateAudioFileHeader();
    OpenRawFile();
}

void BaseChannel::UpdateAudioFileHeader()
{
    if (!hAudioFile)
        return;
    long iPos = ftell(hAudioFile);
    if (iPos < 0)
        return;
    // 32-bit fields: a recording past 4 GB wraps here, the byte count doesn't.
    uint32_t uiBytes = static_cast<uint32_t>(iRecordByteCnt);
    bool fOk = WriteField32(hAudioFile, 4, uiBytes + 48) && WriteField32(hAudioFile, 44, uiBytes) &&
               WriteField32(hAudioFile, 52, uiBytes);
    if (!fOk)
        LogCapiError("Write to recording file");
    fseek(hAudioFile, iPos, SEEK_SET);
}

void BaseChannel::CloseAudioFile()
{
    if (hAudioFile) {
        UpdateAudioFileHeader();
        fclose(hAudioFile);
        hAudioFile = nullptr;
    }
    CloseRawFile();
}

void BaseChannel::OpenRawFile()
{
    if (!prRecorder->fMonitoring)
        return;
    CloseRawFile();
    // No copy when ".raw" can't be opened; the recording goes on.
    hRawFile = fopen((strFullFilenameFinal + ".raw").c_str(), "wbe");
    FILE* hInfo = fopen((strFullFilenameFinal + ".info").c_str(), "wbe");
    if (!hInfo) {
        lg(4, "[%d] Can't write %s.info", iChannel, strFullFilenameFinal.c_str());
        return;
    }
    // The channel count is a fixed text, in stereo too.
    fprintf(hInfo, "Format: %s\r\nChannels: 1\r\n", prRecorder->eRecEnc == RECENC_G711U ? "ulaw" : "alaw");
    fclose(hInfo);
}

void BaseChannel::CloseRawFile()
{
    if (!hRawFile)
        return;
    fclose(hRawFile);
    hRawFile = nullptr;
}

void BaseChannel::OnRecordingData(void* pData, unsigned int uiLen)
{
    if (!hRawFile || !pData)
        return;
    fwrite(pData, uiLen, 1, hRawFile);
    fflush(hRawFile);
}

bool BaseChannel::TrySetSilencing(bool fToSet)
{
    if (!prRecorder->fSilenceOnDemand) {
        lg(5, "[%d] Silencing not set, silence on demand is off", iChannel);
        return false;
    }
    fSilencing = fToSet;
    lg(5, "[%d] Silencing set to %d", iChannel, fToSet ? 1 : 0);
    prRecorder->GetDatabaseHandle()->SetActiveCallExtra(iActiveCallID, "silencing", fToSet ? "1" : "0");
    return true;
}

void BaseChannel::NewLoudness()
{
    double dRms = sqrt(dLoudness / iCalcLoudnessSamples);
    dLoudness = dRms;
    // Full scale reads 70, a silent line -30.
    int iLevel = dRms <= 1e-5 ? -30 : static_cast<int>(20 * log10(dRms) + 70 + 0.5);
    iLast_dB = iLevel;
    if (fHighDetect) {
        if (!fHighSwitchedOff && iLevel > iHighDbThr) {
            iHighAge = 0;
            if (++iHighCnt == iHighMaxCnt && iHighNotify == 0)
                iHighNotify = 1; // the tick gives the alarm
        } else if (iHighCnt > 0) {
            // Two quiet half seconds are forgiven, the third ends the run.
            if (++iHighAge > 2)
                iHighCnt = 0;
        }
    }
    iCalcLoudnessIndex = 0;
    dLoudness = 0;
}

int RecordingCallBack(int, BYTE* lpData, DWORD dwDataLen, PVOID pVoid)
{
    if (pVoid)
        static_cast<BaseChannel*>(pVoid)->OnRecordingData(lpData, dwDataLen);
    return 0;
}

void CheckForNull(BYTE* buf, int iStart, int iStop, int iType)
{
    int iCount = 0;
    for (int i = iStart; i < iStop; ++i)
        if (buf[i] == 0)
            ++iCount;
    if (iCount >= 51)
        lg(4, "%d Too much zero! CNT: %d", iType, iCount);
}

// ---- recording stop and call record ---------------------------------------------------------

namespace {

// The keep rules, in their fixed order: store on demand, empty number,
// internal call, direction. False: the recording is dropped. fDelay: store
// on demand keeps it in ActiveCalls until the user decides.
bool KeepByRules(BaseChannel& ch, IDatabase* prDB, const StdStringMap& rCallExtra, Contact& rLocal,
                 bool& fDelay)
{
    ICRecorder* prRec = ch.prRecorder;
    int iChannel = ch.iChannel;
    if (ch.QUseLocalNum())
        rLocal = prDB->GetOrCreateCallerIDContact(ch.GetLocalNum(), "", true, "");
    else
        rLocal = prDB->GetOrCreateLineContact(iChannel, prDB->GetRecorderID(), "");
    Contact rRemote = prDB->GetOrCreateCallerIDContact(Latin1ToUtf8(ch.GetDbRemoteNum()), "", false, "");

    // Store on demand: kept only when the user asked ("to-keep"), or held back.
    if (prRec->StoreOnDemand(rLocal, rRemote)) {
        if (StrToInt(MapValue(rCallExtra, "to-keep")) != 0) {
            lg(5, "[%d] Store on demand: keeping", iChannel);
        } else if (prRec->fStoreOnDemandDelay) {
            lg(5, "[%d] Store on demand: delay", iChannel);
            fDelay = true;
        } else {
            lg(5, "[%d] Store on demand: not keeping", iChannel);
            return false;
        }
    }
    // No remote number.
    if (ch.strRemoteNum.empty() && prDB->GetConfigInt("NotRecEmptyNum") != 0) {
        lg(5, "[%d] Empty remote number: not keeping", iChannel);
        return false;
    }
    // Internal call: RecLocal alone decides, the direction doesn't count.
    if (!prRec->fCardNotInternal && rRemote.iContactID != -1 && rRemote.fLocal) {
        if (prDB->GetConfigInt("RecLocal") == 0) {
            lg(5, "[%d] Internal call: not keeping", iChannel);
            return false;
        }
        return true;
    }
    // Direction: only the value 1 switches a direction off.
    if (ch.fIncoming && prDB->GetConfigInt("RecNotInc") == 1) {
        lg(5, "[%d] Incoming call: not keeping", iChannel);
        return false;
    }
    if (!ch.fIncoming && prDB->GetConfigInt("RecNotOutg") == 1) {
        lg(5, "[%d] Outgoing call: not keeping", iChannel);
        return false;
    }
    return true;
}

} // namespace

void BaseChannel::StopRecording(bool& fClearInfo)
{
    if (!fRecording)
        return;
    fRecording = false;
    if (SsmStopRecToMem(iDrvCh) != 0) {
        // No row, no action; FinalizeRecording removes the active row.
        LogSsmError("SsmStopRecMem");
        ClearInfo();
        return;
    }
    CloseAudioFile();
    iDuration = static_cast<int>(GetSrTime() - rStartTime);
    lg(5, "[%d] Recording stopped (%i s)", iChannel, iDuration);

    IDatabase* prDB = prRecorder->GetDatabaseHandle();
    StdStringMap rCallExtra = prDB->GetActiveCallExtra(iActiveCallID);
    bool fKeep = !fDontRecord && !fDontKeepThisPart;
    bool fDelay = false;
    Contact rLocal;
    int iMinDur = prDB->GetConfigInt("RecMinDur");
    if (iDuration < iMinDur) {
        // The facts survive, so that a call that goes on can still use them.
        lg(5, "[%d] Duration too short (%d < %d)", iChannel, iDuration, iMinDur);
        fClearInfo = false;
        fKeep = false;
    } else if (fKeep) {
        fKeep = KeepByRules(*this, prDB, rCallExtra, rLocal, fDelay);
    }

    if (fKeep) {
        chmod(strFullFilename.c_str(), 0777);
        // Without a row there is nothing to finish: the file stays as it is.
        if (iActiveCallID != -1) {
            AudioConvAct* prAct = new AudioConvAct();
            prAct->prDB = prDB;
            prAct->eRecEnc = prRecorder->eRecEnc;
            prAct->fStereo = fDoStereo;
            prAct->strFullFilename = strFullFilename;
            prAct->strFullFilenameFinal = strFullFilenameFinal;
            prAct->strArchiveFilename = strArchiveFilename;
            prAct->iActiveCallID = iActiveCallID;
            prAct->fToEmail = fToEmail;
            prAct->iEmailContactID = static_cast<int>(rLocal.iContactID);
            prAct->iDuration = iDuration;
            prAct->strCheckSumType = prRecorder->GetCheckSumType();
            prAct->prRecorder = prRecorder;
            prAct->fStoreOnDemandDelay = fDelay;
            FillCallInfo(&prAct->rCallInfo, prDB, true);
            queueAction(prAct);
            iActiveCallID = -1; // the action owns the row now
        }
    } else {
        // The active row stays for FinalizeRecording to remove.
        queueAction(new DeleteFileAct(strFullFilename));
        // A dropped recording must not survive as its monitoring copy either
        // (delete on demand, store on demand): the companions go with it.
        if (prRecorder->fMonitoring) {
            queueAction(new DeleteFileAct(strFullFilenameFinal + ".raw"));
            queueAction(new DeleteFileAct(strFullFilenameFinal + ".info"));
        }
    }
    if (fClearInfo) {
        ClearInfo();
        fClearInfo = false;
    }
}

namespace {

// One party's four columns, under "remote" or "local" by the layout.
struct PartyColumns {
    std::string strNum;
    bool fLatin1 = false; // the number is as the line gave it
    std::string strCallerId;
    std::string strContact;
    bool fIds = true; // the id columns are written
};

void AddParty(StringMap* prMap, const std::string& strPrefix, const PartyColumns& p)
{
    if (p.fLatin1) {
        prMap->AddLatin1(strPrefix, p.strNum);
        prMap->AddLatin1(strPrefix + "full", p.strNum);
    } else {
        prMap->AddUtf8(strPrefix, p.strNum);
        prMap->AddUtf8(strPrefix + "full", p.strNum);
    }
    if (p.fIds) {
        prMap->AddUtf8(strPrefix + "callerid", p.strCallerId);
        prMap->AddUtf8(strPrefix + "contact", p.strContact);
    }
}

} // namespace

void BaseChannel::FillCallInfo(StringMap* rCallInfo, IDatabase* prDB, bool fFinal)
{
    Contact rLine = prDB->GetOrCreateLineContact(iChannel, prDB->GetRecorderID(), "");
    Contact rLocal;
    std::string strDbRemoteNum = GetDbRemoteNum();
    // The active row only looks the remote party up; the final row makes it.
    Contact rRemote = fFinal ? prDB->GetOrCreateCallerIDContact(Latin1ToUtf8(strDbRemoteNum), "", false, "")
                             : prDB->GetCallerIDContact(Latin1ToUtf8(strDbRemoteNum));
    bool fInternal = false;
    if (!prRecorder->fCardNotInternal && rRemote.iContactID != -1 && rRemote.fLocal) {
        fInternal = true;
        lg(5, "[%d] Other %s is also local: internal call", iChannel, strDbRemoteNum.c_str());
    }
    bool fUseLocal = QUseLocalNum();
    std::string strLocalNum8 = fUseLocal ? GetLocalNum() : std::string();
    if (fUseLocal) {
        rLocal = prDB->GetOrCreateCallerIDContact(strLocalNum8, "", true, "");
        iActiveContactLocal = static_cast<int>(rLocal.iContactID);
    } else {
        iActiveContactLocal = static_cast<int>(rLine.iContactID);
    }

    rCallInfo->AddUtf8("startdate", ToStdString(static_cast<int>(static_cast<int32_t>(rStartTime))));
    rCallInfo->AddUtf8("duration", ToStdString(iDuration));
    rCallInfo->AddUtf8("filename", strFilename);
    rCallInfo->AddUtf8("isconnected", "1");
    rCallInfo->AddUtf8("linenr", ToStdString(iChannel));
    rCallInfo->AddUtf8("waittime", ToStdString(iWaitTime));
    rCallInfo->AddUtf8("source", ToStdString(iRecSource));
    rCallInfo->AddUtf8("isarchived", fFinal || fRecording ? "1" : "0");
    rCallInfo->AddUtf8("encoding", ToStdString(iEncoding));
    rCallInfo->AddUtf8("encryption", "0");
    rCallInfo->AddUtf8("processingstate", "0");
    rCallInfo->AddUtf8("flags", prRecorder->fALE ? "16" : "0");
    rCallInfo->AddUtf8("directory", strDirectory);
    rCallInfo->AddUtf8("lineid", ToStdString(rLine.iLineID));
    rCallInfo->AddUtf8("remoteid", strDbRemoteId);

    PartyColumns rRemoteCols;
    rRemoteCols.strNum = strDbRemoteNum;
    rRemoteCols.fLatin1 = true;
    rRemoteCols.strCallerId = ToStdString(rRemote.iCallerID);
    rRemoteCols.strContact = ToStdString(rRemote.iContactID);
    rRemoteCols.fIds = rRemote.iContactID != -1;
    PartyColumns rLocalCols;
    rLocalCols.strNum = strLocalNum8;
    rLocalCols.strCallerId = fUseLocal ? ToStdString(rLocal.iCallerID) : "0";
    rLocalCols.strContact = ToStdString(iActiveContactLocal);
    // An internal call is seen from both ends of the line; the incoming end
    // is turned about so that both rows show the same parties.
    bool fSwap = (fInternal && fIncoming) || prRecorder->fCrecTestSwapLocRem;
    AddParty(rCallInfo, "remote", fSwap ? rLocalCols : rRemoteCols);
    AddParty(rCallInfo, "local", fSwap ? rRemoteCols : rLocalCols);

    if (fHasConnectedNum) {
        Contact rConn = prDB->GetOrCreateCallerIDContact(Latin1ToUtf8(strConnectedNum), "", fIncoming, "");
        rCallInfo->AddLatin1("connected", strConnectedNum);
        rCallInfo->AddUtf8("connectedcallerid", ToStdString(rConn.iCallerID));
        rCallInfo->AddUtf8("connectedcontact", ToStdString(rConn.iContactID));
    }
    std::string strDirection = fInternal ? "2" : (fIncoming ? "0" : "1");
    if (prRecorder->fCrecTestSwapLocRem)
        strDirection = strDirection == "1" ? "0" : "1";
    rCallInfo->AddUtf8("direction", strDirection);
    rCallInfo->AddUtf8("recorderid", ToStdString(prDB->GetRecorderID()));
    // The active row's extras join later, from the database.
    rCallInfo->AddUtf8("callextra", ArrayToString(StdStringMap()));
    if (fUseLocal) {
        IdMapEntry rEntry = prDB->GetIdMapEntry(strLocalNum8);
        if (rEntry.fFound && (rEntry.strTarget == "notes" || rEntry.strTarget == "notes2"))
            rCallInfo->AddUtf8(rEntry.strTarget, rEntry.strValue);
    }
}

void BaseChannel::AddActive()
{
    IDatabase* prDB = prRecorder->GetDatabaseHandle();
    StringMap rMap;
    FillCallInfo(&rMap, prDB, false);
    iActiveCallID = prDB->AddActiveCall(rMap);
}

void BaseChannel::RemoveActive()
{
    if (iActiveCallID == -1)
        return;
    prRecorder->GetDatabaseHandle()->DeleteActiveCall(iActiveCallID);
    iActiveCallID = -1;
}

// ---- numbers and digits -----------------------------------------------------------------------
// Numbers in the members are Latin-1, as the line delivers them; whatever
// goes to the database as text is converted to UTF-8 first.

std::string BaseChannel::GetDbRemoteNum()
{
    int iMask = prRecorder->iMaskLastRemoteDigits;
    if (iMask < 1)
        return strRemoteNum;
    std::string s = strRemoteNum;
    size_t n = std::min(s.size(), static_cast<size_t>(iMask));
    s.replace(s.size() - n, n, n, 'X');
    return s;
}

bool BaseChannel::QUseLocalNum()
{
    return fUseLocalNum || rCustomLocal.fFound;
}

std::string BaseChannel::GetLocalNum()
{
    if (rCustomLocal.fFound)
        return rCustomLocal.strText; // UTF-8 already
    return Latin1ToUtf8(strLocalNum);
}

void BaseChannel::RemoteNumberChanged()
{
    rRemoteNumTime = GetSrTime();
    lg(5, "[%d] Remote: %s", iChannel, strRemoteNum.c_str());
    std::string strMasked = GetDbRemoteNum();
    if (iActiveCallID != -1) {
        IDatabase* prDB = prRecorder->GetDatabaseHandle();
        if (strMasked != strPrevRemoteNum) {
            Contact rContact = prDB->GetCallerIDContact(Latin1ToUtf8(strMasked));
            prDB->UpdateActiveCallRemoteContact(iActiveCallID, rContact, Latin1ToUtf8(strMasked));
        }
        if (strConnectedNum != strPrevConnectedNum) {
            std::string strConn8 = Latin1ToUtf8(strConnectedNum);
            Contact rContact = prDB->GetOrCreateCallerIDContact(strConn8, "", fIncoming, "");
            prDB->UpdateActiveCallConnectedNum(iActiveCallID, rContact, strConn8);
        }
    }
    strPrevConnectedNum = strConnectedNum;
    strPrevRemoteNum = strMasked;
    PhoneNumberChanged(true);
}

bool BaseChannel::ChangeLocalNum(std::string strLocalPhoneNum)
{
    lg(5, "[%d] Local Number Changed: %s.", iChannel, strLocalPhoneNum.c_str());
    if (iActiveCallID != -1 && strLocalPhoneNum != strLocalNum) {
        IDatabase* prDB = prRecorder->GetDatabaseHandle();
        std::string strLocal8 = Latin1ToUtf8(strLocalPhoneNum);
        Contact rContact = prDB->GetCallerIDContact(strLocal8);
        prDB->UpdateActiveCallLocalContact(iActiveCallID, rContact, strLocal8);
    }
    fUseLocalNum = true;
    // The first local number of the line is the fall-back after a transfer
    // away from a monitored phone.
    if (strNonMonitoredNum.empty() && !strLocalNum.empty())
        strNonMonitoredNum = strLocalNum;
    strLocalNum = strLocalPhoneNum;
    PhoneNumberChanged(false);
    return true;
}

bool BaseChannel::LocalNumberChanged(std::string strLocalPhoneNum, std::string, bool stopstart)
{
    lg(5, "[%d] LocalNumberChanged. Change: %s to: %s.", iChannel, strLocalNum.c_str(),
       strLocalPhoneNum.c_str());
    if (strLocalPhoneNum == strLocalNum)
        return true;
    if (!stopstart)
        return ChangeLocalNum(strLocalPhoneNum); // the recording goes on under the new number
    // The call is split at the transfer.
    lg(5, "[%d] LocalNumberChanged: STOP", iChannel);
    FinalizeRecording(false);
    if (!strLocalPhoneNum.empty()) {
        lg(5, "[%d] LocalNumberChanged: Transfer to monitored phone", iChannel);
        if (strNonMonitoredNum.empty() && !strLocalNum.empty())
            strNonMonitoredNum = strLocalNum;
        fUseLocalNum = true;
        strLocalNum = strLocalPhoneNum;
    } else {
        lg(5, "[%d] LocalNumberChanged: Transfer to non-monitored phone", iChannel);
        strLocalNum = strNonMonitoredNum;
    }
    lg(5, "[%d] LocalNumberChanged: START", iChannel);
    TryStartRecording();
    return true;
}

void BaseChannel::PhoneNumberChanged(bool stopIsFinal)
{
    // Outside a call a number only waits (and may expire).
    if (!fCallBusy)
        return;
    if (!fRecording) {
        TryStartRecording(); // it sorts out whether the new number allows a start
    } else if (!MayStartRecording(true)) {
        // The filter refuses now. A local number may change again and
        // allow a later part; a remote number decides the whole call.
        if (stopIsFinal)
            fDontRecord = true;
        else
            fDontKeepThisPart = true;
        FinalizeRecording(false);
    }
    if (fCallBusy && GetNewRecOnDmd() && !fRecOnDmd) {
        // What was recorded before the number was known goes; the call
        // waits for the command.
        lg(5, "[%d] Phone number change enabled recording on demand", iChannel);
        fDontKeepThisPart = true;
        FinalizeRecording(false);
        TryStartRecording();
    }
}

void BaseChannel::DetectedDigit(char ch)
{
    CheckDigitsExpired(false); // a digit after the limit starts a new run
    rDigitTime = GetSrTime();
    if (fDigitFreeze || strDigits.size() >= MAX_DIGITS)
        return;
    strDigits += ch;
    lg(5, "[%d] Digits: %s", iChannel, strDigits.c_str());
    // The digits stay: they can still become the remote number.
    std::string strAction = prRecorder->GetDtmfAct(strDigits);
    if (!strAction.empty())
        DtmfAction(strAction);
}

void BaseChannel::DtmfAction(std::string strAction)
{
    lg(5, "[%d] Action to perform: %s", iChannel, strAction.c_str());
    if (iActiveCallID == -1) {
        lg(5, "[%d] No active call for this channel", iChannel);
        return;
    }
    if (strAction == "email")
        fToEmail = true;
    else if (strAction == "email2")
        prRecorder->EmailBackRecording(iActiveContactLocal, 1);
    else if (strAction == "keep")
        prRecorder->GetDatabaseHandle()->SetActiveCallExtra(iActiveCallID, "to-keep", "1");
    else if (strAction == "silence")
        TrySetSilencing(true);
    else if (strAction == "sound")
        TrySetSilencing(false);
    else if (strAction == "start")
        RecOnDmdAct(true);
    else if (strAction == "stop")
        RecOnDmdAct(false);
    else if (strAction == "delete")
        DeleteAct();
}

void BaseChannel::CheckDigitsExpired(bool fForceExpired)
{
    if (strDigits.empty())
        return;
    if (GetSrTime() - rDigitTime < DIGIT_EXPIRY_S && !fForceExpired)
        return;
    WhenDigitExpiring();
    lg(5, "[%d] Previous digits expired", iChannel);
    if (fUsePressedDigitsForRemote && strDigits.size() >= 2) {
        if (!fCallBusy)
            CheckRemoteExpired();
        // A number from the line wins over dialled digits, but digits beat
        // a short or a non-numeric remote text.
        bool fLineNumber = strRemoteNum.size() > 2 && isdigit(static_cast<unsigned char>(strRemoteNum[0]));
        if (!fLineNumber) {
            strRemoteNum = strDigits;
            RemoteNumberChanged();
        }
    }
    strDigits.clear();
}
