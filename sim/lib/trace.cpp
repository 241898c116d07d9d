// trace.cpp - the trace stream threads (see trace.h for what they deliver
// and for the locking).
//
// A stream waits on its own condition variable until its next period is due
// or a record is injected; a stop sets the flag, wakes it and joins it, so
// the stop call returns only after the last callback has returned.
#include "trace.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using SteadyClock = std::chrono::steady_clock;

enum StreamKind { KIND_BITFLOW = 0, KIND_FILE = 1, KIND_DST = 2 };
const char* const kKindNames[] = {"bitflow", "file", "dst"};

const size_t kChunkBytes = 320; // 40 ms of 8000 bytes a second
const std::chrono::milliseconds kChunkPeriod(40);
const std::chrono::milliseconds kDstPeriod(50);
const uint64_t kBitFlowSeedBase = 1000;
const uint64_t kDstDataSeedBase = 3000;
const DWORD kKeyEvent = 0x1006;
const DWORD kLcdEvent = 4104;
const size_t kDstBufferBytes = 255;

std::atomic<bool> g_fDstCycle{true};
std::atomic<uint64_t> g_ullBitFlowChunks{0}, g_ullBitFlowBytes{0}, g_ullFileBytes{0};
std::atomic<uint64_t> g_ullDstRecords{0}, g_ullDstInjected{0};

class Stream {
public:
    explicit Stream(int nCh) : nChannel(nCh) {}
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void Start(std::chrono::milliseconds period)
    {
        rThread = std::thread([this, period] { Run(period); });
    }
    // False when called on the stream's own thread, which can't join itself:
    // the caller must then leave the object alive.
    bool Stop()
    {
        {
            std::lock_guard<std::mutex> lock(rMutex);
            fStop = true;
        }
        rCv.notify_all();
        if (rThread.get_id() == std::this_thread::get_id()) {
            rThread.detach();
            return false;
        }
        if (rThread.joinable())
            rThread.join();
        Finish();
        return true;
    }

protected:
    // One period's delivery; no lock held.
    virtual void Tick() = 0;
    // Under rMutex: something to deliver before the period is up.
    virtual bool HasUrgent() { return false; }
    // No lock held.
    virtual void DeliverUrgent() {}
    // After the thread ended.
    virtual void Finish() {}

    const int nChannel;
    std::mutex rMutex; // guards fStop and what subclasses say
    std::condition_variable rCv;

private:
    void Run(std::chrono::milliseconds period)
    {
        auto next = SteadyClock::now() + period;
        std::unique_lock<std::mutex> lock(rMutex);
        while (!fStop) {
            bool fWoken = rCv.wait_until(lock, next, [this] { return fStop || HasUrgent(); });
            if (fStop)
                break;
            lock.unlock();
            if (fWoken) {
                DeliverUrgent();
            } else {
                Tick();
                // A thread held up for long resumes the pace instead of catching up.
                next = std::max(next + period, SteadyClock::now());
            }
            lock.lock();
        }
    }

    bool fStop = false;
    std::thread rThread;
};

class BitFlowStream : public Stream {
public:
    BitFlowStream(int nCh, PRECRAWDATACALLBACK pfn) : Stream(nCh), pfnCallback(pfn) {}

protected:
    void Tick() override
    {
        unsigned char acChunk[kChunkBytes];
        PatternBytes(kBitFlowSeedBase + static_cast<uint64_t>(nChannel), ullPos, acChunk, sizeof(acChunk));
        ullPos += sizeof(acChunk);
        g_ullBitFlowChunks++;
        g_ullBitFlowBytes += sizeof(acChunk);
        pfnCallback(nChannel, sizeof(acChunk), acChunk, 0, 0);
    }

private:
    PRECRAWDATACALLBACK pfnCallback;
    uint64_t ullPos = 0;
};

class FileStream : public Stream {
public:
    FileStream(int nCh, FILE* f, int iFmt, const AudioSource& src)
        : Stream(nCh), fFile(f), iFormat(iFmt), rSource(src)
    {
        WriteHeader(); // sizes 0 until the stop
    }

protected:
    void Tick() override
    {
        unsigned char acChunk[kChunkBytes];
        FillAudio(rSource, iFormat, acChunk, sizeof(acChunk));
        ullDataBytes += fwrite(acChunk, 1, sizeof(acChunk), fFile);
        g_ullFileBytes += sizeof(acChunk);
    }
    void Finish() override
    {
        rewind(fFile);
        WriteHeader();
        fclose(fFile);
    }

private:
    static void Put32(unsigned char* p, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
    // A 44-byte WAVE header: G.711 in the recording's law, 8000 Hz mono.
    void WriteHeader()
    {
        unsigned char h[44] = {0};
        uint32_t uData = static_cast<uint32_t>(ullDataBytes);
        memcpy(h, "RIFF", 4);
        Put32(h + 4, 36 + uData);
        memcpy(h + 8, "WAVEfmt ", 8);
        Put32(h + 16, 16);
        h[20] = static_cast<unsigned char>(iFormat); // WAVE tags 6 and 7 are A-law and u-law too
        h[22] = 1;
        Put32(h + 24, 8000);
        Put32(h + 28, 8000);
        h[32] = 1;
        h[34] = 8;
        memcpy(h + 36, "data", 4);
        Put32(h + 40, uData);
        fwrite(h, 1, sizeof(h), fFile);
        fflush(fFile);
    }

    FILE* fFile;
    int iFormat;
    AudioSource rSource; // a copy: the channel's own source stays with its memory recording
    uint64_t ullDataBytes = 0;
};

class DstStream : public Stream {
public:
    DstStream(int nCh, PDSTCALLBACK pfn) : Stream(nCh), pfnCallback(pfn), rStart(SteadyClock::now()) {}

