// audio.cpp - memory recording, progress events and overrun detection (see audio.h).
#include "audio.h"

#include "eventq.h"
#include "simclock.h"

#include <algorithm>
#include <climits>
#include <sstream>

namespace {

const int64_t kUsPerByte = 125; // 8000 bytes a second
const DWORD kDefaultCadence = 2048;
const size_t kOverrunsKept = 1000;

uint64_t CadenceLocked(const SimState& s)
{
    return s.dwRecMemCondition ? s.dwRecMemCondition : kDefaultCadence;
}

void QueueProgressLocked(int nCh, SimChannel& ch)
{
    const RecMemReg& r = ch.rRecMem;
    SimEvent ev;
    ev.wEventCode = E_PROC_RecordMem;
    ev.nReference = nCh;
    ev.dwParam = static_cast<DWORD>((r.dwOffset + r.ullWritten) % r.dwSize);
    ev.uRecSerial = r.uSerial;
    ev.ullAudioPos = r.ullWritten;
    if (Events().Push(ev))
        ++ch.rAudio.ullEventsQueued;
}

void ReportOverrunLocked(SimState& s, int nCh, SimChannel& ch, uint64_t ullLost)
{
    ++ch.rAudio.ullOverruns;
    ch.rAudio.ullLost += ullLost;
    std::string line = "overrun " + std::to_string(nCh) + " " + std::to_string(ullLost);
    LogCallLocked(s, line);
    s.vOverruns.push_back(line);
    if (s.vOverruns.size() > kOverrunsKept)
        s.vOverruns.pop_front();
}

// Writes what the clock owes the recording up to nowUs, in pieces that end
// at the ring's end or at a progress event; returns when the next event is due.
int64_t DeliverChannelLocked(SimState& s, int nCh, SimChannel& ch, int64_t nowUs)
{
    RecMemReg& r = ch.rRecMem;
    if (nowUs > r.llLastUs) {
        r.llElapsedUs += nowUs - r.llLastUs;
        r.llLastUs = nowUs;
    }
    uint64_t ullDue = static_cast<uint64_t>(r.llElapsedUs / kUsPerByte);
    uint64_t ullLost = 0;
    while (r.ullWritten < ullDue) {
        uint64_t ullAt = (r.dwOffset + r.ullWritten) % r.dwSize;
        uint64_t n = std::min({ullDue - r.ullWritten, r.ullNextEvent - r.ullWritten, r.dwSize - ullAt});
        FillAudio(ch.rSource, r.iFormat, reinterpret_cast<unsigned char*>(r.pBuf) + ullAt,
                  static_cast<size_t>(n));
        uint64_t ullEnd = r.ullWritten + n;
        // Bytes below ullEnd - size are gone now; those the reader never had are lost.
        if (ullEnd > r.ullIntact + r.dwSize) {
            ullLost += ullEnd - r.dwSize - r.ullIntact;
            r.ullIntact = ullEnd - r.dwSize;
        }
        r.ullWritten = ullEnd;
        ch.rAudio.ullDelivered += n;
        if (ullEnd == r.ullNextEvent) {
            QueueProgressLocked(nCh, ch);
            r.ullNextEvent += CadenceLocked(s);
        }
    }
    if (ullLost > 0)
        ReportOverrunLocked(s, nCh, ch, ullLost);
    return nowUs + static_cast<int64_t>(r.ullNextEvent) * kUsPerByte - r.llElapsedUs;
}

int64_t DeliverAllLocked(SimState& s, int64_t nowUs)
{
    int64_t llNext = INT64_MAX;
    for (size_t i = 0; i < s.rTable.vChannels.size(); ++i) {
        SimChannel& ch = s.rTable.vChannels[i];
        if (ch.rRecMem.fActive)
            llNext = std::min(llNext, DeliverChannelLocked(s, static_cast<int>(i), ch, nowUs));
    }
    return llNext;
}

// Everything due by now, in time order between timed events and audio;
// returns the clock reading at which the next thing is due.
int64_t DeliverDue()
{
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    int64_t nowUs = Clock().NowUs();
    while (!s.mTimed.empty() && s.mTimed.begin()->first <= nowUs) {
        DeliverAllLocked(s, s.mTimed.begin()->first);
        ArriveLocked(s, s.mTimed.begin()->second);
        s.mTimed.erase(s.mTimed.begin());
    }
    int64_t llNext = DeliverAllLocked(s, nowUs);
    if (!s.mTimed.empty())
        llNext = std::min(llNext, s.mTimed.begin()->first);
    return llNext;
}

// The reader took a progress event: it has consumed the ring up to there.
void NoteTaken(const SimEvent& ev)
{
    if (ev.wEventCode != E_PROC_RecordMem || ev.uRecSerial == 0)
        return;
    SimState& s = Sim();
    std::lock_guard<std::mutex> lock(s.rMutex);
    SimChannel* ch = ChannelLocked(s, ev.nReference);
    if (!ch || !ch->rRecMem.fActive || ch->rRecMem.uSerial != ev.uRecSerial)
        return;
    RecMemReg& r = ch->rRecMem;
    ++ch->rAudio.ullEventsTaken;
    if (ev.ullAudioPos > r.ullTaken) {
        ch->rAudio.ullReported += ev.ullAudioPos - r.ullTaken;
        r.ullTaken = ev.ullAudioPos;
    }
    r.ullIntact = std::max(r.ullIntact, r.ullTaken);
}

} // namespace

