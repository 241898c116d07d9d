// ftime.cpp - real clock, simulated recorder time (see ftime.h).
#include "ftime.h"

#include <atomic>
#include <unistd.h>

namespace {
class RealClock : public IClock {
public:
    time_t WallNow() override { return time(nullptr); }
    double MonoNow() override
    {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
        return ts.tv_sec + ts.tv_nsec / 1e9;
    }
    void SleepUs(long usec) override
    {
        if (usec > 0)
            usleep(static_cast<useconds_t>(usec));
    }
};

RealClock g_rRealClock;
std::atomic<IClock*> g_prClock{&g_rRealClock};

enum eDoSimTime { REALTIME = 0, STATIC_SIMTIME = 1 };
std::atomic<int> eSimMode{REALTIME};
std::atomic<time_t> rSimTime{0};
}  // namespace

IClock& Clock()
{
    return *g_prClock.load();
}

void SetClock(IClock* prClock)
{
    g_prClock.store(prClock ? prClock : &g_rRealClock);
}

time_t GetSrTime()
{
    switch (eSimMode.load()) {
    case REALTIME:
        return WallNow();
    case STATIC_SIMTIME:
        return rSimTime.load();
    default:
        return 0;
    }
}

void SetSimTime(time_t t)
{
    rSimTime.store(t);
    eSimMode.store(STATIC_SIMTIME);
}

void ResetSimTime()
{
    eSimMode.store(REALTIME);
}

double getRelativeTime()
{
    return Clock().MonoNow();
}

std::string GetDefTimeStr(time_t t)
{
    struct tm rTm;
    char acBuf[50];
    localtime_r(&t, &rTm);
    size_t n = strftime(acBuf, sizeof(acBuf), "%T", &rTm);
    return std::string(acBuf, n);
}