    void Inject(const DstRecord& rec)
    {
        {
            std::lock_guard<std::mutex> lock(rMutex);
            qInjected.push_back(rec);
        }
        rCv.notify_all();
    }

protected:
    void Tick() override
    {
        if (g_fDstCycle)
            Deliver(CycleRecord(uCycle++));
    }
    bool HasUrgent() override { return !qInjected.empty(); }
    void DeliverUrgent() override
    {
        std::deque<DstRecord> q;
        {
            std::lock_guard<std::mutex> lock(rMutex);
            q.swap(qInjected);
        }
        for (const DstRecord& rec : q) {
            g_ullDstInjected++;
            Deliver(rec);
        }
    }

private:
    // Record i of the cycle: even ones are commands 46..50 (50 is no known
    // command) with a few pattern bytes; then a key event and an LCD message
    // by turns. The LCD text fills all 255 bytes, without a NUL.
    DstRecord CycleRecord(uint32_t i) const
    {
        DstRecord rec;
        if (i % 2 == 0) {
            rec.ucType = 0;
            rec.ucCmd = static_cast<UCHAR>(46 + (i / 2) % 5);
            std::string data(4 + (i / 2) % 5, '\0');
            PatternBytes(kDstDataSeedBase + static_cast<uint64_t>(nChannel), i * 8ull,
                         reinterpret_cast<unsigned char*>(&data[0]), data.size());
            rec.strData = data;
        } else if (i % 4 == 1) {
            rec.ucType = 1;
            rec.dwEventCode = kKeyEvent;
            rec.dwSubReason = (i / 4) % 12;
        } else {
            rec.ucType = 1;
            rec.dwEventCode = kLcdEvent;
            std::string text = "LCD message " + std::to_string(i / 4) + " ";
            while (text.size() < kDstBufferBytes)
                text += static_cast<char>('a' + text.size() % 26);
            rec.strData = text;
            rec.dwDataLength = static_cast<DWORD>(kDstBufferBytes);
        }
        return rec;
    }

    void Deliver(const DstRecord& rec)
    {
        double dSec = std::chrono::duration<double>(SteadyClock::now() - rStart).count();
        int iMs = static_cast<int>(dSec * 1000);
        char acTime[32];
        snprintf(acTime, sizeof(acTime), "%02d:%02d:%02d.%03d", iMs / 3600000, iMs / 60000 % 60,
                 iMs / 1000 % 60, iMs % 1000);
        g_ullDstRecords++;
        if (rec.ucType == 0) {
            std::vector<UCHAR> data(rec.strData.begin(), rec.strData.end());
            data.push_back(0); // a valid pointer also for no bytes
            pfnCallback(++dwNum, acTime, nChannel, 0, rec.ucCmd, static_cast<WORD>(rec.strData.size()),
                        data.data(), nullptr);
            return;
        }
        tagDST_EVENT ev;
        memset(&ev, 0, sizeof(ev));
        ev.dwEventCode = rec.dwEventCode;
        ev.dwSubReason = rec.dwSubReason;
        ev.dwXtraInfo = rec.dwXtraInfo;
        ev.dwDataLength = rec.dwDataLength;
        size_t n = std::min(rec.strData.size(), kDstBufferBytes);
        memcpy(ev.pucBuffer, rec.strData.data(), n);
        pfnCallback(++dwNum, acTime, nChannel, 1, 0,
                    static_cast<WORD>(std::min<DWORD>(rec.dwDataLength, 255)), ev.pucBuffer, &ev);
    }

