// eventq.h - the queue of card events that SsmWaitForEventA delivers.
//
// Producers are the control socket thread, the scenario thread and the
// in-process test API and the audio delivery; the consumer is the daemon's
// main thread in SsmWaitForEventA. Events leave in the order they came.
// While events are not enabled (before SsmSetEvent(65535, -1, 1)) an event
// is dropped, as a card with its events off reports nothing. In step mode
// WaitFor never blocks, so unit tests can drive a run loop pass by pass.
// The audio unit (audio.h) builds SsmWaitForEventA from TryPop and WaitFor.
//
// Locking: one mutex guards the deque and the flags; WaitFor waits on a
// condition variable; TryPop copies the event out under the lock.
#ifndef SIM_EVENTQ_H
#define SIM_EVENTQ_H

#include "shpa3api.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

struct SimEvent {
    WORD wEventCode = 0;
    int nReference = -1;
    DWORD dwParam = 0;
    DWORD dwSubReason = 0;
    DWORD dwXtraInfo = 0;
    std::string strData; // bytes for the caller's pvBuffer
    // Progress events of a simulated recording: which one, and the position
    // (bytes since its start) up to which audio is new. 0: not from audio.
    uint32_t uRecSerial = 0;
    uint64_t ullAudioPos = 0;
};

class EventQueue {
public:
    // False when the event was dropped (events off, or the queue is full).
    bool Push(const SimEvent& ev);
    // True with the oldest event, false when none is queued.
    bool TryPop(SimEvent& ev);
    // Blocks up to llUs, less when an event is queued, step mode is on or
    // Wake is called; the caller looks again.
    void WaitFor(int64_t llUs);
    // Ends a WaitFor early (something due earlier was scheduled).
    void Wake();
    void SetEnabled(bool fOn);
    bool Enabled();
    void Clear();
    // Drops queued events of this code for this channel.
    void Purge(int nReference, WORD wEventCode);
    size_t Size();
    // Step mode: WaitFor returns at once.
    void SetStepMode(bool fOn);

private:
    std::mutex rMutex;
    std::condition_variable rCond;
    std::deque<SimEvent> vQueue;
    bool fEnabled = false;
    bool fStepMode = false;
    uint64_t ullWakes = 0;
};

EventQueue& Events();

// Copies ev into the caller's record, at most dwBufferLength bytes of data.
void FillSsmEvent(const SimEvent& ev, SSM_EVENT* pEvent);

#endif
