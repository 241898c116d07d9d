// reactor.cpp - the command socket (ServerPipe), the reactor thread and
// the acts through which its commands reach the main thread.
//
// DESIGN: see reactor.h. Order of one command on the reactor thread: read
// the message, split word and parameter, set fWaitingOnMain (for a command
// that waits), mainQueue() the act, poll for at most 350 ms, reply, close
// the client when the next wait begins. On the main thread the run loop
// runs the act's performMain() and completed(); completed() clears
// fWaitingOnMain last, after storing the result, so the reactor never
// reads a result older than the flag says. An act that comes too late
// still runs; the reply already sent said "E4: time-out". No lock is
// held anywhere here; mainQueue() has its own.
#include "reactor.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bgact.h"
#include "filedir.h"
#include "fstring.h"
#include "ftime.h"
#include "logging.h"
#include "paths.h"
#include "recorder.h"

std::atomic<CrecReactor*> g_prReactor{nullptr};

namespace {

const long WAIT_STEP_US = 50000;
const int WAIT_STEP_MS = 50;
const int MAX_WAIT_MS = 300; // the steps stop past it: 350 ms in all
const int LISTEN_BACKLOG = 5;

const char* const REPLY_OK = "OK";
const char* const REPLY_UNKNOWN_CALL = "E2: unknown call";
const char* const REPLY_TIMEOUT = "E4: time-out";
const char* const REPLY_UNKNOWN_COMMAND = "E0: Unknown commmand";

// ---- acts: built on the reactor thread, run and destroyed on the main thread ----

// Common ground of the acts that report back: completed() hands the result
// to the reactor, if one still exists, and releases its wait.
class ReportingAct : public ThreadAct {
public:
    explicit ReportingAct(CRecorder* prRec) : prRecorder(prRec) {}
    void performThread() override {}
    void completed() override
    {
        CrecReactor* prReactor = g_prReactor.load();
        if (!prReactor)
            return;
        if (fReportsResult)
            prReactor->iActResult = iResult;
        prReactor->fWaitingOnMain = false;
    }

protected:
    CRecorder* prRecorder;
    int iResult = 0;
    bool fReportsResult = true;
};

class ReconfigAct : public ThreadAct {
public:
    explicit ReconfigAct(CRecorder* prRec) : prRecorder(prRec) {}
    void performThread() override {}
    void performMain() override { prRecorder->Reconfigure(); }

private:
    CRecorder* prRecorder;
};

// Only sets the flag; the run loop sees it and does the tracing itself.
class TraceAct : public ThreadAct {
public:
    TraceAct(bool fStart_, int iChNr_, CRecorder* prRec) : fStart(fStart_), iChNr(iChNr_), prRecorder(prRec)
    {
    }
    void performThread() override {}
    void performMain() override
    {
        if (fStart)
            prRecorder->iBitStreamChNr = iChNr;
        prRecorder->fBitStreamTracing = fStart;
    }

private:
    bool fStart;
    int iChNr;
    CRecorder* prRecorder;
};

class ChStateAct : public ReportingAct {
public:
    ChStateAct(int iChNr_, CRecorder* prRec) : ReportingAct(prRec), iChNr(iChNr_) { fReportsResult = false; }
    void performMain() override { prRecorder->ChState(iChNr); }

private:
    int iChNr;
};

class SilencingAct : public ReportingAct {
public:
    SilencingAct(bool fSound_, std::string strId, CRecorder* prRec)
        : ReportingAct(prRec), fSound(fSound_), strCallId(std::move(strId))
    {
    }
    void performMain() override { iResult = prRecorder->SilencingAct(strCallId, fSound); }

private:
    bool fSound;
    std::string strCallId;
};

class RecOnDmdAct : public ReportingAct {
public:
    RecOnDmdAct(bool fStart_, std::string strId, CRecorder* prRec)
        : ReportingAct(prRec), fStart(fStart_), strCallId(std::move(strId))
    {
    }
    void performMain() override { iResult = prRecorder->RecOnDmdAct(strCallId, fStart); }

private:
    bool fStart;
    std::string strCallId;
};

class DelOnDmdAct : public ReportingAct {
public:
    DelOnDmdAct(std::string strId, CRecorder* prRec) : ReportingAct(prRec), strCallId(std::move(strId)) {}
    void performMain() override { iResult = prRecorder->DelOnDmdAct(strCallId); }

private:
    std::string strCallId;
};

// The result of ChLocal is dropped on purpose: the front end's reply to
// "change_local" is whatever the last reporting act left in iActResult.
class ChLocalAct : public ReportingAct {
public:
    ChLocalAct(std::string strLocal, std::string strRemote, bool fStopStart, CRecorder* prRec)
        : ReportingAct(prRec), strLocalPhoneNum(std::move(strLocal)), strRemotePhoneNum(std::move(strRemote)),
          stopstart(fStopStart)
    {
        fReportsResult = false;
    }
    void performMain() override { prRecorder->ChLocal(strLocalPhoneNum, strRemotePhoneNum, stopstart); }

private:
    std::string strLocalPhoneNum;
    std::string strRemotePhoneNum;
    bool stopstart;
};

// A channel number from the wire: strtol's reading, kept inside the range
// in which ChState can subtract one without overflowing.
int ChannelParam(const std::string& strParam)
{
    int i = StrToInt(strParam);
    return i == INT_MIN ? INT_MIN + 1 : i;
}

// The reply for the result of a call-id command; "" for a result outside
// the known codes, which sends no reply.
std::string ResultReply(int iResult, const char* acRefused)
{
    switch (iResult) {
    case 0:
        return REPLY_OK;
    case 1:
        return REPLY_UNKNOWN_CALL;
    case 2:
        return acRefused;
    default:
        return std::string();
    }
}

} // namespace

