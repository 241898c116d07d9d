// recorderboot.cpp - card set-up: the settings store, board detection and
// the board list, the card driver's configuration file and the analysis of
// what the started driver opened.
//
// DESIGN: a TRecorderBoot is built anew for every start attempt. Init loads
// the parts "crec", "s" and "o" of Configs into maps; PrepareConfig runs the
// driver's detection tool, reconciles what it found with the stored
// CardList (so that a line keeps its web number while a card is missing),
// numbers the channels and merges the result into ShConfig.ini; InitBoards
// starts the driver and AnalyseStartedState records what it opened.
// Everything a start finds out is collected in rNewConfigs and reaches the
// database only through WriteNewConfigsToDB.
//
// Threads: all of this runs on the main thread, before and during the event
// loop. The settings maps have no lock: a cached read of an unknown key
// inserts it, so no other thread may read them. rListMutex guards the
// action queue only (recorder.cpp).
#include "recorder.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bgact.h"
#include "database.h"
#include "filedir.h"
#include "ftime.h"
#include "iniedit.h"
#include "logging.h"
#include "paths.h"
#include "quorda_crec.h"
#include "shpa3api.h"

PSSMCLEARR2CALLTONEBUF SsmClearR2callToneBuf_FP = nullptr;

namespace {
const char* const kToolsDir = "/usr/local/lib/shcti/CurrentVersion/tools/";
const char* const kDriverConfig = "/var/quorda/data/ShConfig.ini";
const char* const kDriverIndex = "/var/quorda/data/ShIndex.ini";
const char* const kDefaultPbxType = "Siemens Hicom/Hipath";

// A PRI tap numbers its driver channels in blocks of 60: 30 of one
// direction, then 30 of the other. The web and CIC counts take the first 30.
const int kPriHalfBlock = 30;
const int kPriSpanChannels = 60;

std::string Num(int i)
{
    return ToStdString(i);
}

bool IsDigitalClockSource(ECardType eType)
{
    return eType == CT_DST || eType == CT_DTP;
}

// Text after the first "=" of a tool line, without the line's last character
// (the line feed). A value too short for that is empty.
std::string ToolLineValue(const std::string& strLine, size_t iEq)
{
    if (iEq + 2 > strLine.size())
        return std::string();
    return strLine.substr(iEq + 1, strLine.size() - iEq - 2);
}

// Section name of a tool head: the line without its first character and its
// last two (the "]" and the line feed).
std::string ToolSectionName(const std::string& strLine)
{
    if (strLine.size() < 3)
        return std::string();
    return strLine.substr(1, strLine.size() - 3);
}

void NumberChannels(TRecorderBoot& rBoot);
int WritePriBoardConfig(IniData& rIni, const TBoard& b, int iFirstSpan);
void WriteAnalogBoardConfig(TRecorderBoot& rBoot, IniData& rIni, int iBoardListIx);
TBoard* GetParamBoard(TRecorderBoot& rBoot, int iBoardListIx, const std::string& strParam);
std::string LastSsmError();

// "<a>,<b>,..." of one number per channel of a board.
template <typename F> std::string PerChannelList(int iMaxCh, F fnValue)
{
    std::string strList;
    for (int iCh = 0; iCh < iMaxCh; iCh++) {
        if (iCh)
            strList += ",";
        strList += fnValue(iCh);
    }
    return strList;
}
} // namespace

// ---- TBoard -------------------------------------------------------------------

std::string TBoard::getId() const
{
    return fPresent ? "Syn" + strSerial : strId;
}

ECardType TBoard::GetCtType() const
{
    static const struct {
        const char* acPrefix;
        ECardType eType;
    } arTypes[] = {{"ATP", CT_ATP}, {"DST", CT_DST}, {"SHR", CT_DST}, {"DTP", CT_DTP}, {"SHT", CT_SHT}};
    for (const auto& rType : arTypes)
        if (strModel.compare(0, 3, rType.acPrefix) == 0)
            return rType.eType;
    return CT_UNKNOWN;
}

// ---- life cycle -------------------------------------------------------------------

TRecorderBoot::TRecorderBoot(IDatabase* prDb) : prDatabase(prDb) {}

TRecorderBoot::~TRecorderBoot()
{
    {
        // Acts still queued are destroyed unrun, as at the end of the loop.
        std::lock_guard<std::mutex> lock(rListMutex);
        for (ThreadAct* prAct : rActQueue)
            delete prAct;
        rActQueue.clear();
    }
    UnlinkOptionalFunctions();
    delete prDatabase;
}

