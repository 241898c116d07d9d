// simclock.cpp - real or virtual time for the simulator (see simclock.h).
#include "simclock.h"

#include <chrono>

SimClock& Clock()
{
    static SimClock* prClock = new SimClock;
    return *prClock;
}

int64_t SimClock::RealUsLocked() const
{
    auto t = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(t).count() + llOffsetUs;
}

int64_t SimClock::NowUs()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return fStep ? llVirtualUs : RealUsLocked();
}

bool SimClock::StepMode()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return fStep;
}

void SimClock::SetStepMode(bool fOn)
{
    std::lock_guard<std::mutex> lock(rMutex);
    if (fOn == fStep)
        return;
    if (fOn) {
        llVirtualUs = RealUsLocked();
    } else {
        // Real time resumes where the virtual time stood.
        llOffsetUs = 0;
        llOffsetUs = llVirtualUs - RealUsLocked();
    }
    fStep = fOn;
}

void SimClock::Advance(int64_t llUs)
{
    if (llUs <= 0)
        return;
    std::lock_guard<std::mutex> lock(rMutex);
    if (fStep)
        llVirtualUs += llUs;
    else
        llOffsetUs += llUs;
}

void SimClock::Reset()
{
    std::lock_guard<std::mutex> lock(rMutex);
    fStep = false;
    llVirtualUs = 0;
    llOffsetUs = 0;
}
