// What a kept recording becomes after the call, end to end: the daemon
// binary on the card simulator's analog board and the private PostgreSQL,
// with the real sox, the real sum tools and shred, and stand-ins for the
// appliance's recording check and encryption on the PATH. Each test is one
// daemon start (the driver's board wait is the expensive part) carrying
// several calls: the final file is judged by soxi and the independent tools,
// the Calls row by psql. Analog lines record mono: "RecStereo" only affects
// PRI lines, so here it must leave the MP3 at the mono bit rate.
#include "e2e_util.h"

#include <cstdlib>

using namespace e2e;

namespace {

const char* kAnalogBoard = "[board]\nmodel=ATP-24A\nserial=20304\nchannels=4\n";

// The seconds of audio the card delivered on the channel so far.
double ReportedSeconds(int iCh)
{
    return static_cast<double>(DaemonRunner::SimReportedBytes(iCh)) / 8000.0;
}

// A kept, converted call: the row's encoding, a file soxi reads with the
// audio's length, and none of the recording's helpers left.
void ExpectConverted(const std::string& strWhere, const std::string& strEncoding, const std::string& strExt,
                     double dSeconds, double dSlack)
{
    EXPECT_EQ(PgQuery("SELECT encoding FROM Calls WHERE " + strWhere), strEncoding);
    std::string strFile = RowFile("Calls", strWhere);
    ASSERT_FALSE(strFile.empty()) << strWhere;
    EXPECT_EQ(strFile.substr(strFile.size() - strExt.size()), strExt);
    double dSoxi = std::atof(Soxi("-D", strFile).c_str());
    EXPECT_NEAR(dSoxi, dSeconds, dSlack) << strFile;
    EXPECT_GT(dSeconds, 1.5);
    for (const char* pcHelper : {".g711", ".raw", ".info"})
        EXPECT_FALSE(Exists(strFile + pcHelper)) << strFile << pcHelper;
}

// A failed conversion: the A-law capture under the final name, every byte
// the card delivered, and the row's encoding that of the capture.
void ExpectUnconverted(const std::string& strWhere, int iSeed, long long iBytes, const std::string& strName)
{
    EXPECT_EQ(PgQuery("SELECT encoding, filename LIKE '%.wav' FROM Calls WHERE " + strWhere), "554|t");
    std::string strFile = RowFile("Calls", strWhere);
    ASSERT_FALSE(strFile.empty());
    std::string strAudio = WaveAudio(strFile);
    EXPECT_EQ(static_cast<long long>(strAudio.size()), iBytes) << strName;
    EXPECT_TRUE(strAudio == Pattern(iSeed, strAudio.size())) << strName << ": audio lost or changed";
    EXPECT_EQ(Soxi("-e", strFile), "A-law") << strName;
    EXPECT_FALSE(Exists(strFile + ".g711"));
}

TEST(PostCallAudio, GsmWithEachChecksumTheFallbackCopyAndSecureDelete)
{
    ToolPath rTools;
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard,
                            {{"o", "RecEnc", "gsm"},
                             {"o", "Monitoring", "1"},
                             {"o", "RecCheck", "1"},
                             {"o", "CalcChecksum", "md5"}}));

    // Four calls at once; the checksum type is read when each one ends.
    const char* const arSums[][2] = {
        {"md5", "md5sum"}, {"sha1", "sha1sum"}, {"sha256", "sha256sum"}, {"sha512", "sha512sum"}};
    for (int i = 0; i < 4; ++i)
        StartCall(i, "030100000" + std::to_string(i), 40 + i);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "4", 5000));
    // While the call lasts: the G.711 capture and the live-listen companions.
    std::string strLive = RowFile("ActiveCalls", "linenr = 1");
    SleepMs(1000);
    EXPECT_TRUE(Exists(strLive + ".g711")) << strLive;
    EXPECT_TRUE(Exists(strLive + ".raw"));
    EXPECT_EQ(ReadFile(strLive + ".info"), "Format: alaw\r\nChannels: 1\r\n");
    EXPECT_FALSE(Exists(strLive));
    SleepMs(2000);
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(Config("s", "CalcChecksum", arSums[i][0]));
        ASSERT_TRUE(SimOk("state " + std::to_string(i) + " idle"));
        ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", std::to_string(i + 1), 10000));
    }
    for (int i = 0; i < 4; ++i) {
        std::string strWhere = "linenr = " + std::to_string(i + 1);
        ExpectConverted(strWhere, "551", ".wav", ReportedSeconds(i), 0.05);
        std::string strFile = RowFile("Calls", strWhere);
        EXPECT_EQ(Soxi("-e", strFile), "GSM");
        std::string strSum = ToolSum(arSums[i][1], strFile);
        EXPECT_GE(strSum.size(), 32u);
        EXPECT_EQ(CallExtra(strWhere), "chk: " + strSum + "CRLFchktype: " + arSums[i][0] + "CRLF");
        // The recording check got the final file and the row's duration.
        std::string strCheck =
            "quorda_reccheck|" + strFile + "|" + PgQuery("SELECT duration FROM Calls WHERE " + strWhere);
        EXPECT_NE(ReadFile(ToolPath::StandInLog()).find(strCheck + "\n"), std::string::npos) << strCheck;
    }
    EXPECT_EQ(ReadFile(ToolPath::StandInLog()).find("quorda_crypt"), std::string::npos);

    // sox failing, then sox not installed: the capture is copied under the
    // final name and the row keeps the capture's encoding.
    ASSERT_TRUE(Config("s", "CalcChecksum", "md5"));
    const char* const arModes[] = {"fail", "missing"};
    for (int i = 0; i < 2; ++i) {
        rTools.SetSoxMode(arModes[i]);
        long long iBefore = DaemonRunner::SimReportedBytes(i);
        StartCall(i, "030200000" + std::to_string(i), 50 + i);
        SleepMs(2500);
        ASSERT_TRUE(SimOk("state " + std::to_string(i) + " idle"));
        ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", std::to_string(5 + i), 10000));
        std::string strWhere = "id = " + std::to_string(5 + i);
        ExpectUnconverted(strWhere, 50 + i, DaemonRunner::SimReportedBytes(i) - iBefore, arModes[i]);
        EXPECT_EQ(CallExtra(strWhere),
                  "chk: " + ToolSum("md5sum", RowFile("Calls", strWhere)) + "CRLFchktype: md5CRLF");
    }
    rTools.SetSoxMode("");

    // Secure delete: a call shorter than RecMinDur is not kept, and its
    // capture goes through shred.
    WriteFile(DaemonRunner::Path("/var/quorda/conf/opt_secure_delete"), "");
    ASSERT_TRUE(Config("o", "RecMinDur", "5"));
    StartCall(2, "0303000000", 60);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "1", 5000));
    std::string strShort = RowFile("ActiveCalls", "true") + ".g711";
    SleepMs(1500);
    ASSERT_TRUE(Exists(strShort));
    ASSERT_TRUE(SimOk("state 2 idle"));
    EXPECT_TRUE(d.WaitForLine("Exec: shred -u " + ShellQuote(strShort), 10000));
    EXPECT_TRUE(d.WaitForLine("[3] Duration too short (", 1000));
    for (int i = 0; i < 50 && Exists(strShort); ++i)
        SleepMs(100);
    EXPECT_FALSE(Exists(strShort));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "0", 5000));
    EXPECT_EQ(Count("Calls"), 6);

    StopDaemon(d);
}