bool TRecorderBoot::Init()
{
    struct stat rStat;
    if (stat(SysPath("/var/quorda/conf/crec_disabled").c_str(), &rStat) == 0) {
        lg(4, "Card recording is disabled using file");
        return false;
    }
    LinkOptionalFunctions();
    if (!prDatabase)
        prDatabase = new Database("root");
    prDatabase->GetConfigsPart(rConfigs, "crec");
    prDatabase->GetConfigsPart(rConfigsSys, "s");
    prDatabase->GetConfigsPart(rConfigsO, "o");
    // rListMutex was built with the object, before g_prBoot could point here.
    if (StrToInt(rConfigsSys["crec"]) == 1)
        return true;
    lg(4, "Card recording is disabled in database");
    return false;
}

void TRecorderBoot::LinkOptionalFunctions()
{
    UnlinkOptionalFunctions();
    // The library is linked already; this second open only finds a function
    // that older library versions lack.
    shpaDll = dlopen("libshpa3.so", RTLD_LAZY);
    if (!shpaDll)
        return;
    SsmClearR2callToneBuf_FP =
        reinterpret_cast<PSSMCLEARR2CALLTONEBUF>(dlsym(shpaDll, "SsmClearR2callToneBuf"));
    if (SsmClearR2callToneBuf_FP)
        lg(5, "SsmClearR2callToneBuf symbol found");
    else
        lg(5, "SsmClearR2callToneBuf symbol not found");
}

void TRecorderBoot::UnlinkOptionalFunctions()
{
    SsmClearR2callToneBuf_FP = nullptr;
    if (shpaDll)
        dlclose(shpaDll);
    shpaDll = nullptr;
}

void TRecorderBoot::PrepareConfig()
{
    DetectBoards();
    CreateBoardList();
    WriteConfig();
}

void TRecorderBoot::WriteNewConfigsToDB()
{
    if (prDatabase)
        prDatabase->SetConfigsPart(rNewConfigs, "crec");
}

// ---- board detection ------------------------------------------------------------

void TRecorderBoot::DetectBoards()
{
    lg(5, "Waiting to give card time to initialize.");
    CheckedSleep(10000);

    std::string strTools = SysPath(kToolsDir);
    DeleteFn((strTools + "ShConfig.ini").c_str());
    // The tool writes its file into the working directory, which stays there.
    if (chdir(strTools.c_str()) == 0) {
        int iRc = system("./config");
        (void)iRc; // the tool's file is what counts, not its status
    } else {
        LogCapiError("chdir");
    }
    ParseDetectedBoards(strTools + "ShConfig.ini");
}

void TRecorderBoot::ParseDetectedBoards(const std::string& strPath)
{
    std::vector<int> viMaxCh;
    std::vector<std::string> vstrSerials, vstrModels;

    FILE* f = fopen(strPath.c_str(), "re");
    if (f) {
        enum { NONE = -1, APP_CH_TABLE = 1, BOARD_SECTION = 2 } eState = NONE;
        // A longer line arrives in pieces of 499 bytes, each read as a line.
        char acLine[500];
        while (fgets(acLine, sizeof(acLine), f)) {
            std::string strLine(acLine);
            if (strLine.empty())
                continue;
            if (strLine[0] == '[') {
                std::string strName = ToolSectionName(strLine);
                if (strName == "AppChToBoardChTable")
                    eState = APP_CH_TABLE;
                else if (beginsWith(strName, "BoardId="))
                    eState = BOARD_SECTION;
                else
                    eState = NONE;
                continue;
            }
            size_t iEq = strLine.find('=');
            if (iEq == std::string::npos)
                continue;
            // The key is not trimmed: the tool writes none of its keys with blanks.
            std::string strKey = strLine.substr(0, iEq);
            std::string strValue = ToolLineValue(strLine, iEq);
            if (eState == APP_CH_TABLE && beginsWith(strKey, "AppCh[")) {
                // "<board>,0..<last channel>": the count is the last channel plus one.
                size_t iDot = strValue.rfind('.');
                if (iDot != std::string::npos)
                    viMaxCh.push_back(StrToInt(strValue.substr(iDot + 1)) + 1);
            } else if (eState == BOARD_SECTION && strKey == "BoardSerialNumber") {
                vstrSerials.push_back(strValue);
            } else if (eState == BOARD_SECTION && strKey == "BoardModel") {
                vstrModels.push_back(strValue);
            }
        }
        fclose(f);
    }

    // The lists pair by position; the tool writes them in the same board order.
    size_t n = viMaxCh.size();
    if (vstrSerials.size() != n || vstrModels.size() != n) {
        lg(3, "Unequal size in detect boards");
        n = std::min(n, std::min(vstrSerials.size(), vstrModels.size()));
    }
    for (size_t i = 0; i < n; i++) {
        TBoard rBoard;
        rBoard.strSerial = vstrSerials[i];
        rBoard.strModel = vstrModels[i];
        rBoard.iMaxCh = viMaxCh[i];
        ECardType eType = rBoard.GetCtType();
        if (eType == CT_UNKNOWN)
            continue;
        // A PRI tap has two driver channels per call.
        rBoard.iWebMaxCh = eType == CT_DTP ? rBoard.iMaxCh / 2 : rBoard.iMaxCh;
        rNewConfigs[rBoard.getId() + "_Present"] = "1";
        vrDetectedBoards.push_back(rBoard);
    }

    lg(5, "Detected boards:");
    for (size_t i = 0; i < vrDetectedBoards.size(); i++) {
        const TBoard& b = vrDetectedBoards[i];
        lg(5, "%d. SN: %s Model: %s MaxCh: %d webMaxCh: %d", static_cast<int>(i), b.strSerial.c_str(),
           b.strModel.c_str(), b.iMaxCh, b.iWebMaxCh);
    }
}

