// log_capture.h - collects the lines lg() writes while a test runs.
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

struct LoggedLine {
    int iPri;
    std::string strText;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LoggedLine> Lines() const;
    // True when some line at this level contains the text (any level for -1).
    bool Contains(const std::string& strText, int iPri = -1) const;
    void Clear();
};

#endif
