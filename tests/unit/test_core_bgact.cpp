// The action engine: two workers sharing one FIFO, the ready() promise
// that nothing is in transit, close with actions waiting, inline running
// without a handler, and the hand-over to the main queue with and without
// a boot.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "bgact.h"
#include "fake_database.h"
#include "log_capture.h"
#include "recorder.h"

namespace {

using Clock = std::chrono::steady_clock;

// What every test action did, shared by all of them.
struct Journal {
    std::atomic<int> iThreadRuns{0};
    std::atomic<int> iMainRuns{0};
    std::atomic<int> iCompleted{0};
    std::atomic<int> iDestroyed{0};
};

// An action whose thread half waits until the test opens its gate.
class GateAct : public ThreadAct {
public:
    GateAct(Journal& j, bool fOpen = true) : rJournal(j), fGateOpen(fOpen) {}
    ~GateAct() override { ++rJournal.iDestroyed; }
    void performThread() override
    {
        fStarted = true;
        std::unique_lock<std::mutex> lock(rMutex);
        rCond.wait(lock, [this] { return fGateOpen.load(); });
        ++rJournal.iThreadRuns;
    }
    void performMain() override { ++rJournal.iMainRuns; }
    void completed() override { ++rJournal.iCompleted; }
    void Open()
    {
        {
            std::lock_guard<std::mutex> lock(rMutex);
            fGateOpen = true;
        }
        rCond.notify_all();
    }

    Journal& rJournal;
    std::atomic<bool> fGateOpen;
    std::atomic<bool> fStarted{false};
    std::mutex rMutex;
    std::condition_variable rCond;
};

template <class Pred> bool WaitFor(Pred pred, int iMs = 3000)
{
    auto tEnd = Clock::now() + std::chrono::milliseconds(iMs);
    while (!pred()) {
        if (Clock::now() > tEnd)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TEST(BgAct, TwoWorkersTakeTheFifoAndReadyMeansNothingIsInTransit)
{
    Journal j;
    init_bgact();
    GateAct* a = new GateAct(j, false);
    GateAct* b = new GateAct(j, false);
    GateAct* c = new GateAct(j, false);
    queueAction(a);
    queueAction(b);
    ASSERT_TRUE(WaitFor([&] { return a->fStarted.load() && b->fStarted.load(); }));
    queueAction(c);
    EXPECT_FALSE(isBgQueueReady());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(c->fStarted.load()); // both workers are busy

    // The freed worker takes the third action at once, without its idle pause.
    auto tFree = Clock::now();
    a->Open();
    ASSERT_TRUE(WaitFor([&] { return c->fStarted.load(); }));
    EXPECT_LT(Clock::now() - tFree, std::chrono::milliseconds(500));
    b->Open();
    c->Open();

    // No boot runs, so each action is destroyed unrun when it reaches the
    // main queue; ready() may turn true only after all three got there.
    ASSERT_TRUE(WaitFor([] { return isBgQueueReady(); }));
    EXPECT_EQ(j.iDestroyed, 3);
    EXPECT_EQ(j.iThreadRuns, 3);
    EXPECT_EQ(j.iMainRuns, 0);
    close_bgact();
    EXPECT_TRUE(isBgQueueReady());
}

TEST(BgAct, CloseWaitsForRunningActionsDropsWaitingOnesAndThenActionsRunInline)
{
    Journal j;
    EXPECT_TRUE(isBgQueueReady());
    init_bgact();
    GateAct* a = new GateAct(j, false);
    GateAct* b = new GateAct(j, false);
    queueAction(a);
    queueAction(b);
    ASSERT_TRUE(WaitFor([&] { return a->fStarted.load() && b->fStarted.load(); }));
    queueAction(new GateAct(j));
    queueAction(new GateAct(j));

    std::atomic<bool> fClosed{false};
    std::thread closer([&] {
        close_bgact();
        fClosed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(fClosed.load()); // the running actions are waited for
    a->Open();
    b->Open();
    closer.join();
    EXPECT_EQ(j.iThreadRuns, 2); // the two waiting ones never ran
    EXPECT_EQ(j.iDestroyed, 4);

    // Without a handler (after close, as before init) an action runs inline
    // instead of using a dead handler, and is destroyed without completed().
    queueAction(new GateAct(j));
    queueAction(nullptr); // ignored
    EXPECT_EQ(j.iThreadRuns, 3);
    EXPECT_EQ(j.iMainRuns, 1);
    EXPECT_EQ(j.iCompleted, 0);
    EXPECT_EQ(j.iDestroyed, 5);
}

TEST(BgAct, ActionsReachTheBootsQueueAndRunOnlyWhenTaken)
{
    Journal j;
    TRecorderBoot rBoot(new FakeDatabase());
    SetCurrentBoot(&rBoot);
    init_bgact();
    queueAction(new GateAct(j));
    queueAction(new GateAct(j));
    ASSERT_TRUE(WaitFor([] { return isBgQueueReady(); }));
    close_bgact();
    EXPECT_EQ(j.iThreadRuns, 2);
    EXPECT_EQ(j.iMainRuns, 0);

    ThreadAct* act = nullptr;
    ASSERT_TRUE(rBoot.takeAct(act));
    act->performMain();
    delete act;
    EXPECT_EQ(j.iMainRuns, 1);

    // The rest is destroyed unrun, and so is whatever comes after the boot.
    rBoot.emptyQueue();
    EXPECT_FALSE(rBoot.takeAct(act));
    SetCurrentBoot(nullptr);
    mainQueue(new GateAct(j));
    mainQueue(nullptr);
    EXPECT_EQ(j.iMainRuns, 1);
    EXPECT_EQ(j.iDestroyed, 3);
}

TEST(BgAct, DeleteFileActOnAMissingFileEndsQuietly)
{
    LogCapture log;
    queueAction(new DeleteFileAct("/tmp/quorda-core-no-such-file-here"));
    for (const LoggedLine& l : log.Lines())
        EXPECT_GT(l.iPri, 3) << l.strText;
}

} // namespace
