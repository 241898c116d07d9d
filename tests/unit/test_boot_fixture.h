// test_boot_fixture.h - a TRecorderBoot on a FakeDatabase under a temporary
// root, with helpers to write the detection tool's file and to read back the
// INI files the boot writes.
#ifndef TEST_BOOT_FIXTURE_H
#define TEST_BOOT_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "fake_database.h"
#include "log_capture.h"
#include "quorda_crec.h"
#include "recorder.h"
#include "support_temp_root.h"

typedef std::map<std::string, std::map<std::string, std::string>> IniMap;

// One board of the detection tool's file: its AppCh line and its section.
struct ToolBoard {
    std::string strSerial;
    std::string strModel;
    int iMaxCh;
};

// The two boards of the numbering example: 120 PRI driver channels, 32 DST.
const ToolBoard kPri{"1001", "DTP-120", 120};
const ToolBoard kDst{"2002", "DST-32", 32};

class BootTest : public ::testing::Test {
protected:
    BootTest() : prDb(new FakeDatabase), rBoot(prDb) {}
    ~BootTest() override
    {
        fAppTerminate = false;
        g_cfgPrefix.clear();
    }

    // The tool's ShConfig.ini for these boards, with the given line end.
    static std::string ToolFile(const std::vector<ToolBoard>& vBoards, const std::string& strEol = "\n")
    {
        std::string s = "[AppChToBoardChTable]" + strEol;
        int iStart = 0;
        for (size_t i = 0; i < vBoards.size(); i++) {
            s += "AppCh[" + std::to_string(iStart) + "]=" + std::to_string(i) + ",0.." +
                 std::to_string(vBoards[i].iMaxCh - 1) + strEol;
            iStart += vBoards[i].iMaxCh;
        }
        for (size_t i = 0; i < vBoards.size(); i++)
            s += "[BoardId=" + std::to_string(i) + "]" + strEol +
                 "BoardSerialNumber=" + vBoards[i].strSerial + strEol + "BoardModel=" + vBoards[i].strModel +
                 strEol;
        return s;
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
        std::string strText = TempRoot::Read(strPath), strSection;
        size_t iPos = 0;
        while (iPos < strText.size()) {
            size_t iEnd = strText.find('\n', iPos);
            if (iEnd == std::string::npos)
                iEnd = strText.size();
            std::string strLine = strText.substr(iPos, iEnd - iPos);
            iPos = iEnd + 1;
            size_t iEq = strLine.find('=');
            if (!strLine.empty() && strLine[0] == '[')
                strSection = strLine.substr(1, strLine.rfind(']') - 1);
            else if (iEq != std::string::npos && strLine[0] != ';')
                rIni[strSection][strLine.substr(0, iEq)] = strLine.substr(iEq + 1);
        }
        return rIni;
    }

    TempRoot rRoot;
    LogCapture rLog;
    FakeDatabase* prDb; // owned by rBoot
    TRecorderBoot rBoot;
};

#endif
