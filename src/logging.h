// logging.h - the one log of the program.
//
// lg() goes to syslog with the level as priority, or to stdout with a
// newline in debug mode. Levels: 3 error, 4 warning / slow handling,
// 5 normal trace, 7 service signal texts. A level 3 message also
// overwrites the marker file err_crec.dat while the process isn't stopping,
// so the web front end can show the latest error.
#ifndef LOGGING_H
#define LOGGING_H

#include <string>

void lg(int pri, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// lg(3, "C-api error at %s: %s", pos, strerror(errno))
void LogCapiError(const char* pos);

// Overwrites the marker file with text, no line end; silent on failure.
void WriteErrCrec(const char* text);

// Path of the marker file.
std::string ErrCrecPath();

// For tests: every formatted line is also handed to this hook (any thread).
typedef void (*LogHook)(int pri, const std::string& text);
void SetLogHook(LogHook hook);

#endif
