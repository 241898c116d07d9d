// AnalogChannel.h - an analog line tapped through a high-impedance card
// channel.
//
// On top of the BaseChannel frame an analog line adds a choice of what
// counts as a call (the trigger: hook state, voice, never, always), the
// voice and silence events behind the voice trigger, the caller ID sent on
// the line (optionally carrying both numbers, "R2 split"), the line voltage
// and the call-progress tones. It feeds the frame through InCall,
// RingingStarted/RingingStopped, RemoteNumberChanged, ChangeLocalNum and
// DetectedDigit, and leaves all recording to the base class. Main thread
// only, like every channel.
#ifndef ANALOGCHANNEL_H
#define ANALOGCHANNEL_H

#include <ctime>
#include <string>

#include "BaseChannel.h"

class AnalogChannel : public BaseChannel {
public:
    AnalogChannel();
    ~AnalogChannel() override = default;

    // Base Init, then the trigger, silence time-out, gain and R2 settings;
    // sets the card's recording gain and AGC.
    void Init(int iChannel, int iBoardListIx, int iBoardCh, ICRecorder* prRecorder, int iDrvCh) override;
    void HandleEvent(SSM_EVENT* prEvent) override;
    // Base tick, then the always-on trigger, the line voltage and the
    // silence time-out of the voice trigger.
    void Periodic() override;
    // The call as the trigger type sees it.
    bool InCall() override;
    // Writes chstate_<line>.dat in the data directory: 0, or 1 when the
    // file can't be opened.
    int WriteChState() override;

    // Text of a tone code of E_CHG_ToneAnalyze, "" for an unknown one.
    static std::string GetToneDescr(int iTone);
    // Text of the trigger for the settings log, "" for an unknown type.
    static std::string GetTriggerDescr(int iTriggerType, int iSilenceTimeOut);

    int m_iLastTone = 0;        // repeats of a tone are ignored
    bool fInCall_Audio = false; // voice trigger: first voice until silence time-out
    bool fAudio = false;        // voice is present now
    time_t rStartSilence = 0;   // wall-clock second at which the silence began
    int iSilenceTimeOut = 8;
    int iTriggerType = 2; // 1 off-hook, 2 voice, 3 off, 4 always
    int iVoltage = -999;  // -999: not measured yet
    // Set by an R2 split; plain caller IDs no longer replace the remote
    // number. Nothing clears it, not even the next call.
    bool fIsNumLocked = false;
    bool fR2NumSplit = false; // 13-character caller IDs carry both numbers

private:
    void OnChannelState(int iState);
    void OnCallerId();
    void OnTone(int iTone);
    void OnBargeIn(DWORD dwParam);
    // Diagnostic DebugRepeatRecord: a voice call begins at once, silent.
    void StartSilentVoiceCall();
};

#endif
