// tracker_script.h - the PHP stand-ins of the post-call tracker
// (tests/data/tracker), run by the system's php, and the log they keep:
// one "<pid> <request>" line per request a script acted on.
#ifndef TRACKER_SCRIPT_H
#define TRACKER_SCRIPT_H

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LineCom.h"

const char* const kPhp = "/usr/bin/php";

inline std::string TrackerScript(const std::string& strName)
{
    return std::string(QUORDA_SOURCE_DIR "/tests/data/tracker/") + strName;
}

struct TrackerEntry {
    long iPid;
    std::string strText;
};

inline std::vector<TrackerEntry> ReadTrackerLog(const std::string& strPath)
{
    std::vector<TrackerEntry> v;
    std::ifstream f(strPath);
    std::string strLine;
    while (std::getline(f, strLine)) {
        size_t iBlank = strLine.find(' ');
        if (iBlank != std::string::npos)
            v.push_back({std::stol(strLine.substr(0, iBlank)), strLine.substr(iBlank + 1)});
    }
    return v;
}

// The texts of the log, in order.
inline std::vector<std::string> TrackerTexts(const std::string& strPath)
{
    std::vector<std::string> v;
    for (const TrackerEntry& e : ReadTrackerLog(strPath))
        v.push_back(e.strText);
    return v;
}

inline bool WaitForTrackerEntries(const std::string& strPath, size_t iCount, int iMs)
{
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMs);
    while (ReadTrackerLog(strPath).size() < iCount) {
        if (std::chrono::steady_clock::now() > tEnd)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// Gone and reaped: a zombie would still take the signal.
inline bool ProcessGone(long iPid)
{
    return kill(static_cast<pid_t>(iPid), 0) == -1 && errno == ESRCH;
}

// While it lives, a LineCom second lasts iUnitUs microseconds.
class LineComTimeScale {
public:
    explicit LineComTimeScale(long iUnitUs) { LineCom::SetTimeUnit(iUnitUs); }
    ~LineComTimeScale() { LineCom::SetTimeUnit(0); }
    LineComTimeScale(const LineComTimeScale&) = delete;
    LineComTimeScale& operator=(const LineComTimeScale&) = delete;
};

#endif
