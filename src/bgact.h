// bgact.h - the action engine: slow work on two background workers, the
// rest of it back on the main thread.
//
// DESIGN: an action is queued with queueAction(); a worker takes it from
// the shared FIFO, runs performThread() (which may take long but touches
// no channel and no database), then hands it to the main thread with
// mainQueue(). The main loop runs performMain() and completed() and
// destroys it. The worker posts the action before it clears its busy flag,
// so whenever isBgQueueReady() is true every finished action already stands
// in the main queue and the stop sequence cannot miss one in transit.
#ifndef BGACT_H
#define BGACT_H

#include <mutex>
#include <string>

#include "fstring.h"
#include "irecorder.h"

class ThreadAct {
public:
    virtual void performThread() = 0;  // worker thread
    virtual void performMain() = 0;    // main thread, after performThread
    virtual ~ThreadAct() = default;
    virtual void completed() {}        // main thread, right after performMain
};

// Removes a file (securely if configured) in the background.
class DeleteFileAct : public ThreadAct {
public:
    explicit DeleteFileAct(std::string strFile) : strFilename(std::move(strFile)) {}
    void performThread() override;
    void performMain() override {}

    std::string strFilename;
};

// Finishes a kept recording. Created by BaseChannel::StopRecording with
// everything it needs copied in, so the channel is free for its next call.
// performThread (worker): conversion, companions, recording check,
// encryption, checksum into callextra. performMain (main thread): merges
// the active row's carry-over and moves the call to Calls.
class AudioConvAct : public ThreadAct {
public:
    void performThread() override;
    void performMain() override;

    IDatabase* prDB = nullptr;        // used only in performMain
    ERecEncodings eRecEnc = RECENC_G711A;
    bool fStereo = false;
    std::string strFullFilename;      // captured audio (".g711" added for GSM/MP3)
    std::string strFullFilenameFinal; // finished recording under the recording root
    std::string strArchiveFilename;   // finished recording under the archive root
    int iActiveCallID = -1;
    bool fToEmail = false;
    int iEmailContactID = -1;
    int iDuration = 0;
    std::string strCheckSumType;      // "md5", "sha1", "sha256", "sha512", else none
    ICRecorder* prRecorder = nullptr; // fRecCheck, fALE, EmailRecording, fNeedCallPost
    bool fStoreOnDemandDelay = false;
    StringMap rCallInfo;              // the future Calls row
};

class LineCom;

// The post-call tracker: a long-running PHP script ("tracker.php") that is
// told, one line per call, which call has got its Calls row. The script is
// a child process kept by LineCom and started by the first post, so a
// system that needs no posts never starts PHP.
// DESIGN: both workers may post; rMutex makes them take turns, since the
// child carries one exchange at a time, and it is held for the whole
// exchange (the first one included). Only worker threads post, so a slow
// script holds up background work but never the main thread.
class Tracker {
public:
    // Creates and sets up the child link once; the caller holds rMutex.
    void init();
    // Sends "type=crec&act=post&id=<id>\n" and logs the reply or the
    // failure; a failed post is not retried. Worker threads.
    void postCall(int id);
    // Stops the child and frees the link; nothing without an earlier post.
    // Called by close_bgact when no worker is left.
    void close();

private:
    LineCom* m_lineCom = nullptr; // guarded by rMutex; owned
    std::mutex rMutex;
};

extern Tracker theTracker;

// Tells the tracker about one finished call, from a worker thread.
class CallPostAct : public ThreadAct {
public:
    explicit CallPostAct(int id) : iCallID(id) {}
    void performThread() override;
    void performMain() override {}

    int iCallID; // Calls.id, -1 after a failed AddCall
};

// Runs strProgram ("md5sum", ...) with " -b " on the file and gives its
// output up to the first blank: the sum. "" when the output has no blank
// (no file, no tool). Any thread.
std::string calcSum(std::string strProgram, std::string strFileName);

void init_bgact();
void close_bgact();
// Takes ownership. Without a handler the action runs at once on the caller.
void queueAction(ThreadAct* act);
// True when no handler exists or both workers are idle and the queue is empty.
bool isBgQueueReady();

#endif
