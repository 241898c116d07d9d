// support_temp_root.h - a short temporary root for the support layer's
// tests: SysPath() points into it while the object lives, and it is
// removed with everything in it afterwards.
#ifndef SUPPORT_TEMP_ROOT_H
#define SUPPORT_TEMP_ROOT_H

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ftw.h>
#include <string>

#include "filedir.h"
#include "paths.h"

class TempRoot {
public:
    TempRoot() : strOldRoot(SysRoot())
    {
        char acTemplate[] = "/tmp/qXXXXXX";
        strRoot = mkdtemp(acTemplate) ? acTemplate : "";
        SetSysRoot(strRoot);
    }
    ~TempRoot()
    {
        SetSysRoot(strOldRoot);
        if (!strRoot.empty())
            nftw(strRoot.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    // Writes text to the absolute path abs below the root, making its directories.
    std::string Write(const std::string& abs, const std::string& text) const
    {
        std::string strPath = SysPath(abs);
        EnsurePath(strPath.substr(0, strPath.rfind('/')));
        std::ofstream(strPath, std::ios::binary) << text;
        return strPath;
    }
    static std::string Read(const std::string& path)
    {
        std::ifstream f(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }

    std::string strRoot;

private:
    static int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
    std::string strOldRoot;
};

#endif
