// Files: DeleteFn in both modes with the real shred, directories, reading.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "filedir.h"
#include "log_capture.h"
#include "support_temp_root.h"

class FileDir : public ::testing::Test {
protected:
    TempRoot rRoot;
};

TEST_F(FileDir, DeleteFnPlainAndSecure)
{
    std::string strPlain = rRoot.Write("/rec/plain.wav", "audio");
    EXPECT_TRUE(DeleteFn(strPlain.c_str()));
    EXPECT_FALSE(file_exists(strPlain));
    EXPECT_FALSE(DeleteFn(strPlain.c_str()));
    EXPECT_FALSE(DeleteFn(nullptr));

    // The marker switches to shred at once; the name must survive the shell.
    rRoot.Write("/var/quorda/conf/opt_secure_delete", "");
    ASSERT_EQ(SecureDeleteMarkerPath(), rRoot.strRoot + "/var/quorda/conf/opt_secure_delete");
    std::string strOdd = rRoot.Write("/rec/it's a 'call' $x.wav", std::string(10000, 'a'));
    LogCapture rLog;
    EXPECT_TRUE(DeleteFn(strOdd.c_str()));
    EXPECT_FALSE(file_exists(strOdd));
    EXPECT_TRUE(rLog.Contains("Exec: shred -u ", 5));
    EXPECT_FALSE(DeleteFn(strOdd.c_str()));
}

TEST_F(FileDir, EnsurePathMakesParentsAndLeavesExistingAlone)
{
    std::string strDeep = rRoot.strRoot + "/recordings/2024/01/31/08/";
    EnsurePath(strDeep);
    struct stat st;
    ASSERT_EQ(stat(strDeep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    std::string strHour = rRoot.strRoot + "/recordings/2024/01/31/08";
    chmod(strHour.c_str(), 0700);
    std::string strFile = rRoot.Write("/recordings/2024/01/31/08/x.wav", "keep");
    EnsurePath(strHour);
    ASSERT_EQ(stat(strHour.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(StdGetFileContent(strFile), "keep");
}

TEST_F(FileDir, FileContentAndNames)
{
    std::string strLong = std::string(250, 'a') + "\n\nlast";
    EXPECT_EQ(StdGetFileContent(rRoot.Write("/long.txt", strLong)), strLong);
    // A NUL loses the rest of its 100-byte piece only.
    EXPECT_EQ(StdGetFileContent(rRoot.Write("/nul.txt", std::string("ab\0cd\nef", 8))), "abef");
    EXPECT_EQ(StdGetFileContent(rRoot.strRoot + "/missing"), "");

    EXPECT_EQ(ExtractFileName("/recordings/a.wav"), "a.wav");
    EXPECT_EQ(ExtractFileName("/recordings/"), "");
    EXPECT_EQ(ExtractFileName("plain"), "plain");
    EXPECT_EQ(RemoveFileExtension("/r/a.b.wav"), "/r/a.b");
    EXPECT_EQ(RemoveFileExtension("/dev/shm.d/name"), "/dev/shm");
    EXPECT_EQ(RemoveFileExtension("name"), "name");
}
