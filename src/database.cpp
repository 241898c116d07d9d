// database.cpp - the SQL of the daemon: connection frame, call rows,
// contacts, settings and the extras of an active call.
//
// DESIGN: see database.h. Each operation runs Reconnect first and gives
// its neutral result when that fails; the connect failure is the only line
// logged then. Results are freed by ResultHolder on every path. Every text
// read from a result goes through StdStringNullSafe, so an SQL NULL or a
// type mismatch reads as "" instead of crashing. Main thread only.
#include "database.h"

#include <execinfo.h>

#include <cstdint>
#include <cstdlib>

#include "datafile.h"
#include "ftime.h"
#include "logging.h"

namespace {

// One libdbi instance per process. The generation changes at every
// Deinit, because dbi_shutdown_r frees the handles made before it: a
// connection that outlives Deinit must not close its handle again.
dbi_inst g_hDbiInst = nullptr;
unsigned g_iDbiGeneration = 1;

// Owns a result and frees it when leaving the scope.
class ResultHolder {
public:
    explicit ResultHolder(dbi_result r) : hResult(r) {}
    ~ResultHolder()
    {
        if (hResult)
            dbi_result_free(hResult);
    }
    ResultHolder(const ResultHolder&) = delete;
    ResultHolder& operator=(const ResultHolder&) = delete;
    // False for a failed statement too, which then reads as "no row".
    bool NextRow() { return hResult && dbi_result_next_row(hResult); }
    std::string Str(const char* acCol) { return StdStringNullSafe(dbi_result_get_string(hResult, acCol)); }
    int Int(const char* acCol) { return dbi_result_get_int(hResult, acCol); }
    long long LongLong(const char* acCol) { return dbi_result_get_longlong(hResult, acCol); }
    dbi_result hResult;
};

// The low 32 bits read as a signed int, as the id columns take them.
std::string Int32Text(long long i)
{
    return ToStdString(static_cast<int>(static_cast<int32_t>(static_cast<uint32_t>(i))));
}

std::string IdOrNull(long long i)
{
    return i == -1 ? std::string("NULL") : Int32Text(i);
}

} // namespace

std::string Contact::StdStrCallerID() const
{
    return IdOrNull(iCallerID);
}

std::string Contact::StdStrContactID() const
{
    return IdOrNull(iContactID);
}

int getDbConnection(dbi_conn* conn, const char* acDbUser, bool fNotifyError)
{
    const int iPri = fNotifyError ? 3 : 4;
    *conn = g_hDbiInst ? dbi_conn_new_r("pgsql", g_hDbiInst) : nullptr;
    if (!*conn) {
        // No instance (Init not called) or no pgsql driver: a failed
        // connect like any other, never a crash.
        lg(iPri, "DB connect error %d %s\n", -1, "no libdbi pgsql driver");
        return 1;
    }
    dbi_conn_set_option(*conn, "username", acDbUser);
    dbi_conn_set_option(*conn, "dbname", "quorda");
    if (dbi_conn_connect(*conn) >= 0)
        return 0;
    const char* acError = nullptr;
    int iCode = dbi_conn_error(*conn, &acError);
    lg(iPri, "DB connect error %d %s\n", iCode, StdStringNullSafe(acError).c_str());
    return 1;
}

// ---- DatabaseConnection ------------------------------------------------------

DatabaseConnection::~DatabaseConnection()
{
    Close();
}

void DatabaseConnection::Close()
{
    if (conn && iGeneration == g_iDbiGeneration)
        dbi_conn_close(conn);
    conn = nullptr;
}

bool DatabaseConnection::Connect()
{
    int iResult = getDbConnection(&conn, strDbUser.c_str(), true);
    iGeneration = g_iDbiGeneration;
    return iResult == 0;
}

bool DatabaseConnection::Connect(std::string strUser)
{
    strDbUser = strUser;
    return Connect();
}

