// simini.cpp - the simulator's INI reader (see simini.h).
#include "simini.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

const std::string* IniSection::Find(const std::string& key) const
{
    for (const auto& kv : vKeys) {
        if (kv.first == key)
            return &kv.second;
    }
    return nullptr;
}

std::string TrimBlanks(const std::string& s)
{
    const char* blanks = " \t\r\n";
    size_t b = s.find_first_not_of(blanks);
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(blanks);
    return s.substr(b, e - b + 1);
}

std::vector<IniSection> ParseIniText(const std::string& text)
{
    std::vector<IniSection> vSections(1);
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        line = TrimBlanks(line);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line[0] == '[') {
            size_t close = line.find(']');
            IniSection sec;
            sec.strName =
                TrimBlanks(line.substr(1, close == std::string::npos ? std::string::npos : close - 1));
            vSections.push_back(sec);
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        vSections.back().vKeys.emplace_back(TrimBlanks(line.substr(0, eq)), TrimBlanks(line.substr(eq + 1)));
    }
    if (vSections.front().vKeys.empty())
        vSections.erase(vSections.begin());
    return vSections;
}

bool ReadTextFile(const std::string& path, std::string& text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    return true;
}

bool ParseInt(const std::string& s, long& value)
{
    std::string t = TrimBlanks(s);
    if (t.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    // Base 10 unless "0x": a leading zero must not turn a channel into octal.
    bool fHex = t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
    value = strtol(t.c_str(), &end, fHex ? 16 : 10);
    return errno == 0 && end && *end == '\0';
}
