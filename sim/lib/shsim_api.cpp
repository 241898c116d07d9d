// shsim_api.cpp - the in-process test API of the simulator (see include/shsim.h).
#include "../include/shsim.h"

#include "audiosrc.h"
#include "control.h"
#include "eventq.h"
#include "simclock.h"
#include "simstate.h"
#include "trace.h"

#include <algorithm>
#include <cstring>

namespace {

void CopyOut(const std::string& text, char* buf, size_t len)
{
    if (!buf || len == 0)
        return;
    size_t n = std::min(text.size(), len - 1);
    memcpy(buf, text.data(), n);
    buf[n] = '\0';
}

} // namespace

extern "C" {

void shsim_set_root(const char* root)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    s.strRoot = root ? root : "";
    s.fRootSet = true;
}

void shsim_get_root(char* buf, size_t len)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    CopyOut(SimRootLocked(s), buf, len);
}

void shsim_reset(void)
{
    SsmCloseCti();
    SetDstCycle(true);
    Events().SetStepMode(false);
    Clock().Reset();
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    s.vCallLog.clear();
    s.strLastError.clear();
    s.fScriptOverride = false;
    s.iFailFirst = 0;
    s.dFailSeconds = 0;
    s.iStartCalls = 0;
    s.fHaveFirstCall = false;
    s.rHw = HardwareDesc();
    s.dwRecMemCondition = s.dwRecMemParam = 0;
    s.vOverruns.clear();
}

int shsim_inject_event(unsigned short code, int ref, unsigned int param, unsigned int subReason,
                       const void* data, unsigned int len)
{
    if (len > 4096 || (len > 0 && !data))
        return -1;
    SimEvent ev;
    ev.wEventCode = code;
    ev.nReference = ref;
    ev.dwParam = param;
    ev.dwSubReason = subReason;
    if (len > 0)
        ev.strData.assign(static_cast<const char*>(data), len);
    return Events().Push(ev) ? 0 : -1;
}

int shsim_set_state(int ch, int state)
{
    std::string reply = ExecuteCommand("state " + std::to_string(ch) + " " + std::to_string(state));
    if (reply.compare(0, 2, "OK") != 0)
        return -1;
    return reply.find("dropped") == std::string::npos ? 0 : 1;
}

void shsim_script_start_failures(int failFirst, double failSeconds)
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    s.fScriptOverride = true;
    s.iFailFirst = failFirst;
    s.dFailSeconds = failSeconds;
    s.iStartCalls = 0;
    s.fHaveFirstCall = false;
}

void shsim_set_step_mode(int on)
{
    Clock().SetStepMode(on != 0);
    Events().SetStepMode(on != 0);
}

void shsim_advance_clock(unsigned int ms)
{
    Clock().Advance(static_cast<int64_t>(ms) * 1000);
}

void shsim_pattern_bytes(unsigned long long seed, unsigned long long offset, unsigned char* buf, size_t len)
{
    PatternBytes(seed, offset, buf, len);
}

int shsim_get_audio_stats(int ch, struct shsim_audio_stats* out)
{
    if (!out)
        return -1;
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    const SimChannel* c = ChannelLocked(s, ch);
    if (!c)
        return -1;
    memset(out, 0, sizeof(*out));
    out->delivered = c->rAudio.ullDelivered;
    out->reported = c->rAudio.ullReported;
    out->events_queued = c->rAudio.ullEventsQueued;
    out->events_taken = c->rAudio.ullEventsTaken;
    out->overruns = c->rAudio.ullOverruns;
    out->lost = c->rAudio.ullLost;
    out->recordings = c->rAudio.ullRecordings;
    out->source_pos = c->rSource.ullPos;
    return 0;
}

int shsim_pending_events(void)
{
    return static_cast<int>(Events().Size());
}

int shsim_command(const char* line, char* reply, size_t len)
{
    std::string r = ExecuteCommand(line ? line : "");
    CopyOut(r, reply, len);
    return r.compare(0, 2, "OK") == 0 ? 0 : -1;
}

} // extern "C"