// ---- board list -----------------------------------------------------------------

void TRecorderBoot::CreateBoardList()
{
    strCardList = GetCrecSetting(g_cfgPrefix + "CardList", CFG_CACHED_LOAD);
    lg(5, "Old card list: %s", strCardList.c_str());
    std::vector<std::string> vstrIds;
    lt_split(vstrIds, strCardList, ',');

    // Stored cards first, in their stored order, present or not.
    for (const std::string& strId : vstrIds) {
        bool fFound = false;
        for (TBoard& rDetected : vrDetectedBoards) {
            // A taken entry is no longer present and can't match a second time.
            if (rDetected.fPresent && rDetected.getId() == strId) {
                vrBoardList.push_back(rDetected);
                rDetected.fPresent = false;
                fFound = true;
                break;
            }
        }
        if (fFound)
            continue;
        TBoard rAbsent;
        rAbsent.fPresent = false;
        rAbsent.strId = strId;
        rNewConfigs[strId + "_Present"] = "0";
        rAbsent.iWebMaxCh = StrToInt(GetCrecSetting(strId + "_MaxChannels", CFG_CACHED_LOAD));
        // An absent card holds web numbers only; without a stored count it holds none.
        if (rAbsent.iWebMaxCh != 0)
            vrBoardList.push_back(rAbsent);
    }
    // Absent cards keep their place only to protect a present card behind them.
    while (!vrBoardList.empty() && !vrBoardList.back().fPresent)
        vrBoardList.pop_back();
    // New cards go behind all stored ones.
    for (const TBoard& rDetected : vrDetectedBoards)
        if (rDetected.fPresent)
            vrBoardList.push_back(rDetected);

    for (TBoard& b : vrBoardList) {
        if (!b.fPresent)
            continue;
        b.strPBXType = GetCrecSetting(b.getId() + "_PBXType", CFG_CACHED_LOAD);
        if (b.GetCtType() != CT_DST)
            b.strPBXType.clear();
        else if (b.strPBXType.empty())
            b.strPBXType = kDefaultPbxType;
        b.strPhoneType = GetCrecSetting(b.getId() + "_PhoneType", CFG_CACHED_LOAD);
    }

    NumberChannels(*this);

    for (const TBoard& b : vrBoardList) {
        if (!b.fPresent)
            continue;
        rNewConfigs[b.getId() + "_MaxChannels"] = Num(b.iWebMaxCh);
        rNewConfigs[b.getId() + "_Model"] = b.strModel;
        rNewConfigs[b.getId() + "_SN"] = b.strSerial;
    }

    lg(5, "Board List:");
    strCardList.clear();
    for (size_t i = 0; i < vrBoardList.size(); i++) {
        const TBoard& b = vrBoardList[i];
        lg(5, "%d. SN:%s start:%d cnt:%d PBXType:%s", static_cast<int>(i), b.strSerial.c_str(), b.iStartCh,
           b.iMaxCh, b.strPBXType.c_str());
        if (i)
            strCardList += ",";
        strCardList += b.getId();
    }
    lg(5, "New CardList: %s", strCardList.c_str());
}

