// The card's memory recording in the simulator: exact bytes and progress
// offsets on the virtual clock, the sources, stopping, and overruns.
#include "sim_fixture.h"

#include "g711sim.h"

#include <chrono>
#include <cstring>
#include <vector>

namespace {

const int kCh = 60; // first analog channel of the sample hardware

// Reads the ring as a recorder does: each progress event passes the bytes
// from the last offset up to its own, the tail first when it wrapped.
struct RingReader {
    RingReader(const char* ring, size_t size) : pRing(ring), uSize(size) {}
    const char* pRing;
    size_t uSize;
    size_t uOffset = 0;
    std::vector<unsigned char> vData;
    std::vector<DWORD> vOffsets;

    void Take(DWORD p)
    {
        vOffsets.push_back(p);
        if (p < uOffset) {
            vData.insert(vData.end(), pRing + uOffset, pRing + uSize);
            uOffset = 0;
        }
        vData.insert(vData.end(), pRing + uOffset, pRing + p);
        uOffset = p;
    }
};

std::vector<unsigned char> Pattern(unsigned long long seed, size_t offset, size_t n)
{
    std::vector<unsigned char> v(n);
    shsim_pattern_bytes(seed, offset, v.data(), n);
    return v;
}

class SimAudioTest : public SimTest {
protected:
    // Cards started, events on as the recorder asks for them, step mode.
    void SetUp() override
    {
        SimTest::SetUp();
        StartWithEvents();
        _EVENT_SET_INFO info{};
        info.dwWorkMode = EVENT_POLLING;
        info.dwOutCondition = 2048;
        info.dwOutParamVal = 3;
        ASSERT_EQ(SsmSetEvent(E_PROC_RecordMem, -1, 1, &info), 0);
        shsim_set_step_mode(1);
    }

    // Waits like a run loop for ms of the virtual clock (200 ms per idle
    // wait) and takes what fell due, handing progress events of the
    // channel to the reader.
    static void Run(int ms, RingReader* reader, int ch = kCh)
    {
        for (int idle = 0; idle < ms / 200 || shsim_pending_events() > 0;) {
            SSM_EVENT ev{};
            if (SsmWaitForEventA(200, &ev) != 0) {
                ++idle;
                continue;
            }
            if (reader && ev.wEventCode == E_PROC_RecordMem && ev.nReference == ch)
                reader->Take(ev.dwParam);
        }
    }

    static shsim_audio_stats Stats(int ch = kCh)
    {
        shsim_audio_stats st{};
        EXPECT_EQ(shsim_get_audio_stats(ch, &st), 0);
        return st;
    }
};

} // namespace

TEST_F(SimAudioTest, PatternReachesTheReaderExactlyAcrossWraps)
{
    ASSERT_EQ(Command("audio 60 pattern 42"), "OK audio 60 source pattern 42");
    char acRing[4096];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);
    RingReader reader{acRing, sizeof(acRing)};
    Run(3000, &reader);

    // 3 s are 24000 bytes: progress every 2048 bytes, the offset back to 0
    // whenever the write reaches the end of the ring.
    ASSERT_EQ(reader.vOffsets.size(), 11u);
    for (size_t i = 0; i < reader.vOffsets.size(); ++i)
        EXPECT_EQ(reader.vOffsets[i], i % 2 == 0 ? 2048u : 0u) << i;
    EXPECT_EQ(reader.vData, Pattern(42, 0, 11 * 2048));
    shsim_audio_stats st = Stats();
    EXPECT_EQ(st.delivered, 24000u);
    EXPECT_EQ(st.reported, 11u * 2048);
    EXPECT_EQ(st.events_queued, 11u);
    EXPECT_EQ(st.events_taken, 11u);
    EXPECT_EQ(st.overruns, 0u);

    // The ring after exactly 3 s: the last 4096 bytes, wrapped at 24000 % 4096.
    std::vector<unsigned char> tail = Pattern(42, 24000 - 4096, 4096);
    size_t wrap = 24000 % 4096;
    EXPECT_EQ(memcmp(acRing + wrap, tail.data(), 4096 - wrap), 0);
    EXPECT_EQ(memcmp(acRing, tail.data() + 4096 - wrap, wrap), 0);

    // The stream runs on into the next recording of the line.
    ASSERT_EQ(SsmStopRecToMem(kCh), 0);
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);
    RingReader next{acRing, sizeof(acRing)};
    Run(600, &next);
    EXPECT_EQ(next.vData, Pattern(42, 24000, 4096));
}

TEST_F(SimAudioTest, OffsetsFollowARingThatIsNoMultipleOfTheCadence)
{
    ASSERT_EQ(Command("audio 60 pattern 7").substr(0, 2), "OK");
    char acRing[5000];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ULAW, acRing, sizeof(acRing), 0), 0);
    RingReader reader{acRing, sizeof(acRing)};
    Run(2000, &reader);
    EXPECT_EQ(reader.vOffsets, (std::vector<DWORD>{2048, 4096, 1144, 3192, 240, 2288, 4336}));
    EXPECT_EQ(reader.vData, Pattern(7, 0, 7 * 2048));
    EXPECT_EQ(Stats().overruns, 0u);
}
