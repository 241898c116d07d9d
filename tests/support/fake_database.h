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
    std::map<std::string, Row> configs; // param -> value, part
    std::vector<std::string> calls;     // operation log, e.g. "SetConfigsPart crec"
    bool fDown = false;                 // link down: neutral results everywhere
    long long iRecorderID = 0;

    // Call rows: what was added (in order), and the ids handed out.
    std::vector<StdStringMap> vActiveRows;
    std::vector<StdStringMap> vCalls;
    std::vector<StdStringMap> vUpdatedRows; // maps of UpdateActiveCall
    int iNextActiveID = 100;
    int iNextCallID = 900;
    std::map<int, StdStringMap> extras;      // callextra per active row
    std::map<std::string, Contact> contacts; // caller id text -> contact
    long long iNextContactID = 500;
    Contact rLineContact;                         // of every line
    std::string strContactName;                   // GetContactName of any contact
    CallerIdContact rCustomLocal;                 // GetCustomLocal of any contact
    std::map<std::string, IdMapEntry> idMap;      // local number -> entry
    std::map<int, std::vector<int>> usersOfPhone; // contact -> account ids
    std::map<std::string, int> userInts;          // "accid field" -> value

    bool Called(const std::string& strCall) const
    {
        for (const std::string& s : calls)
            if (s == strCall)
                return true;
        return false;
    }

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
    int AddCall(const StringMap& rCallInfo) override
    {
        calls.push_back("AddCall");
        if (fDown)
            return -1;
        vCalls.push_back(rCallInfo.data);
        return iNextCallID++;
    }
    int AddActiveCall(const StringMap& rCallInfo) override
    {
        calls.push_back("AddActiveCall");
        if (fDown)
            return -1;
        vActiveRows.push_back(rCallInfo.data);
        return iNextActiveID++;
    }
    int AddCallGeneric(std::string, const StringMap&) override { return -1; }
    void DeleteActiveCall(int iID) override { calls.push_back("DeleteActiveCall " + std::to_string(iID)); }
    int GetCallBack(int, int) override { return -1; }
    void UpdateActiveCallRemoteContact(int iID, Contact&, std::string strRemote) override
    {
        calls.push_back("UpdateActiveCallRemoteContact " + std::to_string(iID) + " " + strRemote);
    }
    void UpdateActiveCallLocalContact(int iID, Contact&, std::string strLocal) override
    {
        calls.push_back("UpdateActiveCallLocalContact " + std::to_string(iID) + " " + strLocal);
    }
    void UpdateActiveCallConnectedNum(int iID, Contact&, std::string strConnected) override
    {
        calls.push_back("UpdateActiveCallConnectedNum " + std::to_string(iID) + " " + strConnected);
    }
    void UpdateActiveCallCategory(int iID, int iCategory) override
    {
        calls.push_back("UpdateActiveCallCategory " + std::to_string(iID) + " " + std::to_string(iCategory));
    }
    bool UpdateActiveCall(int iID, const StringMap& rCallInfo) override
    {
        calls.push_back("UpdateActiveCall " + std::to_string(iID));
        vUpdatedRows.push_back(rCallInfo.data);
        return !fDown;
    }
    void SetActiveCallExtra(int iID, std::string strKey, std::string strValue) override
    {
        calls.push_back("SetActiveCallExtra " + std::to_string(iID) + " " + strKey + "=" + strValue);
        if (!fDown)
            extras[iID][strKey] = strValue;
    }
    StdStringMap GetActiveCallExtra(int iID) override
    {
        auto it = extras.find(iID);
        return fDown || it == extras.end() ? StdStringMap() : it->second;
    }
    StdStringMap GetActiveCallCarryOver(int) override { return {}; }
    Contact GetOrCreateLineContact(int iChannel, long long, std::string strName) override
    {
        calls.push_back("GetOrCreateLineContact " + std::to_string(iChannel) + " " + strName);
        return fDown ? Contact() : rLineContact;
    }
    // Known numbers only; GetOrCreate also makes one (ids counting from 500).
    Contact GetCallerIDContact(std::string strCallerID) override
    {
        auto it = contacts.find(strCallerID);
        return fDown || it == contacts.end() ? Contact() : it->second;
    }
    Contact GetOrCreateCallerIDContact(std::string strCallerID, std::string, bool fLocal,
                                       std::string) override
    {
        calls.push_back("GetOrCreateCallerIDContact " + strCallerID);
        if (fDown)
            return Contact();
        auto it = contacts.find(strCallerID);
        if (it != contacts.end())
            return it->second;
        Contact c;
        c.iContactID = iNextContactID++;
        c.iCallerID = c.iContactID + 1000;
        c.fLocal = fLocal;
        contacts[strCallerID] = c;
        return c;
    }
    void DeleteIfUnused(Contact) override {}
    std::string GetContactName(int) override { return strContactName; }
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
    void GetUsersOfPhone(int iContactID, std::vector<int>& aiAccIDs) override
    {
        auto it = usersOfPhone.find(iContactID);
        if (it != usersOfPhone.end())
            aiAccIDs.insert(aiAccIDs.end(), it->second.begin(), it->second.end());
    }
    std::string GetUserStringOnAccID(int, std::string) override { return std::string(); }
    int GetUserIntOnAccID(int iAccID, std::string strField) override
    {
        auto it = userInts.find(std::to_string(iAccID) + " " + strField);
        return it == userInts.end() ? 0 : it->second;
    }
    IdMapEntry GetIdMapEntry(std::string strLocalNum) override
    {
        auto it = idMap.find(strLocalNum);
        return it == idMap.end() ? IdMapEntry() : it->second;
    }
    CallerIdContact GetCustomLocal(long long) override { return rCustomLocal; }
};

#endif