namespace {
// Driver, web and CIC numbers of every board, in list order.
void NumberChannels(TRecorderBoot& rBoot)
{
    rBoot.iTotalDrvMaxCh = 0;
    rBoot.iTotalWebMaxCh = 0;
    int iDrvStart = 0, iWebStart = 0, iBoardId = 0, iCic = 0;
    for (TBoard& b : rBoot.vrBoardList) {
        b.iStartCh = iDrvStart;
        b.iWebStartCh = iWebStart;
        iDrvStart += b.iMaxCh;
        iWebStart += b.iWebMaxCh;
        rBoot.iTotalDrvMaxCh += b.iMaxCh;
        rBoot.iTotalWebMaxCh += b.iWebMaxCh;
        if (!b.fPresent) {
            b.iBoardId = -1;
            continue;
        }
        bool fPri = b.GetCtType() == CT_DTP;
        int iSkip = 0;
        for (int i = 0; i < b.iWebMaxCh; i++) {
            int iDrv = b.iStartCh + iSkip + i;
            int iWeb = b.iWebStartCh + i;
            rBoot.rDrvToWebChMap[iDrv] = iWeb;
            rBoot.rWebToDrvChMap[iWeb] = iDrv;
            if (fPri && i % kPriHalfBlock == kPriHalfBlock - 1)
                iSkip += kPriHalfBlock;
        }
        if (fPri && b.iMaxCh > 1) {
            int iHalf = b.iMaxCh / 2;
            iSkip = 0;
            for (int j = 0; j < iHalf; j++) {
                int iApp = b.iStartCh + iSkip + j;
                rBoot.rCicToAppChMap[iCic + j] = iApp;
                rBoot.rAppToCicChMap[iApp] = iCic + j;
                if (j % kPriHalfBlock == kPriHalfBlock - 1)
                    iSkip += kPriHalfBlock;
            }
            iCic += iHalf;
        }
        b.iBoardId = iBoardId++;
    }
}
} // namespace

TBoard* TRecorderBoot::GetBoard(int iBoardListIx)
{
    if (iBoardListIx < 0 || iBoardListIx >= static_cast<int>(vrBoardList.size()))
        return nullptr;
    return &vrBoardList[iBoardListIx];
}

int TRecorderBoot::GetBoardListIxForBoardId(int iBoardId)
{
    for (size_t i = 0; i < vrBoardList.size(); i++)
        if (vrBoardList[i].iBoardId == iBoardId)
            return static_cast<int>(i);
    return -1;
}

ECardType TRecorderBoot::GetBoardCardType(int iBoardListIx)
{
    TBoard* prBoard = GetBoard(iBoardListIx);
    return prBoard ? prBoard->GetCtType() : CT_UNKNOWN;
}

// ---- driver configuration ----------------------------------------------------------

void TRecorderBoot::WriteConfig()
{
    if (StrToInt(GetCrecSetting("NoWriteIni", CFG_CACHED_LOAD)) == 1) {
        lg(4, "Not writing ShConfig.ini");
        return;
    }
    int iOsVersion = GetDebianVersion();
    IniData rIni;

    int iClockBoard = -1;
    bool fAnyR2 = false;
    for (const TBoard& b : vrBoardList) {
        if (!b.fPresent)
            continue;
        if (IsDigitalClockSource(b.GetCtType()))
            iClockBoard = b.iBoardId;
        if (b.GetCtType() == CT_SHT)
            fAnyR2 = true;
    }
    rIni.set("SystemConfig", "TotalBoards", Num(static_cast<int>(vrDetectedBoards.size())));
    rIni.set("SystemConfig", "EventInterfaceType", "1");
    rIni.set("SystemConfig", "WhoSupplySysClock", Num(iClockBoard));
    if (fAnyR2)
        rIni.setDefault("SystemConfig", "R2DetectMode", "1");

    rIni.replaceSection("AppChToBoardChTable");
    rIni.set("AppChToBoardChTable", "TotalAppCh", Num(iTotalDrvMaxCh));
    for (const TBoard& b : vrBoardList)
        if (b.fPresent && b.GetCtType() != CT_UNKNOWN)
            rIni.set("AppChToBoardChTable", "AppCh[" + Num(b.iStartCh) + "]",
                     Num(b.iBoardId) + ",0.." + Num(b.iMaxCh - 1));

    // The PCM spans of all PRI boards are numbered on, board after board.
    int iTotalSpans = 0;
    rIni.replaceSection("PcmInfo");
    for (size_t ix = 0; ix < vrBoardList.size(); ix++) {
        const TBoard& b = vrBoardList[ix];
        if (!b.fPresent)
            continue;
        std::string strSection = "BoardId=" + Num(b.iBoardId);
        rIni.set(strSection, "BoardModel", b.strModel);
        rIni.set(strSection, "PBXType", b.strPBXType);
        rIni.set(strSection, "BoardSerialNumber", b.strSerial);
        rIni.set(strSection, "DstRecRawData", "0");
        if (!b.strPhoneType.empty())
            rIni.set(strSection, "PhoneType", b.strPhoneType);
        if (iOsVersion > 9)
            rIni.setDefault(strSection, "EnableDMA", "0");
        ECardType eType = b.GetCtType();
        if (eType == CT_DTP)
            iTotalSpans += WritePriBoardConfig(rIni, b, iTotalSpans);
        else if (eType == CT_ATP || eType == CT_SHT)
            WriteAnalogBoardConfig(*this, rIni, static_cast<int>(ix));
    }

    if (iTotalSpans > 0) {
        rIni.set("PcmInfo", "TotalPcm", Num(iTotalSpans * 2));
        rIni.set("SpyPcm", "TotalSpyPcm", Num(iTotalSpans));
        rIni.set("AppSpyCICTable", "TotalAppSpyCIC", Num(iTotalSpans * kPriHalfBlock));
        for (int s = 0; s < iTotalSpans; s++) {
            rIni.set("SpyPcm", "SpyPcm[" + Num(s) + "]",
                     "Pcm[" + Num(2 * s) + "],Pcm[" + Num(2 * s + 1) + "]");
            rIni.set("AppSpyCICTable", "AppSpyCIC[" + Num(kPriHalfBlock * s) + "]",
                     "SpyPcm[" + Num(s) + "],0.." + Num(kPriHalfBlock - 1));
        }
    }

    bool fApiLog = StrToInt(GetOSetting("TdmLogApi")) != 0;
    rIni.set("DebugView", "ApiLogEnable", fApiLog ? "4" : "0");
    rIni.set("DebugView", "OutputDTRRawData", fApiLog ? "1158" : "38512");
    rIni.set("DebugView", "DSTLogEnable", fApiLog ? "1" : "0");
    rIni.set("DebugView", "DSTLogCreateMode", "0");

    rIni.update(SysPath(kDriverConfig));
    // The driver rebuilds its index from the configuration when it is empty.
    FILE* f = fopen(SysPath(kDriverIndex).c_str(), "w+e");
    if (f)
        fclose(f);
}

