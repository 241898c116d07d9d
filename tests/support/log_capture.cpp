#include "log_capture.h"

#include "logging.h"

namespace {
std::mutex g_rMutex;
std::vector<LoggedLine> g_vLines;

void Hook(int pri, const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_rMutex);
    g_vLines.push_back(LoggedLine{pri, text});
}
}  // namespace

LogCapture::LogCapture()
{
    Clear();
    SetLogHook(&Hook);
}

LogCapture::~LogCapture()
{
    SetLogHook(nullptr);
}

std::vector<LoggedLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(g_rMutex);
    return g_vLines;
}

bool LogCapture::Contains(const std::string& strText, int iPri) const
{
    for (const LoggedLine& l : Lines())
        if ((iPri < 0 || l.iPri == iPri) && l.strText.find(strText) != std::string::npos)
            return true;
    return false;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(g_rMutex);
    g_vLines.clear();
}
