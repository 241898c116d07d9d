// trace.h - the card's trace streams: raw bit flow, recording to a file,
// and the signalling trace of a station-tap channel.
//
// Each stream is a thread of the library that runs from its start call to
// its stop call (or SsmCloseCti) and, like the real library's own threads,
// calls the caller's callback on that thread:
//   bit flow   320 bytes every 40 ms: the pattern of seed 1000 + channel
//   file       the channel's audio source, 320 bytes every 40 ms, into a
//              WAVE file (A-law or u-law) whose header is completed at the stop
//   signalling every 50 ms the next record of a fixed cycle (type 0 command
//              records and type 1 events, among them an LCD message whose
//              255-byte buffer has no NUL), plus records injected by the
//              control protocol, delivered first
// Streams follow real time whatever the clock mode, since the daemon waits
// for them in real time as well.
//
// DESIGN: a registry lock guards the set of streams; each stream has a lock
// of its own for its stop flag and injected records. No lock is held while
// a callback runs or a thread is joined, and the threads never take the
// state lock, so a stop (which joins) may come from any thread but the
// stream's own. After a stop call returns, its callback is not called again.
#ifndef SIM_TRACE_H
#define SIM_TRACE_H

#include "audiosrc.h"
#include "shpa3api.h"

#include <string>

// A signalling record to be delivered as is (control protocol).
struct DstRecord {
    UCHAR ucType = 0;      // 0 command, 1 event
    UCHAR ucCmd = 0;       // type 0
    std::string strData;   // type 0: the bytes; type 1: the event buffer (<= 255)
    DWORD dwEventCode = 0; // type 1
    DWORD dwSubReason = 0;
    DWORD dwXtraInfo = 0;
    DWORD dwDataLength = 0;
};

// A new start of the same kind on a channel replaces the running stream.
void StartBitFlowStream(int nCh, PRECRAWDATACALLBACK pfn);
void StopBitFlowStream(int nCh);
// False with err when the file can't be made or the format isn't 6 or 7.
bool StartFileStream(int nCh, const std::string& strPath, int iFormat, const AudioSource& src,
                     std::string& err);
void StopFileStream(int nCh);
void StartDstStream(int nCh, PDSTCALLBACK pfn);
void StopDstStream(int nCh);
// Every stream (SsmCloseCti).
void StopAllStreams();

// False when no signalling trace runs on the channel.
bool InjectDstRecord(int nCh, const DstRecord& rec);
// The generated cycle of signalling records on or off (default on).
void SetDstCycle(bool fOn);
// Running streams and what they delivered since the library was loaded.
std::string TraceReport();

#endif
