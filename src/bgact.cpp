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
//
// AudioConvAct finishes a kept recording in two halves. On a worker it
// converts, checks, encrypts and hashes the file with external commands
// (each through execCmd/stdSystem, whose popen children inherit no
// descriptor), touching only its own fields and the call's files. On the
// main thread it merges what the front end wrote into the active row during
// the call and moves the call to Calls, back to back, so no other database
// work can come between the read of the row and its deletion. When calls
// need post-processing it then queues a CallPostAct, whose worker half
// tells the tracker; the tracker is closed after the workers, so no post
// can meet a stopped child.
#include "bgact.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <sys/stat.h>
#include <thread>

#include "LineCom.h"
#include "datafile.h"
#include "filedir.h"
#include "logging.h"
#include "paths.h"
#include "recorder.h"
#include "signaling.h"

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
    theTracker.close();
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

// ---- AudioConvAct ---------------------------------------------------------------

namespace {

const char* const ENCODING_GSM = "551";
const char* const ENCODING_MP3 = "801";
// The recording waits in ActiveCalls for a decision on storing on demand.
const long PROCSTATE_STORE_ON_DEMAND = 128;

struct CheckSumTool {
    const char* pcType;
    const char* pcTool;
};
const CheckSumTool arCheckSumTools[] = {
    {"md5", "md5sum"}, {"sha1", "sha1sum"}, {"sha256", "sha256sum"}, {"sha512", "sha512sum"}};

// Unconverted audio under the final name: a failed conversion never loses
// the recording. The copy's status is not looked at.
void CopyUnconverted(const AudioConvAct& rAct)
{
    execCmd("cp " + escapeShellArg(rAct.strFullFilename) + " " + escapeShellArg(rAct.strFullFilenameFinal));
}

void ConvertToGsm(AudioConvAct& rAct)
{
    if (execCmd("sox " + escapeShellArg(rAct.strFullFilename) + " -e gsm-full-rate " +
                escapeShellArg(rAct.strFullFilenameFinal)) == 0)
        rAct.rCallInfo.AddUtf8("encoding", ENCODING_GSM);
    else
        CopyUnconverted(rAct);
}

void ConvertToMp3(AudioConvAct& rAct)
{
    // sox reads '16'.4 as the one number 16.4: bit rate and quality.
    std::string strBitrate = rAct.fStereo ? "32" : "16";
    if (execCmd("sox " + escapeShellArg(rAct.strFullFilename) + " -C " + escapeShellArg(strBitrate) + ".4 " +
                escapeShellArg(rAct.strFullFilenameFinal)) == 0) {
        rAct.rCallInfo.AddUtf8("encoding", ENCODING_MP3);
        return;
    }
    lg(3, "Conversion to MP3 failed, fn: %s", rAct.strFullFilename.c_str());
    // The unconverted audio is a WAVE file: it keeps that extension, and
    // the row's file name follows.
    rAct.strFullFilenameFinal = RemoveFileExtension(rAct.strFullFilenameFinal) + ".wav";
    rAct.rCallInfo.AddUtf8("filename", ExtractFileName(rAct.strFullFilenameFinal));
    CopyUnconverted(rAct);
}

// G.711 is recorded straight under the final name and needs nothing.
void ConvertAudio(AudioConvAct& rAct)
{
    if (rAct.eRecEnc == RECENC_GSM)
        ConvertToGsm(rAct);
    else if (rAct.eRecEnc == RECENC_MP3)
        ConvertToMp3(rAct);
    else
        return;
    chmod(rAct.strFullFilenameFinal.c_str(), 0777); // a failure is harmless
    DeleteFn(rAct.strFullFilename.c_str());
}

// chk is emptied whatever stood there; chktype only changes with a new sum,
// so a stale chktype may stand beside an empty chk.
void StoreCheckSum(AudioConvAct& rAct)
{
    std::string& rstrExtra = rAct.rCallInfo.data["callextra"];
    StdStringMap rMapCallExtra = StringToArray(rstrExtra);
    rMapCallExtra["chk"] = "";
    for (const CheckSumTool& rTool : arCheckSumTools)
        if (rAct.strCheckSumType == rTool.pcType)
            rMapCallExtra["chk"] = calcSum(rTool.pcTool, rAct.strArchiveFilename);
    if (!rMapCallExtra["chk"].empty())
        rMapCallExtra["chktype"] = rAct.strCheckSumType;
    rstrExtra = ArrayToString(rMapCallExtra);
}

// Values the front end wrote into the active row during the call. Where
// both have a key, the call's own value wins, but callextra entries are
// merged and processingstate bits are ORed.
void MergeCarryOver(StdStringMap& rInfo, const StdStringMap& rCarryOver)
{
    for (const auto& kv : rCarryOver) {
        auto it = rInfo.find(kv.first);
        if (it == rInfo.end()) {
            rInfo[kv.first] = kv.second;
        } else if (kv.first == "callextra") {
            StdStringMap rMapCarry = StringToArray(kv.second);
            for (const auto& rNew : StringToArray(it->second))
                rMapCarry[rNew.first] = rNew.second;
            it->second = ArrayToString(rMapCarry);
        } else if (kv.first == "processingstate") {
            it->second = ToStdString(static_cast<long long>(StrToLong(it->second) | StrToLong(kv.second)));
        }
    }
}

// Store on demand with a delay: the row keeps the final values and stays
// in ActiveCalls, marked, until the front end decides; a wanted mail is
// noted for then.
void KeepForStoreOnDemand(AudioConvAct& rAct)
{
    StdStringMap& rInfo = rAct.rCallInfo.data;
    long iState = rInfo.count("processingstate") ? StrToLong(rInfo["processingstate"]) : 0;
    rInfo["processingstate"] = ToStdString(static_cast<long long>(iState | PROCSTATE_STORE_ON_DEMAND));
    if (rAct.fToEmail) {
        StdStringMap rMapCallExtra = StringToArray(rInfo["callextra"]);
        rMapCallExtra["to-email"] = "L";
        rInfo["callextra"] = ArrayToString(rMapCallExtra);
    }
    rAct.prDB->UpdateActiveCall(rAct.iActiveCallID, rAct.rCallInfo);
}

} // namespace

