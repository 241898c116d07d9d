// simclock.h - the simulator's clock, which paces the audio and timed events.
//
// Normally it is the monotonic real time. In step mode it is a virtual time
// that moves only when told to: SsmWaitForEventA advances it by 200 ms when
// nothing is queued, and tests or the "clock advance" command jump it
// forward. Switching between the two keeps the reading continuous, so a
// recording never sees time run backwards. Readings are microseconds.
//
// Locking: one mutex of its own, a leaf lock (taken under the state lock).
#ifndef SIM_SIMCLOCK_H
#define SIM_SIMCLOCK_H

#include <cstdint>
#include <mutex>

class SimClock {
public:
    int64_t NowUs();
    bool StepMode();
    void SetStepMode(bool fOn);
    // Moves the clock forward; in real mode the jump stays (an offset).
    void Advance(int64_t llUs);
    // Real time again, no offset.
    void Reset();

private:
    int64_t RealUsLocked() const;

    std::mutex rMutex;
    bool fStep = false;
    int64_t llVirtualUs = 0; // the reading in step mode
    int64_t llOffsetUs = 0;  // added to the real time in real mode
};

SimClock& Clock();

const int64_t kStepWaitUs = 200000; // what an idle wait "takes" in step mode

#endif