bool DatabaseConnection::Reconnect()
{
    if (conn) {
        // A plain statement, not dbi_conn_ping: the pgsql driver's ping
        // resets a broken link by itself and answers "alive", which would
        // hide the loss (and any session state lost with it) from the log.
        dbi_result hProbe = dbi_conn_query(conn, "SELECT 1");
        if (hProbe) {
            dbi_result_free(hProbe);
            return true;
        }
        lg(7, "Lost DB connection, need reconnect...");
        Close();
    }
    return Connect(std::string(strDbUser));
}

dbi_result DatabaseConnection::Query(std::string strSql)
{
    return conn ? dbi_conn_query(conn, strSql.c_str()) : nullptr;
}

bool DatabaseConnection::ExecNonQuery(std::string strSql)
{
    dbi_result hResult = Query(strSql);
    if (!hResult) {
        LogError();
        return false;
    }
    dbi_result_free(hResult);
    return true;
}

std::string DatabaseConnection::Quote(std::string s)
{
    char* acQuoted = nullptr;
    if (conn)
        dbi_conn_quote_string_copy(conn, s.c_str(), &acQuoted);
    if (!acQuoted)
        return "NULL"; // unusable handle: the statement fails instead of storing a wrong text
    std::string strResult(acQuoted);
    free(acQuoted);
    return strResult;
}

std::string DatabaseConnection::GetKeys(const StringMap& rMap)
{
    std::string strResult;
    for (const auto& kv : rMap.data)
        strResult += (strResult.empty() ? "" : ",") + kv.first;
    return strResult;
}

std::string DatabaseConnection::GetValuesQuoted(const StringMap& rMap)
{
    std::string strResult;
    bool fFirst = true;
    for (const auto& kv : rMap.data) {
        if (!fFirst)
            strResult += ",";
        strResult += Quote(kv.second);
        fFirst = false;
    }
    return strResult;
}

void DatabaseConnection::LogError()
{
    const char* acError = nullptr;
    int iCode = conn ? dbi_conn_error(conn, &acError) : -1;
    lg(3, "DB error code %d %s\n", iCode, StdStringNullSafe(acError).c_str());
    void* apFrames[5];
    int iFrames = backtrace(apFrames, 5);
    char** aacSymbols = iFrames > 1 ? backtrace_symbols(apFrames, iFrames) : nullptr;
    if (!aacSymbols)
        return;
    for (int i = 1; i < iFrames; i++) // frame 0 is LogError itself
        lg(6, "stack: %s", aacSymbols[i]);
    free(aacSymbols);
}

long long DatabaseConnection::SequenceLast(const std::string& strSequence)
{
    return static_cast<long long>(dbi_conn_sequence_last(conn, strSequence.c_str()));
}

// ---- Database: frame ---------------------------------------------------------

Database::Database(std::string strUser) : strDbUser(strUser)
{
    rSharedConn.strDbUser = strUser;
}

void Database::Init(const char* acDriverDir)
{
    if (g_hDbiInst)
        return;
    if (dbi_initialize_r(acDriverDir, &g_hDbiInst) < 0)
        lg(3, "DB: libdbi found no drivers");
}

void Database::Deinit()
{
    if (!g_hDbiInst)
        return;
    dbi_shutdown_r(g_hDbiInst);
    g_hDbiInst = nullptr;
    g_iDbiGeneration++;
}

int Database::WaitForConnection()
{
    const int iAttempts = 60;
    for (int i = 1; i <= iAttempts; i++) {
        dbi_conn hLocal = nullptr;
        int iResult = getDbConnection(&hLocal, strDbUser.c_str(), false);
        // A probe only: the handle is closed whatever the outcome, so the
        // failed attempts leave nothing behind either.
        if (hLocal)
            dbi_conn_close(hLocal);
        if (iResult == 0) {
            lg(5, "We can connect to database");
            return 0;
        }
        if (i == iAttempts)
            break;
        lg(5, "Waiting to connect to database");
        SleepUs(1000000);
    }
    lg(5, "Failed to connect to database");
    return 1;
}

void Database::SetDbUser(std::string strUser)
{
    strDbUser = strUser;
    rSharedConn.strDbUser = strUser;
}

dbi_result Database::QueryLogged(const std::string& strSql)
{
    dbi_result hResult = rSharedConn.Query(strSql);
    if (!hResult)
        rSharedConn.LogError();
    return hResult;
}