namespace {
// PCM keys of a PRI board whose spans are numbered on from iFirstSpan; gives
// the board's span count.
int WritePriBoardConfig(IniData& rIni, const TBoard& b, int iFirstSpan)
{
    std::string strSection = "BoardId=" + Num(b.iBoardId);
    int iSpans = b.iMaxCh / kPriSpanChannels;
    rIni.setDefault(strSection, "UseHdlc", "1");
    rIni.setDefault(strSection, "DualAndAllFreqEnScale", "32");
    rIni.setDefault(strSection, "PcmNumber", Num(iSpans * 2));
    for (int i = 0; i < iSpans; i++) {
        std::string strA = "[" + Num(2 * i) + "]", strB = "[" + Num(2 * i + 1) + "]";
        rIni.setDefault(strSection, "PcmSSx" + strA, "2");
        rIni.setDefault(strSection, "PcmSSx" + strB, "2");
        // The first PCM of every board takes its clock from the line.
        rIni.set(strSection, "PcmClockMode" + strA, i == 0 ? "0" : "2");
        rIni.set(strSection, "PcmClockMode" + strB, "2");
        rIni.setDefault(strSection, "PcmLinkType" + strA, "0");
        rIni.setDefault(strSection, "PcmLinkType" + strB, "0");
        int s = iFirstSpan + i;
        rIni.set("PcmInfo", "Pcm[" + Num(2 * s) + "]", Num(b.iBoardId) + "," + Num(2 * i));
        rIni.set("PcmInfo", "Pcm[" + Num(2 * s + 1) + "]", Num(b.iBoardId) + "," + Num(2 * i + 1));
    }
    return iSpans;
}

// Line thresholds of an analog board, one field per channel.
void WriteAnalogBoardConfig(TRecorderBoot& rBoot, IniData& rIni, int iBoardListIx)
{
    const TBoard& b = rBoot.vrBoardList[iBoardListIx];
    std::string strSection = "BoardId=" + Num(b.iBoardId);
    rIni.setDefault(strSection, "DualAndAllFreqEnScale", StrRepeat(24, "10", ","));
    rIni.set(strSection, "IsHangupDtrmVoltage", PerChannelList(b.iMaxCh, [&](int iCh) {
                 return Num(rBoot.GetChannelParamInt(iCh, iBoardListIx, "OffHookThr", CFG_CACHED_LOAD));
             }));
    rIni.set(strSection, "IgnoreLineVoltage", PerChannelList(b.iMaxCh, [&](int iCh) {
                 return std::string(
                     rBoot.GetChannelParamInt(iCh, iBoardListIx, "Trigger", CFG_CACHED_LOAD) == 1 ? "0"
                                                                                                  : "1");
             }));
    rIni.set(strSection, "BargeInSensitive", PerChannelList(b.iMaxCh, [&](int iCh) {
                 return Num(rBoot.GetChannelParamInt(iCh, iBoardListIx, "AudioThr", CFG_CACHED_LOAD));
             }));
}
} // namespace

