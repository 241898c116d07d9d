// eventq.h - the queue of card events that SsmWaitForEventA delivers.
//
// Producers are the control socket thread, the scenario thread and the
// in-process test API; the consumer is the daemon's main thread, blocked in
// Pop with its time-out. Events leave in the order they came. While events
// are not enabled (before SsmSetEvent(65535, -1, 1)) an event is dropped,
// as a card with its events off reports nothing. In step mode Pop never
// blocks, so unit tests can drive a run loop pass by pass.
//
// Locking: one mutex guards the deque and the flags; Pop waits on a
// condition variable and copies the event out under the lock.
#ifndef SIM_EVENTQ_H
#define SIM_EVENTQ_H

#include "shpa3api.h"

#include <condition_variable>
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
};

class EventQueue {
public:
    // False when the event was dropped (events off, or the queue is full).
    bool Push(const SimEvent& ev);
    // True with an event; false after timeoutMs (at once in step mode).
    bool Pop(long timeoutMs, SimEvent& ev);
    void SetEnabled(bool fOn);
    bool Enabled();
    void Clear();
    // Drops queued events of this code for this channel.
    void Purge(int nReference, WORD wEventCode);
    size_t Size();
    // Step mode: Pop returns at once when nothing is queued.
    void SetStepMode(bool fOn);

private:
    std::mutex rMutex;
    std::condition_variable rCond;
    std::deque<SimEvent> vQueue;
    bool fEnabled = false;
    bool fStepMode = false;
};

EventQueue& Events();

// Copies ev into the caller's record, at most dwBufferLength bytes of data.
void FillSsmEvent(const SimEvent& ev, SSM_EVENT* pEvent);

#endif