// ---- call rows -----------------------------------------------------------------

int Database::AddCall(const StringMap& rCallInfo)
{
    return AddCallGeneric("Calls", rCallInfo);
}

int Database::AddActiveCall(const StringMap& rCallInfo)
{
    return AddCallGeneric("ActiveCalls", rCallInfo);
}

int Database::AddCallGeneric(std::string strTable, const StringMap& rCallInfo)
{
    if (!rSharedConn.Reconnect())
        return -1;
    std::string strSql = "INSERT INTO " + strTable + "(" + rSharedConn.GetKeys(rCallInfo) + ") VALUES (" +
                         rSharedConn.GetValuesQuoted(rCallInfo) + ")";
    if (!rSharedConn.ExecNonQuery(strSql))
        return -1;
    int iID = static_cast<int>(rSharedConn.SequenceLast(strTable + "_id_seq"));
    lg(5, "Added %s to database (ID: %d)", strTable.c_str(), iID);
    return iID;
}

void Database::DeleteActiveCall(int iID)
{
    if (!rSharedConn.Reconnect())
        return;
    rSharedConn.ExecNonQuery("DELETE FROM ActiveCalls WHERE id=" + ToStdString(iID));
}

int Database::GetCallBack(int iContactID, int iBack)
{
    if (!rSharedConn.Reconnect())
        return -1;
    std::string strSql = "SELECT id FROM Calls WHERE localcontact=" + ToStdString(iContactID) +
                         " ORDER BY startdate DESC LIMIT " + ToStdString(iBack);
    lg(7, "%s", strSql.c_str());
    ResultHolder rResult(QueryLogged(strSql));
    if (!rResult.hResult)
        return -1;
    for (int iRow = 0; rResult.NextRow(); iRow++)
        if (iRow == iBack - 1)
            return rResult.Int("id");
    return -1;
}

void Database::UpdateActiveCallCategory(int iID, int iCategory)
{
    if (!rSharedConn.Reconnect())
        return;
    rSharedConn.ExecNonQuery("UPDATE ActiveCalls SET  category=" + ToStdString(iCategory) +
                             " WHERE id=" + ToStdString(iID));
}

bool Database::UpdateActiveCall(int iID, const StringMap& rCallInfo)
{
    if (!rSharedConn.Reconnect())
        return false;
    std::string strSql = "UPDATE ActiveCalls SET ";
    bool fFirst = true;
    for (const auto& kv : rCallInfo.data) {
        strSql += (fFirst ? "" : " , ") + kv.first + "=" + rSharedConn.Quote(kv.second);
        fFirst = false;
    }
    strSql += " WHERE id=" + ToStdString(iID);
    return rSharedConn.ExecNonQuery(strSql);
}

// ---- contacts and caller IDs ---------------------------------------------------

void Database::InitRecorder(std::string strRecId, std::string strName)
{
    if (!rSharedConn.Reconnect())
        return;
    {
        ResultHolder rResult(
            QueryLogged("SELECT id FROM recorders WHERE recid=" + rSharedConn.Quote(strRecId)));
        if (!rResult.hResult)
            return;
        if (rResult.NextRow()) {
            // An existing row is kept as it is, even with another name.
            iRecorderID = rResult.LongLong("id");
            return;
        }
    }
    if (rSharedConn.ExecNonQuery("INSERT INTO recorders(recid,name,rectype,options)  VALUES (" +
                                 rSharedConn.Quote(strRecId) + "," + rSharedConn.Quote(strName) + ",50,'')"))
        iRecorderID = rSharedConn.SequenceLast("recorders_id_seq");
}

long long Database::InsertContact(const std::string& strName)
{
    if (!rSharedConn.ExecNonQuery("INSERT INTO Contacts (name,extra,parentcontact) VALUES (" +
                                  rSharedConn.Quote(strName) + ",'',0)"))
        return -1;
    return rSharedConn.SequenceLast("contacts_id_seq");
}