// ---- driver start -------------------------------------------------------------------

int TRecorderBoot::InitBoards()
{
    time_t tStart = WallNow();
    if (fAppTerminate.load())
        return 1;
    std::string strConfig = SysPath(kDriverConfig), strIndex = SysPath(kDriverIndex);
    for (;;) {
        // The driver may refuse for some seconds after its file was written.
        SleepUs(500000);
        if (SsmStartCti(strConfig.c_str(), strIndex.c_str()) == 0) {
            lg(5, "Board init. OK");
            return 0;
        }
        if (WallNow() - tStart > 20) {
            LogSsmError("SsmStartCti");
            return 1;
        }
        lg(5, "Could not (yet) start: %s", LastSsmError().c_str());
        lg(5, "Waiting for board init");
        if (fAppTerminate.load())
            return 1;
    }
}

void TRecorderBoot::AnalyseStartedState()
{
    int iMaxCh = SsmGetMaxCh();
    for (int iCh = 0; iCh < iMaxCh; iCh++) {
        int iBoardId = -1, iBoardCh = -1;
        SsmGetChHdInfo(iCh, &iBoardId, &iBoardCh);
        int iType = SsmGetChType(iCh);
        if (iType == -1 || iType == SSM_CH_TYPE_20 || iType == SSM_CH_TYPE_27)
            continue;
        for (TBoard& b : vrBoardList)
            if (b.iBoardId == iBoardId)
                b.iChannels++;
    }

    // Only a list the driver accepted replaces the stored one.
    rNewConfigs[g_cfgPrefix + "CardList"] = strCardList;
    for (TBoard& b : vrBoardList) {
        if (b.GetCtType() == CT_DTP)
            b.iChannels /= 2;
        std::string strId = b.getId();
        rNewConfigs[strId + "_Present"] = b.fPresent ? "1" : "0";
        // An absent card keeps the numbers an earlier start stored for it.
        if (!b.fPresent)
            continue;
        rNewConfigs[strId + "_StartCh"] = Num(b.iWebStartCh);
        rNewConfigs[strId + "_MaxChannels"] = Num(b.iWebMaxCh);
        rNewConfigs[strId + "_Channels"] = Num(b.iChannels);
        rNewConfigs[strId + "_Model"] = b.strModel;
        rNewConfigs[strId + "_SN"] = b.strSerial;
    }
}

// ---- settings store ---------------------------------------------------------------

std::string TRecorderBoot::GetCrecSetting(std::string strKey, ECfgLoadMethod eMethod)
{
    if (eMethod == CFG_CACHED_LOAD)
        return rConfigs[strKey];
    return prDatabase ? prDatabase->GetConfig(strKey) : std::string();
}

std::string TRecorderBoot::GetSysSetting(std::string strKey)
{
    return rConfigsSys[strKey];
}

std::string TRecorderBoot::GetOSetting(std::string strKey)
{
    return rConfigsO[strKey];
}

namespace {
// The board of a parameter read; a bad index is logged, not fatal.
TBoard* GetParamBoard(TRecorderBoot& rBoot, int iBoardListIx, const std::string& strParam)
{
    TBoard* prBoard = rBoot.GetBoard(iBoardListIx);
    // A channel of no board asks too; it gets the built-in values.
    if (!prBoard)
        lg(4, "No board %d for parameter %s", iBoardListIx, strParam.c_str());
    return prBoard;
}
} // namespace

std::string TRecorderBoot::GetBoardParamStr(int iBoardListIx, std::string strParam)
{
    TBoard* prBoard = GetParamBoard(*this, iBoardListIx, strParam);
    if (!prBoard)
        return std::string();
    return GetCrecSetting(prBoard->getId() + "_" + strParam, CFG_CACHED_LOAD);
}

int TRecorderBoot::GetBoardParamInt(int iBoardListIx, std::string strParam)
{
    int iValue = StrToInt(GetBoardParamStr(iBoardListIx, strParam));
    if (iValue != 0)
        return iValue;
    // A stored 0 can't be told from a missing value; these must never be 0.
    if (strParam == "SilenceT")
        return 15;
    if (strParam == "AudioSens")
        return 6;
    return 0;
}