TEST(PostCallAudio, Mp3AtTheMonoRateAndAsWaveWhenSoxFails)
{
    ToolPath rTools;
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard,
                            {{"o", "RecEnc", "mp3"},
                             {"o", "RecStereo", "1"},
                             {"o", "Monitoring", "1"},
                             {"o", "CalcChecksum", "sha256"}}));

    StartCall(0, "0304000000", 70);
    StartCall(1, "0304000001", 71);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "2", 5000));
    std::string strLive = RowFile("ActiveCalls", "linenr = 2");
    SleepMs(3000);
    EXPECT_TRUE(Exists(strLive + ".g711"));
    EXPECT_TRUE(Exists(strLive + ".raw"));
    ASSERT_TRUE(SimOk("state 0 idle"));
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "1", 15000));
    rTools.SetSoxMode("fail");
    ASSERT_TRUE(SimOk("state 1 idle"));
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "2", 15000));
    rTools.SetSoxMode("");

    // Encoder and decoder delay add up to about a sixth of a second.
    ExpectConverted("linenr = 1", "801", ".mp3", ReportedSeconds(0), 0.25);
    std::string strMp3 = RowFile("Calls", "linenr = 1");
    EXPECT_EQ(Soxi("-t", strMp3), "mp3");
    EXPECT_EQ(Soxi("-c", strMp3), "1");
    EXPECT_EQ(Soxi("-B", strMp3), "16.0k");
    EXPECT_TRUE(d.HasLine(" -C '16'.4 " + ShellQuote(strMp3)));
    EXPECT_EQ(CallExtra("linenr = 1"), "chk: " + ToolSum("sha256sum", strMp3) + "CRLFchktype: sha256CRLF");

    // The failed one: WAVE under the ".wav" name, named so in the row, and
    // the failure logged. The sum was taken of the ".mp3" name, which has
    // no file: chk stays empty.
    ExpectUnconverted("linenr = 2", 71, DaemonRunner::SimReportedBytes(1), "mp3 fail");
    EXPECT_TRUE(d.HasLine("Conversion to MP3 failed, fn: " + strLive + ".g711"));
    EXPECT_EQ(RowFile("Calls", "linenr = 2"), strLive.substr(0, strLive.size() - 4) + ".wav");
    EXPECT_EQ(CallExtra("linenr = 2"), "chk: CRLF");
    EXPECT_EQ(ReadFile(DaemonRunner::Path("/var/quorda/data/err_crec.dat")),
              "Conversion to MP3 failed, fn: " + strLive + ".g711");

    StopDaemon(d);
}

