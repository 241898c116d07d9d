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

class SimAudioTest : public SimTest {
protected:
    // Cards started, events on as the recorder asks for them, step mode.
    void SetUp() override
    {
        SimTest::SetUp();
        StartWithEvents();
        ASSERT_EQ(EnableRecordMem(2048, 3), 0);
        shsim_set_step_mode(1);
    }

    // Waits like a run loop for ms of the virtual clock (200 ms per idle
    // wait) and takes what fell due, handing progress events of the
    // channel to the reader.
    static void Run(int ms, RingReader* reader)
    {
        for (int idle = 0; idle < ms / 200 || shsim_pending_events() > 0;) {
            SSM_EVENT ev{};
            if (SsmWaitForEventA(200, &ev) != 0) {
                ++idle;
                continue;
            }
            if (reader && ev.wEventCode == E_PROC_RecordMem && ev.nReference == kCh)
                reader->Take(ev.dwParam);
        }
    }

    // A recording of ms into the ring, read as the recorder reads it.
    static RingReader Record(int iFormat, char* acRing, size_t uSize, int ms, bool fStop = true)
    {
        RingReader reader(acRing, uSize);
        EXPECT_EQ(SsmRecToMem(kCh, iFormat, acRing, uSize, 0), 0);
        Run(ms, &reader);
        if (fStop) {
            EXPECT_EQ(SsmStopRecToMem(kCh), 0);
        }
        return reader;
    }

    static shsim_audio_stats Stats()
    {
        shsim_audio_stats st{};
        EXPECT_EQ(shsim_get_audio_stats(kCh, &st), 0);
        return st;
    }
};

} // namespace

TEST_F(SimAudioTest, PatternReachesTheReaderExactlyAcrossWrapsOfAnyRingSize)
{
    ASSERT_EQ(Command("audio 60 pattern 42"), "OK audio 60 source pattern 42");
    char acRing[5000];
    RingReader reader = Record(REC_FORMAT_ALAW, acRing, 4096, 3000, false);

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
    EXPECT_EQ(Record(REC_FORMAT_ALAW, acRing, 4096, 600).vData, Pattern(42, 24000, 4096));

    // A ring that is no multiple of the cadence.
    ASSERT_EQ(Command("audio 60 pattern 7").substr(0, 2), "OK");
    reader = Record(REC_FORMAT_ULAW, acRing, 5000, 2000);
    EXPECT_EQ(reader.vOffsets, (std::vector<DWORD>{2048, 4096, 1144, 3192, 240, 2288, 4336}));
    EXPECT_EQ(reader.vData, Pattern(7, 0, 7 * 2048));
    EXPECT_EQ(Stats().overruns, 0u);
}

TEST_F(SimAudioTest, SourcesGiveSilenceByLawTonesAndLoopedFiles)
{
    // No source set: a silent line, in the law of the recording.
    char acRing[4096] = {};
    EXPECT_EQ(Record(REC_FORMAT_ULAW, acRing, sizeof(acRing), 400).vData,
              std::vector<unsigned char>(2048, 0xFF));
    EXPECT_EQ(Record(REC_FORMAT_ALAW, acRing, sizeof(acRing), 400).vData,
              std::vector<unsigned char>(2048, 0xD5));

    // A 1000 Hz tone at -6 dBFS over one second: 2000 sign changes, peaks
    // near half of full scale, in both laws.
    for (int iFormat : {REC_FORMAT_ALAW, REC_FORMAT_ULAW}) {
        ASSERT_EQ(Command("audio 60 tone 1000 -6"), "OK audio 60 source tone 1000 Hz -6.0 dBFS");
        RingReader tone = Record(iFormat, acRing, sizeof(acRing), 1200);
        ASSERT_GE(tone.vData.size(), 8000u);
        int iCrossings = 0, iPeak = 0, iLast = 0;
        for (size_t i = 0; i < 8000; ++i) {
            int v =
                iFormat == REC_FORMAT_ULAW ? SimUlawToLinear(tone.vData[i]) : SimAlawToLinear(tone.vData[i]);
            if (i > 0 && (v < 0) != (iLast < 0))
                ++iCrossings;
            iLast = v;
            iPeak = std::max(iPeak, std::abs(v));
        }
        EXPECT_NEAR(iCrossings, 2000, 4) << iFormat;
        EXPECT_NEAR(iPeak, 16422, 600) << iFormat;
    }

    // A file of raw bytes is written as it stands, over and over.
    WriteFile(SimDir() + "/five.raw", "\x01\x02\x03\x04\x05");
    ASSERT_EQ(Command("audio 60 file five.raw").substr(0, 2), "OK");
    RingReader file = Record(REC_FORMAT_ALAW, acRing, sizeof(acRing), 400);
    ASSERT_EQ(file.vData.size(), 2048u);
    for (size_t i = 0; i < file.vData.size(); ++i)
        ASSERT_EQ(file.vData[i], i % 5 + 1) << i;

    WriteFile(SimDir() + "/empty.raw", "");
    for (const char* acBad : {"audio 60 file missing.raw", "audio 60 file empty.raw", "audio 60 tone 440 3",
                              "audio 60 pattern -1", "audio 60 noise"})
        EXPECT_EQ(Command(acBad).substr(0, 3), "ERR") << acBad;
    EXPECT_EQ(Command("audio 60 tone 4000"), "ERR tone frequency must be a whole number of Hz in 1..3999");
    EXPECT_EQ(Command("audio 99 silence"), "ERR no channel 99");
}

