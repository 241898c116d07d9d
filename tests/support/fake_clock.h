// fake_clock.h - a clock whose time moves only when code sleeps or the test
// advances it. Install with ScopedFakeClock; the wall clock, the monotonic
// clock and GetSrTime all follow it.
#ifndef FAKE_CLOCK_H
#define FAKE_CLOCK_H

#include <atomic>
#include <functional>

#include "ftime.h"

class FakeClock : public IClock {
public:
    explicit FakeClock(time_t tStart = 1700000000) : iMicros(static_cast<long long>(tStart) * 1000000) {}
    time_t WallNow() override { return static_cast<time_t>(iMicros.load() / 1000000); }
    double MonoNow() override { return iMicros.load() / 1e6; }
    void SleepUs(long usec) override
    {
        iMicros += usec;
        iSleptUs += usec;
        if (onSleep)
            onSleep();
    }
    void Advance(long long usec) { iMicros += usec; }

    std::atomic<long long> iMicros;
    std::atomic<long long> iSleptUs{0};
    // Called after every sleep, on the sleeping thread (e.g. to set fAppTerminate).
    std::function<void()> onSleep;
};

class ScopedFakeClock {
public:
    explicit ScopedFakeClock(FakeClock& rClock) { SetClock(&rClock); }
    ~ScopedFakeClock() { SetClock(nullptr); }
};

#endif
