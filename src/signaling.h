// signaling.h - service messages to the local service socket, delivered
// one at a time by the signalling thread; and shell execution.
#ifndef SIGNALING_H
#define SIGNALING_H

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <thread>

// The signalling thread and its queue. One instance, prSignalObj, built by
// init_signaling and destroyed by close_signaling.
class SignalObj {
public:
    SignalObj() = default;
    SignalObj(const SignalObj&) = delete;
    SignalObj& operator=(const SignalObj&) = delete;
    ~SignalObj();

    // Starts the thread.
    void init();
    // Stops the thread after the message in hand; waiting messages are dropped.
    void close();
    // Appends a message to the queue; any thread.
    void schedule(std::string text);
    // One delivery to the service socket, on the calling thread. Failures are
    // logged at level 3 and otherwise lost.
    void signal(std::string message);

private:
    void run();

    std::thread rThread;
    std::mutex rMutex;                // guards rList
    std::condition_variable rWakeUp;  // rList grew or fPleaseStop was set
    std::atomic<bool> fPleaseStop{false};
    std::list<std::string> rList;  // oldest first
};

// Atomic: signal_service reads it on any thread.
extern std::atomic<SignalObj*> prSignalObj;

// Path of the service socket.
std::string ServiceSocketPath();

void init_signaling();
void close_signaling();
// Queues a message for the service; any thread, after init_signaling and
// before close_signaling (which runs once every other thread has stopped).
// Without a running SignalObj the message is dropped with a warning.
void signal_service(std::string text);

// Runs a shell command, returns its standard output ("" on failure).
std::string stdSystem(std::string cmd);
// Runs a shell command, drops its output, returns the raw wait status (-1: no start).
int execCmd(std::string cmd);
// Single-quotes a text for a shell command line.
std::string escapeShellArg(std::string s);

#endif
