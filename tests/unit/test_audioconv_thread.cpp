// AudioConvAct::performThread on real files in a temporary directory, with
// the real checksum tools and sox: the checksum in callextra, the companion
// files, conversion, and the recording check and
// encryption through stand-in tools put first on the PATH. File names carry
// blanks and single quotes, so every command line is checked for quoting.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

#include "bgact.h"
#include "datafile.h"
#include "fake_recorder.h"
#include "filedir.h"
#include "log_capture.h"
#include "support_temp_root.h"

namespace {

const char* const kAwkwardName = "it's a 'call' 1";

// First word of what the tool prints for the file read from stdin.
std::string ToolSum(const std::string& strTool, const std::string& strPath)
{
    std::string strCmd = strTool + " < \"" + strPath + "\"";
    FILE* p = popen(strCmd.c_str(), "r");
    char ac[300] = {0};
    if (p) {
        if (!fgets(ac, sizeof(ac), p))
            ac[0] = 0;
        pclose(p);
    }
    std::string s(ac);
    return s.substr(0, s.find(' '));
}

bool HaveTool(const char* pcTool)
{
    return system((std::string("command -v ") + pcTool + " >/dev/null 2>&1").c_str()) == 0;
}

class AudioConvThreadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(root.strRoot.empty());
        strDir = root.strRoot + "/rec/";
        EnsurePath(strDir);
        Fresh();
    }
    void Fresh()
    {
        act = AudioConvAct();
        act.prRecorder = &rec;
    }
    // A final name with its two companions, as the channel leaves them.
    std::string FinalWithCompanions(const std::string& strName, const std::string& strContent)
    {
        std::string strPath = strDir + strName;
        Write(strPath, strContent);
        Write(strPath + ".raw", "raw");
        Write(strPath + ".info", "info");
        return strPath;
    }
    static void Write(const std::string& strPath, const std::string& strContent)
    {
        FILE* f = fopen(strPath.c_str(), "w");
        ASSERT_NE(f, nullptr) << strPath;
        fwrite(strContent.data(), 1, strContent.size(), f);
        fclose(f);
    }
    void SameFileEverywhere(const std::string& strPath)
    {
        act.strFullFilename = act.strFullFilenameFinal = act.strArchiveFilename = strPath;
    }
    StdStringMap Extra() { return StringToArray(act.rCallInfo.data["callextra"]); }
    // An A-law WAVE of one second as captured, under the ".g711" name.
    std::string Capture(const std::string& strStem)
    {
        std::string strPath = strDir + strStem + ".g711";
        std::string strCmd = "sox -n -r 8000 -c 1 -e a-law -t wav \"" + strPath + "\" synth 1 sine 440";
        EXPECT_EQ(system(strCmd.c_str()), 0);
        return strPath;
    }

    TempRoot root;
    std::string strDir;
    FakeRecorder rec;
    AudioConvAct act;
    LogCapture log;
};

// ---- checksum and companions --------------------------------------------------------------

TEST_F(AudioConvThreadTest, EachChecksumIsTheToolsOwnAndTheCompanionsGo)
{
    const char* const arTypes[][2] = {
        {"md5", "md5sum"}, {"sha1", "sha1sum"}, {"sha256", "sha256sum"}, {"sha512", "sha512sum"}};
    for (const auto& rType : arTypes) {
        std::string strPath = FinalWithCompanions(kAwkwardName + std::string(".wav"), rType[0]);
        Fresh();
        SameFileEverywhere(strPath);
        act.strCheckSumType = rType[0];
        act.rCallInfo.AddUtf8("callextra", ArrayToString({{"note", "a\r\nb"}}));
        act.performThread();

        StdStringMap rExtra = Extra();
        SCOPED_TRACE(rType[0]);
        EXPECT_EQ(rExtra["chk"], ToolSum(rType[1], strPath));
        EXPECT_FALSE(rExtra["chk"].empty());
        EXPECT_EQ(rExtra["chktype"], rType[0]);
        EXPECT_EQ(rExtra["note"], "a\r\nb");
        EXPECT_TRUE(file_exists(strPath));
        EXPECT_FALSE(file_exists(strPath + ".raw"));
        EXPECT_FALSE(file_exists(strPath + ".info"));
    }
}

