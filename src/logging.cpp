// logging.cpp - lg(), the error marker file (see logging.h).
//
// The message is formatted once into a string (with va_copy for the
// sizing pass) and that text goes to stdout or syslog and, for errors, to
// the marker file; so the arguments are never consumed twice.
#include "logging.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

#include "paths.h"
#include "quorda_crec.h"

namespace {
std::atomic<LogHook> g_rHook{nullptr};

std::string FormatV(const char* fmt, va_list args)
{
    char acBuf[512];
    va_list argsCopy;
    va_copy(argsCopy, args);
    int n = vsnprintf(acBuf, sizeof(acBuf), fmt, argsCopy);
    va_end(argsCopy);
    if (n < 0)
        return std::string();
    if (static_cast<size_t>(n) < sizeof(acBuf))
        return std::string(acBuf, static_cast<size_t>(n));
    std::string strText(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(&strText[0], strText.size(), fmt, args);
    strText.resize(static_cast<size_t>(n));
    return strText;
}
}  // namespace

std::string ErrCrecPath()
{
    return SysPath("/var/quorda/data/err_crec.dat");
}

void lg(int pri, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string strText = FormatV(fmt, args);
    va_end(args);

    if (g_DebugMode.load()) {
        fprintf(stdout, "%s\n", strText.c_str());
        fflush(stdout);
    } else {
        syslog(pri, "%s", strText.c_str());
    }
    LogHook hook = g_rHook.load();
    if (hook)
        hook(pri, strText);
    if (pri < 4 && !fAppTerminate.load())
        WriteErrCrec(strText.c_str());
}

void LogCapiError(const char* pos)
{
    int iErr = errno;
    lg(3, "C-api error at %s: %s", pos, strerror(iErr));
}

void WriteErrCrec(const char* text)
{
    FILE* f = fopen(ErrCrecPath().c_str(), "we");
    if (!f)
        return;
    fputs(text ? text : "", f);
    fclose(f);
}

void SetLogHook(LogHook hook)
{
    g_rHook.store(hook);
}
