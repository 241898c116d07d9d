// The simulator's trace streams: threads of the library that call the
// caller's callbacks until the stop call (or SsmCloseCti), the raw bit
// flow's pattern, the signalling cycle and injected records, and the WAVE
// file of SsmRecToFile. The streams run in real time, so the tests wait for
// a few of their periods.
#include "sim_fixture.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <thread>
#include <vector>

namespace {

const int kCh = 60; // first analog channel of the sample hardware

struct Collected {
    std::mutex m;
    std::vector<unsigned char> vBytes;
    std::vector<int> vChannels;
    bool fOtherThread = true;
    std::vector<std::pair<int, int>> vRecords; // (type, command or event code)
    std::vector<std::string> vTexts;           // type 1 buffers, dwDataLength bytes
    std::vector<std::string> vCommandData;     // type 0 bytes
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(m);
        return vChannels.size();
    }
};
Collected* g_prCollected = nullptr;
std::thread::id g_rTestThread;

int RawCallback(int nCh, unsigned int uSize, unsigned char* pucData, unsigned short, unsigned short)
{
    std::lock_guard<std::mutex> lock(g_prCollected->m);
    g_prCollected->vBytes.insert(g_prCollected->vBytes.end(), pucData, pucData + uSize);
    g_prCollected->vChannels.push_back(nCh);
    g_prCollected->fOtherThread &= std::this_thread::get_id() != g_rTestThread;
    return 1;
}

int DstCallback(DWORD, PCHAR szTime, int nCh, UCHAR ucType, UCHAR ucCmd, WORD wLen, PUCHAR pucData,
                PVOID pEvent)
{
    std::lock_guard<std::mutex> lock(g_prCollected->m);
    g_prCollected->vChannels.push_back(nCh);
    g_prCollected->fOtherThread &= std::this_thread::get_id() != g_rTestThread && szTime != nullptr;
    if (ucType == 0) {
        g_prCollected->vRecords.push_back({0, ucCmd});
        g_prCollected->vCommandData.push_back(std::string(reinterpret_cast<char*>(pucData), wLen));
        return 1;
    }
    tagDST_EVENT ev;
    memcpy(&ev, pEvent, sizeof(ev));
    g_prCollected->vRecords.push_back({1, static_cast<int>(ev.dwEventCode)});
    g_prCollected->vTexts.push_back(
        std::string(reinterpret_cast<char*>(ev.pucBuffer), std::min<DWORD>(ev.dwDataLength, 255)));
    return 1;
}

int ThreadCount()
{
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    while (d && readdir(d))
        ++n;
    if (d)
        closedir(d);
    return n - 2; // "." and ".."
}

class SimTraceTest : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        g_prCollected = &rCollected;
        g_rTestThread = std::this_thread::get_id();
    }
    void TearDown() override
    {
        SimTest::TearDown(); // closes the driver, which stops every stream
        g_prCollected = nullptr;
    }
    // Waits up to 3 s for n callbacks.
    bool WaitFor(size_t n)
    {
        for (int i = 0; i < 300 && rCollected.Count() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return rCollected.Count() >= n;
    }
    // No callback for a few periods after a stop.
    bool StaysQuiet()
    {
        size_t n = rCollected.Count();
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        return rCollected.Count() == n;
    }
    Collected rCollected;
};

TEST_F(SimTraceTest, BitFlowCallsBackWithThePatternOnALibraryThreadUntilStopped)
{
    ASSERT_EQ(Start(), 0) << LastError();
    EXPECT_EQ(SsmStartRecBitFlow(5000, RawCallback), -1); // no such channel: no stream
    ASSERT_EQ(SsmStartRecBitFlow(kCh, RawCallback), 0);
    ASSERT_TRUE(WaitFor(3));
    EXPECT_NE(Command("trace").find("bitflow 60 file - dst -"), std::string::npos) << Command("trace");
    EXPECT_EQ(SsmStopRecBitFlow(kCh), 0);
    EXPECT_TRUE(StaysQuiet());

    std::lock_guard<std::mutex> lock(rCollected.m);
    EXPECT_TRUE(rCollected.fOtherThread);
    EXPECT_EQ(rCollected.vBytes.size(), rCollected.vChannels.size() * 320);
    for (int nCh : rCollected.vChannels)
        EXPECT_EQ(nCh, kCh);
    EXPECT_EQ(rCollected.vBytes, Pattern(1000 + kCh, 0, rCollected.vBytes.size()));
}

