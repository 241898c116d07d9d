// service_listener.h - a stand-in for the appliance's local service, for
// tests: a Unix stream socket that takes one message per connection, as the
// daemon's signalling thread sends them, records it, and answers with a
// settable reply ("OK" CR LF by default), or holds the connection without
// an answer.
//
// DESIGN: one thread accepts and serves the connections one at a time,
// polling the listening socket every 100 ms so that the destructor can stop
// it. The recorded messages and the reply settings are guarded by one mutex;
// a condition variable wakes tests that wait for a message. Held
// connections are closed when the listener goes.
#ifndef SERVICE_LISTENER_H
#define SERVICE_LISTENER_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ServiceListener {
public:
    // Binds strPath (an old socket file there is removed) and starts serving.
    explicit ServiceListener(std::string strPath);
    ~ServiceListener();
    ServiceListener(const ServiceListener&) = delete;
    ServiceListener& operator=(const ServiceListener&) = delete;

    bool Listening() const { return fdListen >= 0; }
    // The reply to the following connections, sent as it is.
    void SetReply(const std::string& strReply);
    // True: the following connections get no reply and stay open.
    void SetHold(bool fHold);
    std::vector<std::string> Messages();
    // True once a message equal to strText was received; waits up to iMs.
    bool WaitForMessage(const std::string& strText, int iMs);
    // True once iCount messages in all were received; waits up to iMs.
    bool WaitForCount(size_t iCount, int iMs);

private:
    void Serve();

    std::string strPath;
    int fdListen = -1;
    std::atomic<bool> fStop{false};
    std::thread rThread;
    std::mutex rMutex; // guards the members below
    std::condition_variable rNewMessage;
    std::vector<std::string> vMessages;
    std::vector<int> vHeld;
    std::string strReply = "OK\r\n";
    bool fHold = false;
};

#endif