TEST_F(AudioConvThreadTest, WithoutAKnownTypeChkIsEmptiedAndTheOldTypeStays)
{
    std::string strPath = FinalWithCompanions("a.wav", "audio");
    SameFileEverywhere(strPath);
    act.rCallInfo.AddUtf8("callextra", ArrayToString({{"chk", "0123abcd"}, {"chktype", "md5"}}));
    act.strCheckSumType = "crc32";
    act.performThread();
    EXPECT_EQ(Extra(), (StdStringMap{{"chk", ""}, {"chktype", "md5"}}));

    // G.711 without check, encryption or checksum runs no command at all.
    log.Clear();
    Fresh();
    SameFileEverywhere(strPath);
    act.performThread();
    EXPECT_EQ(act.rCallInfo.data.count("callextra"), 1u);
    EXPECT_EQ(Extra(), (StdStringMap{{"chk", ""}}));
    for (const LoggedLine& l : log.Lines())
        EXPECT_EQ(l.strText.find("Exec:"), std::string::npos) << l.strText;

    // A file that isn't there gives no sum and no type.
    Fresh();
    SameFileEverywhere(strDir + "gone.wav");
    act.strCheckSumType = "sha1";
    act.performThread();
    EXPECT_EQ(Extra(), (StdStringMap{{"chk", ""}}));
}

// ---- recording check and encryption ----------------------------------------------------------

TEST_F(AudioConvThreadTest, CheckAndEncryptionGetTheirArgumentsAndThePlainFileGoes)
{
    std::string strBin = root.strRoot + "/bin";
    EnsurePath(strBin);
    std::string strArgs = root.strRoot + "/reccheck.args";
    Write(strBin + "/quorda_reccheck", "#!/bin/sh\nprintf '%s|%s' \"$1\" \"$2\" > '" + strArgs + "'\n");
    Write(strBin + "/quorda_crypt", "#!/bin/sh\n[ \"$1 $2 $4\" = '-e -i -o' ] && cp \"$3\" \"$5\"\n");
    chmod((strBin + "/quorda_reccheck").c_str(), 0755);
    chmod((strBin + "/quorda_crypt").c_str(), 0755);
    std::string strOldPath = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", (strBin + ":" + strOldPath).c_str(), 1);

    rec.fRecCheck = true;
    rec.fALE = true;
    std::string strFinal = FinalWithCompanions(kAwkwardName + std::string(".wav"), "plain audio");
    act.strFullFilename = act.strFullFilenameFinal = strFinal;
    act.strArchiveFilename = strDir + "arch 'x'.wav";
    act.iDuration = 42;
    act.strCheckSumType = "md5";
    act.performThread();
    setenv("PATH", strOldPath.c_str(), 1);

    EXPECT_EQ(TempRoot::Read(strArgs), strFinal + "|42");
    EXPECT_EQ(TempRoot::Read(act.strArchiveFilename), "plain audio");
    EXPECT_FALSE(file_exists(strFinal));
    EXPECT_EQ(Extra()["chk"], ToolSum("md5sum", act.strArchiveFilename));
}

// ---- conversion ----------------------------------------------------------------------------

// The fall-back copy when sox fails, the failed MP3 kept as WAVE and the mono
// MP3 rate are the daemon's end-to-end tests' part; here the awkward name
// and the stereo rate.
TEST_F(AudioConvThreadTest, GsmAndStereoMp3ConversionOfAnAwkwardName)
{
    if (!HaveTool("sox"))
        GTEST_SKIP() << "sox is not installed (Debian package sox)";
    act.eRecEnc = RECENC_GSM;
    act.strFullFilename = Capture(kAwkwardName);
    act.strFullFilenameFinal = act.strArchiveFilename = strDir + kAwkwardName + ".wav";
    act.rCallInfo.AddUtf8("encoding", "554");
    act.performThread();
    EXPECT_EQ(act.rCallInfo.data["encoding"], "551");
    EXPECT_FALSE(file_exists(act.strFullFilename));
    std::string strWav = TempRoot::Read(act.strFullFilenameFinal);
    ASSERT_GT(strWav.size(), 22u);
    EXPECT_EQ(strWav[20], 0x31); // WAVE format tag of GSM 6.10
    struct stat st;
    ASSERT_EQ(stat(act.strFullFilenameFinal.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);

    Fresh();
    act.eRecEnc = RECENC_MP3;
    act.fStereo = true;
    act.strFullFilename = Capture(kAwkwardName);
    act.strFullFilenameFinal = act.strArchiveFilename = strDir + kAwkwardName + ".mp3";
    act.performThread();
    EXPECT_TRUE(log.Contains("-C '32'.4 ", 5));
    if (act.rCallInfo.data["encoding"] != "801")
        GTEST_SKIP() << "sox lacks MP3 output (Debian package libsox-fmt-mp3)";
    EXPECT_GT(TempRoot::Read(act.strFullFilenameFinal).size(), 100u);
    EXPECT_FALSE(file_exists(act.strFullFilename));
}

} // namespace