bool WaitForCardEvent(long timeoutMs, SimEvent& ev)
{
    SimClock& clock = Clock();
    int64_t llDeadline = clock.NowUs() + std::max(0L, timeoutMs) * 1000;
    for (;;) {
        int64_t llNext = DeliverDue();
        if (Events().TryPop(ev)) {
            NoteTaken(ev);
            return true;
        }
        if (clock.StepMode()) {
            // An idle wait "takes" one step; what fell due in it is queued
            // for the next calls, so each -1 stands for exactly one step.
            clock.Advance(kStepWaitUs);
            DeliverDue();
            return false;
        }
        int64_t llNow = clock.NowUs();
        if (llNow >= llDeadline)
            return false;
        Events().WaitFor(std::min(llDeadline, llNext) - llNow);
    }
}

void BeginRecordingLocked(SimState& s, int nCh, SimChannel& ch, const RecMemReg& reg)
{
    // Progress of an earlier recording would point into a buffer the caller
    // may have freed.
    Events().Purge(nCh, E_PROC_RecordMem);
    ch.rRecMem = reg;
    ch.rRecMem.uSerial = ++s.uRecSerial;
    if (ch.rRecMem.uSerial == 0)
        ch.rRecMem.uSerial = ++s.uRecSerial;
    ch.rRecMem.llLastUs = Clock().NowUs();
    ch.rRecMem.ullNextEvent = CadenceLocked(s);
    ++ch.rAudio.ullRecordings;
}

void EndRecordingLocked(int nCh, SimChannel& ch)
{
    ch.rRecMem = RecMemReg();
    Events().Purge(nCh, E_PROC_RecordMem);
}

void ScheduleEventLocked(SimState& s, int64_t dueUs, const SimEvent& ev)
{
    s.mTimed.emplace(dueUs, ev);
    // A wait blocked on a later deadline must look again.
    Events().Wake();
}

std::string AudioReportLocked(SimState& s, const SimChannel& ch)
{
    (void)s;
    const RecMemReg& r = ch.rRecMem;
    const AudioStats& a = ch.rAudio;
    std::ostringstream out;
    out << "recording " << (r.fActive ? 1 : 0);
    if (r.fActive)
        out << " format " << r.iFormat << " size " << r.dwSize << " written " << r.ullWritten << " read "
            << r.ullTaken;
    out << " recordings " << a.ullRecordings << " delivered " << a.ullDelivered << " reported "
        << a.ullReported << " events " << a.ullEventsQueued << " taken-events " << a.ullEventsTaken
        << " overruns " << a.ullOverruns << " lost " << a.ullLost << " source " << DescribeSource(ch.rSource)
        << " at " << ch.rSource.ullPos;
    return out.str();
}

AudioStats AudioTotalsLocked(SimState& s)
{
    AudioStats t;
    for (const SimChannel& ch : s.rTable.vChannels) {
        t.ullDelivered += ch.rAudio.ullDelivered;
        t.ullReported += ch.rAudio.ullReported;
        t.ullEventsQueued += ch.rAudio.ullEventsQueued;
        t.ullEventsTaken += ch.rAudio.ullEventsTaken;
        t.ullOverruns += ch.rAudio.ullOverruns;
        t.ullLost += ch.rAudio.ullLost;
        t.ullRecordings += ch.rAudio.ullRecordings;
    }
    return t;
}
