// test_analog_sim.h - starts the card simulator's driver in a test's
// temporary root with the given hardware and driver configuration, as the
// daemon would find it after its card set-up.
#ifndef TEST_ANALOG_SIM_H
#define TEST_ANALOG_SIM_H

#include <string>

#include "paths.h"
#include "shpa3api.h"
#include "shsim.h"
#include "support_temp_root.h"

// 0 when the driver started. shsim_reset() afterwards closes it again.
inline int StartSimDriver(const TempRoot& rRoot, const std::string& strHardware,
                          const std::string& strShConfig)
{
    shsim_reset();
    shsim_set_root(rRoot.strRoot.c_str());
    rRoot.Write("/usr/local/lib/shcti/sim/hardware.ini", strHardware);
    std::string strCfg = rRoot.Write("/var/quorda/data/ShConfig.ini", strShConfig);
    return SsmStartCti(strCfg.c_str(), SysPath("/var/quorda/data/ShIndex.ini").c_str());
}

#endif