Contact Database::GetOrCreateLineContact(int iChannel, long long iRecorderID, std::string strName)
{
    Contact rContact;
    if (!rSharedConn.Reconnect())
        return rContact;
    {
        ResultHolder rResult(
            QueryLogged("SELECT id,contactid FROM Lines WHERE linenr=" + ToStdString(iChannel) +
                        " AND recorderid=" + ToStdString(iRecorderID)));
        if (!rResult.hResult)
            return rContact;
        if (rResult.NextRow()) {
            rContact.iLineID = rResult.LongLong("id");
            rContact.iContactID = rResult.LongLong("contactid");
            return rContact;
        }
    }
    rContact.iContactID = InsertContact(strName);
    if (rContact.iContactID == -1)
        return rContact;
    // Without a transaction: a failed second INSERT leaves the contact row.
    if (rSharedConn.ExecNonQuery("INSERT INTO Lines (contactid,recorderid,linenr) VALUES (" +
                                 ToStdString(rContact.iContactID) + "," + ToStdString(iRecorderID) + "," +
                                 ToStdString(iChannel) + ")"))
        rContact.iLineID = rSharedConn.SequenceLast("lines_id_seq");
    return rContact;
}

static std::string CallerIdQuery(DatabaseConnection& rConn, const std::string& strCallerID)
{
    return "SELECT id,contactid,islocal from callerids where callerid=" + rConn.Quote(strCallerID) +
           " AND deleted=0";
}

Contact Database::GetCallerIDContact(std::string strCallerID)
{
    Contact rContact;
    if (!rSharedConn.Reconnect())
        return rContact;
    ResultHolder rResult(QueryLogged(CallerIdQuery(rSharedConn, strCallerID)));
    // islocal is selected but deliberately not taken over here: callers of
    // the plain look-up treat every found number as not local.
    if (rResult.NextRow()) {
        rContact.iCallerID = rResult.LongLong("id");
        rContact.iContactID = rResult.LongLong("contactid");
    }
    return rContact;
}

Contact Database::GetOrCreateCallerIDContact(std::string strCallerID, std::string /*strCallerID2*/,
                                             bool fLocal, std::string strName)
{
    Contact rContact;
    if (!rSharedConn.Reconnect())
        return rContact;
    {
        ResultHolder rResult(QueryLogged(CallerIdQuery(rSharedConn, strCallerID)));
        if (!rResult.hResult)
            return rContact;
        if (rResult.NextRow()) {
            rContact.iCallerID = rResult.LongLong("id");
            rContact.iContactID = rResult.LongLong("contactid");
            rContact.fLocal = rResult.Int("islocal") != 0;
            return rContact;
        }
    }
    rContact.iContactID = InsertContact(strName);
    if (rContact.iContactID == -1)
        return rContact;
    // callerid2 is always written empty; the new Contact keeps fLocal false,
    // only the row carries the flag.
    if (rSharedConn.ExecNonQuery("INSERT INTO CallerIDs (callerid,callerid2,islocal,contactid) VALUES (" +
                                 rSharedConn.Quote(strCallerID) + ",''," + (fLocal ? "1" : "0") + "," +
                                 Int32Text(rContact.iContactID) + ")"))
        rContact.iCallerID = rSharedConn.SequenceLast("callerids_id_seq");
    return rContact;
}

void Database::DeleteIfUnused(Contact rContact)
{
    if (!rSharedConn.Reconnect())
        return;
    // The caller ID first, so that its contact can become free.
    rSharedConn.ExecNonQuery(
        "DELETE FROM CallerIDs WHERE id=" + rSharedConn.Quote(ToStdString(rContact.iCallerID)) +
        " AND NOT EXISTS (SELECT 1 FROM Calls WHERE localcallerid=CallerIDS.id OR "
        "remotecallerid=CallerIDS.id)"
        " AND NOT EXISTS (SELECT 1 FROM ActiveCalls WHERE localcallerid=CallerIDS.id OR "
        "remotecallerid=CallerIDS.id);");
    rSharedConn.ExecNonQuery(
        "DELETE FROM Contacts WHERE id=" + rSharedConn.Quote(ToStdString(rContact.iContactID)) +
        " AND NOT EXISTS (SELECT 1 FROM CallerIDs WHERE contactid=Contacts.id)");
}

