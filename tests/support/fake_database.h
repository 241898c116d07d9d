// fake_database.h - an in-memory IDatabase for unit tests of one class.
// Configs rows live in a map keyed by param (param is unique across parts,
// as in the real table); every other operation is recorded and gives the
// neutral result, unless a test sets a value to return.
#ifndef FAKE_DATABASE_H
#define FAKE_DATABASE_H

#include <map>
#include <string>
#include <vector>

#include "idatabase.h"

class FakeDatabase : public IDatabase {
public:
    struct Row {
        std::string strValue;
        std::string strPart;
    };
    std::map<std::string, Row> configs;  // param -> value, part
    std::vector<std::string> calls;      // operation log, e.g. "SetConfigsPart crec"
    bool fDown = false;                  // link down: neutral results everywhere
    long long iRecorderID = 0;

    void Set(const std::string& strPart, const std::string& strParam, const std::string& strValue)
    {
        configs[strParam] = Row{strValue, strPart};
    }
    std::string Value(const std::string& strParam) const
    {
        auto it = configs.find(strParam);
        return it == configs.end() ? std::string() : it->second.strValue;
    }
    bool Has(const std::string& strParam) const { return configs.count(strParam) != 0; }

    int WaitForConnection() override { return fDown ? 1 : 0; }
    void SetDbUser(std::string) override {}
    void InitRecorder(std::string strRecId, std::string) override
    {
        calls.push_back("InitRecorder " + strRecId);
        if (!fDown)
            iRecorderID = 1;
    }
    long long GetRecorderID() override { return iRecorderID; }
    int AddCall(const StringMap&) override { return -1; }
    int AddActiveCall(const StringMap&) override { return -1; }
    int AddCallGeneric(std::string, const StringMap&) override { return -1; }
    void DeleteActiveCall(int) override {}
    int GetCallBack(int, int) override { return -1; }
    void UpdateActiveCallRemoteContact(int, Contact&, std::string) override {}
    void UpdateActiveCallLocalContact(int, Contact&, std::string) override {}
    void UpdateActiveCallConnectedNum(int, Contact&, std::string) override {}
    void UpdateActiveCallCategory(int, int) override {}
    bool UpdateActiveCall(int, const StringMap&) override { return false; }
    void SetActiveCallExtra(int, std::string, std::string) override {}
    StdStringMap GetActiveCallExtra(int) override { return {}; }
    StdStringMap GetActiveCallCarryOver(int) override { return {}; }
    Contact GetOrCreateLineContact(int iChannel, long long, std::string strName) override
    {
        calls.push_back("GetOrCreateLineContact " + std::to_string(iChannel) + " " + strName);
        return Contact();
    }
    Contact GetCallerIDContact(std::string) override { return Contact(); }
    Contact GetOrCreateCallerIDContact(std::string, std::string, bool, std::string) override
    {
        return Contact();
    }
    void DeleteIfUnused(Contact) override {}
    std::string GetContactName(int) override { return std::string(); }
    void GetConfigsPart(StdStringMap& rConfigs, std::string strPart) override
    {
        if (fDown)
            return;
        for (auto& kv : configs)
            if (kv.second.strPart == strPart)
                rConfigs[kv.first] = kv.second.strValue;
    }
    std::string GetConfig(std::string strParam) override { return fDown ? std::string() : Value(strParam); }
    int GetConfigInt(std::string strParam) override { return StrToInt(GetConfig(strParam)); }
    void SetConfigsPart(StdStringMap& rConfigs, std::string strPart) override
    {
        calls.push_back("SetConfigsPart " + strPart);
        if (fDown)
            return;
        for (auto& kv : rConfigs)
            configs[kv.first] = Row{kv.second, strPart};
    }
    void GetUsersOfPhone(int, std::vector<int>&) override {}
    std::string GetUserStringOnAccID(int, std::string) override { return std::string(); }
    int GetUserIntOnAccID(int, std::string) override { return 0; }
    IdMapEntry GetIdMapEntry(std::string) override { return IdMapEntry(); }
    CallerIdContact GetCustomLocal(long long) override { return CallerIdContact(); }
};

#endif