// ---- ServerPipe ------------------------------------------------------------------

ServerPipe::ServerPipe(int hWake) : hWakeFd(hWake) {}

ServerPipe::~ServerPipe()
{
    closeClient();
    if (hSocket != -1)
        ::close(hSocket);
}

void ServerPipe::closeClient()
{
    if (hSocketIO != -1) {
        ::close(hSocketIO);
        hSocketIO = -1;
    }
}

bool ServerPipe::init(const char* path)
{
    size_t iLen = strlen(path);
    if (iLen >= sizeof(local.sun_path)) {
        // Cutting the path would bind some other name.
        lg(3, "Socket communication error: path too long: %s", path);
        return false;
    }
    hSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (hSocket == -1) {
        lg(3, "Socket communication error: socket: %s", strerror(errno));
        return false;
    }
    local.sun_family = AF_UNIX;
    memcpy(local.sun_path, path, iLen + 1);
    // A socket file left behind by a crash would make bind fail.
    unlink(path);
    socklen_t iAddrLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + iLen);
    if (bind(hSocket, reinterpret_cast<sockaddr*>(&local), iAddrLen) == -1) {
        lg(3, "Socket communication error: bind: %s", strerror(errno));
        return false;
    }
    // The web front end runs as another user; it must be able to connect.
    if (chmod(path, 0766) == -1)
        lg(3, "Socket communication error: chmod: %s", strerror(errno));
    if (listen(hSocket, LISTEN_BACKLOG) == -1) {
        lg(3, "Socket communication error: listen: %s", strerror(errno));
        return false;
    }
    return true;
}

bool ServerPipe::waitReadable(int fd, const char* pos)
{
    pollfd aPoll[2] = {{fd, POLLIN, 0}, {hWakeFd, POLLIN, 0}};
    nfds_t n = hWakeFd == -1 ? 1 : 2;
    for (;;) {
        int iReady = poll(aPoll, n, -1);
        if (iReady < 0 && errno == EINTR)
            continue;
        if (iReady < 0) {
            lg(3, "Socket communication error: %s: %s", pos, strerror(errno));
            return false;
        }
        if (n == 2 && aPoll[1].revents != 0)
            return false;
        // A hang-up or error on fd also counts: the read that follows
        // sees it and treats it as an empty message.
        if (aPoll[0].revents != 0)
            return true;
    }
}

bool ServerPipe::waitForMsg()
{
    closeClient();
    strReceived.clear();
    if (!waitReadable(hSocket, "poll"))
        return false;
    socklen_t iRemoteLen = sizeof(remote);
    hSocketIO = accept4(hSocket, reinterpret_cast<sockaddr*>(&remote), &iRemoteLen, SOCK_CLOEXEC);
    if (hSocketIO == -1) {
        lg(3, "Socket communication error: accept: %s", strerror(errno));
        return false;
    }
    // No time-out for a silent client: only a stop ends this wait.
    if (!waitReadable(hSocketIO, "poll"))
        return false;
    ssize_t iGot = recv(hSocketIO, acRecvBuf, RECVBUFLEN, 0);
    if (iGot < 0)
        iGot = 0; // a failed read counts as an empty message
    acRecvBuf[iGot] = 0;
    strReceived = acRecvBuf; // up to the first NUL
    return true;
}

void ServerPipe::sendReply(const char* text)
{
    lg(5, "reactor reply: %s", text);
    std::string strLine = std::string(text) + "\n";
    // A client that has left must not raise SIGPIPE; the result is of no use.
    ssize_t iSent = send(hSocketIO, strLine.data(), strLine.size(), MSG_NOSIGNAL);
    (void)iSent;
}

// ---- CrecReactor -------------------------------------------------------------------

CrecReactor::CrecReactor(CRecorder* prRec) : prRecorder(prRec) {}

CrecReactor::~CrecReactor()
{
    close();
    for (int& fd : aiWakePipe)
        if (fd != -1) {
            ::close(fd);
            fd = -1;
        }
}

bool CrecReactor::start()
{
    if (pipe2(aiWakePipe, O_CLOEXEC | O_NONBLOCK) == -1) {
        LogCapiError("pipe2");
        return false;
    }
    rThread = std::thread(&CrecReactor::run, this);
    return true;
}

