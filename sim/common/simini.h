// simini.h - the small INI reader shared by the simulator's pieces.
//
// Both files the simulator reads are INI-like: its own hardware description
// and the driver configuration that the daemon writes. Sections keep their
// file order and keys their order inside a section, since the board order
// carries meaning. The reader is lenient about form (blanks around "=",
// CR LF line ends, "#" and ";" comment lines); the callers judge content.
#ifndef SIM_SIMINI_H
#define SIM_SIMINI_H

#include <string>
#include <utility>
#include <vector>

struct IniSection {
    std::string strName; // without brackets; "" for keys before the first head
    std::vector<std::pair<std::string, std::string>> vKeys;

    // The value of key, or null when the section doesn't hold it.
    const std::string* Find(const std::string& key) const;
};

std::vector<IniSection> ParseIniText(const std::string& text);

// Reads a whole file; false when it can't be opened.
bool ReadTextFile(const std::string& path, std::string& text);

std::string TrimBlanks(const std::string& s);

// Whole decimal number (or 0x hex) with optional sign; false for anything else.
bool ParseInt(const std::string& s, long& value);

#endif
