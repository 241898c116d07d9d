// hwdesc.cpp - parsing and formatting of the simulated hardware (see hwdesc.h).
#include "hwdesc.h"

#include "simini.h"

#include <cstdlib>

namespace {

bool SetIntKey(const std::string& sec, const std::string& key, const std::string& val, long lo, long hi,
               int& out, std::string& err)
{
    long v = 0;
    if (!ParseInt(val, v) || v < lo || v > hi) {
        err = "[" + sec + "] " + key + "=" + val + " is not a number from " + std::to_string(lo) + " to " +
              std::to_string(hi);
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

bool ParseBoard(const IniSection& sec, SimBoard& b, std::string& err)
{
    for (const auto& kv : sec.vKeys) {
        const std::string& k = kv.first;
        if (k == "model") {
            b.strModel = kv.second;
        } else if (k == "serial") {
            b.strSerial = kv.second;
        } else if (k == "channels") {
            if (!SetIntKey(sec.strName, k, kv.second, 1, 4096, b.iChannels, err))
                return false;
        } else if (k == "opened") {
            if (!SetIntKey(sec.strName, k, kv.second, 0, 4096, b.iOpened, err))
                return false;
        } else if (k == "pritype") {
            if (!SetIntKey(sec.strName, k, kv.second, 7, 8, b.iPriType, err))
                return false;
        } else {
            err = "[board] has an unknown key '" + k + "'";
            return false;
        }
    }
    if (b.strModel.empty() || b.strSerial.empty() || b.iChannels == 0) {
        err = "[board] needs model, serial and channels";
        return false;
    }
    return true;
}

bool ParseStart(const IniSection& sec, HardwareDesc& hw, std::string& err)
{
    for (const auto& kv : sec.vKeys) {
        if (kv.first == "fail_first") {
            if (!SetIntKey(sec.strName, kv.first, kv.second, 0, 1000000, hw.iFailFirst, err))
                return false;
        } else if (kv.first == "fail_seconds") {
            char* end = nullptr;
            hw.dFailSeconds = strtod(kv.second.c_str(), &end);
            if (!end || *end != '\0' || kv.second.empty() || hw.dFailSeconds < 0) {
                err = "[start] fail_seconds=" + kv.second + " is not a number of seconds";
                return false;
            }
        } else {
            err = "[start] has an unknown key '" + kv.first + "'";
            return false;
        }
    }
    return true;
}

} // namespace

bool ParseHardware(const std::string& text, HardwareDesc& hw, std::string& err)
{
    hw = HardwareDesc();
    for (const IniSection& sec : ParseIniText(text)) {
        if (sec.strName == "board") {
            SimBoard b;
            if (!ParseBoard(sec, b, err))
                return false;
            hw.vBoards.push_back(b);
        } else if (sec.strName == "start") {
            if (!ParseStart(sec, hw, err))
                return false;
        } else if (sec.strName == "scenario") {
            const std::string* p = sec.Find("autoplay");
            if (p)
                hw.strAutoplay = *p;
        } else {
            err = "unknown section [" + sec.strName + "]";
            return false;
        }
    }
    return true;
}

bool LoadHardware(const std::string& path, HardwareDesc& hw, std::string& err)
{
    std::string text;
    if (!ReadTextFile(path, text)) {
        err = "hardware description " + path + " is missing";
        return false;
    }
    if (!ParseHardware(text, hw, err)) {
        err = path + ": " + err;
        return false;
    }
    return true;
}

int ChannelTypeForModel(const std::string& model, int iPriType)
{
    std::string p = model.substr(0, 3);
    if (p == "ATP" || p == "SHT")
        return 3;
    if (p == "DTP")
        return iPriType;
    if (p == "DST" || p == "SHR")
        return 12;
    return -1;
}

std::string ToolShConfigText(const HardwareDesc& hw)
{
    // The daemon pairs AppCh keys with BoardId sections by position and cuts
    // the last character of every value, so: LF only, the last line too, no
    // blanks around "=", and both lists in slot order.
    std::string out = "[SystemConfig]\nTotalBoards=" + std::to_string(hw.vBoards.size()) + "\n";
    std::string table;
    int iStart = 0;
    for (size_t i = 0; i < hw.vBoards.size(); ++i) {
        const SimBoard& b = hw.vBoards[i];
        table += "AppCh[" + std::to_string(iStart) + "]=" + std::to_string(i) + ",0.." +
                 std::to_string(b.iChannels - 1) + "\n";
        iStart += b.iChannels;
    }
    out += "[AppChToBoardChTable]\nTotalAppCh=" + std::to_string(iStart) + "\n" + table;
    for (size_t i = 0; i < hw.vBoards.size(); ++i) {
        out += "[BoardId=" + std::to_string(i) + "]\nBoardSerialNumber=" + hw.vBoards[i].strSerial +
               "\nBoardModel=" + hw.vBoards[i].strModel + "\n";
    }
    return out;
}

std::string SimDirOf(const std::string& root)
{
    return root + "/usr/local/lib/shcti/sim";
}

std::string HardwarePathOf(const std::string& root)
{
    return SimDirOf(root) + "/hardware.ini";
}

std::string ControlSocketPathOf(const std::string& root)
{
    return SimDirOf(root) + "/control.sock";
}

std::string ToolsDirOf(const std::string& root)
{
    return root + "/usr/local/lib/shcti/CurrentVersion/tools";
}
