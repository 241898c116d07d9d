// eventq.cpp - the card event queue (see eventq.h).
#include "eventq.h"

#include <chrono>
#include <cstring>

namespace {
// A stuck consumer must not let a runaway scenario eat the memory.
const size_t kQueueMax = 100000;
} // namespace

EventQueue& Events()
{
    static EventQueue* prQueue = new EventQueue;
    return *prQueue;
}

bool EventQueue::Push(const SimEvent& ev)
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        if (!fEnabled || vQueue.size() >= kQueueMax)
            return false;
        vQueue.push_back(ev);
    }
    rCond.notify_one();
    return true;
}

bool EventQueue::TryPop(SimEvent& ev)
{
    std::lock_guard<std::mutex> lock(rMutex);
    if (vQueue.empty())
        return false;
    ev = std::move(vQueue.front());
    vQueue.pop_front();
    return true;
}

void EventQueue::WaitFor(int64_t llUs)
{
    std::unique_lock<std::mutex> lock(rMutex);
    if (llUs <= 0 || !vQueue.empty() || fStepMode)
        return;
    uint64_t ullSeen = ullWakes;
    rCond.wait_for(lock, std::chrono::microseconds(llUs),
                   [&] { return !vQueue.empty() || fStepMode || ullWakes != ullSeen; });
}

void EventQueue::Wake()
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        ++ullWakes;
    }
    rCond.notify_all();
}

void EventQueue::SetEnabled(bool fOn)
{
    std::lock_guard<std::mutex> lock(rMutex);
    fEnabled = fOn;
}

bool EventQueue::Enabled()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return fEnabled;
}

void EventQueue::Clear()
{
    std::lock_guard<std::mutex> lock(rMutex);
    vQueue.clear();
}

void EventQueue::Purge(int nReference, WORD wEventCode)
{
    std::lock_guard<std::mutex> lock(rMutex);
    for (auto it = vQueue.begin(); it != vQueue.end();) {
        if (it->nReference == nReference && it->wEventCode == wEventCode)
            it = vQueue.erase(it);
        else
            ++it;
    }
}

void EventQueue::SetStepMode(bool fOn)
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        fStepMode = fOn;
    }
    rCond.notify_all();
}

size_t EventQueue::Size()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return vQueue.size();
}

void FillSsmEvent(const SimEvent& ev, SSM_EVENT* pEvent)
{
    pEvent->wEventCode = ev.wEventCode;
    pEvent->nReference = ev.nReference;
    pEvent->dwParam = ev.dwParam;
    pEvent->dwSubReason = ev.dwSubReason;
    pEvent->dwXtraInfo = ev.dwXtraInfo;
    size_t n = ev.strData.size();
    if (!pEvent->pvBuffer)
        n = 0;
    if (n > pEvent->dwBufferLength)
        n = pEvent->dwBufferLength;
    if (n > 0)
        memcpy(pEvent->pvBuffer, ev.strData.data(), n);
    pEvent->dwDataLength = static_cast<DWORD>(n);
}
