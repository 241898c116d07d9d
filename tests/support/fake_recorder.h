// fake_recorder.h - an ICRecorder for unit tests of one channel class.
// Channel parameters come from two maps (cached and live reads), every
// notification is recorded, and all else gives a neutral result.
#ifndef FAKE_RECORDER_H
#define FAKE_RECORDER_H

#include <map>
#include <string>
#include <vector>

#include "irecorder.h"

class FakeRecorder : public ICRecorder {
public:
    std::map<std::string, int> params;           // GetChannelParamInt, any channel
    std::map<std::string, int> liveParams;       // GetChannelParamIntLive
    std::vector<int> vNewLineHealth;             // iChIx of each NewLineHealth
    std::vector<std::string> vNotified;          // texts of NotifyAdmin
    std::map<std::string, std::string> dtmfActs; // GetDtmfAct: whole digit string -> action
    std::vector<int> vEmailBack;                 // contact of each EmailBackRecording
    IDatabase* prDatabase = nullptr;

    static int Lookup(const std::map<std::string, int>& m, const std::string& strKey)
    {
        auto it = m.find(strKey);
        return it == m.end() ? 0 : it->second;
    }

    int InitRecorder() override { return 0; }
    void HandleEvent(SSM_EVENT*) override {}
    std::string GetDtmfAct(std::string strDigits) override
    {
        auto it = dtmfActs.find(strDigits);
        return it == dtmfActs.end() ? std::string() : it->second;
    }
    IDatabase* GetDatabaseHandle() override { return prDatabase; }
    std::string GetBoardPbxType(int) override { return std::string(); }
    std::string GetChannelParamStr(int, int, std::string) override { return std::string(); }
    int GetChannelParamInt(int, int, std::string strParam) override { return Lookup(params, strParam); }
    int GetChannelParamIntLive(int, int, std::string strParam) override
    {
        return Lookup(liveParams, strParam);
    }
    std::string GetBoardParamStr(int, std::string) override { return std::string(); }
    ECardType GetBoardCardType(int) override { return CT_UNKNOWN; }
    int GetBoardParamInt(int, std::string) override { return 0; }
    int GetParamInt(std::string) override { return 0; }
    bool IsBoardStartCondition(int, unsigned, unsigned) override { return false; }
    bool IsBoardStopCondition(int, unsigned, unsigned) override { return false; }
    bool IsBoardRingOnCondition(int, unsigned, unsigned) override { return false; }
    bool IsBoardRingOffCondition(int, unsigned, unsigned) override { return false; }
    void NotifyChAvail(int, int, bool) override {}
    std::string GetCachedLocalNum(int, int) override { return std::string(); }
    void SetCachedLocalNum(int, int, std::string) override {}
    void Shutdown() override {}
    void EmailRecording(int, int) override {}
    void EmailBackRecording(int iContactID, int) override { vEmailBack.push_back(iContactID); }
    std::string GetCheckSumType() override { return std::string(); }
    int ChState(int) override { return 1; }
    static bool InList(const std::vector<std::string>& v, const std::string& s)
    {
        for (const std::string& item : v)
            if (item == s)
                return true;
        return false;
    }
    bool IsInNumberFilter(std::string s) override { return InList(astrNumberFilters, s); }
    bool IsInDelOnDmdList(std::string s) override { return InList(astrDelOnDmdList, s); }
    bool IsInRecOnDmdList(std::string s) override { return InList(astrRecOnDmdList, s); }
    void Reconfigure() override {}
    void NotifyAdmin(ENotifyType, std::string strText) override { vNotified.push_back(strText); }
    bool IsSpecial(std::string) override { return false; }
    void NewLineHealth(int iChIx) override { vNewLineHealth.push_back(iChIx); }
    std::string GetDataDir() override { return std::string(); }
    bool StoreOnDemand(Contact, Contact) override { return fStoreOnDemand; }
    int SilencingAct(std::string, bool) override { return 1; }
    int RecOnDmdAct(std::string, bool) override { return 1; }

    bool fStoreOnDemand = false; // answer of StoreOnDemand
};

#endif
