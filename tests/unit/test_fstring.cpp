// Strings: the edges that callers rely upon (list splitting of settings,
// Latin-1 display texts, file names, numeric settings).
#include <gtest/gtest.h>

#include <climits>

#include "fstring.h"

using V = std::vector<std::string>;

namespace {
V Split(const std::string& text, char sep, bool fQuotes = false)
{
    V v;
    if (fQuotes)
        lt_split_quotes(v, text, sep);
    else
        lt_split(v, text, sep);
    return v;
}

std::string AllBytes()
{
    std::string s;
    for (int c = 0; c < 256; c++)
        s += static_cast<char>(c);
    return s;
}
} // namespace

TEST(FString, Latin1AndUtf8)
{
    std::string strAll = AllBytes();
    std::string strUtf8 = Latin1ToUtf8(strAll);
    EXPECT_EQ(strUtf8.size(), 128u + 2 * 128u);
    EXPECT_EQ(Utf8ToLatin1(strUtf8), strAll);

    const std::pair<std::string, std::string> aCases[] = {
        // Three and four byte sequences and code points from 256 up become "?".
        {"a\xE2\x82\xAC-", "a?-"},
        {"\xF0\x9F\x98\x80!", "?!"},
        {"\xC4\x80", "?"},
        // A sequence lacking only its last byte passes: the NUL stands in for it.
        {"x\xC3", "x\xC0"},
        {"x\xE2\x82", "x?"},
        // Lacking more than that, the whole text is unusable.
        {"abc\xF0", ""},
        // Plain ASCII comes back untouched, NUL bytes included.
        {std::string("a\0b", 3), std::string("a\0b", 3)}};
    for (const auto& c : aCases)
        EXPECT_EQ(Utf8ToLatin1(c.first), c.second) << c.first;
}

TEST(FString, SplittingKeepsEmptyAndBlankElements)
{
    EXPECT_EQ(Split("", ','), V{""});
    EXPECT_EQ(Split("a,,b,", ','), (V{"a", "", "b", ""}));
    EXPECT_EQ(Split(std::string("a,b\0,c", 6), ','), (V{"a", "b"}));
    V v{"old"};
    lt_split(v, "x", ',');
    EXPECT_EQ(v, (V{"old", "x"}));

    EXPECT_EQ(Split("a,\"b,c\",d", ',', true), (V{"a", "b,c", "d"}));
    EXPECT_EQ(Split("x\"y,z\"w,\"open,rest", ',', true), (V{"xy,zw", "open,rest"}));
    EXPECT_EQ(Split("", ',', true), V{""});

    using L = std::list<std::string>;
    EXPECT_EQ(getElements(""), L{});
    EXPECT_EQ(getElements("a|"), (L{"a", ""}));
    EXPECT_EQ(getElements("|b"), (L{"", "b"}));
}

TEST(FString, TrimFileNamesNumbersPrefixesAndRepeats)
{
    auto Trimmed = [](std::string s, void (*fn)(std::string&)) {
        fn(s);
        return s;
    };
    // Trim leaves an all-blank text alone.
    EXPECT_EQ(Trimmed("   ", trim), "   ");
    EXPECT_EQ(Trimmed("", trim), "");
    EXPECT_EQ(Trimmed("\t\r\n a b \n", trim), "a b");
    EXPECT_EQ(Trimmed("  first second", trimWord), "first");
    EXPECT_EQ(Trimmed(" \t ", trimWord), "");

    EXPECT_EQ(MakeValidFileNameStr("Ab-1.(x)"), "Ab-1.(x)");
    EXPECT_EQ(MakeValidFileNameStr("a b\"%&*/:<>?\\|z\xE9\x7F\t"), "a_b___________z___");
    EXPECT_EQ(MakeValidFileNameStr(AllBytes()).size(), 256u);

    // Numbers read like strtol and saturate.
    const std::pair<const char*, int> aNumbers[] = {
        {"", 0}, {"abc", 0}, {"  42x", 42}, {"010", 10}, {"3000000000", INT_MAX}, {"-3000000000", INT_MIN}};
    for (const auto& c : aNumbers)
        EXPECT_EQ(StrToInt(c.first), c.second) << c.first;
    EXPECT_EQ(StrToLong("99999999999999999999999"), LONG_MAX);

    EXPECT_TRUE(acBeginsWith("", ""));
    EXPECT_FALSE(acBeginsWith("", "a"));
    EXPECT_FALSE(acBeginsWith("ab", "abc"));
    EXPECT_FALSE(acBeginsWith(nullptr, "a"));
    EXPECT_FALSE(beginsWith("ab", "abc"));
    EXPECT_EQ(StrRepeat(1, "?", ","), "?");
    EXPECT_EQ(StrRepeat(3, "?", ","), "?,?,?");
    EXPECT_EQ(StrRepeat(-2, "?", ","), "");
}
