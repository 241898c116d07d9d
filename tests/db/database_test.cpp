// The SQL of every Database operation, observed in the tables of the
// private PostgreSQL cluster (read back through psql, not through the code
// under test). Each test empties the tables first: tests run in any order.
#include <gtest/gtest.h>

#include <algorithm>

#include "database.h"
#include "log_capture.h"
#include "pg_test_util.h"

namespace {

class DatabaseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(PgResetTables())
            << "is the private cluster running? scripts/pg-private start <build>/pgtest";
        Database::Init();
    }
    // An ActiveCalls row made by the front end's way, not by the code under test.
    int InsertActiveRow(const std::string& strColumns, const std::string& strValues)
    {
        return std::stoi(
            PgQuery("INSERT INTO ActiveCalls (" + strColumns + ") VALUES (" + strValues + ") RETURNING id"));
    }
    Database db;
};

// The columns FillCallInfo writes, with the values as text; the numbers
// come as Latin-1 from the card.
StringMap TypicalCallInfo()
{
    StringMap m;
    for (const auto& c :
         std::vector<std::pair<const char*, const char*>>{{"startdate", "1699999999"},
                                                          {"duration", "0"},
                                                          {"filename", "20231114_221319_003_01.wav"},
                                                          {"isconnected", "1"},
                                                          {"linenr", "3"},
                                                          {"waittime", "4"},
                                                          {"source", "0"},
                                                          {"isarchived", "0"},
                                                          {"encoding", "554"},
                                                          {"encryption", "0"},
                                                          {"processingstate", "0"},
                                                          {"flags", "16"},
                                                          {"directory", "2023/11/14/22/"},
                                                          {"lineid", "-1"},
                                                          {"remoteid", "20231114_221319_003_01"},
                                                          {"localcallerid", "0"},
                                                          {"localcontact", "-1"},
                                                          {"direction", "0"},
                                                          {"recorderid", "1"},
                                                          {"callextra", ""}})
        m.AddUtf8(c.first, c.second);
    for (const char* pcNumber : {"remote", "remotefull"})
        m.AddLatin1(pcNumber, "0301234");
    for (const char* pcNumber : {"local", "localfull"})
        m.AddLatin1(pcNumber, "");
    return m;
}

// "line/caller/contact" ids of a contact, with "+local" when it is local.
std::string Ids(const Contact& c)
{
    return std::to_string(c.iLineID) + "/" + std::to_string(c.iCallerID) + "/" +
           std::to_string(c.iContactID) + (c.fLocal ? "+local" : "");
}

} // namespace

// ---- settings ----------------------------------------------------------------

TEST_F(DatabaseTest, ConfigsRoundTripKeepsTextAndMovesKeysBetweenParts)
{
    StdStringMap rCrec = {
        {"quote", "it's"}, {"slash", "C:\\rec\\n"}, {"num", "42abc"}, {"utf", "M\xc3\xbcller"}};
    db.SetConfigsPart(rCrec, "crec");
    EXPECT_EQ(PgQuery("SELECT param || '=' || value || '@' || part FROM Configs ORDER BY param"),
              "num=42abc@crec\nquote=it's@crec\nslash=C:\\rec\\n@crec\nutf=M\xc3\xbcller@crec");
    EXPECT_EQ(db.GetConfig("quote"), "it's");
    EXPECT_EQ(db.GetConfigInt("num"), 42);
    EXPECT_EQ(db.GetConfigInt("missing"), 0);
    EXPECT_EQ(db.GetConfig("missing"), "");

    // A key written under another part moves there: still one row.
    StdStringMap rOptions = {{"quote", "moved"}};
    db.SetConfigsPart(rOptions, "o");
    EXPECT_EQ(PgQuery("SELECT count(*), min(part), min(value) FROM Configs WHERE param='quote'"),
              "1|o|moved");

    // Reading a part adds and overwrites, and keeps keys the table lacks;
    // an SQL NULL value reads as "".
    ASSERT_TRUE(PgExec("INSERT INTO Configs (param, value, part) VALUES ('nullvalue', NULL, 'crec')"));
    StdStringMap rRead = {{"num", "old"}, {"onlyinmap", "kept"}};
    db.GetConfigsPart(rRead, "crec");
    StdStringMap rExpected = {{"num", "42abc"},
                              {"onlyinmap", "kept"},
                              {"slash", "C:\\rec\\n"},
                              {"nullvalue", ""},
                              {"utf", "M\xc3\xbcller"}};
    EXPECT_EQ(rRead, rExpected);

    // An unknown part leaves the map exactly as it was.
    db.GetConfigsPart(rRead, "nosuchpart");
    EXPECT_EQ(rRead, rExpected);
}

