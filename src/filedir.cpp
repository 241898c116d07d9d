// filedir.cpp - file existence, small-file reading, names, directories,
// and DeleteFn.
//
// DESIGN: no state; every function may run on any thread. DeleteFn looks
// for the secure-delete marker on every call, so switching the option on
// takes effect at once; in secure mode it blocks its caller until shred
// has overwritten and removed the file, which is why recordings are
// deleted on the background workers.
#include "filedir.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "paths.h"
#include "signaling.h"

bool file_exists(std::string path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string StdGetFileContent(std::string path)
{
    FILE* f = fopen(path.c_str(), "re");
    if (!f)
        return std::string();
    std::string strText;
    char acBuf[100];
    // Each piece counts up to its first NUL: meant for small text files.
    while (fgets(acBuf, sizeof(acBuf), f))
        strText += acBuf;
    fclose(f);
    return strText;
}

std::string ExtractFileName(std::string path)
{
    size_t iSlash = path.rfind('/');
    return iSlash == std::string::npos ? path : path.substr(iSlash + 1);
}

void EnsurePath(std::string path)
{
    // mkdir results aren't tested: a directory that can't be made shows up
    // when the caller opens a file in it.
    if (path.size() < 2) {
        if (!file_exists(path))
            mkdir(path.c_str(), 0777);
        return;
    }
    for (size_t i = 1; i + 1 < path.size(); i++) {
        if (path[i] != '/')
            continue;
        std::string strPart = path.substr(0, i);
        if (!file_exists(strPart))
            mkdir(strPart.c_str(), 0777);
    }
    if (!file_exists(path))
        mkdir(path.c_str(), 0777);
}

std::string RemoveFileExtension(std::string path)
{
    size_t iDot = path.rfind('.');
    return iDot == std::string::npos ? path : path.substr(0, iDot);
}

std::string SecureDeleteMarkerPath()
{
    return SysPath("/var/quorda/conf/opt_secure_delete");
}

bool DeleteFn(const char* fn)
{
    if (!fn)
        return false;
    if (!file_exists(SecureDeleteMarkerPath()))
        return unlink(fn) == 0;
    if (!file_exists(fn))
        return false;
    // shred's status isn't trusted: the file being gone is the answer.
    execCmd("shred -u " + escapeShellArg(fn));
    return !file_exists(fn);
}