void Database::UpdateActiveParty(int iID, const Contact& rContact, const char* acParty,
                                 const std::string& strText, bool fFullColumn)
{
    if (!rSharedConn.Reconnect())
        return;
    const std::string strParty(acParty);
    const std::string strQuoted = rSharedConn.Quote(strText);
    std::string strSql = "UPDATE ActiveCalls SET   " + strParty + "callerid=" + rContact.StdStrCallerID() +
                         " ," + strParty + "contact=" + rContact.StdStrContactID() + " ," + strParty + "=" +
                         strQuoted;
    if (fFullColumn)
        strSql += " ," + strParty + "full=" + strQuoted;
    rSharedConn.ExecNonQuery(strSql + " WHERE id=" + ToStdString(iID));
}

void Database::UpdateActiveCallRemoteContact(int iID, Contact& rContact, std::string strRemote)
{
    UpdateActiveParty(iID, rContact, "remote", strRemote, true);
}

void Database::UpdateActiveCallLocalContact(int iID, Contact& rContact, std::string strLocal)
{
    UpdateActiveParty(iID, rContact, "local", strLocal, true);
}

void Database::UpdateActiveCallConnectedNum(int iID, Contact& rContact, std::string strConnected)
{
    UpdateActiveParty(iID, rContact, "connected", strConnected, false);
}

std::string Database::GetContactName(int iContactId)
{
    if (!rSharedConn.Reconnect())
        return std::string();
    ResultHolder rResult(rSharedConn.Query("SELECT name FROM Contacts WHERE id=" + ToStdString(iContactId)));
    return rResult.NextRow() ? rResult.Str("name") : std::string();
}

void Database::GetUsersOfPhone(int iContactID, std::vector<int>& aiAccIDs)
{
    if (!rSharedConn.Reconnect())
        return;
    ResultHolder rResult(
        rSharedConn.Query("SELECT accid FROM UserPhones WHERE contactid=" + ToStdString(iContactID)));
    while (rResult.NextRow())
        aiAccIDs.push_back(rResult.Int("accid"));
}

CallerIdContact Database::GetCustomLocal(long long iContactID)
{
    CallerIdContact rResultContact;
    if (!rSharedConn.Reconnect())
        return rResultContact;
    {
        ResultHolder rResult(
            rSharedConn.Query("SELECT * FROM LocalIdMapping  WHERE srcid=" + ToStdString(iContactID)));
        if (!rResult.NextRow())
            return rResultContact;
        rResultContact.fFound = true;
        rResultContact.iContactID = rResult.LongLong("dstid");
        rResultContact.iUpdateTime = rResult.LongLong("updatetime");
    }
    // No deleted filter here: a mapped identity keeps its number.
    ResultHolder rResult(rSharedConn.Query("SELECT id,callerid from callerids where contactid=" +
                                           Int32Text(rResultContact.iContactID)));
    if (rResult.NextRow()) {
        rResultContact.iCallerID = rResult.LongLong("id");
        rResultContact.strText = rResult.Str("callerid");
    }
    return rResultContact;
}

// ---- settings and look-ups -----------------------------------------------------

void Database::GetConfigsPart(StdStringMap& rConfigs, std::string strPart)
{
    if (!rSharedConn.Reconnect())
        return;
    ResultHolder rResult(
        rSharedConn.Query("SELECT param,value FROM Configs WHERE part=" + rSharedConn.Quote(strPart)));
    while (rResult.NextRow())
        rConfigs[rResult.Str("param")] = rResult.Str("value");
}

std::string Database::GetConfig(std::string strParam)
{
    if (!rSharedConn.Reconnect())
        return std::string();
    ResultHolder rResult(
        rSharedConn.Query("SELECT value FROM Configs WHERE param=" + rSharedConn.Quote(strParam)));
    return rResult.NextRow() ? rResult.Str("value") : std::string();
}

int Database::GetConfigInt(std::string strParam)
{
    return StrToInt(GetConfig(strParam));
}