TEST_F(SimTraceTest, SignallingTraceCyclesThroughBothKindsAndDeliversInjectedRecords)
{
    ASSERT_EQ(Start(), 0) << LastError();
    EXPECT_EQ(Command("trace dst 61 0 46").substr(0, 3), "ERR"); // no trace on that channel
    UCHAR acNone[1] = {0};
    ASSERT_EQ(DTRSendRawData2A3(-1, acNone, kCh, 255, 1, DstCallback), 0);
    ASSERT_TRUE(WaitFor(10));
    {
        std::lock_guard<std::mutex> lock(rCollected.m);
        EXPECT_TRUE(rCollected.fOtherThread);
        std::vector<std::pair<int, int>> vFirst(rCollected.vRecords.begin(),
                                                rCollected.vRecords.begin() + 10);
        std::vector<std::pair<int, int>> vExpected = {{0, 46}, {1, 0x1006}, {0, 47}, {1, 4104},
                                                      {0, 48}, {1, 0x1006}, {0, 49}, {1, 4104},
                                                      {0, 50}, {1, 0x1006}};
        EXPECT_EQ(vFirst, vExpected);
        // The LCD text fills the whole buffer, without a NUL.
        ASSERT_GE(rCollected.vTexts.size(), 2u);
        EXPECT_EQ(rCollected.vTexts[1].size(), 255u);
        EXPECT_EQ(rCollected.vTexts[1].find('\0'), std::string::npos);
        EXPECT_EQ(rCollected.vTexts[1].substr(0, 14), "LCD message 0 ");
    }

    // Injected records arrive as given, with the cycle switched off.
    EXPECT_EQ(Command("trace cycle off"), "OK cycle off");
    ASSERT_TRUE(StaysQuiet());
    size_t n = rCollected.Count();
    EXPECT_EQ(Command("trace dst 60 0 47 hex=0aff00"), "OK injected type 0 record for 60");
    EXPECT_EQ(Command("trace dst 60 1 4104 sub=2 text=hello  world"), "OK injected type 1 record for 60");
    EXPECT_EQ(Command("trace dst 60 1 4104 hex=" + std::string(512, 'a')),
              "ERR an event buffer holds at most 255 bytes");
    ASSERT_TRUE(WaitFor(n + 2));
    {
        std::lock_guard<std::mutex> lock(rCollected.m);
        EXPECT_EQ(rCollected.vRecords[n], std::make_pair(0, 47));
        EXPECT_EQ(rCollected.vCommandData.back(), std::string("\x0a\xff\x00", 3));
        EXPECT_EQ(rCollected.vRecords[n + 1], std::make_pair(1, 4104));
        EXPECT_EQ(rCollected.vTexts.back(), "hello  world");
    }

    // Stopped as the daemon stops it: enable 0 and no callback.
    ASSERT_EQ(DTRSendRawData2A3(-1, acNone, kCh, 255, 0, nullptr), 0);
    EXPECT_TRUE(StaysQuiet());
    EXPECT_EQ(Command("trace dst 60 0 46").substr(0, 3), "ERR");
}

TEST_F(SimTraceTest, RecToFileWritesAWaveOfTheLineAudioUntilStopped)
{
    ASSERT_EQ(Start(), 0) << LastError();
    std::string strPath = strRoot + "/trace.wav";
    EXPECT_EQ(SsmRecToFile(kCh, strPath.c_str(), 3, 0, static_cast<DWORD>(-1), 0, 0), -1);
    EXPECT_NE(LastError().find("format 3"), std::string::npos) << LastError();
    EXPECT_EQ(SsmRecToFile(kCh, (strRoot + "/no/dir/x.wav").c_str(), 6, 0, static_cast<DWORD>(-1), 0, 0), -1);

    ASSERT_EQ(Command("audio 60 pattern 5").substr(0, 2), "OK");
    ASSERT_EQ(SsmRecToFile(kCh, strPath.c_str(), 6, 0, static_cast<DWORD>(-1), 0, 0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(SsmStopRecToFile(kCh), 0);

    std::string strWave = ReadFile(strPath);
    ASSERT_GT(strWave.size(), 44u + 320u);
    uint32_t uData = 0;
    memcpy(&uData, strWave.data() + 40, 4);
    EXPECT_EQ(strWave.substr(0, 4), "RIFF");
    EXPECT_EQ(strWave.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(strWave[20], 6); // A-law
    EXPECT_EQ(uData, strWave.size() - 44);
    EXPECT_EQ(0, memcmp(strWave.data() + 44, Pattern(5, 0, uData).data(), uData));
}

TEST_F(SimTraceTest, CloseStopsEveryStream)
{
    int iThreadsBefore = ThreadCount();
    ASSERT_EQ(Start(), 0) << LastError();
    UCHAR acNone[1] = {0};
    ASSERT_EQ(SsmStartRecBitFlow(kCh, RawCallback), 0);
    ASSERT_EQ(SsmStartRecBitFlow(kCh + 1, RawCallback), 0);
    ASSERT_EQ(SsmRecToFile(kCh, (strRoot + "/t.wav").c_str(), 7, 0, static_cast<DWORD>(-1), 0, 0), 0);
    ASSERT_EQ(DTRSendRawData2A3(-1, acNone, kCh, 255, 1, DstCallback), 0);
    ASSERT_TRUE(WaitFor(6));
    EXPECT_NE(Command("trace").find("running 4"), std::string::npos) << Command("trace");
    SsmCloseCti();
    EXPECT_TRUE(StaysQuiet());
    EXPECT_NE(Command("trace").find("running 0"), std::string::npos) << Command("trace");
    EXPECT_EQ(ThreadCount(), iThreadsBefore);
}

} // namespace
