// audio.h - the card's memory recording: audio into the caller's ring buffer.
//
// After SsmRecToMem a channel records 8000 bytes per second of the clock
// (simclock.h) from its source (audiosrc.h) into the buffer the caller
// gave, and queues E_PROC_RecordMem with the new ring offset every
// "cadence" bytes (the dwOutCondition of SsmSetEvent for that event, 2048
// when none was given). The bytes are written only inside
// SsmWaitForEventA, on the caller's thread, because the caller writes into
// the same buffer (silencing) and frees it after SsmStopRecToMem: there is
// no writer thread to race with it.
//
// Overrun: the reader has consumed the ring up to the position of the last
// progress event it took out of the queue. Events still queued are fine;
// audio is lost only when a write laps that position, i.e. overwrites
// bytes the reader was never given. Each such write is counted, logged to
// the call log and kept for "overruns": "overrun <ch> <bytes lost>".
//
// Timed events (DTMF digits with gaps) wait in SimState::mTimed and are
// released by the same wait when the clock reaches them.
//
// Locking: the functions ending in Locked run under the state lock; the
// wait itself holds no lock while it blocks.
#ifndef SIM_AUDIO_H
#define SIM_AUDIO_H

#include "simstate.h"

#include <string>

// The body of SsmWaitForEventA: delivers audio and timed events, then
// gives the oldest event. False when none came within timeoutMs (in step
// mode: after the clock moved on by one idle step).
bool WaitForCardEvent(long timeoutMs, SimEvent& ev);

// Registers the recording; drops progress events of an earlier one.
void BeginRecordingLocked(SimState& s, int nCh, SimChannel& ch, const RecMemReg& reg);
// Unregisters it and drops its queued progress events.
void EndRecordingLocked(int nCh, SimChannel& ch);

// Queues ev when the clock reaches dueUs (at once when it has).
void ScheduleEventLocked(SimState& s, int64_t dueUs, const SimEvent& ev);

// One line for "audio <ch>".
std::string AudioReportLocked(SimState& s, const SimChannel& ch);
// Totals over all channels: bytes delivered, overruns, bytes lost.
AudioStats AudioTotalsLocked(SimState& s);

#endif