void CrecReactor::close()
{
    fClosing = true;
    if (aiWakePipe[1] != -1) {
        // The pipe is non-blocking: a full pipe already holds a wake-up.
        ssize_t iWritten = write(aiWakePipe[1], "x", 1);
        (void)iWritten;
    }
    if (rThread.joinable())
        rThread.join();
}

void CrecReactor::run()
{
    lg(5, "reactor started");
    ServerPipe* prPipe = new ServerPipe(aiWakePipe[0]);
    std::string strPath = SysPath("/tmp/quorda_crec");
    EnsurePath(strPath.substr(0, strPath.rfind('/')));
    if (!prPipe->init(strPath.c_str())) {
        lg(3, "Socket communication error: Failure, could not start listening.");
    } else {
        while (!fClosing.load() && prPipe->waitForMsg()) {
            std::string strReply = handleMessage(prPipe->strReceived);
            if (!strReply.empty())
                prPipe->sendReply(strReply.c_str());
        }
    }
    lg(5, "reactor exit");
    delete prPipe;
}

bool CrecReactor::DoWaitOnMain(int iMaxWaitMs)
{
    if (!fWaitingOnMain.load())
        return true;
    if (iMaxWaitMs < 0)
        return false;
    for (int iWaited = 0;;) {
        iWaited += WAIT_STEP_MS;
        SleepUs(WAIT_STEP_US);
        if (!fWaitingOnMain.load())
            return true;
        if (iWaited > iMaxWaitMs)
            return false;
    }
}

std::string CrecReactor::handleMessage(const std::string& strMsg)
{
    lg(5, "Msg received: %s", strMsg.c_str());
    std::string strWord = strMsg;
    std::string strParam;
    size_t iBlank = strMsg.find(' ');
    if (iBlank != std::string::npos) {
        strWord = strMsg.substr(0, iBlank);
        strParam = strMsg.substr(iBlank + 1);
    }
    lg(5, "Command: '%s' Param: '%s'", strWord.c_str(), strParam.c_str());

    // Commands that ask a channel for something: queue, then wait.
    ThreadAct* prAct = nullptr;
    const char* acRefused = nullptr;
    bool fReplyByResult = true;
    if (strWord == "sound" || strWord == "silence") {
        prAct = new ::SilencingAct(strWord == "sound", strParam, prRecorder);
        acRefused = "E3: option silence-on-demand is off";
    } else if (strWord == "start" || strWord == "stop") {
        prAct = new ::RecOnDmdAct(strWord == "start", strParam, prRecorder);
        acRefused = "E3: option RecOnDmd is off";
    } else if (strWord == "delete") {
        prAct = new ::DelOnDmdAct(strParam, prRecorder);
        acRefused = "E3: option DelOnDmd is off";
    } else if (strWord == "chst") {
        prAct = new ChStateAct(ChannelParam(strParam), prRecorder);
        fReplyByResult = false;
    } else if (strWord == "change_local") {
        std::list<std::string> lElements = getElements(strParam);
        std::string astr[3];
        bool fHas[3] = {false, false, false};
        int i = 0;
        for (auto it = lElements.begin(); it != lElements.end() && i < 3; ++it, ++i) {
            astr[i] = *it;
            fHas[i] = true;
        }
        // A missing flag means stop and start, as any value but "0" does.
        bool fStopStart = !(fHas[2] && astr[2] == "0");
        prAct = new ChLocalAct(astr[0], astr[1], fStopStart, prRecorder);
        acRefused = ""; // 2 is never written by ChLocalAct: no reply
    }
    if (prAct) {
        fWaitingOnMain = true;
        mainQueue(prAct);
        if (!DoWaitOnMain(MAX_WAIT_MS))
            return REPLY_TIMEOUT;
        if (!fReplyByResult)
            return REPLY_OK;
        return ResultReply(iActResult.load(), acRefused);
    }

    // Commands that only hand something over: the reply comes at once.
    if (strWord == "reconfig") {
        mainQueue(new ReconfigAct(prRecorder));
        return REPLY_OK;
    }
    if (strWord == "bittrace_start") {
        if (prRecorder->fBitStreamTracing.load())
            return "ERR: already started";
        mainQueue(new TraceAct(true, ChannelParam(strParam), prRecorder));
        return REPLY_OK;
    }
    if (strWord == "bittrace_stop") {
        if (!prRecorder->fBitStreamTracing.load())
            return "ERR: already stopped";
        mainQueue(new TraceAct(false, -1, prRecorder));
        return REPLY_OK;
    }
    return REPLY_UNKNOWN_COMMAND;
}

// ---- start and stop ------------------------------------------------------------------

void init_reactor(CRecorder* prRecorder)
{
    CrecReactor* prReactor = new CrecReactor(prRecorder);
    g_prReactor = prReactor;
    if (!prReactor->start()) {
        g_prReactor = nullptr;
        delete prReactor;
    }
}

void close_reactor()
{
    CrecReactor* prReactor = g_prReactor.load();
    if (!prReactor)
        return;
    prReactor->close();
    g_prReactor = nullptr;
    delete prReactor;
}
