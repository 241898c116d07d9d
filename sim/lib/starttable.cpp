// starttable.cpp - what the driver opens at SsmStartCti.
//
// The daemon hands SsmStartCti the ShConfig.ini it wrote: "BoardId=<n>"
// sections name each board by serial, and "AppChToBoardChTable" places the
// board's channels in the driver's count ("AppCh[start]=<n>,0..<last>").
// The simulator checks every named serial against the hardware, checks
// that each range covers exactly the board's channels, and builds the table
// driver channel -> (board id, board channel, type). BoardId sections at or
// beyond TotalBoards are left over from an earlier card set (the daemon
// edits the file and never drops sections) and are ignored unless an AppCh
// key names them.
#include "simini.h"
#include "simstate.h"

#include <algorithm>
#include <map>

namespace {

struct Range {
    int iStart = 0;
    int iBoardId = 0;
    int iFirst = 0;
    int iLast = 0;
};

// "AppCh[<start>]" = "<board>,<first>..<last>"
bool ParseAppCh(const std::string& key, const std::string& val, Range& r)
{
    long v = 0;
    size_t close = key.find(']');
    if (key.compare(0, 6, "AppCh[") != 0 || close == std::string::npos ||
        !ParseInt(key.substr(6, close - 6), v))
        return false;
    r.iStart = static_cast<int>(v);
    size_t comma = val.find(',');
    size_t dots = val.find("..");
    if (comma == std::string::npos || dots == std::string::npos || dots < comma)
        return false;
    long b = 0, f = 0, l = 0;
    if (!ParseInt(val.substr(0, comma), b) || !ParseInt(val.substr(comma + 1, dots - comma - 1), f) ||
        !ParseInt(val.substr(dots + 2), l))
        return false;
    r.iBoardId = static_cast<int>(b);
    r.iFirst = static_cast<int>(f);
    r.iLast = static_cast<int>(l);
    return r.iStart >= 0 && r.iFirst >= 0 && r.iLast >= r.iFirst;
}

const SimBoard* FindBySerial(const HardwareDesc& hw, const std::string& serial)
{
    for (const SimBoard& b : hw.vBoards) {
        if (b.strSerial == serial)
            return &b;
    }
    return nullptr;
}

// PRI numbering: in each 60 driver channels of a DTP board the first 30 are
// one direction and the next 30 the other; CIC c belongs to a first-half
// channel a, its partner is a + 30.
void AddCics(const StartedBoard& sb, StartedTable& table)
{
    for (int span = 0; span + 60 <= sb.iChannels; span += 60) {
        for (int j = 0; j < 30; ++j) {
            SimCic c;
            c.iInCh = sb.iFirstDrvCh + span + j;
            c.iOutCh = c.iInCh + 30;
            table.vCics.push_back(c);
        }
    }
}

bool ReadRanges(const IniSection* prTable, std::vector<Range>& vRanges, long& total, std::string& err)
{
    total = -1;
    if (!prTable) {
        err = "ShConfig.ini has no [AppChToBoardChTable]";
        return false;
    }
    for (const auto& kv : prTable->vKeys) {
        if (kv.first == "TotalAppCh") {
            if (!ParseInt(kv.second, total) || total < 0) {
                err = "TotalAppCh=" + kv.second + " in ShConfig.ini is not a channel count";
                return false;
            }
            continue;
        }
        Range r;
        if (!ParseAppCh(kv.first, kv.second, r)) {
            err = "bad channel range " + kv.first + "=" + kv.second + " in ShConfig.ini";
            return false;
        }
        vRanges.push_back(r);
    }
    if (vRanges.empty()) {
        err = "ShConfig.ini places no board in [AppChToBoardChTable]";
        return false;
    }
    return true;
}

} // namespace

