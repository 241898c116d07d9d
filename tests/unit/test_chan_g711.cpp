// G.711: the edge values the recorder and the mixer rely on, and the two
// law-to-law tables checked against the linear conversions.
#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>

#include "g711.h"

TEST(G711Test, EdgeValuesAndTheWrapAtTheTopOfTheULawRange)
{
    EXPECT_EQ(linear2ulaw(32635), 128); // top of the straight range
    EXPECT_EQ(linear2ulaw(32767), 255); // wraps into segment 0
    EXPECT_EQ(linear2ulaw(32636), 255);
    EXPECT_EQ(linear2ulaw(-32768), 127);
    EXPECT_EQ(linear2ulaw(0), 255);
    EXPECT_EQ(linear2alaw(-32768), 42); // stays inside the last segment
    EXPECT_EQ(linear2alaw(32767), 170);
    EXPECT_EQ(linear2alaw(0), 213);
    // The silence bytes stand for the values nearest to zero.
    EXPECT_EQ(ulaw2linear(255), 0);
    EXPECT_EQ(alaw2linear(213), 8);
    EXPECT_EQ(alaw2linear(85), -8);
    EXPECT_EQ(ulaw2linear(128), 32124);
    EXPECT_EQ(ulaw2linear(0), -32124);
    EXPECT_EQ(alaw2linear(170), 32256);
}

TEST(G711Test, EveryCodeRoundTripsAndTheLawToLawTablesAgreeWithTheLinearValues)
{
    for (int i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        unsigned char c = static_cast<unsigned char>(i);
        EXPECT_EQ(linear2alaw(alaw2linear(c)), c);
        // u-law has two codes for zero (127 and 255); both expand to 0.
        if (i != 127) {
            EXPECT_EQ(linear2ulaw(ulaw2linear(c)), c);
        }
        // A direct conversion must land on a code of nearly the same value: an
        // error in one table entry shows as a jump of a whole step or more.
        int iA = alaw2linear(c);
        int iU = ulaw2linear(alaw2ulaw(c));
        EXPECT_LE(std::abs(iA - iU), std::max(16, std::abs(iA) / 16)) << "A-law";
        int iU2 = ulaw2linear(c);
        int iA2 = alaw2linear(ulaw2alaw(c));
        EXPECT_LE(std::abs(iU2 - iA2), std::max(16, std::abs(iU2) / 16)) << "u-law";
    }
}