TEST(PostCallAudio, EncryptedArchiveCopyIsSummedAndThePlainFileGoes)
{
    ToolPath rTools;
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard,
                            {{"o", "RecEnc", "mp3"},
                             {"o", "Monitoring", "1"},
                             {"o", "RecCheck", "1"},
                             {"o", "ALE", "1"},
                             {"o", "CalcChecksum", "sha512"}}));

    StartCall(0, "0305000000", 80);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "1", 5000));
    // Recordings in progress live outside the archive.
    std::string strPlain = RowFile("ActiveCalls", "true", "/dev/shm/quorda/");
    SleepMs(1000);
    EXPECT_TRUE(Exists(strPlain + ".g711")) << strPlain;
    EXPECT_TRUE(Exists(strPlain + ".raw"));
    SleepMs(2000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "1", 15000));

    std::string strArchive = RowFile("Calls", "true");
    std::string strDuration = PgQuery("SELECT duration FROM Calls");
    EXPECT_EQ(PgQuery("SELECT encoding, flags FROM Calls"), "801|16");
    EXPECT_EQ(ReadFile(ToolPath::StandInLog()), "quorda_reccheck|" + strPlain + "|" + strDuration +
                                                    "\nquorda_crypt|-e|-i|" + strPlain + "|-o|" + strArchive +
                                                    "\n");
    for (const char* pcGone : {"", ".g711", ".raw", ".info"})
        EXPECT_FALSE(Exists(strPlain + pcGone)) << strPlain << pcGone;
    EXPECT_EQ(ReadFile(strArchive).compare(0, 8, "Salted__"), 0) << "not an openssl cipher text";
    EXPECT_EQ(CallExtra("true"), "chk: " + ToolSum("sha512sum", strArchive) + "CRLFchktype: sha512CRLF");

    std::string strDecrypted = DaemonRunner::Root() + ".decrypted.mp3";
    Output("openssl enc -d -aes-256-cbc -pbkdf2 -pass pass:quorda-test -in " + ShellQuote(strArchive) +
           " -out " + ShellQuote(strDecrypted));
    EXPECT_NEAR(std::atof(Soxi("-D", strDecrypted).c_str()), ReportedSeconds(0), 0.25);
    unlink(strDecrypted.c_str());

    StopDaemon(d);
}

} // namespace