// The field ends at the next comma or at the end of the text, and the end is
// the text's terminating NUL, which is collected like any other character:
// the last field carries one trailing NUL, and an empty list gives channel 0
// a one-character string. Compare a result up to its first NUL (c_str()).
std::string TRecorderBoot::GetChannelParamStr(int iBoardCh, int iBoardListIx, std::string strParam,
                                              ECfgLoadMethod eMethod)
{
    TBoard* prBoard = GetParamBoard(*this, iBoardListIx, strParam);
    if (!prBoard)
        return std::string();
    std::string strList = GetCrecSetting(prBoard->getId() + "_" + strParam, eMethod);
    std::string strField;
    int iField = 0;
    for (size_t i = 0; i <= strList.size() && iField <= iBoardCh; i++) {
        char c = i < strList.size() ? strList[i] : '\0';
        if (c == ',')
            iField++;
        else if (iField == iBoardCh)
            strField += c;
        if (c == '\0')
            break;
    }
    return strField;
}

int TRecorderBoot::GetChannelParamInt(int iBoardCh, int iBoardListIx, std::string strParam,
                                      ECfgLoadMethod eMethod)
{
    int iValue = StrToInt(GetChannelParamStr(iBoardCh, iBoardListIx, strParam, eMethod).c_str());
    if (iValue != 0)
        return iValue;
    // The driver and the channels need a usable threshold in every case.
    static const struct {
        const char* acParam;
        int iDefault;
    } arDefaults[] = {{"AudioThr", 12}, {"OffHookThr", 26}, {"SilenceTimeOut", 15}, {"Trigger", 1}};
    for (const auto& rDef : arDefaults)
        if (strParam == rDef.acParam)
            return rDef.iDefault;
    return 0;
}

int TRecorderBoot::GetBoardDataInt(int iBoardListIx, std::string strKey)
{
    TBoard* prBoard = GetBoard(iBoardListIx);
    if (!prBoard)
        return 0;
    return StrToInt(GetCrecSetting(prBoard->getId() + "_" + strKey, CFG_CACHED_LOAD));
}

std::string TRecorderBoot::GetChannelDataStr(int iBoardCh, int iBoardListIx, std::string strKey)
{
    TBoard* prBoard = GetBoard(iBoardListIx);
    if (!prBoard)
        return std::string();
    return GetCrecSetting(prBoard->getId() + "_" + Num(iBoardCh) + "_" + strKey, CFG_CACHED_LOAD);
}

// Written straight to the database; the cached copy keeps what was loaded.
void TRecorderBoot::SetCrecSetting(std::string strKey, std::string strValue)
{
    if (!prDatabase)
        return;
    StdStringMap rPair;
    rPair[strKey] = strValue;
    prDatabase->SetConfigsPart(rPair, "crec");
}

void TRecorderBoot::SetBoardDataInt(int iBoardListIx, std::string strKey, int iValue)
{
    TBoard* prBoard = GetBoard(iBoardListIx);
    if (prBoard)
        SetCrecSetting(prBoard->getId() + "_" + strKey, Num(iValue));
}

void TRecorderBoot::SetChannelDataStr(int iBoardCh, int iBoardListIx, std::string strKey,
                                      std::string strValue)
{
    TBoard* prBoard = GetBoard(iBoardListIx);
    if (prBoard)
        SetCrecSetting(prBoard->getId() + "_" + Num(iBoardCh) + "_" + strKey, strValue);
}

void TRecorderBoot::ReloadDbConfig()
{
    rConfigsO.clear();
    if (prDatabase)
        prDatabase->GetConfigsPart(rConfigsO, "o");
}

// "21,2B.3": event 0x21 with any sub-reason, event 0x2B with sub-reason 3.
void TRecorderBoot::AddCndList(std::string strList, std::vector<StartStopCnd>& arr)
{
    std::vector<std::string> vstrItems;
    lt_split(vstrItems, strList, ',');
    for (std::string& strItem : vstrItems) {
        trim(strItem);
        if (strItem.empty())
            continue;
        StartStopCnd rCnd;
        unsigned int uValue = 0;
        if (sscanf(strItem.c_str(), "%x", &uValue) == 1)
            rCnd.dwEvent = uValue;
        size_t iDot = strItem.find('.');
        if (iDot != std::string::npos) {
            rCnd.fSubReason = true;
            uValue = 0;
            if (sscanf(strItem.c_str() + iDot + 1, "%x", &uValue) == 1)
                rCnd.dwSubReason = uValue;
        }
        if (rCnd.dwEvent != 0)
            arr.push_back(rCnd);
    }
}

