// AnalogChannel.cpp - the analog line type (see AnalogChannel.h).
//
// Every event goes to BaseChannel::HandleEvent first (channel state and
// line health), then is interpreted here; what an analog line doesn't know
// goes to DefaultEventHandle, the audio path. The voice events are followed
// under every trigger type, but only the voice trigger looks at them. The
// silence time-out is measured on the wall clock (WallNow), as the card's
// voice reports are, not on the recorder's call clock.
#include "AnalogChannel.h"

#include <cstdio>

#include "fstring.h"
#include "ftime.h"
#include "logging.h"

namespace {
const int TRIGGER_OFF_HOOK = 1;
const int TRIGGER_VOICE = 2;
const int TRIGGER_OFF = 3;
const int TRIGGER_ALWAYS = 4;

// An R2 caller ID: six digits remote, one separator, six digits local.
const size_t R2_CALLERID_LEN = 13;
const size_t R2_REMOTE_POS = 0;
const size_t R2_LOCAL_POS = 7;
const size_t R2_NUM_LEN = 6;

const int NO_MEASUREMENT = -999;
} // namespace

AnalogChannel::AnalogChannel()
{
    iRecSource = 1;
    fUsePressedDigitsForRemote = true;
}

std::string AnalogChannel::GetToneDescr(int iTone)
{
    switch (iTone) {
    case TONE_DIAL:
        return "dial tone";
    case TONE_BUSY:
        return "busy tone";
    case TONE_RINGBACK:
        return "ringback tone";
    case TONE_SILENCE_AFTER_RINGBACK:
        return "silence after ringback";
    case TONE_NO_SOUND:
        return "no sound";
    case TONE_VOICE:
        return "voice";
    default:
        return std::string();
    }
}

std::string AnalogChannel::GetTriggerDescr(int iTriggerType, int iSilenceTimeOut)
{
    switch (iTriggerType) {
    case TRIGGER_OFF_HOOK:
        return "Off-hook";
    case TRIGGER_VOICE:
        return "Voice detect, time-out " + ToStdString(iSilenceTimeOut) + " s";
    case TRIGGER_OFF:
        return "OFF";
    case TRIGGER_ALWAYS:
        return "Always";
    default:
        return std::string();
    }
}

void AnalogChannel::Init(int iChannel_, int iBoardListIx_, int iBoardCh_, ICRecorder* prRecorder_,
                         int iDrvCh_)
{
    BaseChannel::Init(iChannel_, iBoardListIx_, iBoardCh_, prRecorder_, iDrvCh_);
    // The recorder's getter gives 1 for a stored Trigger 0 and 15 for a
    // stored SilenceTimeOut 0.
    iTriggerType = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "Trigger");
    iSilenceTimeOut = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "SilenceTimeOut");
    int iAGC = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "AGC");
    int iAmplify = prRecorder->GetChannelParamInt(iBoardCh, iBoardListIx, "Amplify");
    fR2NumSplit = prRecorder->GetParamInt("R2NumSplit") != 0;

    // Not checked: a channel that refuses its gain still records.
    SsmSetRecVolume(iDrvCh, iAmplify);
    SsmSetRecAGC(iDrvCh, iAGC != 0 ? 1 : 0);

    std::string strSettings = GetTriggerDescr(iTriggerType, iSilenceTimeOut);
    if (iAGC != 0)
        strSettings += ", AGC";
    lg(5, "[%d] Analog settings: %s", iChannel, strSettings.c_str());
}

void AnalogChannel::HandleEvent(SSM_EVENT* prEvent)
{
    BaseChannel::HandleEvent(prEvent);
    switch (prEvent->wEventCode) {
    case E_CHG_RcvDTMF: {
        char ch = static_cast<char>(prEvent->dwParam & 0xFF);
        lg(5, "[%d] Analog DTMF detected: %c", iChannel, ch);
        DetectedDigit(ch);
        SsmClearRxDtmfBuf(iDrvCh);
        break;
    }
    case E_CHG_ChState:
        OnChannelState(static_cast<int>(prEvent->dwParam & 0xFFFF));
        break;
    case E_CHG_CIDExBuf:
        OnCallerId();
        break;
    case E_CHG_FlashCount:
        lg(5, "[%d] Hook flash detected", iChannel);
        break;
    case E_CHG_ToneAnalyze:
        OnTone(static_cast<int>(prEvent->dwParam & 0xFF));
        break;
    case E_SYS_BargeIn:
        OnBargeIn(prEvent->dwParam);
        break;
    case E_SYS_NoSound:
        lg(5, "[%d] Analog No Sound Detected", iChannel);
        break;
    default:
        DefaultEventHandle(prEvent);
        break;
    }
}

