// bittrace.h - bit stream tracing of one driver channel: the trace files
// and the callbacks through which the card library fills them.
//
// The run loop starts a trace once every call is ended and the queues are
// idle (StartBitStreamTracing), serves only the main queue while it runs,
// and ends it with StopBitStreamTracing. Meanwhile the card library calls
// RecRawDataCallBack and DSTCallback on threads of its own. They touch only
// the trace files and the globals below.
//
// DESIGN: g_rTraceMutex guards the three FILE handles against their close:
// a callback takes it for each record and skips a null handle; the stop
// nulls the handles under it and closes them. The handles are atomics as
// well so that a callback that comes too late can see null cheaply. A file
// that can't be opened stays null: the trace files are diagnostics, and the
// rest of the trace goes on without them.
#ifndef BITTRACE_H
#define BITTRACE_H

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "shpa3api.h"

extern std::mutex g_rTraceMutex;
extern std::atomic<FILE*> hRawBitFile;      // trace.bit
extern std::atomic<FILE*> hCasTraceFile;    // dch.log
extern std::atomic<FILE*> hCasMsgTraceFile; // dmsg.log
extern std::atomic<int> g_iTraceChNr;
extern std::atomic<time_t> g_tTraceStartTime;

// Raw bit flow of the traced channel: writes size bytes to trace.bit.
// Returns 1. Any thread.
int RecRawDataCallBack(int nCh, unsigned int size, unsigned char* data, unsigned short usParam1,
                       unsigned short usParam2);

// Signalling trace: type 0 records (a command and its bytes) and type 1
// records (a tagDST_EVENT in pDSTEvent) of the traced channel go to
// dch.log, the LCD message of a type 1 record (event code 4104) also to
// dmsg.log. Records of other channels are dropped. Returns 1. Any thread.
int DSTCallback(DWORD dwNum, PCHAR szTime, int nCh, UCHAR ucProcessType, UCHAR ucCmd, WORD wLen,
                PUCHAR pucData, PVOID pDSTEvent);

// Removes the old trace files, opens the new ones with their first lines and
// starts the card's streams of driver channel iChNr. Main thread.
void StartBitStreamTracing(int iChNr);

// Stops the streams, waits 500 ms for callbacks still under way, closes the
// files. Main thread.
void StopBitStreamTracing();

#endif