bool TRecorderBoot::IsCondition(const std::vector<StartStopCnd>& arr, DWORD dwEvent, DWORD dwSubReason)
{
    for (const StartStopCnd& rCnd : arr)
        if (rCnd.dwEvent == dwEvent && (!rCnd.fSubReason || rCnd.dwSubReason == dwSubReason))
            return true;
    return false;
}

namespace {
typedef std::vector<StartStopCnd> TBoard::*CndListOfBoard;

// Each condition list of a board and the board parameter it is read from.
const struct {
    const char* acParam;
    CndListOfBoard pList;
} kCndLists[] = {{"StartCndList", &TBoard::vStartCnds},
                 {"StopCndList", &TBoard::vStopCnds},
                 {"RingOnCndList", &TBoard::vRingOnCnds},
                 {"RingOffCndList", &TBoard::vRingOffCnds}};

bool IsBoardCondition(TRecorderBoot& rBoot, int iBoardListIx, CndListOfBoard pList, DWORD dwEvent,
                      DWORD dwSubReason)
{
    TBoard* prBoard = rBoot.GetBoard(iBoardListIx);
    return prBoard && TRecorderBoot::IsCondition(prBoard->*pList, dwEvent, dwSubReason);
}
} // namespace

void TRecorderBoot::LoadBoardSettings()
{
    for (size_t i = 0; i < vrBoardList.size(); i++) {
        for (const auto& rList : kCndLists) {
            std::vector<StartStopCnd>& vList = vrBoardList[i].*rList.pList;
            vList.clear();
            AddCndList(GetBoardParamStr(static_cast<int>(i), rList.acParam), vList);
        }
    }
}

bool TRecorderBoot::IsBoardStartCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason)
{
    return IsBoardCondition(*this, iBoardListIx, &TBoard::vStartCnds, dwEvent, dwSubReason);
}

bool TRecorderBoot::IsBoardStopCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason)
{
    return IsBoardCondition(*this, iBoardListIx, &TBoard::vStopCnds, dwEvent, dwSubReason);
}

bool TRecorderBoot::IsBoardRingOnCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason)
{
    return IsBoardCondition(*this, iBoardListIx, &TBoard::vRingOnCnds, dwEvent, dwSubReason);
}

bool TRecorderBoot::IsBoardRingOffCondition(int iBoardListIx, DWORD dwEvent, DWORD dwSubReason)
{
    return IsBoardCondition(*this, iBoardListIx, &TBoard::vRingOffCnds, dwEvent, dwSubReason);
}

// Both reads are of what the database held at start, so a number learnt
// before a restart is taken over only within ten minutes of the last write
// for the board; writes of this run are not seen in it.
std::string TRecorderBoot::GetCachedLocalNum(int iBoardCh, int iBoardListIx)
{
    long lAge = static_cast<long>(WallNow()) - GetBoardDataInt(iBoardListIx, "LocalNumTime");
    if (lAge < 601)
        return GetChannelDataStr(iBoardCh, iBoardListIx, "LocalNum");
    return std::string();
}

void TRecorderBoot::SetCachedLocalNum(int iBoardCh, int iBoardListIx, std::string strNum)
{
    SetBoardDataInt(iBoardListIx, "LocalNumTime", static_cast<int>(WallNow()));
    SetChannelDataStr(iBoardCh, iBoardListIx, "LocalNum", strNum);
}

// ---- free helpers -------------------------------------------------------------------

int GetDebianVersion()
{
    std::string strIssue = StdGetFileContent(SysPath("/etc/issue.net"));
    for (int iVersion = 6; iVersion <= 12; iVersion++)
        if (beginsWith(strIssue, "Debian GNU/Linux " + Num(iVersion)))
            return iVersion;
    return -1;
}

namespace {
std::string LastSsmError()
{
    char acBuf[300];
    memset(acBuf, 0, sizeof(acBuf));
    SsmGetLastErrMsg(acBuf);
    acBuf[sizeof(acBuf) - 1] = '\0';
    return acBuf;
}
} // namespace

void LogSsmError(const char* pos)
{
    lg(3, "Error in %s: %s", pos, LastSsmError().c_str());
}

void CheckedSleep(int ms)
{
    if (ms >= 1000) {
        int iSteps = (ms / 1000) * 2;
        for (int i = 0; i < iSteps; i++) {
            SleepUs(500000);
            if (fAppTerminate.load())
                return;
        }
    } else if (fAppTerminate.load()) {
        return;
    }
    int iRest = ms % 1000;
    if (iRest > 0)
        SleepUs(static_cast<long>(iRest) * 1000);
}
