// IniData::update on real files: the driver's configuration file is partly
// the engineer's, so everything it wasn't told about must stay as it was.
#include <gtest/gtest.h>

#include "iniedit.h"
#include "support_temp_root.h"

class IniEdit : public ::testing::Test {
protected:
    // The blank and the quote in the directory check the shell quoting of "cp -p".
    std::string Path() const { return rRoot.strRoot + "/it's a dir/ShConfig.ini"; }
    std::string Update(IniData& ini, const std::string& strBefore)
    {
        rRoot.Write("/it's a dir/ShConfig.ini", strBefore);
        ini.update(Path());
        return TempRoot::Read(Path());
    }
    TempRoot rRoot;
};

TEST_F(IniEdit, MergeKeepsCommentsOrderAndUnknownKeys)
{
    IniData ini;
    ini.set("System", "Key", "9");
    ini.set("System", "New", "n");
    ini.setDefault("System", "Other", "d");
    ini.setDefault("System", "Def", "d");
    ini.set("Card[0]", "Mode", "b");
    ini.set("", "top", "never");
    ini.set("Extra", "E", "1");
    ini.setDefault("Extra", "F", "2");
    ini.setDefault("OnlyDef", "G", "3");
    std::string strAfter = Update(ini, "; driver config\n"
                                       "top=1\n"
                                       "[System]\n"
                                       " Key = 1\n"
                                       "Other = 2\n"
                                       "; end of System\n"
                                       "\n"
                                       "[Card[0]] ; first card\n"
                                       "Mode=a\n"
                                       "[broken\n");
    EXPECT_EQ(strAfter, "; driver config\n"
                        "top=1\n"
                        "[System]\n"
                        "Key=9\n"
                        "Other = 2\n"
                        "; end of System\n"
                        "\n"
                        "New=n\n"
                        "Def=d\n"
                        "[Card[0]] ; first card\n"
                        "Mode=b\n"
                        "[Extra]\n"
                        "E=1\n"
                        "F=2\n"
                        "[OnlyDef]\n"
                        "G=3\n");
    EXPECT_FALSE(file_exists(Path() + ".tmp"));
}

TEST_F(IniEdit, ReplacedAndDuplicateSections)
{
    IniData ini;
    ini.set("Pcm", "AppCh[64]", "2");
    ini.replaceSection("Pcm");
    ini.set("Pcm", "AppCh[128]", "3");
    ini.set("Pcm", "TotalAppCh", "5");
    ini.set("Dup", "C", "c");
    ini.set("Dup", "D", "s");
    ini.setDefault("Dup", "D", "d");
    std::string strAfter = Update(ini, "[Pcm]\nAppCh[64]=1\n; keep me\nOld=1\n[Dup]\nA=1\n[Dup]\nB=2\n");
    EXPECT_EQ(strAfter, "[Pcm]\n; keep me\nAppCh[128]=3\nAppCh[64]=2\nTotalAppCh=5\n"
                        "[Dup]\nA=1\nC=c\nD=s\nD=d\n"
                        "[Dup]\nB=2\nC=c\nD=s\nD=d\n");
}

TEST_F(IniEdit, LongLinesArriveInPiecesAndMissingLastLineFeed)
{
    IniData ini;
    ini.set("S", "K", "new");
    ini.set("S", "B", "2");
    std::string strAfter = Update(ini, "[S]\nK=" + std::string(6000, 'x') + "\nA=1");
    // The buffer holds 4999 bytes: "K=" and 4997 of the x are the first piece.
    EXPECT_EQ(strAfter, "[S]\nK=new\n" + std::string(6000 - 4997, 'x') + "\nA=1B=2\n");
}

TEST_F(IniEdit, MissingFileAndFailedTempFile)
{
    IniData ini;
    ini.set("S", "K", "1");
    ini.setDefault("S", "D", "lost");
    EnsurePath(rRoot.strRoot + "/it's a dir");
    ini.update(Path());
    EXPECT_EQ(TempRoot::Read(Path()), "[S]\nK=1\n");

    ini.set("S", "K", "2");
    ini.update(Path());
    EXPECT_EQ(TempRoot::Read(Path()), "[S]\nK=2\nD=lost\n");

    // The temporary file can't be made: the target stays as it was.
    EnsurePath(Path() + ".tmp");
    ini.set("S", "K", "3");
    ini.update(Path());
    EXPECT_EQ(TempRoot::Read(Path()), "[S]\nK=2\nD=lost\n");
}