    PDSTCALLBACK pfnCallback;
    SteadyClock::time_point rStart;
    uint32_t uCycle = 0;
    DWORD dwNum = 0;
    std::deque<DstRecord> qInjected; // guarded by rMutex
};

// The running streams by kind and channel. Never destroyed: a process that
// ends without SsmCloseCti must not meet joinable threads in a destructor.
using StreamMap = std::map<std::pair<int, int>, std::unique_ptr<Stream>>;
std::mutex g_rRegistryMutex;
StreamMap& g_mStreams = *new StreamMap();

void StopStream(std::unique_ptr<Stream> prStream)
{
    if (prStream && !prStream->Stop())
        prStream.release(); // stopped from its own callback: its thread still runs on it
}

// Takes the stream of kind/channel out of the registry (null when none).
std::unique_ptr<Stream> TakeStream(int iKind, int nCh)
{
    std::lock_guard<std::mutex> lock(g_rRegistryMutex);
    auto it = g_mStreams.find({iKind, nCh});
    if (it == g_mStreams.end())
        return nullptr;
    std::unique_ptr<Stream> pr = std::move(it->second);
    g_mStreams.erase(it);
    return pr;
}

void RunStream(int iKind, int nCh, std::unique_ptr<Stream> prStream, std::chrono::milliseconds period)
{
    StopStream(TakeStream(iKind, nCh));
    prStream->Start(period);
    std::unique_ptr<Stream> prOld;
    {
        std::lock_guard<std::mutex> lock(g_rRegistryMutex);
        std::unique_ptr<Stream>& slot = g_mStreams[{iKind, nCh}];
        prOld = std::move(slot); // a start that raced with this one
        slot = std::move(prStream);
    }
    StopStream(std::move(prOld));
}

} // namespace

void StartBitFlowStream(int nCh, PRECRAWDATACALLBACK pfn)
{
    if (!pfn) {
        StopBitFlowStream(nCh);
        return;
    }
    RunStream(KIND_BITFLOW, nCh, std::unique_ptr<Stream>(new BitFlowStream(nCh, pfn)), kChunkPeriod);
}

void StopBitFlowStream(int nCh)
{
    StopStream(TakeStream(KIND_BITFLOW, nCh));
}

bool StartFileStream(int nCh, const std::string& strPath, int iFormat, const AudioSource& src,
                     std::string& err)
{
    if (iFormat != REC_FORMAT_ALAW && iFormat != REC_FORMAT_ULAW) {
        err = "format " + std::to_string(iFormat) + " is not 6 (A-law) or 7 (u-law)";
        return false;
    }
    FILE* f = fopen(strPath.c_str(), "wbe");
    if (!f) {
        err = "cannot create " + strPath + ": " + strerror(errno);
        return false;
    }
    RunStream(KIND_FILE, nCh, std::unique_ptr<Stream>(new FileStream(nCh, f, iFormat, src)), kChunkPeriod);
    return true;
}

void StopFileStream(int nCh)
{
    StopStream(TakeStream(KIND_FILE, nCh));
}

void StartDstStream(int nCh, PDSTCALLBACK pfn)
{
    if (!pfn) {
        StopDstStream(nCh);
        return;
    }
    RunStream(KIND_DST, nCh, std::unique_ptr<Stream>(new DstStream(nCh, pfn)), kDstPeriod);
}

void StopDstStream(int nCh)
{
    StopStream(TakeStream(KIND_DST, nCh));
}

void StopAllStreams()
{
    StreamMap mAll;
    {
        std::lock_guard<std::mutex> lock(g_rRegistryMutex);
        mAll.swap(g_mStreams);
    }
    for (auto& entry : mAll)
        StopStream(std::move(entry.second));
}

bool InjectDstRecord(int nCh, const DstRecord& rec)
{
    std::lock_guard<std::mutex> lock(g_rRegistryMutex);
    auto it = g_mStreams.find({KIND_DST, nCh});
    if (it == g_mStreams.end())
        return false;
    static_cast<DstStream*>(it->second.get())->Inject(rec);
    return true;
}

void SetDstCycle(bool fOn)
{
    g_fDstCycle = fOn;
}

std::string TraceReport()
{
    std::string out = "OK trace";
    int iRunning = 0;
    {
        std::lock_guard<std::mutex> lock(g_rRegistryMutex);
        for (int iKind = KIND_BITFLOW; iKind <= KIND_DST; ++iKind) {
            out += std::string(" ") + kKindNames[iKind];
            bool fAny = false;
            for (const auto& entry : g_mStreams) {
                if (entry.first.first != iKind)
                    continue;
                out += (fAny ? "," : " ") + std::to_string(entry.first.second);
                fAny = true;
                ++iRunning;
            }
            if (!fAny)
                out += " -";
        }
    }
    return out + " running " + std::to_string(iRunning) + " cycle " + (g_fDstCycle ? "on" : "off") +
           "; bitflow chunks " + std::to_string(g_ullBitFlowChunks) + " bytes " +
           std::to_string(g_ullBitFlowBytes) + "; file bytes " + std::to_string(g_ullFileBytes) +
           "; dst records " + std::to_string(g_ullDstRecords) + " injected " +
           std::to_string(g_ullDstInjected);
}