bool BuildStartedTable(const std::string& cfgPath, const HardwareDesc& hw, StartedTable& table,
                       std::string& err)
{
    std::string text;
    if (!ReadTextFile(cfgPath, text)) {
        err = "configuration file " + cfgPath + " is missing";
        return false;
    }
    std::vector<IniSection> vSecs = ParseIniText(text);
    long totalBoards = -1;
    const IniSection* prTable = nullptr;
    std::map<int, const IniSection*> mBoardSecs;
    for (const IniSection& sec : vSecs) {
        long id = 0;
        if (sec.strName == "SystemConfig" && sec.Find("TotalBoards"))
            ParseInt(*sec.Find("TotalBoards"), totalBoards);
        else if (sec.strName == "AppChToBoardChTable")
            prTable = &sec;
        else if (sec.strName.compare(0, 8, "BoardId=") == 0 && ParseInt(sec.strName.substr(8), id))
            mBoardSecs[static_cast<int>(id)] = &sec;
    }
    std::vector<Range> vRanges;
    long total = -1;
    if (!ReadRanges(prTable, vRanges, total, err))
        return false;

    table = StartedTable();
    int iEnd = 0;
    for (const Range& r : vRanges)
        iEnd = std::max(iEnd, r.iStart + r.iLast - r.iFirst + 1);
    if (total >= 0 && total < iEnd) {
        err = "TotalAppCh=" + std::to_string(total) + " in ShConfig.ini is less than the " +
              std::to_string(iEnd) + " channels its AppCh ranges cover";
        return false;
    }
    table.vChannels.resize(static_cast<size_t>(total >= 0 ? total : iEnd));

    std::map<std::string, int> mSerialSeen;
    for (const Range& r : vRanges) {
        auto it = mBoardSecs.find(r.iBoardId);
        const std::string* prSerial =
            it == mBoardSecs.end() ? nullptr : it->second->Find("BoardSerialNumber");
        if (!prSerial) {
            err = "AppCh[" + std::to_string(r.iStart) + "] names board " + std::to_string(r.iBoardId) +
                  ", which has no BoardSerialNumber in ShConfig.ini";
            return false;
        }
        const SimBoard* prHw = FindBySerial(hw, *prSerial);
        if (!prHw) {
            err = "board serial " + *prSerial + " in ShConfig.ini is not installed";
            return false;
        }
        if (mSerialSeen.count(*prSerial)) {
            err = "board serial " + *prSerial + " is placed twice in ShConfig.ini";
            return false;
        }
        mSerialSeen[*prSerial] = r.iBoardId;
        int iCount = r.iLast - r.iFirst + 1;
        if (r.iFirst != 0 || iCount != prHw->iChannels) {
            err = "channel range " + std::to_string(r.iFirst) + ".." + std::to_string(r.iLast) +
                  " of board " + std::to_string(r.iBoardId) + " (serial " + *prSerial +
                  ") does not match its " + std::to_string(prHw->iChannels) + " channels";
            return false;
        }
        StartedBoard sb;
        sb.iBoardId = r.iBoardId;
        sb.strSerial = *prSerial;
        sb.strModel = prHw->strModel;
        sb.iFirstDrvCh = r.iStart;
        sb.iChannels = iCount;
        int iType = ChannelTypeForModel(prHw->strModel, prHw->iPriType);
        int iOpened = prHw->iOpened < 0 ? iCount : std::min(prHw->iOpened, iCount);
        for (int i = 0; i < iCount; ++i) {
            SimChannel& ch = table.vChannels[static_cast<size_t>(r.iStart + i)];
            if (ch.iBoardId >= 0) {
                err = "driver channel " + std::to_string(r.iStart + i) + " is placed twice in ShConfig.ini";
                return false;
            }
            ch.iBoardId = r.iBoardId;
            ch.iBoardCh = i;
            ch.iType = i < iOpened ? iType : -1;
            ch.iLineVoltage = iType == SSM_CH_ANALOG ? 48 : 0;
        }
        if (iType == SSM_CH_ISDN_USR || iType == SSM_CH_ISDN_NTW)
            AddCics(sb, table);
        table.vBoards.push_back(sb);
    }
    // Every board the daemon counts must exist, even one without channels.
    for (const auto& kv : mBoardSecs) {
        const std::string* prSerial = kv.second->Find("BoardSerialNumber");
        if (kv.first < totalBoards && prSerial && !FindBySerial(hw, *prSerial)) {
            err = "board serial " + *prSerial + " in ShConfig.ini is not installed";
            return false;
        }
    }
    return true;
}
