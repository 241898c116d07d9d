// test_boot_fixture.h - a TRecorderBoot on a FakeDatabase under a temporary
// root, with helpers to write the detection tool's file and to read back the
// INI files the boot writes.
#ifndef TEST_BOOT_FIXTURE_H
#define TEST_BOOT_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "fake_database.h"
#include "log_capture.h"
#include "quorda_crec.h"
#include "recorder.h"
#include "support_temp_root.h"

typedef std::map<std::string, std::map<std::string, std::string>> IniMap;

// One board of the detection tool's file.
struct ToolBoard {
    std::string strSerial;
    std::string strModel;
    int iMaxCh;
};

// The two boards of the numbering example: 120 PRI driver channels, 32 DST.
const ToolBoard kPri{"1001", "DTP-120", 120};
const ToolBoard kDst{"2002", "DST-32", 32};

// The tool's ShConfig.ini for these boards, with the given line end.
inline std::string ToolFile(const std::vector<ToolBoard>& vBoards, const std::string& strEol = "\n")
{
    std::string s = "[AppChToBoardChTable]" + strEol;
    int iStart = 0;
    for (size_t i = 0; i < vBoards.size(); i++) {
        s += "AppCh[" + std::to_string(iStart) + "]=" + std::to_string(i) + ",0.." +
             std::to_string(vBoards[i].iMaxCh - 1) + strEol;
        iStart += vBoards[i].iMaxCh;
    }
    for (size_t i = 0; i < vBoards.size(); i++)
        s += "[BoardId=" + std::to_string(i) + "]" + strEol + "BoardSerialNumber=" + vBoards[i].strSerial +
             strEol + "BoardModel=" + vBoards[i].strModel + strEol;
    return s;
}

class BootTest : public ::testing::Test {
protected:
    BootTest() : prDb(new FakeDatabase), rBoot(prDb) {}
    ~BootTest() override
    {
        fAppTerminate = false;
        g_cfgPrefix.clear();
    }

    // Parses a tool file with these boards and builds the board list.
    void Detect(const std::vector<ToolBoard>& vBoards)
    {
        rBoot.ParseDetectedBoards(rRoot.Write("/tools/ShConfig.ini", ToolFile(vBoards)));
        rBoot.CreateBoardList();
    }

    // Sections and keys of an INI file (keys trimmed, as the driver reads them).
    static IniMap ReadIni(const std::string& strPath)
    {
        IniMap rIni;
        std::istringstream in(TempRoot::Read(strPath));
        std::string strLine, strSection;
        while (std::getline(in, strLine)) {
            size_t iEq = strLine.find('=');
            if (!strLine.empty() && strLine[0] == '[')
                strSection = strLine.substr(1, strLine.rfind(']') - 1);
            else if (iEq != std::string::npos && strLine[0] != ';')
                rIni[strSection][strLine.substr(0, iEq)] = strLine.substr(iEq + 1);
        }
        return rIni;
    }

    int CountLines(const std::string& strText) const
    {
        int n = 0;
        for (const LoggedLine& l : rLog.Lines())
            n += l.strText.find(strText) != std::string::npos;
        return n;
    }

    TempRoot rRoot;
    LogCapture rLog;
    FakeDatabase* prDb; // owned by rBoot
    TRecorderBoot rBoot;
};

#endif