void AnalogChannel::OnChannelState(int iState)
{
    lg(5, "[%d] Analog channel state: %d %s", iChannel, iState, GetChannelStateDescr(iState).c_str());
    if (iState == S_CALL_RINGING) {
        RingingStarted();
    } else {
        if (fRinging)
            RingingStopped();
        if (IsChStateDisconnected(iState)) {
            fInCall_ChState = false;
            InCallMaybeChanged();
        }
        // The card's recording state says nothing about the hook.
        if (iState == S_CALL_RECORDING)
            return;
        if (iState == S_CALL_PICKUPED) {
            fInCall_ChState = true;
            InCallMaybeChanged();
            return;
        }
    }
    // Ringing, idle and every other state: on hook.
    fInCall_ChState = false;
    InCallMaybeChanged();
}

void AnalogChannel::OnCallerId()
{
    const char* pcCallerId = SsmGetCallerIdA(iDrvCh);
    if (!pcCallerId || !*pcCallerId)
        return;
    lg(5, "[%d] Analog caller ID: %s", iChannel, pcCallerId);
    std::string strCallerId(pcCallerId);
    if (strCallerId.size() <= 1)
        return; // noise, no number
    if (fR2NumSplit && strCallerId.size() == R2_CALLERID_LEN) {
        // The local number first: ChangeLocalNum re-decides on its own.
        ChangeLocalNum(strCallerId.substr(R2_LOCAL_POS, R2_NUM_LEN));
        strRemoteNum = strCallerId.substr(R2_REMOTE_POS, R2_NUM_LEN);
        fIsNumLocked = true;
        RemoteNumberChanged();
    }
    if (!fIsNumLocked) {
        strRemoteNum = strCallerId;
        RemoteNumberChanged();
    }
}

void AnalogChannel::OnTone(int iTone)
{
    if (iTone == m_iLastTone)
        return;
    lg(5, "[%d] Analog ToneAnalyze: %d %s", iChannel, iTone, GetToneDescr(iTone).c_str());
    // A call-progress tone on the line is no loud voice.
    fHighSwitchedOff = iTone == TONE_DIAL || iTone == TONE_BUSY || iTone == TONE_RINGBACK;
    if (prRecorder && prRecorder->fDebugRepeatRecord && iTone == TONE_NO_SOUND && !InCall())
        StartSilentVoiceCall();
    m_iLastTone = iTone;
}

void AnalogChannel::OnBargeIn(DWORD dwParam)
{
    if (dwParam == 1) {
        if (fAudio)
            return;
        fInCall_Audio = true;
        fAudio = true;
        InCallMaybeChanged();
        return;
    }
    if (fAudio)
        rStartSilence = WallNow();
    fAudio = false;
}

void AnalogChannel::StartSilentVoiceCall()
{
    fInCall_Audio = true;
    fAudio = false;
    rStartSilence = WallNow();
    InCallMaybeChanged();
}

void AnalogChannel::Periodic()
{
    BaseChannel::Periodic();
    if (iTriggerType == TRIGGER_ALWAYS) {
        // An always-on channel gets its first call with the first tick.
        InCallMaybeChanged();
        return;
    }
    iVoltage = SsmGetLineVoltage(iDrvCh);
    if (!fInCall_Audio || fAudio || WallNow() - rStartSilence < iSilenceTimeOut)
        return;
    if (iTriggerType == TRIGGER_VOICE)
        lg(5, "[%d] Silence time out (%d s)", iChannel, iSilenceTimeOut);
    fInCall_Audio = false;
    InCallMaybeChanged();
    // Diagnostic: each silence time-out ends the recording and starts the next.
    if (prRecorder && prRecorder->fDebugRepeatRecord)
        StartSilentVoiceCall();
}

bool AnalogChannel::InCall()
{
    switch (iTriggerType) {
    case TRIGGER_OFF_HOOK:
        return fInCall_ChState;
    case TRIGGER_VOICE:
        return fInCall_Audio;
    case TRIGGER_ALWAYS:
        return true;
    default:
        return false; // TRIGGER_OFF and unknown types never have a call
    }
}

int AnalogChannel::WriteChState()
{
    std::string strPath = prRecorder->GetDataDir() + "chstate_" + ToStdString(iChannel) + ".dat";
    FILE* f = fopen(strPath.c_str(), "we");
    if (!f)
        return 1;
    if (iVoltage != NO_MEASUREMENT)
        fprintf(f, "Voltage: %d\r\n", iVoltage);
    if (iLast_dB != NO_MEASUREMENT)
        fprintf(f, "AudioLevel: %d\r\n", iLast_dB);
    fclose(f);
    return 0;
}
