// iniedit.cpp - IniData: changes to an INI file merged in one pass.
//
// DESIGN: changes are collected in memory (data, defData, toReplace);
// update() reads the file once, line by line with a 5000-byte buffer,
// writes the merged text to "<path>.tmp" and copies that over the file
// with "cp -p", so the target is never half written and keeps its owner
// and mode. Keys still owed to a section are written when the next section
// head (or the end of the file) closes it, so new keys stand at the end of
// their section. Not thread-safe: one IniData belongs to one caller.
#include "iniedit.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "fstring.h"
#include "signaling.h"

namespace {
const size_t INI_LINE_BUF = 5000;

void WriteKeys(FILE* f, const IniSectionData& rKeys)
{
    for (const auto& kv : rKeys)
        fprintf(f, "%s=%s\n", kv.first.c_str(), kv.second.c_str());
}

void WriteSection(FILE* f, const std::string& strName, const IniSectionData& rKeys)
{
    fprintf(f, "[%s]\n", strName.c_str());
    WriteKeys(f, rKeys);
}

const IniSectionData* FindSection(const std::map<std::string, IniSectionData>& rMap,
                                  const std::string& strName)
{
    auto it = rMap.find(strName);
    return it == rMap.end() ? nullptr : &it->second;
}

// State of the merge while the file is read.
struct MergeState {
    std::string strSection;         // current section name ("" before the first head)
    IniSectionData rSectionData;    // keys of data still to be written in it
    IniSectionData rDefSectionData; // defaults still to be written in it
    std::set<std::string> rHandledSections;
};

void CloseSection(FILE* f, MergeState& rState)
{
    WriteKeys(f, rState.rSectionData);
    WriteKeys(f, rState.rDefSectionData);
    rState.rHandledSections.insert(rState.strSection);
}
} // namespace

void IniData::set(std::string strSection, std::string strKey, std::string strValue)
{
    data[strSection][strKey] = strValue;
}

void IniData::setDefault(std::string strSection, std::string strKey, std::string strValue)
{
    defData[strSection][strKey] = strValue;
}

void IniData::replaceSection(std::string strSection)
{
    toReplace.insert(strSection);
}

std::string IniData::dump()
{
    std::string strText;
    for (const auto& sec : data) {
        strText += "[" + sec.first + "]\n";
        for (const auto& kv : sec.second)
            strText += kv.first + "=" + kv.second + "\n";
    }
    return strText;
}

void IniData::overwrite(std::string strPath)
{
    FILE* f = fopen(strPath.c_str(), "we");
    if (!f)
        return;
    std::string strText = dump();
    fwrite(strText.data(), 1, strText.size(), f);
    fclose(f);
}

void IniData::update(std::string strPath)
{
    FILE* fIn = fopen(strPath.c_str(), "re");
    if (!fIn) {
        // A missing file is made from data alone; its defaults are lost.
        overwrite(strPath);
        return;
    }
    std::string strTmp = strPath + ".tmp";
    FILE* fOut = fopen(strTmp.c_str(), "we");
    if (!fOut) {
        fclose(fIn);
        return;
    }

    MergeState rState;
    std::unique_ptr<char[]> acBuf(new char[INI_LINE_BUF]);
    // A line longer than the buffer arrives in pieces, each taken as a line.
    while (fgets(acBuf.get(), INI_LINE_BUF, fIn)) {
        char* pLine = acBuf.get();
        if (pLine[0] == '[') {
            char* pClose = strrchr(pLine, ']');
            if (!pClose)
                continue; // a broken head is dropped
            CloseSection(fOut, rState);
            rState.strSection.assign(pLine + 1, pClose);
            const IniSectionData* prData = FindSection(data, rState.strSection);
            const IniSectionData* prDef = FindSection(defData, rState.strSection);
            rState.rSectionData = prData ? *prData : IniSectionData();
            rState.rDefSectionData = prDef ? *prDef : IniSectionData();
            fputs(pLine, fOut);
            continue;
        }
        char* pEq = strchr(pLine, '=');
        if (!pLine[0] || !pEq) {
            // Comments and blank lines stay, also in a replaced section.
            fputs(pLine, fOut);
            continue;
        }
        std::string strKey(pLine, pEq);
        trim(strKey);
        if (toReplace.count(rState.strSection) == 0) {
            auto it = rState.rSectionData.find(strKey);
            if (it != rState.rSectionData.end()) {
                fprintf(fOut, "%s=%s\n", strKey.c_str(), it->second.c_str());
                rState.rSectionData.erase(it);
            } else {
                fputs(pLine, fOut);
            }
            // A key the file keeps beats a default; a dropped one doesn't.
            rState.rDefSectionData.erase(strKey);
        }
    }
    CloseSection(fOut, rState);

    for (const auto& sec : data) {
        if (rState.rHandledSections.count(sec.first))
            continue;
        WriteSection(fOut, sec.first, sec.second);
        rState.rHandledSections.insert(sec.first);
        const IniSectionData* prDef = FindSection(defData, sec.first);
        if (prDef)
            WriteKeys(fOut, *prDef);
    }
    for (const auto& sec : defData)
        if (!rState.rHandledSections.count(sec.first))
            WriteSection(fOut, sec.first, sec.second);

    fclose(fIn);
    fclose(fOut);
    stdSystem("cp -p " + escapeShellArg(strTmp) + " " + escapeShellArg(strPath));
    unlink(strTmp.c_str());
}