TEST_F(DatabaseTest, SetConfigsPartWithAFailingPairStoresNothingAndTheLinkStaysUsable)
{
    LogCapture rLog;
    // A lone Latin-1 byte is no valid UTF-8: the server refuses that INSERT,
    // which aborts the whole transaction.
    StdStringMap rPairs = {{"a_good", "1"}, {"b_bad", "M\xfcller"}, {"c_good", "3"}};
    db.SetConfigsPart(rPairs, "crec");
    EXPECT_EQ(PgQuery("SELECT count(*) FROM Configs"), "0");
    EXPECT_TRUE(rLog.Contains("DB error code", 3));
    EXPECT_TRUE(rLog.Contains("stack: ", 6));

    StdStringMap rRetry = {{"a_good", "1"}};
    db.SetConfigsPart(rRetry, "crec");
    EXPECT_EQ(db.GetConfig("a_good"), "1");
}

TEST_F(DatabaseTest, UserAndIdMapLookups)
{
    ASSERT_TRUE(PgExec("INSERT INTO Users (accid, enabled, email) VALUES (7, 1, 'a@b.example'), (8, 0, '');"
                       "INSERT INTO UserPhones (contactid, accid) VALUES (5, 7), (5, 8), (6, 9);"
                       "INSERT INTO IdMap (theid, value, target) VALUES ('201', 'Sales', 'notes2')"));
    EXPECT_EQ(db.GetUserIntOnAccID(7, "enabled"), 1);
    EXPECT_EQ(db.GetUserIntOnAccID(99, "enabled"), 0);
    EXPECT_EQ(db.GetUserStringOnAccID(7, "email"), "a@b.example");
    EXPECT_EQ(db.GetUserStringOnAccID(99, "email"), "");

    std::vector<int> aiAccIDs = {1}; // appended to, not cleared
    db.GetUsersOfPhone(5, aiAccIDs);
    std::sort(aiAccIDs.begin() + 1, aiAccIDs.end());
    EXPECT_EQ(aiAccIDs, (std::vector<int>{1, 7, 8}));

    IdMapEntry rHit = db.GetIdMapEntry("201");
    EXPECT_TRUE(rHit.fFound);
    EXPECT_EQ(rHit.strValue + "|" + rHit.strTarget, "Sales|notes2");
    EXPECT_FALSE(db.GetIdMapEntry("202").fFound);
}

// ---- call rows -----------------------------------------------------------------

TEST_F(DatabaseTest, AddCallStoresEveryColumnAndReturnsTheNewIds)
{
    LogCapture rLog;
    StringMap m = TypicalCallInfo();
    m.AddLatin1("remote", "M\xfcller"); // Latin-1 from the card
    m.AddUtf8("notes", "it's a \\ test");
    m.AddUtf8("callextra", "checksum: ab\\r\r\n");

    EXPECT_EQ(db.AddCall(m), 1);
    EXPECT_EQ(db.AddCall(m), 2);
    EXPECT_EQ(db.AddActiveCall(m), 1);
    EXPECT_TRUE(rLog.Contains("Added Calls to database (ID: 2)", 5));
    EXPECT_TRUE(rLog.Contains("Added ActiveCalls to database (ID: 1)", 5));

    EXPECT_EQ(
        PgQuery("SELECT startdate, linenr, encoding, flags, lineid, localcallerid, localcontact, local, "
                "remotecallerid FROM Calls WHERE id=2"),
        "1699999999|3|554|16|-1|0|-1||<NULL>");
    EXPECT_EQ(PgQuery("SELECT remote, octet_length(remote), notes, callextra FROM Calls WHERE id=1"),
              "M\xc3\xbcller|7|it's a \\ test|checksum: ab\\r\r\n");
    EXPECT_EQ(PgQuery("SELECT filename FROM ActiveCalls WHERE id=1"), "20231114_221319_003_01.wav");
}

TEST_F(DatabaseTest, AddCallRefusedByTheServerGivesMinusOne)
{
    LogCapture rLog;
    EXPECT_EQ(db.AddCall(StringMap()), -1);
    StringMap m = TypicalCallInfo();
    m.AddUtf8("duration", ""); // not a number: the INSERT fails
    EXPECT_EQ(db.AddActiveCall(m), -1);
    EXPECT_TRUE(rLog.Contains("DB error code", 3));
    EXPECT_FALSE(rLog.Contains("Added "));
    EXPECT_EQ(PgQuery("SELECT (SELECT count(*) FROM Calls) + (SELECT count(*) FROM ActiveCalls)"), "0");
}

