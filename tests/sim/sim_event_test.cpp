// Card events of the simulator: when they flow, their order and data, the
// blocking wait, and the control socket that injects them.
#include "sim_fixture.h"

#include "scenario.h"

#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

double WaitSeconds(DWORD dwTimeout, SSM_EVENT& ev, int& iResult)
{
    auto t0 = std::chrono::steady_clock::now();
    iResult = SsmWaitForEventA(dwTimeout, &ev);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

} // namespace

TEST_F(SimTest, NoEventsBeforeTheDaemonEnablesThem)
{
    ASSERT_EQ(Start(), 0);
    shsim_set_step_mode(1);
    EXPECT_EQ(shsim_inject_event(E_CHG_RcvDTMF, 3, '5', 0, nullptr, 0), -1);
    // The state is taken even though its event is dropped.
    EXPECT_EQ(shsim_set_state(3, S_CALL_RINGING), 1);
    EXPECT_EQ(SsmGetChState(3), S_CALL_RINGING);
    SSM_EVENT ev{};
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1);

    // The second call of the daemon, for memory recording, doesn't enable all.
    ASSERT_EQ(EnableRecordMem(2048, 3), 0);
    EXPECT_EQ(shsim_inject_event(E_CHG_RcvDTMF, 3, '5', 0, nullptr, 0), -1);
    EXPECT_NE(Command("status").find("recordmem cadence 2048/3"), std::string::npos);
    _EVENT_SET_INFO info{};
    info.dwWorkMode = EVENT_POLLING;
    EXPECT_EQ(SsmSetEvent(0xFFFF, 84, 1, &info), -1);
    ASSERT_EQ(SsmSetEvent(0xFFFF, -1, 1, &info), 0);
    EXPECT_EQ(shsim_inject_event(E_CHG_RcvDTMF, 3, '5', 0, nullptr, 0), 0);
    std::string log = Command("log");
    EXPECT_NE(log.find("SsmSetEvent(21, -1, 1, mode=1 cond=2048 param=3)"), std::string::npos) << log;
    EXPECT_NE(log.find("SsmSetEvent(65535, -1, 1, mode=1 cond=0 param=0)"), std::string::npos) << log;

    // Closing the driver drops what was queued and turns events off again.
    SsmCloseCti();
    EXPECT_EQ(shsim_pending_events(), 0);
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(shsim_inject_event(E_CHG_RcvDTMF, 3, '5', 0, nullptr, 0), -1);
}

TEST_F(SimTest, EventsLeaveInOrderWithTheirDataCutToTheBuffer)
{
    StartWithEvents();
    shsim_set_step_mode(1);
    const char acText[] = "0123456789";
    ASSERT_EQ(shsim_inject_event(E_RCV_DSTDChannel, 61, 0x1008, 7, acText, 10), 0);
    EXPECT_EQ(shsim_set_state(62, 0x12345), -1); // a state is 16 bits
    ASSERT_EQ(shsim_set_state(62, S_CALL_WAIT_ANSWER), 0);
    ASSERT_EQ(shsim_inject_event(E_RCV_DSTDChannel, 63, 1, 0, acText, 10), 0);
    ASSERT_EQ(shsim_inject_event(E_CHG_PcmLinkStatus, -1, 0, 0, nullptr, 0), 0);
    EXPECT_EQ(shsim_inject_event(E_RCV_DSTDChannel, 1, 0, 0, acText, 5000), -1);

    char acBuf[16];
    memset(acBuf, 'X', sizeof(acBuf));
    SSM_EVENT ev{};
    ev.pvBuffer = acBuf;
    ev.dwBufferLength = 4;
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_RCV_DSTDChannel);
    EXPECT_EQ(ev.nReference, 61);
    EXPECT_EQ(ev.dwParam, 0x1008u);
    EXPECT_EQ(ev.dwSubReason, 7u);
    EXPECT_EQ(ev.dwDataLength, 4u);
    EXPECT_EQ(std::string(acBuf, 5), "0123X");

    ev = SSM_EVENT{};
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_CHG_ChState);
    EXPECT_EQ(ev.nReference, 62);
    EXPECT_EQ(ev.dwParam, static_cast<DWORD>(S_CALL_WAIT_ANSWER));
    EXPECT_EQ(ev.dwDataLength, 0u);

    // No buffer given: nothing copied, whatever the length says.
    ev = SSM_EVENT{};
    ev.dwBufferLength = 1024;
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.nReference, 63);
    EXPECT_EQ(ev.dwDataLength, 0u);

    ev = SSM_EVENT{};
    ASSERT_EQ(SsmWaitForEventA(200, &ev), 0);
    EXPECT_EQ(ev.nReference, -1);
    EXPECT_EQ(SsmWaitForEventA(200, &ev), -1);
    EXPECT_NE(SsmWaitForEventA(200, nullptr), 0);
    EXPECT_NE(SsmWaitForEventA(200, nullptr), -1);
}

TEST_F(SimTest, WaitBlocksForItsTimeOutOnlyWhenNothingIsQueued)
{
    StartWithEvents();
    SSM_EVENT ev{};
    int iResult = 0;
    ASSERT_EQ(shsim_inject_event(E_CHG_RcvDTMF, 60, '1', 0, nullptr, 0), 0);
    EXPECT_LT(WaitSeconds(5000, ev, iResult), 0.1);
    EXPECT_EQ(iResult, 0);

    double d = WaitSeconds(200, ev, iResult);
    EXPECT_EQ(iResult, -1);
    EXPECT_GE(d, 0.19);
    EXPECT_LT(d, 0.6);

    shsim_set_step_mode(1);
    EXPECT_LT(WaitSeconds(5000, ev, iResult), 0.1);
    EXPECT_EQ(iResult, -1);
}

