// idatabase.h - the one interface to the database, and the value types
// that cross it.
//
// Contract common to every operation: main thread only. Each operation
// first makes sure the link is up (one ping); when the link can't be made
// it does nothing and gives its neutral result, noted per operation below.
// A database failure never stops the recorder: recording goes on, rows are
// simply missing, and the next operation reconnects.
#ifndef IDATABASE_H
#define IDATABASE_H

#include <string>
#include <vector>

#include "fstring.h"

struct Contact {
    long long iCallerID = -1;   // CallerIDs.id, -1 none
    long long iContactID = -1;  // Contacts.id, -1 none
    long long iLineID = -1;     // Lines.id, -1 none
    bool fLocal = false;

    // "NULL" for -1, else the low 32 bits as a signed decimal: a missing
    // contact writes SQL NULL into an ActiveCalls column.
    std::string StdStrCallerID() const;
    std::string StdStrContactID() const;
};

struct CallerIdContact {
    bool fFound = false;
    long long iCallerID = 0;
    long long iContactID = 0;
    std::string strText;
    long long iUpdateTime = 0;
};

struct IdMapEntry {
    bool fFound = false;
    std::string strValue;
    std::string strTarget;
};

class IDatabase {
public:
    virtual ~IDatabase() = default;

    // Probe at start-up: up to 60 connect attempts a second apart.
    // 0 when a connection could be made (and is closed again), 1 otherwise.
    virtual int WaitForConnection() = 0;
    virtual void SetDbUser(std::string strUser) = 0;

    // Finds or creates this recorder's row; sets GetRecorderID. Link down: no change.
    virtual void InitRecorder(std::string strRecId, std::string strName) = 0;
    // recorders.id of this recorder, 0 until known. No database access.
    virtual long long GetRecorderID() = 0;

    // New Calls.id / ActiveCalls.id, -1 on failure or link down.
    virtual int AddCall(const StringMap& rCallInfo) = 0;
    virtual int AddActiveCall(const StringMap& rCallInfo) = 0;
    virtual int AddCallGeneric(std::string strTable, const StringMap& rCallInfo) = 0;
    virtual void DeleteActiveCall(int iID) = 0;
    // Calls.id of the iBack-th latest call of the contact, -1 none / link down.
    virtual int GetCallBack(int iContactID, int iBack) = 0;
    virtual void UpdateActiveCallRemoteContact(int iID, Contact& rContact, std::string strRemote) = 0;
    virtual void UpdateActiveCallLocalContact(int iID, Contact& rContact, std::string strLocal) = 0;
    virtual void UpdateActiveCallConnectedNum(int iID, Contact& rContact, std::string strConnected) = 0;
    virtual void UpdateActiveCallCategory(int iID, int iCategory) = 0;
    // Result of the UPDATE; false on failure or link down.
    virtual bool UpdateActiveCall(int iID, const StringMap& rCallInfo) = 0;
    virtual void SetActiveCallExtra(int iID, std::string strKey, std::string strValue) = 0;
    // Empty map on failure or link down.
    virtual StdStringMap GetActiveCallExtra(int iID) = 0;
    virtual StdStringMap GetActiveCallCarryOver(int iID) = 0;

    // Default Contact (ids -1) on failure or link down.
    virtual Contact GetOrCreateLineContact(int iChannel, long long iRecorderID, std::string strName) = 0;
    virtual Contact GetCallerIDContact(std::string strCallerID) = 0;
    virtual Contact GetOrCreateCallerIDContact(std::string strCallerID, std::string strCallerID2,
                                               bool fLocal, std::string strName) = 0;
    virtual void DeleteIfUnused(Contact rContact) = 0;
    // Empty on failure or link down.
    virtual std::string GetContactName(int iContactId) = 0;

    // Adds or overwrites each row of the part; link down: map unchanged.
    virtual void GetConfigsPart(StdStringMap& rConfigs, std::string strPart) = 0;
    // value of the param (any part); "" if none / link down.
    virtual std::string GetConfig(std::string strParam) = 0;
    // strtol of GetConfig; 0 if none / link down.
    virtual int GetConfigInt(std::string strParam) = 0;
    // Writes all pairs in one transaction into the part.
    virtual void SetConfigsPart(StdStringMap& rConfigs, std::string strPart) = 0;
    // Appends the accid of each user of the contact.
    virtual void GetUsersOfPhone(int iContactID, std::vector<int>& aiAccIDs) = 0;
    virtual std::string GetUserStringOnAccID(int iAccID, std::string strField) = 0;
    virtual int GetUserIntOnAccID(int iAccID, std::string strField) = 0;
    virtual IdMapEntry GetIdMapEntry(std::string strLocalNum) = 0;
    virtual CallerIdContact GetCustomLocal(long long iContactID) = 0;
};

#endif