TEST_F(DatabaseTest, ActiveCallUpdatesAndDelete)
{
    int iID = db.AddActiveCall(TypicalCallInfo());
    ASSERT_EQ(iID, 1);
    int iOther = db.AddActiveCall(TypicalCallInfo());

    StringMap rUpdate;
    rUpdate.AddUtf8("notes", "O'Brien");
    rUpdate.AddUtf8("duration", "12");
    EXPECT_TRUE(db.UpdateActiveCall(iID, rUpdate));
    EXPECT_TRUE(db.UpdateActiveCall(999, rUpdate)); // no such row: still success
    StringMap rBad;
    rBad.AddUtf8("duration", "abc");
    EXPECT_FALSE(db.UpdateActiveCall(iID, rBad));
    EXPECT_FALSE(db.UpdateActiveCall(iID, StringMap()));
    db.UpdateActiveCallCategory(iID, 7);
    EXPECT_EQ(PgQuery("SELECT notes, duration, category FROM ActiveCalls WHERE id=1"), "O'Brien|12|7");

    // A missing contact writes NULL into the id columns; ids are the low 32 bits.
    Contact rNone;
    db.UpdateActiveCallRemoteContact(iID, rNone, "0301234");
    Contact rLocal;
    rLocal.iCallerID = 0x100000005LL;
    rLocal.iContactID = 6;
    db.UpdateActiveCallLocalContact(iID, rLocal, "20'1");
    db.UpdateActiveCallConnectedNum(iID, rLocal, "555");
    EXPECT_EQ(
        PgQuery(
            "SELECT remotecallerid, remotecontact, remote, remotefull, localcallerid, localcontact, "
            "local, localfull, connectedcallerid, connectedcontact, connected FROM ActiveCalls WHERE id=1"),
        "<NULL>|<NULL>|0301234|0301234|5|6|20'1|20'1|5|6|555");

    db.DeleteActiveCall(iID);
    EXPECT_EQ(PgQuery("SELECT string_agg(id::text, ',') FROM ActiveCalls"), std::to_string(iOther));
}

TEST_F(DatabaseTest, GetCallBackCountsFromTheNewestCallOfTheLocalContact)
{
    // ids in another order than the start dates
    ASSERT_TRUE(PgExec("INSERT INTO Calls (id, localcontact, startdate) VALUES "
                       "(10, 4, 1000), (11, 4, 3000), (12, 4, 2000), (13, 5, 9000)"));
    // {contact, how many back, call id}; -1 back is refused by the server.
    const int aiCases[][3] = {{4, 1, 11}, {4, 2, 12}, {4, 3, 10}, {4, 4, -1},
                              {4, 0, -1}, {6, 1, -1}, {4, -1, -1}};
    for (const auto& c : aiCases)
        EXPECT_EQ(db.GetCallBack(c[0], c[1]), c[2]) << c[0] << " back " << c[1];
}

// ---- extras and carry-over -----------------------------------------------------

TEST_F(DatabaseTest, ActiveCallExtraRoundTrip)
{
    int iID = InsertActiveRow("callextra", "''");
    db.SetActiveCallExtra(iID, "k", "v");
    EXPECT_EQ(PgQuery("SELECT callextra = E'k: v\\r\\n' FROM ActiveCalls"), "t");

    const std::string strHard = "line1\nline2 it's: a\\nb\r";
    db.SetActiveCallExtra(iID, "k", "later");
    db.SetActiveCallExtra(iID, "hard", strHard);
    StdStringMap rExpected = {{"hard", strHard}, {"k", "later"}};
    EXPECT_EQ(db.GetActiveCallExtra(iID), rExpected);

    // No row: nothing made, nothing logged.
    LogCapture rLog;
    db.SetActiveCallExtra(iID + 1, "k", "v");
    EXPECT_TRUE(db.GetActiveCallExtra(iID + 1).empty());
    EXPECT_EQ(PgQuery("SELECT count(*) FROM ActiveCalls"), "1");
    EXPECT_FALSE(rLog.Contains("DB error"));
}

TEST_F(DatabaseTest, CarryOverGivesTheEightColumnsOfTheRow)
{
    int iID = InsertActiveRow("notes, notes2, notes3, notes4, notes5, category, processingstate, callextra",
                              "'n1', '', NULL, 'n4', 'it''s', 3, 5, E'a: 1\\r\\n'");
    StdStringMap rExpected = {{"notes", "n1"},          {"notes2", ""},           {"notes3", ""},
                              {"notes4", "n4"},         {"notes5", "it's"},       {"category", "3"},
                              {"processingstate", "5"}, {"callextra", "a: 1\r\n"}};
    EXPECT_EQ(db.GetActiveCallCarryOver(iID), rExpected);
    EXPECT_TRUE(db.GetActiveCallCarryOver(iID + 1).empty());
}

// ---- recorder, lines, contacts, caller IDs -------------------------------------

