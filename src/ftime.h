// ftime.h - the daemon's idea of the current time, and its one clock seam.
//
// Every read of the clock and every sleep in the daemon goes through the
// functions below, so that tests can install a FakeClock (tests/support)
// whose time only moves when the code sleeps or the test advances it.
// GetSrTime() is the recorder's clock for call facts: the wall clock, or a
// fixed simulated time after SetSimTime(). In tests the wall clock follows
// the simulated clock because both come from the installed IClock.
#ifndef FTIME_H
#define FTIME_H

#include <ctime>
#include <string>

class IClock {
public:
    virtual ~IClock() = default;
    // Seconds since the epoch (time(NULL) on the real clock). Any thread.
    virtual time_t WallNow() = 0;
    // Seconds of a clock that never steps (CLOCK_MONOTONIC_RAW). Any thread.
    virtual double MonoNow() = 0;
    // Sleeps the calling thread; a fake clock advances its time instead.
    virtual void SleepUs(long usec) = 0;
};

// The clock in force. SetClock(nullptr) restores the real clock.
IClock& Clock();
void SetClock(IClock* prClock);

inline time_t WallNow() { return Clock().WallNow(); }
inline void SleepUs(long usec) { Clock().SleepUs(usec); }

// Seconds since the epoch for call facts: wall clock, or the simulated time.
time_t GetSrTime();
// Switches GetSrTime to a fixed simulated time. A hook for simulation.
void SetSimTime(time_t t);
// Back to the real time for GetSrTime (tests).
void ResetSimTime();

// Monotonic seconds, for timing slow handlers.
double getRelativeTime();

// Local time of day "%T" of t.
std::string GetDefTimeStr(time_t t);

#endif
