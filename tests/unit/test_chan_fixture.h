// test_chan_fixture.h - one BaseChannel on a started card simulator, with a
// fake recorder, a fake database, a fake clock and a temporary root.
//
// The simulator stands in for the card calls (SsmRecToMem, SsmStopRecToMem,
// SsmGetChState...) on an analog board of 4 channels; the test writes the
// "card's" audio into the channel's ring buffer itself and posts the
// E_PROC_RecordMem event, so every byte of a file is known. No simulator
// audio flows: that only happens inside SsmWaitForEventA, which these
// tests never call.
#ifndef TEST_CHAN_FIXTURE_H
#define TEST_CHAN_FIXTURE_H

#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "BaseChannel.h"
#include "fake_clock.h"
#include "fake_database.h"
#include "fake_recorder.h"
#include "shsim.h"
#include "support_temp_root.h"

// Local time of a calendar moment (the names and the schedule are local).
inline time_t LocalTime(int iYear, int iMon, int iDay, int iHour, int iMin, int iSec = 0)
{
    struct tm t {};
    t.tm_year = iYear - 1900;
    t.tm_mon = iMon - 1;
    t.tm_mday = iDay;
    t.tm_hour = iHour;
    t.tm_min = iMin;
    t.tm_sec = iSec;
    t.tm_isdst = -1;
    return mktime(&t);
}

inline uint32_t Le32(const std::string& s, size_t iOff)
{
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(s[iOff + i]);
    return v;
}

class ChanTest : public ::testing::Test {
protected:
    // Wednesday 31 January 2024, 08:45:01 local.
    ChanTest() : clock(LocalTime(2024, 1, 31, 8, 45, 1)) {}

    void SetUp() override
    {
        SetClock(&clock);
        shsim_reset();
        shsim_set_root(tmp.strRoot.c_str());
        tmp.Write("/usr/local/lib/shcti/sim/hardware.ini", "[board]\nmodel=ATP-4\nserial=1234\nchannels=4\n");
        std::string strCfg =
            tmp.Write("/var/quorda/data/ShConfig.ini",
                      "[SystemConfig]\nTotalBoards=1\n[AppChToBoardChTable]\nTotalAppCh=4\n"
                      "AppCh[0]=0,0..3\n[BoardId=0]\nBoardModel=ATP-4\nBoardSerialNumber=1234\n");
        ASSERT_EQ(SsmStartCti(strCfg.c_str(), SysPath("/var/quorda/data/ShIndex.ini").c_str()), 0);
        rec.prDatabase = &db;
        rec.strRecordingRoot = tmp.strRoot + "/recordings";
        rec.strArchiveRoot = tmp.strRoot + "/archive";
        db.rLineContact.iContactID = 42;
        db.rLineContact.iCallerID = 43;
        db.rLineContact.iLineID = 7;
        db.iRecorderID = 3;
        ch.Init(7, 0, 1, &rec, 1);
    }

    void TearDown() override
    {
        shsim_reset();
        SetClock(nullptr);
    }

    void Advance(int iSeconds) { clock.Advance(static_cast<long long>(iSeconds) * 1000000); }
    void Ticks(int n)
    {
        for (int i = 0; i < n; ++i) {
            Advance(1);
            ch.Periodic();
        }
    }
    void SetInCall(bool fInCall)
    {
        ch.fInCall_ChState = fInCall;
        ch.InCallMaybeChanged();
    }
    // The card's part: bytes into the ring at the present offset, wrapping,
    // then the event with the new write position.
    void CardWrites(const std::vector<BYTE>& vBytes)
    {
        int iPos = ch.iRecordOffset;
        for (BYTE b : vBytes) {
            ch.acRecordBuf[iPos] = b;
            iPos = (iPos + 1) % ch.iRecordBufSize;
        }
        Event(static_cast<DWORD>(iPos));
    }
    void Event(DWORD dwPos)
    {
        SSM_EVENT ev{};
        ev.wEventCode = E_PROC_RecordMem;
        ev.nReference = ch.iDrvCh;
        ev.dwParam = dwPos;
        ch.DefaultEventHandle(&ev);
    }
    static std::vector<BYTE> Pattern(size_t n, int iSeed = 0)
    {
        std::vector<BYTE> v(n);
        for (size_t i = 0; i < n; ++i)
            v[i] = static_cast<BYTE>((i * 7 + iSeed) % 251);
        return v;
    }
    // The audio bytes of a WAVE file of this channel.
    static std::string Audio(const std::string& strFile)
    {
        return strFile.size() > 56 ? strFile.substr(56) : "";
    }

    FakeClock clock;
    TempRoot tmp;
    FakeDatabase db;
    FakeRecorder rec;
    BaseChannel ch;
};

#endif