TEST_F(SimAudioTest, StopEndsTheAudioAndDropsOnlyItsOwnProgress)
{
    ASSERT_EQ(Command("audio 60 pattern 3").substr(0, 2), "OK");
    char acRing[4096];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);
    shsim_advance_clock(512); // a whole ring at once: progress at 2048 and 4096
    SSM_EVENT ev{};
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.dwParam, 2048u);
    ASSERT_EQ(shsim_inject_event(E_PROC_RecordMem, kCh + 1, 2048, 0, nullptr, 0), 0);
    ASSERT_EQ(shsim_inject_event(E_CHG_RcvDTMF, kCh, '1', 0, nullptr, 0), 0);
    ASSERT_EQ(shsim_pending_events(), 3);

    ASSERT_EQ(SsmStopRecToMem(kCh), 0);
    EXPECT_EQ(shsim_pending_events(), 2);
    memset(acRing, 'x', sizeof(acRing));
    shsim_advance_clock(2000);
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.nReference, kCh + 1); // another line's progress stays
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_CHG_RcvDTMF);
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1);
    EXPECT_EQ(std::string(acRing, sizeof(acRing)), std::string(sizeof(acRing), 'x'));
    shsim_audio_stats st = Stats();
    EXPECT_EQ(st.delivered, 4096u);
    EXPECT_EQ(st.reported, 2048u);
    EXPECT_EQ(st.overruns, 0u);

    // A new recording without a stop drops the old one's progress as well.
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);
    shsim_advance_clock(512);
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    ASSERT_EQ(shsim_pending_events(), 1);
    char acOther[4096];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acOther, sizeof(acOther), 0), 0);
    EXPECT_EQ(shsim_pending_events(), 0);
}

TEST_F(SimAudioTest, OverrunOnlyWhenTheWriterLapsWhatTheReaderTook)
{
    char acRing[4096];
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, sizeof(acRing), 0), 0);

    // Progress still queued is no loss while the writer stays within one
    // ring of what the reader took: 4000 bytes with the reader at 0, then
    // 6144 with the reader at 2048 and two events queued.
    SSM_EVENT ev{};
    shsim_advance_clock(500);
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.dwParam, 2048u);
    shsim_advance_clock(268);
    for (DWORD want : {0u, 2048u}) {
        ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
        EXPECT_EQ(ev.dwParam, want);
    }
    EXPECT_EQ(Stats().overruns, 0u);
    EXPECT_EQ(Command("overruns"), "OK 0 overruns");

    // The reader stays away for a second: 8000 more bytes lap it (at 6144).
    shsim_advance_clock(1000);
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    const uint64_t kLost = 14144 - 4096 - 6144;
    EXPECT_EQ(Stats().overruns, 1u);
    EXPECT_EQ(Stats().lost, kLost);
    EXPECT_EQ(Command("overruns"), "OK 1 overruns: overrun 60 " + std::to_string(kLost));
    EXPECT_NE(Command("log 3").find("overrun 60 " + std::to_string(kLost)), std::string::npos);
    EXPECT_NE(Command("status").find("overruns 1 lost " + std::to_string(kLost)), std::string::npos);
    std::string audio = Command("audio 60");
    EXPECT_NE(audio.find("overruns 1 lost " + std::to_string(kLost)), std::string::npos) << audio;

    // Once it reads again, the lost stretch isn't counted a second time.
    while (shsim_pending_events() > 0)
        ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    shsim_advance_clock(250);
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(Stats().overruns, 1u);

    // A cadence beyond the ring loses a lap between events however fast
    // the reader is.
    ASSERT_EQ(SsmStopRecToMem(kCh), 0);
    ASSERT_EQ(SsmRecToMem(kCh, REC_FORMAT_ALAW, acRing, 1024, 0), 0);
    Run(400, nullptr);
    EXPECT_EQ(Stats().overruns, 3u);
    EXPECT_EQ(Stats().lost, kLost + (1600 - 1024) + (3200 - 1024 - 576));
}
