// reactor.h - the command socket and the thread that acts on its commands.
//
// The web front end and local tools (crecctl) control the running recorder
// through the Unix socket SysPath("/tmp/quorda_crec"): one client at a time,
// one short text message per connection ("word" or "word param", at most
// 100 bytes, no terminator), one reply line back.
//
// DESIGN: CrecReactor owns one thread, started by init_reactor() once the
// recorder's channels exist and joined by close_reactor() at the end of the
// run loop. The thread never touches a channel: every command becomes a
// small act that it hands to the main thread with mainQueue(), and for most
// commands it then polls fWaitingOnMain, for at most 350 ms, until the act's
// completed() on the main thread has cleared it and left its result in
// iActResult. Both are atomics, written by the main thread and read here.
// The thread blocks only in poll(), on the socket and on a wake-up pipe:
// close() writes to the pipe, so stopping never depends on a client or on a
// signal arriving at the right moment. A client that connects and stays
// silent is waited for without a time-out, as long as no stop comes.
#ifndef REACTOR_H
#define REACTOR_H

#include <atomic>
#include <string>
#include <sys/un.h>
#include <thread>

class CRecorder;

// The server end of the command socket. Descriptors are -1 when closed.
class ServerPipe {
public:
    static const int RECVBUFLEN = 100;

    // hWake: a descriptor that becomes readable when the owner wants
    // waitForMsg() to give up; -1 for none.
    explicit ServerPipe(int hWake = -1);
    ~ServerPipe();
    ServerPipe(const ServerPipe&) = delete;
    ServerPipe& operator=(const ServerPipe&) = delete;

    // Replaces a stale socket file, binds, sets mode 0766, listens. False
    // (logged at level 3) on failure, and for a path that doesn't fit.
    bool init(const char* path);
    // Closes the previous client, waits for the next one and reads its one
    // message into strReceived. False on an error (logged) or on a wake-up.
    bool waitForMsg();
    // Logs the reply and sends it with "\n" to the current client.
    void sendReply(const char* text);

    int hSocket = -1;
    int hSocketIO = -1;
    sockaddr_un local{};
    sockaddr_un remote{};
    std::string strReceived;
    char acRecvBuf[RECVBUFLEN + 1] = {0};

private:
    // Waits until fd is readable; false when the wake-up came first or
    // poll failed (then logged with pos).
    bool waitReadable(int fd, const char* pos);
    void closeClient();

    int hWakeFd;
};

class CrecReactor {
public:
    explicit CrecReactor(CRecorder* prRec);
    ~CrecReactor();
    CrecReactor(const CrecReactor&) = delete;
    CrecReactor& operator=(const CrecReactor&) = delete;

    // Starts the thread; false if the wake-up pipe or the thread failed.
    bool start();
    // Makes the thread leave whatever it waits for, and joins it.
    void close();

    // The reply text of one message, after acting on it; "" for the paths
    // that send no reply. Reactor thread.
    std::string handleMessage(const std::string& strMsg);
    // Polls fWaitingOnMain every 50 ms; true once clear, false after more
    // than iMaxWaitMs (so at most 350 ms for 300).
    bool DoWaitOnMain(int iMaxWaitMs);

    std::atomic<bool> fClosing{false};
    std::atomic<bool> fWaitingOnMain{false};
    std::atomic<int> iActResult{0};
    CRecorder* prRecorder; // not owned

private:
    void run();

    std::thread rThread;
    int aiWakePipe[2] = {-1, -1};
};

// The one reactor, null when there is none. Read by the acts' completed().
extern std::atomic<CrecReactor*> g_prReactor;

// Main thread: builds the reactor for rRecorder and starts its thread.
void init_reactor(CRecorder* prRecorder);
// Main thread: stops and destroys the reactor, if there is one.
void close_reactor();

#endif
