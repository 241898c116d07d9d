// BaseChannel.cpp - construction and reset of a channel, the base event
// frame, the one-second tick and the line health (see BaseChannel.h).
//
// Line health: a state report alone says little, so the channel keeps two
// leaky counters, one for disconnected states (counted at each change into
// one) and one for error states (counted each second while one lasts), and
// derives one health value from them. A change of that value is logged and
// reported to the recorder, which rewrites the line status file.
#include "BaseChannel.h"

#include "logging.h"

namespace {
const int HEALTH_COUNT_STEP = 60;   // added per counted state
const int HEALTH_COUNT_MAX = 200;   // counters are clamped to 0..200
const int HEALTH_FAULT_LEVEL = 150; // above this the line is at fault
const int HEADER_REFRESH_TICKS = 5;

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
    if (++iPeriodicCounter >= HEADER_REFRESH_TICKS)
        iPeriodicCounter = 0;
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

void BaseChannel::EndOfCall()
{
    fCallBusy = false;
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