TEST_F(DatabaseTest, RecorderAndLineContactsAreMadeOnceAndFoundAfterwards)
{
    db.InitRecorder("SN-4711", "front desk");
    EXPECT_EQ(db.GetRecorderID(), 1);
    Database rOther;
    rOther.InitRecorder("SN-4711", "renamed"); // existing row kept as is
    EXPECT_EQ(rOther.GetRecorderID(), 1);
    EXPECT_EQ(PgQuery("SELECT name, rectype, options FROM recorders"), "front desk|50|");

    EXPECT_EQ(Ids(db.GetOrCreateLineContact(3, 1, "Line 3")), "1/-1/1");
    EXPECT_EQ(Ids(db.GetOrCreateLineContact(3, 1, "other name")), "1/-1/1");
    EXPECT_EQ(Ids(db.GetOrCreateLineContact(3, 2, "Line 3")), "2/-1/2");
    EXPECT_EQ(PgQuery("SELECT string_agg(name || '/' || extra || '/' || parentcontact, ',' ORDER BY id) FROM "
                      "Contacts"),
              "Line 3//0,Line 3//0");
    EXPECT_EQ(db.GetContactName(1), "Line 3");
    EXPECT_EQ(db.GetContactName(99), "");
}

TEST_F(DatabaseTest, CallerIdContactsHonourTheLocalAndDeletedFlags)
{
    // A new row's flag stays in the database; the next lookup reports it.
    EXPECT_EQ(Ids(db.GetOrCreateCallerIDContact("0301234", "ignored", true, "Bob")), "-1/1/1");
    EXPECT_EQ(Ids(db.GetOrCreateCallerIDContact("0301234", "", false, "Other")), "-1/1/1+local");
    EXPECT_EQ(PgQuery("SELECT callerid, callerid2, islocal, contactid FROM CallerIDs"), "0301234||1|1");
    EXPECT_EQ(Ids(db.GetCallerIDContact("0301234")), "-1/1/1");
    EXPECT_EQ(db.GetCallerIDContact("999").iContactID, -1);

    // A deleted number is absent: a new caller ID and a new contact.
    ASSERT_TRUE(PgExec("UPDATE CallerIDs SET deleted=1"));
    EXPECT_EQ(db.GetCallerIDContact("0301234").iCallerID, -1);
    EXPECT_EQ(Ids(db.GetOrCreateCallerIDContact("0301234", "", false, "Bob")), "-1/2/2");
}

TEST_F(DatabaseTest, DeleteIfUnusedKeepsRowsThatCallsStillReferTo)
{
    Contact rInCalls = db.GetOrCreateCallerIDContact("100", "", false, "in calls");
    Contact rInActive = db.GetOrCreateCallerIDContact("200", "", false, "in active");
    Contact rShared = db.GetOrCreateCallerIDContact("300", "", false, "two numbers");
    ASSERT_TRUE(PgExec("INSERT INTO CallerIDs (callerid, contactid) VALUES ('301', " +
                       std::to_string(rShared.iContactID) + ")"));
    Contact rFree = db.GetOrCreateCallerIDContact("400", "", false, "free");
    ASSERT_TRUE(PgExec("INSERT INTO Calls (localcallerid) VALUES (" + std::to_string(rInCalls.iCallerID) +
                       ");" + "INSERT INTO ActiveCalls (remotecallerid) VALUES (" +
                       std::to_string(rInActive.iCallerID) + ")"));

    for (const Contact& r : {rInCalls, rInActive, rShared, rFree, Contact()})
        db.DeleteIfUnused(r);

    EXPECT_EQ(PgQuery("SELECT string_agg(callerid, ',' ORDER BY id) FROM CallerIDs"), "100,200,301");
    EXPECT_EQ(PgQuery("SELECT string_agg(name, ',' ORDER BY id) FROM Contacts"),
              "in calls,in active,two numbers");
}

TEST_F(DatabaseTest, CustomLocalMapsAContactOntoAnotherIdentity)
{
    ASSERT_TRUE(PgExec("INSERT INTO LocalIdMapping (srcid, dstid, updatetime) VALUES (5, 7, 1699999999), "
                       "(6, 8, 12)"));
    ASSERT_TRUE(PgExec("INSERT INTO CallerIDs (id, callerid, contactid, deleted) VALUES (40, '2040', 7, 1)"));

    // found, contact, update time, caller ID and its text; deleted numbers count here.
    auto text = [](const CallerIdContact& c) {
        return std::to_string(c.fFound) + "|" + std::to_string(c.iContactID) + "|" +
               std::to_string(c.iUpdateTime) + "|" + std::to_string(c.iCallerID) + "|" + c.strText;
    };
    EXPECT_EQ(text(db.GetCustomLocal(5)), "1|7|1699999999|40|2040");
    EXPECT_EQ(text(db.GetCustomLocal(6)), "1|8|12|0|");
    EXPECT_FALSE(db.GetCustomLocal(9).fFound);
}
