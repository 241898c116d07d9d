// paths.h - every absolute path the daemon names goes through SysPath().
//
// The appliance build has an empty root, so SysPath("/var/quorda/data/")
// is that very path. The simulator build compiles in a root inside the
// build tree (QUORDA_ROOT), so that the daemon, its tests and the demo
// never need root rights and never touch the system. In-process tests may
// move the root with SetSysRoot(); the daemon itself never does.
#ifndef PATHS_H
#define PATHS_H

#include <string>

// The absolute path abs under the current root.
std::string SysPath(const std::string& abs);

// The root prefix in force ("" on the appliance).
std::string SysRoot();

// For tests: replace the root prefix. Not thread-safe; call before threads start.
void SetSysRoot(const std::string& root);

// The PHP interpreter of the post-call tracker. It follows the root like
// every other path, but can be set apart so tests may use the system's php.
std::string PhpPath();
void SetPhpPath(const std::string& path);

#endif
