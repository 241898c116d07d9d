// paths.cpp - the root prefix of all absolute paths (see paths.h).
#include "paths.h"

#ifndef QUORDA_ROOT
#define QUORDA_ROOT ""
#endif

namespace {
std::string& RootRef()
{
    static std::string strRoot = QUORDA_ROOT;
    return strRoot;
}

std::string& PhpRef()
{
    static std::string strPhp;
    return strPhp;
}
}  // namespace

std::string SysPath(const std::string& abs)
{
    return RootRef() + abs;
}

std::string SysRoot()
{
    return RootRef();
}

void SetSysRoot(const std::string& root)
{
    RootRef() = root;
}

std::string PhpPath()
{
    return PhpRef().empty() ? SysPath("/usr/bin/php") : PhpRef();
}

void SetPhpPath(const std::string& path)
{
    PhpRef() = path;
}
