// A recording that isn't kept leaves nothing behind: neither the capture
// nor the monitoring copies that a listener followed during the call.
#include <unistd.h>

#include "test_chan_fixture.h"

namespace {

bool Exists(const std::string& strPath)
{
    return access(strPath.c_str(), F_OK) == 0;
}

class DroppedRecordingTest : public ChanTest {};

TEST_F(DroppedRecordingTest, MonitoringCopiesGoWithTheDroppedRecording)
{
    rec.fMonitoring = true;
    db.Set("o", "RecMinDur", "30");
    SetInCall(true);
    ASSERT_TRUE(ch.fRecording);
    std::string strFinal = ch.strFullFilenameFinal;
    CardWrites(Pattern(800));
    ASSERT_TRUE(Exists(strFinal + ".raw"));
    ASSERT_TRUE(Exists(strFinal + ".info"));

    Advance(3); // shorter than RecMinDur: not kept
    SetInCall(false);
    EXPECT_TRUE(db.vCalls.empty());
    EXPECT_FALSE(Exists(ch.strFullFilename));
    EXPECT_FALSE(Exists(strFinal + ".raw"));
    EXPECT_FALSE(Exists(strFinal + ".info"));
}

} // namespace
