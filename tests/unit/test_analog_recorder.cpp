// The recorder gives each driver channel the class of its type: analog
// channels of the simulator's analog board become AnalogChannels (and read
// their analog settings), the station-tap board's stay plain BaseChannels.
#include <gtest/gtest.h>

#include "AnalogChannel.h"
#include "fake_database.h"
#include "log_capture.h"
#include "paths.h"
#include "recorder.h"
#include "shsim.h"
#include "support_temp_root.h"
#include "test_analog_sim.h"

namespace {

const char* const kHardware = "[board]\nmodel=ATP-2\nserial=1234\nchannels=2\n"
                              "[board]\nmodel=DST-2\nserial=5678\nchannels=2\n";
const char* const kShConfig = "[SystemConfig]\nTotalBoards=2\n"
                              "[AppChToBoardChTable]\nTotalAppCh=4\nAppCh[0]=0,0..1\nAppCh[2]=1,0..1\n"
                              "[BoardId=0]\nBoardModel=ATP-2\nBoardSerialNumber=1234\n"
                              "[BoardId=1]\nBoardModel=DST-2\nBoardSerialNumber=5678\n";

TEST(AnalogClassChoice, AnalogDriverChannelsGetTheAnalogClassAndOthersThePlainOne)
{
    TempRoot root;
    ASSERT_FALSE(root.strRoot.empty());
    ASSERT_EQ(StartSimDriver(root, kHardware, kShConfig), 0);

    LogCapture log;
    FakeDatabase* prDb = new FakeDatabase(); // owned by the boot
    TRecorderBoot rBoot(prDb);
    rBoot.iTotalDrvMaxCh = 4;
    rBoot.rDrvToWebChMap = {{0, 0}, {1, 1}, {2, 2}, {3, 3}};
    {
        CRecorder rRec;
        rRec.prBoot = &rBoot;
        rRec.prDatabase = prDb;
        ASSERT_EQ(rRec.InitRecorder(), 0);
        ASSERT_EQ(rRec.vChannels.size(), 4u);
        for (int d = 0; d < 4; ++d) {
            EXPECT_EQ(dynamic_cast<AnalogChannel*>(rRec.vChannels[d]) != nullptr, d < 2) << d;
            EXPECT_EQ(rRec.vChannels[d]->iDrvCh, d);
        }
        EXPECT_TRUE(log.Contains("[2] Analog settings: ", 5));
        EXPECT_FALSE(log.Contains("[3] Analog settings: "));
    }
    shsim_reset();
}

} // namespace