void Database::SetConfigsPart(StdStringMap& rConfigs, std::string strPart)
{
    if (!rSharedConn.Reconnect())
        return;
    // Failures are logged and the loop goes on: the server has aborted the
    // transaction, so COMMIT ends it and no pair of this call is stored.
    rSharedConn.ExecNonQuery("BEGIN");
    for (const auto& kv : rConfigs) {
        const std::string strParam = rSharedConn.Quote(kv.first);
        // The delete ignores the part, so a key moves into strPart.
        rSharedConn.ExecNonQuery("DELETE FROM Configs WHERE param=" + strParam);
        rSharedConn.ExecNonQuery("INSERT INTO Configs(param,value,part) VALUES (" + strParam + "," +
                                 rSharedConn.Quote(kv.second) + "," + rSharedConn.Quote(strPart) + ")");
    }
    rSharedConn.ExecNonQuery("COMMIT");
}

std::string Database::GetUserStringOnAccID(int iAccID, std::string strField)
{
    if (!rSharedConn.Reconnect())
        return std::string();
    // The column name comes from the daemon's own code, never from outside.
    ResultHolder rResult(
        rSharedConn.Query("SELECT " + strField + " FROM Users WHERE accid=" + ToStdString(iAccID)));
    return rResult.NextRow() ? rResult.Str(strField.c_str()) : std::string();
}

int Database::GetUserIntOnAccID(int iAccID, std::string strField)
{
    if (!rSharedConn.Reconnect())
        return 0;
    ResultHolder rResult(
        rSharedConn.Query("SELECT " + strField + " FROM Users WHERE accid=" + ToStdString(iAccID)));
    return rResult.NextRow() ? rResult.Int(strField.c_str()) : 0;
}

IdMapEntry Database::GetIdMapEntry(std::string strLocalNum)
{
    IdMapEntry rEntry;
    if (!rSharedConn.Reconnect())
        return rEntry;
    ResultHolder rResult(
        rSharedConn.Query("SELECT value,target FROM IdMap  WHERE theid=" + rSharedConn.Quote(strLocalNum)));
    if (rResult.NextRow()) {
        rEntry.fFound = true;
        rEntry.strValue = rResult.Str("value");
        rEntry.strTarget = rResult.Str("target");
    }
    return rEntry;
}

// ---- extras of an active call ------------------------------------------------

StdStringMap Database::GetActiveCallExtra(int iID)
{
    if (!rSharedConn.Reconnect())
        return StdStringMap();
    ResultHolder rResult(QueryLogged("SELECT callextra FROM ActiveCalls WHERE id=" + ToStdString(iID)));
    if (!rResult.NextRow())
        return StdStringMap();
    return StringToArray(rResult.Str("callextra"));
}

void Database::SetActiveCallExtra(int iID, std::string strKey, std::string strValue)
{
    if (!rSharedConn.Reconnect())
        return;
    StdStringMap rExtra;
    {
        ResultHolder rResult(QueryLogged("SELECT callextra FROM ActiveCalls WHERE id=" + ToStdString(iID)));
        if (!rResult.NextRow())
            return; // no row: nothing is made, the value is dropped
        rExtra = StringToArray(rResult.Str("callextra"));
    }
    // Read and write without a transaction: a front-end change in between
    // is overwritten.
    rExtra[strKey] = strValue;
    rSharedConn.ExecNonQuery("UPDATE ActiveCalls SET callextra=" + rSharedConn.Quote(ArrayToString(rExtra)) +
                             " WHERE id=" + ToStdString(iID));
}

StdStringMap Database::GetActiveCallCarryOver(int iID)
{
    StdStringMap rCarry;
    if (!rSharedConn.Reconnect())
        return rCarry;
    ResultHolder rResult(
        QueryLogged("SELECT notes, notes2,  notes3, notes4, notes5,  category, processingstate, "
                    "callextra FROM ActiveCalls WHERE id=" +
                    ToStdString(iID)));
    if (!rResult.NextRow())
        return rCarry;
    for (const char* acCol : {"notes", "notes2", "notes3", "notes4", "notes5", "callextra"})
        rCarry[acCol] = rResult.Str(acCol);
    rCarry["category"] = ToStdString(rResult.Int("category"));
    rCarry["processingstate"] = ToStdString(rResult.Int("processingstate"));
    return rCarry;
}
