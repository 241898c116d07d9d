// bgact.cpp - the action engine: two background workers and their FIFO.
//
// DESIGN: one BgActHandler, created by init_bgact(), owns two worker threads
// and the list of waiting actions. A worker takes the front action under
// rMutex, marks itself busy while still holding the lock, runs
// performThread() outside the lock, posts the action to the main thread with
// mainQueue() and only then clears its busy flag (release order). So a
// ready() that sees both workers idle and the list empty knows that every
// finished action already stands in the main queue.
// An idle worker sleeps on a condition variable for up to one second; a
// queued action or close() wakes it at once, so neither waits for a poll.
#include "bgact.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>

#include "filedir.h"
#include "logging.h"
#include "recorder.h"

namespace {

class BgActHandler {
public:
    BgActHandler() = default;
    BgActHandler(const BgActHandler&) = delete;
    BgActHandler& operator=(const BgActHandler&) = delete;

    void init();
    void queue(ThreadAct* act);
    bool ready();
    // Stops both workers after their present action; waiting actions are
    // destroyed unrun.
    void close();

private:
    void run(int ix);
    void handleAction(ThreadAct* act);
    // Waits up to a second for work or for close(); true when stopping.
    bool idleWait();

    std::thread rThread[2];
    std::mutex rMutex;               // guards rList
    std::condition_variable rWakeUp; // signalled with rMutex on queue and close
    std::atomic<bool> fPleaseStop{false};
    std::atomic<bool> fBusy[2] = {{false}, {false}};
    std::list<ThreadAct*> rList; // owns its entries
};

// Set and cleared by the main thread; read by any thread that queues.
std::atomic<BgActHandler*> prBgActHandler{nullptr};

void BgActHandler::init()
{
    fPleaseStop = false;
    fBusy[0] = false;
    fBusy[1] = false;
    rThread[0] = std::thread(&BgActHandler::run, this, 0);
    rThread[1] = std::thread(&BgActHandler::run, this, 1);
}

void BgActHandler::queue(ThreadAct* act)
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        rList.push_back(act);
    }
    rWakeUp.notify_one();
}

bool BgActHandler::ready()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return !fBusy[0].load(std::memory_order_acquire) && !fBusy[1].load(std::memory_order_acquire) &&
           rList.empty();
}

void BgActHandler::handleAction(ThreadAct* act)
{
    act->performThread();
    mainQueue(act);
}

bool BgActHandler::idleWait()
{
    std::unique_lock<std::mutex> lock(rMutex);
    rWakeUp.wait_for(lock, std::chrono::seconds(1), [this] { return fPleaseStop.load() || !rList.empty(); });
    return fPleaseStop.load();
}

void BgActHandler::run(int ix)
{
    // Lock rule: rMutex is held only to unlink an action and to mark the
    // worker busy, never while an action runs.
    while (!fPleaseStop.load()) {
        ThreadAct* act = nullptr;
        {
            std::lock_guard<std::mutex> lock(rMutex);
            if (!rList.empty()) {
                act = rList.front();
                rList.pop_front();
                if (act)
                    fBusy[ix].store(true, std::memory_order_relaxed);
            }
        }
        if (act) {
            lg(7, "Bg Act %d\n", ix);
            handleAction(act);
            // After mainQueue: ready() must never see an action in transit.
            fBusy[ix].store(false, std::memory_order_release);
            continue;
        }
        fBusy[ix].store(false, std::memory_order_release);
        if (idleWait())
            return;
    }
}

void BgActHandler::close()
{
    {
        std::lock_guard<std::mutex> lock(rMutex);
        fPleaseStop = true;
    }
    rWakeUp.notify_all();
    for (std::thread& t : rThread)
        if (t.joinable())
            t.join();
    for (ThreadAct* act : rList)
        delete act;
    rList.clear();
}

} // namespace

void init_bgact()
{
    BgActHandler* prHandler = new BgActHandler();
    prHandler->init();
    prBgActHandler = prHandler;
}

void close_bgact()
{
    // A late queueAction() then runs inline instead of using a dead handler.
    BgActHandler* prHandler = prBgActHandler.exchange(nullptr);
    if (!prHandler)
        return;
    prHandler->close();
    delete prHandler;
}

void queueAction(ThreadAct* act)
{
    BgActHandler* prHandler = prBgActHandler.load();
    if (prHandler) {
        prHandler->queue(act);
        return;
    }
    if (!act)
        return;
    act->performThread();
    act->performMain();
    delete act;
}

bool isBgQueueReady()
{
    BgActHandler* prHandler = prBgActHandler.load();
    return !prHandler || prHandler->ready();
}

void DeleteFileAct::performThread()
{
    DeleteFn(strFilename.c_str());
}