TEST_F(SimTest, ControlSocketRoundTrip)
{
    // A stale socket file of an earlier run doesn't stop the start.
    WriteFile(SockPath(), "stale");
    StartWithEvents();
    shsim_set_step_mode(1);
    auto send = [this](const std::string& line) {
        std::string reply, err;
        EXPECT_TRUE(SendControlLine(SockPath(), line, reply, err)) << line << ": " << err;
        return reply;
    };
    EXPECT_EQ(send("ping"), "OK pong");
    EXPECT_EQ(send("state 60 3"), "OK channel 60 state 3");
    EXPECT_EQ(send("getstate 60"), "OK 3");
    EXPECT_EQ(send("event E_RCV_DSTDChannel 61 param=0x1008 sub=1 text=Call  from 200").substr(0, 2), "OK");
    EXPECT_EQ(send("event 65 61 hex=00ff41").substr(0, 2), "OK");

    char acBuf[1024];
    SSM_EVENT ev{};
    ev.pvBuffer = acBuf;
    ev.dwBufferLength = sizeof(acBuf);
    ASSERT_EQ(SsmWaitForEventA(0, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_CHG_ChState);
    EXPECT_EQ(ev.dwParam, 3u);
    ASSERT_EQ(SsmWaitForEventA(0, &ev), 0);
    EXPECT_EQ(ev.dwParam, 0x1008u);
    EXPECT_EQ(ev.dwSubReason, 1u);
    EXPECT_EQ(std::string(acBuf, ev.dwDataLength), "Call  from 200");
    ASSERT_EQ(SsmWaitForEventA(0, &ev), 0);
    EXPECT_EQ(std::string(acBuf, ev.dwDataLength), std::string("\0\xff"
                                                               "A",
                                                               3));

    EXPECT_EQ(
        send("boards"),
        "OK 2 boards: id 0 DTP-60 serial 5001 channels 0..59; id 1 ATP-24A serial 1234 channels 60..83");
    EXPECT_NE(send("list").find("; 80=board 1 ch 20 type -1 state 0;"), std::string::npos);

    const char* const bad[][2] = {
        {"bogus 1", "ERR unknown command 'bogus' (try help)"},
        {"state 84 2", "ERR no channel 84"},
        {"state 60", "ERR usage: state <ch> <state 0..65535>"},
        {"state x 2", "ERR bad channel 'x'"},
        {"event 24 x", "ERR bad reference 'x'"},
        {"event E_NOPE 1", "ERR unknown event code 'E_NOPE'"},
        {"event 65 1 hex=0g", "ERR bad hex data '0g'"},
        {"event 65 1 hex=123", "ERR bad hex data '123'"},
        {"event 24 1 colour=3", "ERR unknown field 'colour'"},
        {"event 24 1 param=12abc", "ERR bad value in 'param=12abc'"},
        {"   ", "ERR empty command"},
    };
    for (const auto& b : bad)
        EXPECT_EQ(send(b[0]), b[1]) << b[0];
    EXPECT_EQ(shsim_pending_events(), 0);

    // Several lines on one connection get one reply line each, in order.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, SockPath().c_str());
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    std::string two = "ping\nbogus\r\n";
    ASSERT_EQ(write(fd, two.data(), two.size()), static_cast<ssize_t>(two.size()));
    shutdown(fd, SHUT_WR);
    std::string all;
    char c;
    while (read(fd, &c, 1) == 1)
        all += c;
    close(fd);
    EXPECT_EQ(all, "OK pong\nERR unknown command 'bogus' (try help)\n");

    SsmCloseCti();
    EXPECT_NE(access(SockPath().c_str(), F_OK), 0);
    std::string reply, err;
    EXPECT_FALSE(SendControlLine(SockPath(), "ping", reply, err));
}

TEST_F(SimTest, ScenarioNamedInHardwarePlaysOnceEventsAreOn)
{
    WriteFile(SimDir() + "/hardware.ini", std::string(kSampleHardware) + "[scenario]\nautoplay=t.scn\n");
    WriteFile(SimDir() + "/t.scn", "# ring, then talk\nstate 60 2\nwait 20\n\nevent 12 60 param=0x35\n");
    ASSERT_EQ(Start(), 0);
    SSM_EVENT ev{};
    EXPECT_EQ(SsmWaitForEventA(100, &ev), -1);
    _EVENT_SET_INFO info{};
    ASSERT_EQ(SsmSetEvent(0xFFFF, -1, 1, &info), 0);
    ASSERT_EQ(SsmWaitForEventA(2000, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_CHG_ChState);
    ASSERT_EQ(SsmWaitForEventA(2000, &ev), 0);
    EXPECT_EQ(ev.wEventCode, E_CHG_RcvDTMF);
    EXPECT_EQ(ev.dwParam, 0x35u);

    // The player stops at the first refused command and says where.
    std::string err;
    auto exec = [](const std::string& line) { return Command(line); };
    EXPECT_FALSE(PlayScenario(
        "ping\n\nstate 99 1\nping\n", exec, [](long) { return true; }, err));
    EXPECT_EQ(err, "line 3: ERR no channel 99");
    EXPECT_FALSE(PlayScenario(
        "wait soon\n", exec, [](long) { return true; }, err));
    EXPECT_EQ(err, "line 1: wait needs milliseconds");
}
