// hwdesc.h - the simulated hardware: which cards sit in the machine.
//
// The hardware description (<root>/usr/local/lib/shcti/sim/hardware.ini) is
// read fresh by the detection tool at every run and by SsmStartCti at every
// call, so that an edit takes effect at the daemon's next attempt. It also
// carries the scripted start failures and the demo scenario. This unit only
// parses and formats; it holds no state and starts no thread.
#ifndef SIM_HWDESC_H
#define SIM_HWDESC_H

#include <string>
#include <vector>

struct SimBoard {
    std::string strModel;
    std::string strSerial;
    int iChannels = 0; // what the detection tool reports
    int iOpened = -1;  // channels the driver really opens; -1 for all
    int iPriType = 7;  // channel type of a DTP board: 7 or 8
};

struct HardwareDesc {
    std::vector<SimBoard> vBoards; // slot order = detection order
    int iFailFirst = 0;            // SsmStartCti fails its first N calls
    double dFailSeconds = 0;       // ... and until this long after its first call
    std::string strAutoplay;       // scenario played once events are enabled
};

// Parses the hardware text; on a fault returns false with a message.
bool ParseHardware(const std::string& text, HardwareDesc& hw, std::string& err);
bool LoadHardware(const std::string& path, HardwareDesc& hw, std::string& err);

// Channel type the driver gives a board of this model: 3 analog (ATP, SHT),
// 7 or 8 PRI (DTP), 12 DST (DST, SHR), -1 for a prefix it can't type.
int ChannelTypeForModel(const std::string& model, int iPriType);

// The ShConfig.ini that the vendor's detection tool writes for this hardware.
std::string ToolShConfigText(const HardwareDesc& hw);

// Paths below a simulator root.
std::string SimDirOf(const std::string& root); // <root>/usr/local/lib/shcti/sim
std::string HardwarePathOf(const std::string& root);
std::string ControlSocketPathOf(const std::string& root);
std::string ToolsDirOf(const std::string& root); // <root>/usr/local/lib/shcti/CurrentVersion/tools

#endif
