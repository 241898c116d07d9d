// Digits pressed during calls, end to end: the daemon binary on the card
// simulator's analog board, the private PostgreSQL, and a stand-in for the
// local service on the service socket. One start carries the eight DTMF
// actions of the recorder's table (mail, mail of the previous call, keep
// under store on demand, silence and sound judged on the recorded bytes,
// start and stop on a record-on-demand line, delete), the rules by which
// digits become the remote number, and a service that answers wrongly and
// then is gone.
#include "e2e_util.h"
#include "service_listener.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

using namespace e2e;

namespace {

const char* kAnalogBoard = "[board]\nmodel=ATP-24A\nserial=20305\nchannels=4\n";

std::string CallId(const std::string& strRemote)
{
    return PgQuery("SELECT id FROM Calls WHERE remote = '" + strRemote + "'");
}

bool WaitForErrorFile(const std::string& strText)
{
    std::string strPath = DaemonRunner::Path("/var/quorda/data/err_crec.dat");
    for (int i = 0; i < 100; ++i) {
        if (ReadFile(strPath) == strText)
            return true;
        SleepMs(100);
    }
    ADD_FAILURE() << "err_crec.dat holds '" << ReadFile(strPath) << "', not '" << strText << "'";
    return false;
}

TEST(PostCallDtmf, EachActionOnSimulatedCallsDigitsAsRemoteNumberAndServiceFaults)
{
    const char* const arActions[] = {"email", "email2", "keep", "silence",
                                     "sound", "start",  "stop", "delete"};
    std::vector<ConfigRow> vRows = {{"o", "SilOnDemand", "1"},
                                    {"o", "DelOnDmdType", "1"},
                                    {"crec", "Syn20305_RecOnDmd", "0,1,0,0"}}; // line 2 records on demand
    for (int i = 0; i < 8; ++i) {
        vRows.push_back({"s", "DTMF" + std::to_string(i + 1), "*" + std::to_string(i + 1)});
        vRows.push_back({"s", "DTMFact" + std::to_string(i + 1), arActions[i]});
    }
    DaemonRunner d;
    ASSERT_TRUE(StartDaemon(d, kAnalogBoard, vRows));
    // The service comes after the root is made; nothing is sent before a call.
    auto rService = std::make_unique<ServiceListener>(DaemonRunner::Path("/tmp/quorda"));
    ASSERT_TRUE(rService->Listening());
    EXPECT_TRUE(d.HasLine("DTMF *8 act delete"));

    // Line 1's contact has two users: the first one disabled.
    std::string strContact = PgQuery("SELECT contactid FROM Lines WHERE linenr = 1");
    ASSERT_FALSE(strContact.empty());
    ASSERT_TRUE(PgExec("INSERT INTO Users (accid, enabled) VALUES (502, 0), (501, 1)"));
    ASSERT_TRUE(PgExec("INSERT INTO UserPhones (contactid, accid) VALUES (" + strContact + ", 502), (" +
                       strContact + ", 501)"));

    // Line 1 "email": the finished call goes to the first user of the line.
    // Lines 3 and 4 have no caller ID; their digits wait for 6 s.
    StartCall(0, "0301111111", 1);
    StartCall(2, "", 3);
    StartCall(3, "", 4);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "3", 5000));
    SimOk("dtmf 0 *1");
    SimOk("dtmf 2 7");
    SimOk("dtmf 3 05");
    auto tDigits = std::chrono::steady_clock::now();
    SleepMs(2000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "1", 10000));
    std::string strFirst = CallId("0301111111"); // the caller ID beat the digits
    ASSERT_FALSE(strFirst.empty());
    EXPECT_TRUE(rService->WaitForMessage("email -recid " + strFirst + " 502", 5000));
    EXPECT_EQ(PgQuery("SELECT remote FROM ActiveCalls WHERE linenr = 4"), "");

    // Line 1 "email2" (the previous call, to the last enabled user) meets
    // a service that answers wrongly; then "silence" and "sound" in the
    // same call. Line 2 starts and stops its recording by digits.
    rService->SetReply("NO\r\n");
    StartCall(0, "0301111112", 2);
    StartCall(1, "0302222222", 5);
    ASSERT_TRUE(
        DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls WHERE linenr IN (1, 2)", "2", 5000));
    SimOk("dtmf 0 *2");
    EXPECT_TRUE(rService->WaitForMessage("email -recid " + strFirst + " 501", 5000));
    EXPECT_TRUE(WaitForErrorFile("Error socket reply: NO"));
    rService->SetReply("OK\r\n");
    // The call on line 2 shows, but nothing is recorded before the demand.
    EXPECT_EQ(PgQuery("SELECT isarchived, filename FROM ActiveCalls WHERE linenr = 2"), "0|");
    SimOk("dtmf 1 *6");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT isarchived FROM ActiveCalls WHERE linenr = 2", "1", 3000));
    SimOk("dtmf 0 *4");
    SleepMs(1500);
    SimOk("dtmf 0 *5");
    SleepMs(1500);
    SimOk("dtmf 1 *7");
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls WHERE linenr = 2", "1", 10000));
    ASSERT_TRUE(SimOk("state 0 idle"));

    // Digits: "05" became line 4's remote number after 6 s, a single digit
    // didn't on line 3.
    std::this_thread::sleep_until(tDigits + std::chrono::milliseconds(7000));
    EXPECT_EQ(PgQuery("SELECT remote FROM ActiveCalls WHERE linenr = 4"), "05");
    EXPECT_TRUE(d.HasLine("[4] Previous digits expired"));
    ASSERT_TRUE(SimOk("state 2 idle"));
    ASSERT_TRUE(SimOk("state 3 idle"));
    ASSERT_TRUE(SimOk("state 1 idle"));
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "5", 10000));
    EXPECT_EQ(PgQuery("SELECT linenr, remote FROM Calls WHERE linenr > 2 ORDER BY linenr"), "3|\n4|05");
    // Line 2: one recorded part between the two demands, nothing after.
    EXPECT_EQ(Count("Calls", "linenr = 2"), 1);
    EXPECT_EQ(Count("ActiveCalls"), 0);
    std::string strOnDemand = WaveAudio(RowFile("Calls", "linenr = 2"));
    EXPECT_GT(strOnDemand.size(), 2u * 8000);
    EXPECT_LT(strOnDemand.size(), 4u * 8000);
    std::string strSource = Pattern(5, 20 * 8000);
    size_t iAt = strSource.find(strOnDemand.substr(0, 64));
    ASSERT_NE(iAt, std::string::npos) << "line 2's audio is not its source's";
    EXPECT_TRUE(strSource.compare(iAt, strOnDemand.size(), strOnDemand) == 0);

    // Silenced audio is A-law silence (213) from "*4" to "*5", the pattern
    // elsewhere, at the same positions.
    std::string strSilenced = WaveAudio(RowFile("Calls", "remote = '0301111112'"));
    ASSERT_GT(strSilenced.size(), 3u * 8000);
    std::string strExpected = Pattern(2, strSilenced.size());
    size_t iFirst = 0, iLast = strSilenced.size();
    while (iFirst < iLast && strSilenced[iFirst] == strExpected[iFirst])
        ++iFirst;
    while (iLast > iFirst && strSilenced[iLast - 1] == strExpected[iLast - 1])
        --iLast;
    EXPECT_GT(iFirst, 0u);
    EXPECT_LT(iLast, strSilenced.size());
    EXPECT_GT(iLast - iFirst, 1u * 8000);
    EXPECT_LT(iLast - iFirst, 2u * 8000 + 4096);
    EXPECT_EQ(std::count(strSilenced.begin() + static_cast<long>(iFirst),
                         strSilenced.begin() + static_cast<long>(iLast), static_cast<char>(213)),
              static_cast<long>(iLast - iFirst));

    // "delete": the recording so far is removed and nothing more is made.
    StartCall(0, "0301111113", 6);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "1", 5000));
    std::string strDeleted = RowFile("ActiveCalls", "true");
    SleepMs(1500);
    ASSERT_TRUE(Exists(strDeleted));
    SimOk("dtmf 0 *8");
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "0", 5000));
    SleepMs(1000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    SleepMs(1000);
    EXPECT_FALSE(Exists(strDeleted));
    EXPECT_EQ(Count("Calls"), 5);
    EXPECT_EQ(Count("ActiveCalls"), 0);

    // "keep" under store on demand: the call with it stays, the other goes.
    ASSERT_TRUE(Config("o", "RecOnDemand", "1"));
    StartCall(0, "0301111114", 7);
    StartCall(2, "0303333334", 8);
    ASSERT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM ActiveCalls", "2", 5000));
    SimOk("dtmf 0 *3");
    SleepMs(2000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    ASSERT_TRUE(SimOk("state 2 idle"));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "6", 10000));
    EXPECT_TRUE(d.WaitForLine("[3] Store on demand: not keeping", 5000));
    EXPECT_FALSE(CallId("0301111114").empty());
    EXPECT_TRUE(CallId("0303333334").empty());
    // A user of line 1 who wants every call kept overrides the system value.
    ASSERT_TRUE(PgExec("UPDATE Users SET rod = 2 WHERE accid = 501"));
    StartCall(0, "0301111116", 10);
    SleepMs(2000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "7", 10000));
    EXPECT_FALSE(CallId("0301111116").empty());
    EXPECT_FALSE(d.HasLine("DB error code")) << "the users' settings must be readable";
    ASSERT_TRUE(PgExec("DELETE FROM Configs WHERE param = 'RecOnDemand'"));

    // The service gone: the mail request is lost with an error, the call
    // is kept all the same and the daemon goes on.
    rService.reset();
    StartCall(0, "0301111115", 9);
    SimOk("dtmf 0 *1");
    SleepMs(2000);
    ASSERT_TRUE(SimOk("state 0 idle"));
    EXPECT_TRUE(DaemonRunner::WaitForQuery("SELECT count(*) FROM Calls", "8", 10000));
    EXPECT_TRUE(WaitForErrorFile("Error connecting to socket"));

    StopDaemon(d);
}

} // namespace
