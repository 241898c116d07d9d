// config.cpp - the simulator's board-detection tool ("./config").
//
// The daemon deletes ShConfig.ini in the driver's tools directory, changes
// into that directory and runs "./config"; the tool writes ./ShConfig.ini
// with the boards it finds. Here the boards come from the hardware
// description, read fresh at every run. The tools directory is
// <root>/usr/local/lib/shcti/CurrentVersion/tools and the description
// <root>/usr/local/lib/shcti/sim/hardware.ini, so the tool finds it relative
// to its working directory whatever the root; SHSIM_ROOT or the compiled-in
// root serve when it runs elsewhere. A faulty description writes no file,
// which the daemon takes as no boards.
#include "hwdesc.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#ifndef QUORDA_ROOT
#define QUORDA_ROOT ""
#endif

namespace {

std::string HardwarePath()
{
    const std::string rel = "../../sim/hardware.ini";
    if (access(rel.c_str(), R_OK) == 0)
        return rel;
    const char* env = getenv("SHSIM_ROOT");
    return HardwarePathOf((env && *env) ? env : QUORDA_ROOT);
}

} // namespace

int main()
{
    HardwareDesc hw;
    std::string err;
    if (!LoadHardware(HardwarePath(), hw, err)) {
        fprintf(stderr, "config: %s\n", err.c_str());
        return 1;
    }
    std::string text = ToolShConfigText(hw);
    FILE* f = fopen("ShConfig.ini", "w");
    if (!f || fwrite(text.data(), 1, text.size(), f) != text.size()) {
        perror("config: ShConfig.ini");
        if (f)
            fclose(f);
        return 1;
    }
    if (fclose(f) != 0) {
        perror("config: ShConfig.ini");
        return 1;
    }
    return 0;
}
