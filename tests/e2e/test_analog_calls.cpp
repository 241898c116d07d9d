// Recorded analog calls end to end: the daemon binary on the card simulator
// and the private PostgreSQL. Each test scripts calls through the
// simulator's control socket and checks what a user gets: the ActiveCalls
// row while a call lasts, the Calls row with all its columns afterwards, and
// a WAVE file whose audio is byte for byte what the simulated card
// delivered (the pattern source makes those bytes reproducible). Each start
// costs the driver's board wait, so every test checks several facts on one
// start.
#include "e2e_util.h"

#include <chrono>
#include <glob.h>
#include <map>
#include <sstream>
#include <thread>

using namespace e2e;

namespace {

const char* kAnalogBoard = "[board]\nmodel=ATP-24A\nserial=10203\nchannels=4\n";
const int kFormatALaw = 6;
const int kFormatULaw = 7;

typedef std::chrono::steady_clock Clock;
typedef std::map<std::string, std::string> Row;

double SecondsSince(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

uint32_t Le32(const std::string& s, size_t iAt)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(s[iAt])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[iAt + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[iAt + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[iAt + 3])) << 24;
}

uint32_t Le16(const std::string& s, size_t iAt)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(s[iAt])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[iAt + 1])) << 8;
}

// Checks the 56-byte header of a mono G.711 recording, its three size
// fields against each other and against the file; the audio bytes.
std::string ReadRecording(const std::string& strPath, uint32_t uFormat)
{
    std::string s = ReadFile(strPath);
    EXPECT_GE(s.size(), 56u) << strPath;
    if (s.size() < 56)
        return std::string();
    uint32_t uData = static_cast<uint32_t>(s.size() - 56);
    EXPECT_EQ(s.substr(0, 4), "RIFF");
    EXPECT_EQ(Le32(s, 4), uData + 48);
    EXPECT_EQ(s.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(Le32(s, 16), 16u);
    EXPECT_EQ(Le16(s, 20), uFormat);
    EXPECT_EQ(Le16(s, 22), 1u);    // mono
    EXPECT_EQ(Le32(s, 24), 8000u); // samples per second
    EXPECT_EQ(Le32(s, 28), 8000u); // bytes per second
    EXPECT_EQ(Le16(s, 32), 1u);    // block align
    EXPECT_EQ(Le16(s, 34), 8u);    // bits per sample
    EXPECT_EQ(s.substr(36, 4), "fact");
    EXPECT_EQ(Le32(s, 40), 4u);
    EXPECT_EQ(Le32(s, 44), uData);
    EXPECT_EQ(s.substr(48, 4), "data");
    EXPECT_EQ(Le32(s, 52), uData);
    return s.substr(56);
}

// The recording holds exactly bytes 0..iBytes-1 of the pattern of iSeed:
// none lost, none repeated, nothing added.
void ExpectPatternRecording(const std::string& strPath, uint32_t uFormat, unsigned long long iSeed,
                            long long iBytes)
{
    std::string strAudio = ReadRecording(strPath, uFormat);
    ASSERT_EQ(static_cast<long long>(strAudio.size()), iBytes) << strPath;
    std::string strExpected = Pattern(iSeed, strAudio.size());
    size_t iDiff = 0;
    while (iDiff < strAudio.size() && strAudio[iDiff] == strExpected[iDiff])
        ++iDiff;
    EXPECT_EQ(iDiff, strAudio.size()) << "first differing audio byte of " << strPath;
}

const std::vector<std::string> kCallColumns = {
    "startdate",      "duration",      "filename",   "directory", "isconnected",   "linenr",
    "waittime",       "source",        "isarchived", "encoding",  "encryption",    "processingstate",
    "flags",          "lineid",        "recorderid", "remoteid",  "remote",        "remotefull",
    "remotecallerid", "remotecontact", "local",      "localfull", "localcallerid", "localcontact",
    "direction",      "connected",     "id"};

// The single Calls row matching strWhere, column name -> text ("<NULL>"
// for SQL NULL); empty when there isn't exactly one.
Row LoadCall(const std::string& strWhere)
{
    std::string strSql = "SELECT ";
    for (size_t i = 0; i < kCallColumns.size(); ++i)
        strSql += (i ? ", " : "") + kCallColumns[i];
    std::string strOut = PgQuery(strSql + " FROM Calls WHERE " + strWhere);
    std::vector<std::string> vValues;
    std::stringstream ss(strOut);
    std::string strValue;
    while (std::getline(ss, strValue, '|'))
        vValues.push_back(strValue);
    if (!strOut.empty() && strOut.back() == '|')
        vValues.push_back("");
    Row row;
    if (vValues.size() != kCallColumns.size() || strOut.find('\n') != std::string::npos)
        return row;
    for (size_t i = 0; i < kCallColumns.size(); ++i)
        row[kCallColumns[i]] = vValues[i];
    return row;
}

std::string LocalTimeText(time_t t, const char* acFormat)
{
    struct tm rTm;
    localtime_r(&t, &rTm);
    char ac[64];
    strftime(ac, sizeof(ac), acFormat, &rTm);
    return ac;
}

std::string RecordingPath(const Row& row)
{
    return DaemonRunner::Path("/recordings/") + row.at("directory") + "/" + row.at("filename");
}

// What every kept analog call's row holds, whatever its line, number and
// encoding: the fixed columns, the name and directory made from the start
// time, and ids that point at this recorder's line and the caller's contact.
void ExpectCompleteCall(const Row& row, int iLine, const std::string& strRemote, int iEncoding,
                        const char* acDirection)
{
    ASSERT_FALSE(row.empty()) << "no single Calls row";
    time_t tStart = static_cast<time_t>(std::stoll(row.at("startdate")));
    char acLine[8];
    snprintf(acLine, sizeof(acLine), "_%03d_", iLine);
    EXPECT_EQ(row.at("remoteid").substr(0, 20), LocalTimeText(tStart, "%Y%m%d_%H%M%S") + acLine);
    EXPECT_EQ(row.at("remoteid").size(), 22u);
    EXPECT_EQ(row.at("filename"), row.at("remoteid") + ".wav");
    EXPECT_EQ(row.at("directory"), LocalTimeText(tStart, "%Y/%m/%d/%H"));
    const Row kFixed = {{"isconnected", "1"},
                        {"linenr", std::to_string(iLine)},
                        {"source", "1"},
                        {"isarchived", "1"},
                        {"encoding", std::to_string(iEncoding)},
                        {"encryption", "0"},
                        {"processingstate", "0"},
                        {"flags", "0"},
                        {"remote", strRemote},
                        {"remotefull", strRemote},
                        {"local", ""},
                        {"localfull", ""},
                        {"localcallerid", "0"},
                        {"direction", acDirection},
                        {"connected", ""}};
    for (const auto& rCol : kFixed)
        EXPECT_EQ(row.at(rCol.first), rCol.second) << rCol.first;
    EXPECT_EQ(row.at("recorderid"), PgQuery("SELECT id FROM recorders"));
    // Without a local number the line's contact stands for the local party.
    EXPECT_EQ(PgQuery("SELECT c.lineid = l.id, c.localcontact = l.contactid FROM Calls c, Lines l "
                      "WHERE c.id = " +
                      row.at("id") + " AND l.linenr = c.linenr AND l.recorderid = c.recorderid"),
              "t|t");
    if (!strRemote.empty()) {
        EXPECT_EQ(PgQuery("SELECT c.remotecallerid = i.id, c.remotecontact = i.contactid, i.islocal "
                          "FROM Calls c, CallerIDs i WHERE c.id = " +
                          row.at("id") + " AND i.callerid = c.remote"),
                  "t|t|0");
    }
}

TEST(AnalogCalls, OffHookCallsAreTrackedThenKeptWithEveryColumnAndEveryByteAlsoThroughADatabaseOutage)
{
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard));
    ASSERT_TRUE(SimOk("audio 0 pattern 7"));

    time_t tPickup = RingAndPickUp(0, "0301234567", 2000);
    auto tTalk = Clock::now();
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT remote, direction, linenr FROM ActiveCalls",
                                           "0301234567|0|1", 3000));
    std::this_thread::sleep_until(tTalk + std::chrono::milliseconds(5000));
    // Half way: still exactly one active row and nothing in Calls yet.
    EXPECT_EQ(Count("ActiveCalls", "true"), 1);
    EXPECT_EQ(Count("Calls", "true"), 0);
    std::this_thread::sleep_until(tTalk + std::chrono::milliseconds(10000));
    ASSERT_TRUE(SimOk("state 0 idle"));

    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "1", 5000));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "0", 3000));
    std::string strAudio = DaemonRunner::SimCommand("audio 0");
    EXPECT_NE(strAudio.find(" recordings 1 "), std::string::npos) << strAudio;
    EXPECT_NE(strAudio.find(" overruns 0 lost 0 "), std::string::npos) << strAudio;
    long long iReported = DaemonRunner::SimReportedBytes(0);
    EXPECT_GE(iReported, 9 * 8000);
    EXPECT_LE(iReported, 11 * 8000);

    Row row = LoadCall("linenr = 1");
    ExpectCompleteCall(row, 1, "0301234567", 554, "0");
    ASSERT_FALSE(row.empty());
    EXPECT_EQ(row.at("remoteid").substr(20), "01"); // the line's first attempt
    EXPECT_LE(std::abs(std::stoll(row.at("startdate")) - static_cast<long long>(tPickup)), 1);
    int iDuration = std::stoi(row.at("duration"));
    EXPECT_GE(iDuration, 9);
    EXPECT_LE(iDuration, 11);
    int iWait = std::stoi(row.at("waittime")); // first ring to pick-up
    EXPECT_GE(iWait, 1);
    EXPECT_LE(iWait, 3);
    // The background action leaves its check-sum slot, empty without a type.
    EXPECT_EQ(PgQuery("SELECT replace(replace(callextra, E'\\r', 'CR'), E'\\n', 'LF') FROM Calls"),
              "chk: CRLF");
    ExpectPatternRecording(RecordingPath(row), kFormatALaw, 7, iReported);

    // The database goes down during the next call: recording goes on and
    // the daemon with it.
    ASSERT_TRUE(SimOk("audio 0 pattern 21"));
    RingAndPickUp(0, "0301111111", 600);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "1", 3000));
    std::string strOutageFile = RowFile("ActiveCalls", "true");
    ASSERT_TRUE(PgStopServer());
    SleepMs(3000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    EXPECT_TRUE(d.WaitForLine("[1] Recording stopped", 5000));
    SleepMs(1000); // the background action meets the dead server
    ASSERT_EQ(d.WaitExit(0), -1) << "the daemon died with the database";
    long long iOutage = DaemonRunner::SimReportedBytes(0) - iReported;
    EXPECT_GE(iOutage, 3 * 8000);

    // Recording went on: one more file, holding every byte of the call.
    glob_t rGlob;
    ASSERT_EQ(glob(DaemonRunner::Path("/recordings/*/*/*/*/*.wav").c_str(), 0, nullptr, &rGlob), 0);
    EXPECT_EQ(rGlob.gl_pathc, 2u);
    globfree(&rGlob);
    ExpectPatternRecording(strOutageFile, kFormatALaw, 21, iOutage);

    // Server back: that call's final row was lost with it (the outage
    // really hit), the next call gets both rows, complete.
    ASSERT_TRUE(PgStartServer());
    EXPECT_EQ(Count("Calls", "remote = '0301111111'"), 0);
    ASSERT_TRUE(SimOk("audio 0 pattern 22"));
    RingAndPickUp(0, "0302222222", 600);
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls WHERE remote = '0302222222'",
                                           "1", 10000));
    SleepMs(3000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    EXPECT_TRUE(
        DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls WHERE remote = '0302222222'", "1", 10000));
    EXPECT_EQ(Count("ActiveCalls", "remote = '0302222222'"), 0);
    row = LoadCall("remote = '0302222222'");
    ExpectCompleteCall(row, 1, "0302222222", 554, "0");
    ASSERT_FALSE(row.empty());
    EXPECT_NE(RecordingPath(row), strOutageFile);
    ExpectPatternRecording(RecordingPath(row), kFormatALaw, 22,
                           DaemonRunner::SimReportedBytes(0) - iOutage - iReported);

    StopDaemon(d);
    EXPECT_TRUE(d.HasLine("Longest event handling: "));
    EXPECT_LT(d.LineIndex("Longest event handling: "), d.LineIndex("QUORDA-CREC exit"));
}

TEST(AnalogCalls, VoiceAndAlwaysOnTriggersStartAndEndTheirCallsInULaw)
{
    // Line 1 (driver channel 0) on voice with a 2 s silence time-out, line 2
    // always on, lines 3 and 4 off-hook.
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard,
                            {{"o", "RecEnc", "ulaw"},
                             {"crec", "Syn10203_Trigger", "2,4,1,1"},
                             {"crec", "Syn10203_SilenceTimeOut", "2,15,15,15"}},
                            false));
    // The sources are set before the channels exist, so that the always-on
    // recording begins with the first pattern byte.
    ASSERT_TRUE(DaemonRunner::WaitForSim(kStartMs));
    ASSERT_TRUE(SimOk("audio 0 pattern 11"));
    ASSERT_TRUE(SimOk("audio 1 pattern 12"));
    ASSERT_TRUE(d.WaitForLine("** STARTED **", kStartMs));
    auto tStarted = Clock::now();

    // Always on: the first tick starts the call, without any line event.
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls WHERE linenr = 2", "1", 2500));

    // Voice: a pick-up alone starts nothing, the first voice does.
    ASSERT_TRUE(SimOk("state 0 pickup"));
    ASSERT_TRUE(d.WaitForLine("[1] Analog channel state: 1", 3000));
    SleepMs(1500);
    EXPECT_EQ(Count("ActiveCalls", "linenr = 1"), 0);
    ASSERT_TRUE(SimOk("bargein 0 on"));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls WHERE linenr = 1", "1", 3000));
    SleepMs(2000);
    ASSERT_TRUE(SimOk("bargein 0 off"));
    auto tSilence = Clock::now();
    EXPECT_TRUE(d.WaitForLine("[1] Silence time out (2 s)", 5000));
    double dSilence = SecondsSince(tSilence);
    EXPECT_GT(dSilence, 1.0); // whole seconds of the wall clock
    EXPECT_LT(dSilence, 3.5);
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls WHERE linenr = 1", "1", 5000));
    EXPECT_EQ(Count("ActiveCalls", "linenr = 1"), 0);
    EXPECT_EQ(Count("ActiveCalls", "linenr = 2"), 1); // the always-on call goes on
    Row rowVoice = LoadCall("linenr = 1");
    ExpectCompleteCall(rowVoice, 1, "", 555, "1"); // no ring: outgoing
    ASSERT_FALSE(rowVoice.empty());
    ExpectPatternRecording(RecordingPath(rowVoice), kFormatULaw, 11, DaemonRunner::SimReportedBytes(0));

    // SIGTERM ends the always-on call and finishes it before the exit.
    double dAlwaysOn = SecondsSince(tStarted);
    StopDaemon(d);
    EXPECT_EQ(Count("ActiveCalls", "true"), 0);
    Row rowAlways = LoadCall("linenr = 2");
    ExpectCompleteCall(rowAlways, 2, "", 555, "1");
    ASSERT_FALSE(rowAlways.empty());
    std::string strAudio = ReadRecording(RecordingPath(rowAlways), kFormatULaw);
    // Started on the first tick, stopped at the signal: all but about a second.
    EXPECT_GE(static_cast<double>(strAudio.size()), (dAlwaysOn - 2.0) * 8000);
    EXPECT_LE(static_cast<double>(strAudio.size()), (dAlwaysOn + 1.0) * 8000);
    EXPECT_LE(std::abs(std::stoi(rowAlways.at("duration")) - static_cast<int>(strAudio.size() / 8000)), 1);
    // The daemon no longer answers for the count, but the bytes it wrote must
    // still be the pattern's first ones, in order.
    ExpectPatternRecording(RecordingPath(rowAlways), kFormatULaw, 12,
                           static_cast<long long>(strAudio.size()));
}

} // namespace
