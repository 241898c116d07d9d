// callextra text format: rows outlive the process and are read by the web
// front end, so the bytes and the reading rules are checked exactly.
#include <gtest/gtest.h>

#include "datafile.h"

using namespace std::string_literals;

TEST(DataFile, RoundTripKeepsEveryByteOfValues)
{
    std::string strAll;
    for (int c = 0; c < 256; c++)
        strAll += static_cast<char>(c);
    StdStringMap m{{"all", strAll},
                   {"", "empty key"},
                   {"empty", ""},
                   {"tricky", "\\n is not LF\r\n\\\\0"},
                   {"key with blanks", "a\0b"s}};
    std::string strText = ArrayToString(m);
    EXPECT_EQ(strText.find('\0'), std::string::npos);
    EXPECT_EQ(StringToArray(strText), m);
}

TEST(DataFile, ExactTextOfSmallMap)
{
    StdStringMap m{{"b", "x\ny"}, {"a", ""}};
    EXPECT_EQ(ArrayToString(m), "a: \r\nb: x\\ny\r\n");
    EXPECT_EQ(ArrayToString({}), "");
    EXPECT_EQ(DataQuote("\\\r\0"s), "\\\\\\r\\0");
}

TEST(DataFile, ReadingRulesForMalformedTextAndEscapes)
{
    // First colon without a blank behind it: line dropped, even with a later ": ".
    EXPECT_EQ(StringToArray("a:b\r\nk:x: y\r\nok: 1\r\n"), (StdStringMap{{"ok", "1"}}));
    // LF alone doesn't end a line: one entry, LFs inside its value.
    EXPECT_EQ(StringToArray("a: 1\nb: 2\n"), (StdStringMap{{"a", "1\nb: 2\n"}}));
    // Empty lines are skipped, a last line without CR LF counts, the later key wins.
    EXPECT_EQ(StringToArray("\r\n\r\nk: 1\r\nk: 2\r\nz: \\"), (StdStringMap{{"k", "2"}, {"z", ""}}));
    // A NUL ends the text.
    EXPECT_EQ(StringToArray("a: 1\r\nb: \0 2\r\nc: 3\r\n"s), (StdStringMap{{"a", "1"}, {"b", ""}}));
    EXPECT_EQ(StringToArray(""), StdStringMap{});
    EXPECT_EQ(StringToArray("k:"), StdStringMap{});

    // A lone backslash at the end is dropped; unknown escapes are kept.
    EXPECT_EQ(DataUnQuote("\\"), "");
    EXPECT_EQ(DataUnQuote("ab\\"), "ab");
    EXPECT_EQ(DataUnQuote("\\q\\\\\\0x"), "\\q\\\0x"s);
    EXPECT_EQ(DataUnQuote("a\0\\n"s), "a");
}
