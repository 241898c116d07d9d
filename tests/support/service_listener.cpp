// service_listener.cpp - see service_listener.h.
#include "service_listener.h"

#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

ServiceListener::ServiceListener(std::string strSocketPath) : strPath(std::move(strSocketPath))
{
    struct sockaddr_un rAddr = {};
    if (strPath.size() >= sizeof(rAddr.sun_path))
        return;
    unlink(strPath.c_str());
    fdListen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fdListen < 0)
        return;
    rAddr.sun_family = AF_UNIX;
    strPath.copy(rAddr.sun_path, sizeof(rAddr.sun_path) - 1);
    if (bind(fdListen, reinterpret_cast<sockaddr*>(&rAddr), sizeof(rAddr)) != 0 ||
        listen(fdListen, 16) != 0) {
        close(fdListen);
        fdListen = -1;
        return;
    }
    rThread = std::thread(&ServiceListener::Serve, this);
}

ServiceListener::~ServiceListener()
{
    fStop = true;
    if (rThread.joinable())
        rThread.join();
    for (int fd : vHeld)
        close(fd);
    if (fdListen >= 0) {
        close(fdListen);
        unlink(strPath.c_str());
    }
}

void ServiceListener::SetReply(const std::string& strNewReply)
{
    std::lock_guard<std::mutex> lock(rMutex);
    strReply = strNewReply;
}

void ServiceListener::SetHold(bool fNewHold)
{
    std::lock_guard<std::mutex> lock(rMutex);
    fHold = fNewHold;
}

std::vector<std::string> ServiceListener::Messages()
{
    std::lock_guard<std::mutex> lock(rMutex);
    return vMessages;
}

bool ServiceListener::WaitForMessage(const std::string& strText, int iMs)
{
    std::unique_lock<std::mutex> lock(rMutex);
    return rNewMessage.wait_for(lock, std::chrono::milliseconds(iMs), [&] {
        for (const std::string& s : vMessages)
            if (s == strText)
                return true;
        return false;
    });
}

bool ServiceListener::WaitForCount(size_t iCount, int iMs)
{
    std::unique_lock<std::mutex> lock(rMutex);
    return rNewMessage.wait_for(lock, std::chrono::milliseconds(iMs),
                                [&] { return vMessages.size() >= iCount; });
}

void ServiceListener::Serve()
{
    while (!fStop) {
        struct pollfd rPoll = {fdListen, POLLIN, 0};
        if (poll(&rPoll, 1, 100) <= 0)
            continue;
        int fd = accept4(fdListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        // The sender writes its message in one piece and then waits for
        // the reply; a second wait collects a message split in transit.
        std::string strMessage;
        char acBuf[4096];
        for (int iWaitMs = 2000; !fStop; iWaitMs = 50) {
            struct pollfd rIn = {fd, POLLIN, 0};
            if (poll(&rIn, 1, iWaitMs) <= 0)
                break;
            ssize_t n = read(fd, acBuf, sizeof(acBuf));
            if (n <= 0)
                break;
            strMessage.append(acBuf, static_cast<size_t>(n));
        }
        std::string strAnswer;
        bool fHoldThis;
        {
            std::lock_guard<std::mutex> lock(rMutex);
            vMessages.push_back(strMessage);
            strAnswer = strReply;
            fHoldThis = fHold;
            if (fHoldThis)
                vHeld.push_back(fd);
        }
        rNewMessage.notify_all();
        if (fHoldThis)
            continue;
        send(fd, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
        close(fd);
    }
}
