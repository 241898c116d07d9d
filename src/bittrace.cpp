// bittrace.cpp - the trace files of bit stream tracing and the card
// library's callbacks that write them (see bittrace.h for the locking).
//
// Order at the start: old files removed, trace.bit opened before the raw
// stream starts, the two logs opened and headed before the signalling
// trace starts. At the stop: streams stopped, 500 ms for callbacks still
// running, then the handles nulled and closed under the mutex, so that a
// late callback finds null instead of a closed file.
#include "bittrace.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "filedir.h"
#include "ftime.h"
#include "logging.h"
#include "paths.h"

std::mutex g_rTraceMutex;
std::atomic<FILE*> hRawBitFile{nullptr};
std::atomic<FILE*> hCasTraceFile{nullptr};
std::atomic<FILE*> hCasMsgTraceFile{nullptr};
std::atomic<int> g_iTraceChNr{-1};
std::atomic<time_t> g_tTraceStartTime{0};

namespace {

const long TRACE_CLOSE_WAIT_US = 500000;
const int LCD_MESSAGE_EVENT = 4104;
const DWORD DST_MASK = 255;

std::string TracePath(const char* name)
{
    return SysPath("/recordings/log/") + name;
}

// Null, with a log line, when the file can't be made.
FILE* OpenTraceFile(const std::string& strPath)
{
    FILE* f = fopen(strPath.c_str(), "we");
    if (!f)
        lg(4, "Cannot open trace file %s: %s", strPath.c_str(), strerror(errno));
    return f;
}

// The command letter of a type 0 record: 46 to 49 are known commands.
char CmdTypeLetter(UCHAR ucCmd)
{
    static const char acLetters[] = "SUDV";
    return ucCmd >= 46 && ucCmd <= 49 ? acLetters[ucCmd - 46] : '?';
}

void WriteCommandRecord(FILE* f, PCHAR szTime, int nCh, UCHAR ucCmd, WORD wLen, PUCHAR pucData)
{
    fprintf(f, "%s DST ch[%3d] CmdType[%c] Len[%3u] Data--> ", szTime ? szTime : "", nCh,
            CmdTypeLetter(ucCmd), static_cast<unsigned>(wLen));
    // A null data pointer with a length gives the line without bytes.
    for (unsigned i = 0; pucData && i < wLen; ++i)
        fprintf(f, "%2x ", static_cast<unsigned>(pucData[i]));
    fputc('\n', f);
}

void WriteEventRecord(FILE* fLog, FILE* fMsg, int nCh, PVOID pDSTEvent)
{
    // Copied, since the library's record need not be aligned for our struct.
    tagDST_EVENT rEvent;
    memcpy(&rEvent, pDSTEvent, sizeof(rEvent));
    int iSeconds = static_cast<int>(WallNow() - g_tTraceStartTime.load());
    fprintf(fLog, "[%02d] %8d %08x %08x %08x %08x\n", nCh, iSeconds, rEvent.dwEventCode, rEvent.dwSubReason,
            rEvent.dwXtraInfo, rEvent.dwDataLength);
    if (rEvent.dwEventCode != LCD_MESSAGE_EVENT || !fMsg)
        return;
    // The text fills the whole field when it is 255 bytes long: no NUL then.
    const char* pcText = reinterpret_cast<const char*>(rEvent.pucBuffer);
    int iLen = static_cast<int>(strnlen(pcText, sizeof(rEvent.pucBuffer)));
    fprintf(fMsg, "[%02d] %8d LCD message\n%.*s\n", nCh, iSeconds, iLen, pcText);
}

} // namespace

int RecRawDataCallBack(int, unsigned int size, unsigned char* data, unsigned short, unsigned short)
{
    std::lock_guard<std::mutex> lock(g_rTraceMutex);
    FILE* f = hRawBitFile.load();
    if (f && data)
        fwrite(data, 1, size, f);
    return 1;
}

int DSTCallback(DWORD, PCHAR szTime, int nCh, UCHAR ucProcessType, UCHAR ucCmd, WORD wLen, PUCHAR pucData,
                PVOID pDSTEvent)
{
    std::lock_guard<std::mutex> lock(g_rTraceMutex);
    FILE* fLog = hCasTraceFile.load();
    if (!fLog || nCh != g_iTraceChNr.load())
        return 1;
    if (ucProcessType == 0)
        WriteCommandRecord(fLog, szTime, nCh, ucCmd, wLen, pucData);
    else if (ucProcessType == 1 && pDSTEvent)
        WriteEventRecord(fLog, hCasMsgTraceFile.load(), nCh, pDSTEvent);
    return 1;
}

void StartBitStreamTracing(int iChNr)
{
    lg(5, "Starting bit stream tracing on channel %d", iChNr);
    // The log directory exists only when the card library logs there; a
    // directory that can't be made leaves the files closed.
    std::string strDir = SysPath("/recordings/log");
    EnsurePath(strDir);
    if (mkdir(strDir.c_str(), 0777) != 0 && errno != EEXIST)
        lg(4, "Cannot make %s: %s", strDir.c_str(), strerror(errno));
    for (const char* name : {"trace.wav", "trace.bit", "dch.log", "dmsg.log"})
        DeleteFn(TracePath(name).c_str());

    g_iTraceChNr = iChNr;
    {
        std::lock_guard<std::mutex> lock(g_rTraceMutex);
        hRawBitFile = OpenTraceFile(TracePath("trace.bit"));
    }
    SsmStartRecBitFlow(iChNr, RecRawDataCallBack);
    SsmRecToFile(iChNr, TracePath("trace.wav").c_str(), REC_FORMAT_ALAW, 0, static_cast<DWORD>(-1), 0, 0);
    {
        std::lock_guard<std::mutex> lock(g_rTraceMutex);
        FILE* fLog = OpenTraceFile(TracePath("dch.log"));
        FILE* fMsg = OpenTraceFile(TracePath("dmsg.log"));
        if (fLog)
            fputs("[Ch] Seconds  EventCo. SubReas. XtraInfo DataLen.\n", fLog);
        if (fMsg)
            fputs("[Ch] Seconds\n", fMsg);
        hCasTraceFile = fLog;
        hCasMsgTraceFile = fMsg;
    }
    g_tTraceStartTime = WallNow();
    UCHAR acNoData[1] = {0};
    DTRSendRawData2A3(-1, acNoData, iChNr, DST_MASK, 1, DSTCallback);
}

void StopBitStreamTracing()
{
    int iChNr = g_iTraceChNr.load();
    SsmStopRecBitFlow(iChNr);
    SsmStopRecToFile(iChNr);
    UCHAR acNoData[1] = {0};
    DTRSendRawData2A3(-1, acNoData, iChNr, DST_MASK, 0, nullptr);
    SleepUs(TRACE_CLOSE_WAIT_US);
    {
        std::lock_guard<std::mutex> lock(g_rTraceMutex);
        for (std::atomic<FILE*>* ph : {&hRawBitFile, &hCasTraceFile, &hCasMsgTraceFile}) {
            FILE* f = ph->exchange(nullptr);
            if (f)
                fclose(f);
        }
    }
    lg(5, "Stopped bit stream tracing");
}
