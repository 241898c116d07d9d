// database.h - Database, the PostgreSQL implementation of IDatabase, on one
// libdbi connection.
//
// DESIGN: no pool, no prepared statements. Every operation first makes sure
// its one connection is up (DatabaseConnection::Reconnect: one round trip on
// the good path, a fresh connect after a lost link), then builds its SQL by
// concatenation with values through Quote, runs it and reads the result by
// column name. When the link can't be made the operation does nothing and
// gives its neutral result (see idatabase.h), so a database restart heals
// on the next use with no background activity.
//
// Threads: none of this is thread-safe and nothing here locks. All database
// work runs on the main thread; Init/Deinit bracket the process.
#ifndef DATABASE_H
#define DATABASE_H

#include <dbi/dbi.h>

#include <string>
#include <vector>

#include "idatabase.h"

// Makes a new connection handle in *conn (stored at once, even a null one
// when the pgsql driver is missing) with user acDbUser on database "quorda"
// and connects it. No host or port is set: libpq's defaults apply. 0 on
// success; 1 on failure, logged at level 3 (fNotifyError) or 4, with the
// handle left unclosed in *conn.
int getDbConnection(dbi_conn* conn, const char* acDbUser, bool fNotifyError);

class DatabaseConnection {
public:
    dbi_conn conn = nullptr; // null: never connected, or a lost link was closed
    std::string strDbUser = "root";

    DatabaseConnection() = default;
    ~DatabaseConnection();
    DatabaseConnection(const DatabaseConnection&) = delete;
    DatabaseConnection& operator=(const DatabaseConnection&) = delete;

    bool Connect();
    bool Connect(std::string strUser);
    // Makes sure the link is up: true when it was or could be made again.
    bool Reconnect();
    // The raw result, null on failure; the caller checks and frees it.
    dbi_result Query(std::string strSql);
    // Runs a statement whose result isn't read; logs a failure (LogError).
    bool ExecNonQuery(std::string strSql);
    // The text as a complete SQL string literal, quotes included.
    std::string Quote(std::string s);
    // Keys / quoted values of the map in key order, joined by ",".
    std::string GetKeys(const StringMap& rMap);
    std::string GetValuesQuoted(const StringMap& rMap);
    // Logs the last error of the connection and where it came from.
    void LogError();
    // Last value of the sequence in this session (after an INSERT).
    long long SequenceLast(const std::string& strSequence);

private:
    void Close();
    unsigned iGeneration = 0; // libdbi instance the handle belongs to
};

class Database : public IDatabase {
public:
    explicit Database(std::string strUser = "root");
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Once per process before any connection / at the end. acDriverDir
    // names libdbi's driver directory (null: the library's default); tests
    // pass an empty one to see how a missing pgsql driver is handled.
    static void Init(const char* acDriverDir = nullptr);
    static void Deinit();

    int WaitForConnection() override;
    void SetDbUser(std::string strUser) override;

    void InitRecorder(std::string strRecId, std::string strName) override;
    long long GetRecorderID() override { return iRecorderID; }

    int AddCall(const StringMap& rCallInfo) override;
    int AddActiveCall(const StringMap& rCallInfo) override;
    int AddCallGeneric(std::string strTable, const StringMap& rCallInfo) override;
    void DeleteActiveCall(int iID) override;
    int GetCallBack(int iContactID, int iBack) override;
    void UpdateActiveCallRemoteContact(int iID, Contact& rContact, std::string strRemote) override;
    void UpdateActiveCallLocalContact(int iID, Contact& rContact, std::string strLocal) override;
    void UpdateActiveCallConnectedNum(int iID, Contact& rContact, std::string strConnected) override;
    void UpdateActiveCallCategory(int iID, int iCategory) override;
    bool UpdateActiveCall(int iID, const StringMap& rCallInfo) override;
    void SetActiveCallExtra(int iID, std::string strKey, std::string strValue) override;
    StdStringMap GetActiveCallExtra(int iID) override;
    StdStringMap GetActiveCallCarryOver(int iID) override;

    Contact GetOrCreateLineContact(int iChannel, long long iRecorderID, std::string strName) override;
    Contact GetCallerIDContact(std::string strCallerID) override;
    Contact GetOrCreateCallerIDContact(std::string strCallerID, std::string strCallerID2, bool fLocal,
                                       std::string strName) override;
    void DeleteIfUnused(Contact rContact) override;
    std::string GetContactName(int iContactId) override;

    void GetConfigsPart(StdStringMap& rConfigs, std::string strPart) override;
    std::string GetConfig(std::string strParam) override;
    int GetConfigInt(std::string strParam) override;
    void SetConfigsPart(StdStringMap& rConfigs, std::string strPart) override;
    void GetUsersOfPhone(int iContactID, std::vector<int>& aiAccIDs) override;
    std::string GetUserStringOnAccID(int iAccID, std::string strField) override;
    int GetUserIntOnAccID(int iAccID, std::string strField) override;
    IdMapEntry GetIdMapEntry(std::string strLocalNum) override;
    CallerIdContact GetCustomLocal(long long iContactID) override;

    std::string strDbUser; // user of WaitForConnection
    long long iRecorderID = 0;
    DatabaseConnection rSharedConn;

private:
    // Query whose failure is logged; null when it failed.
    dbi_result QueryLogged(const std::string& strSql);
    // Inserts a Contacts row; its id, or -1 when the INSERT failed.
    long long InsertContact(const std::string& strName);
    void UpdateActiveParty(int iID, const Contact& rContact, const char* acParty, const std::string& strText,
                           bool fFullColumn);
};

#endif
