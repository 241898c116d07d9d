// iniedit.h - IniData: a set of changes merged into an INI file in one
// pass, leaving comments, order and unknown keys of the file as they were.
#ifndef INIEDIT_H
#define INIEDIT_H

#include <map>
#include <set>
#include <string>

typedef std::map<std::string, std::string> IniSectionData;

class IniData {
public:
    std::map<std::string, IniSectionData> data;     // values the file must hold
    std::map<std::string, IniSectionData> defData;  // values only for missing keys
    std::set<std::string> toReplace;                // sections whose old keys go

    void set(std::string strSection, std::string strKey, std::string strValue);
    void setDefault(std::string strSection, std::string strKey, std::string strValue);
    void replaceSection(std::string strSection);
    void update(std::string strPath);
    void overwrite(std::string strPath);
    std::string dump();
};

#endif