std::string calcSum(std::string strProgram, std::string strFileName)
{
    std::string strOut = stdSystem(strProgram + " -b " + escapeShellArg(strFileName));
    size_t iBlank = strOut.find(' ');
    return iBlank == std::string::npos ? std::string() : strOut.substr(0, iBlank);
}

void AudioConvAct::performThread()
{
    ConvertAudio(*this);
    // After an MP3 fallback these are the ".wav" name's companions; those
    // of the earlier name stay behind.
    DeleteFn((strFullFilenameFinal + ".raw").c_str());
    DeleteFn((strFullFilenameFinal + ".info").c_str());
    std::string strFinal = escapeShellArg(strFullFilenameFinal);
    if (prRecorder && prRecorder->fRecCheck)
        execCmd("quorda_reccheck " + strFinal + " " + escapeShellArg(ToStdString(iDuration)));
    if (prRecorder && prRecorder->fALE) {
        execCmd("quorda_crypt -e -i " + strFinal + " -o " + escapeShellArg(strArchiveFilename));
        // Gone also when encryption failed: no plain copy may stay behind.
        DeleteFn(strFullFilenameFinal.c_str());
    }
    StoreCheckSum(*this);
}

void AudioConvAct::performMain()
{
    if (!prDB)
        return;
    // An empty carry-over (row gone, database down) leaves rCallInfo as it is.
    MergeCarryOver(rCallInfo.data, prDB->GetActiveCallCarryOver(iActiveCallID));
    if (fStoreOnDemandDelay) {
        KeepForStoreOnDemand(*this);
        return;
    }
    // The active row goes first so the call never stands in both tables.
    prDB->DeleteActiveCall(iActiveCallID);
    int iCallID = prDB->AddCall(rCallInfo);
    if (fToEmail && prRecorder)
        prRecorder->EmailRecording(iCallID, iEmailContactID);
    // Even for -1 (AddCall failed): the tracker hears of every finished call.
    if (prRecorder && prRecorder->fNeedCallPost)
        queueAction(new CallPostAct(iCallID));
}

// ---- Post-call tracker ------------------------------------------------------

Tracker theTracker;

void Tracker::init()
{
    if (m_lineCom)
        return;
    std::string strPhp = PhpPath();
    std::string strScript = SysPath("/var/quorda/cmd/tracker.php");
    const char* apcArgs[] = {strPhp.c_str(), strScript.c_str(), nullptr};
    m_lineCom = new LineCom();
    m_lineCom->Init(strPhp.c_str(), apcArgs);
    m_lineCom->SupportsExitMsg();
    m_lineCom->SetRestartInterval(600);
    m_lineCom->SetReadTimeout(30);
    m_lineCom->SetErrorTimeout(120);
    m_lineCom->SetErrorRecheckInterval(1);
}

void Tracker::postCall(int id)
{
    std::lock_guard<std::mutex> lock(rMutex);
    init();
    std::string strReply;
    if (m_lineCom->SendMsg("type=crec&act=post&id=" + ToStdString(id) + "\n", strReply))
        lg(5, "LineCom reply: %s", strReply.c_str());
    else
        lg(3, "LineCom SendMsg post failed");
}

void Tracker::close()
{
    std::lock_guard<std::mutex> lock(rMutex);
    if (!m_lineCom)
        return;
    m_lineCom->Stop();
    delete m_lineCom;
    m_lineCom = nullptr;
}

void CallPostAct::performThread()
{
    lg(5, "Call Post id=%d", iCallID);
    theTracker.postCall(iCallID);
    lg(5, "Post done");
}
