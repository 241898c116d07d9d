// fstring.cpp - free string functions and StringMap.
//
// DESIGN: pure functions on values, no state, no locks, safe on any
// thread. Several keep an odd edge on purpose because callers depend on it:
// trim leaves an all-blank text alone, lt_split of "" gives one element
// while getElements of "" gives none, and Utf8ToLatin1 lets the terminating
// NUL stand in for the last byte of a truncated two-byte sequence.
#include "fstring.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

void StringMap::AddUtf8(std::string key, std::string value)
{
    data[key] = value;
}

void StringMap::AddLatin1(std::string key, std::string value)
{
    data[key] = Latin1ToUtf8(value);
}

bool acBeginsWith(const char* s, const char* start)
{
    // A null pointer reads as an empty text.
    if (!start || !*start)
        return true;
    if (!s)
        return false;
    return strncmp(s, start, strlen(start)) == 0;
}

bool beginsWith(std::string s, std::string start)
{
    return s.size() >= start.size() && s.compare(0, start.size(), start) == 0;
}

std::string StrRepeat(int n, std::string s, std::string sep)
{
    std::string strResult;
    for (int i = 0; i < n; i++) {
        if (i > 0)
            strResult += sep;
        strResult += s;
    }
    return strResult;
}

std::string MakeValidFileNameStr(std::string s)
{
    static const char acBad[] = " \"%&*/:<>?\\|";
    std::string strResult = s;
    for (char& c : strResult) {
        unsigned char uc = static_cast<unsigned char>(c);
        if (uc < 32 || uc >= 127 || strchr(acBad, c))
            c = '_';
    }
    return strResult;
}

std::string Latin1ToUtf8(std::string s)
{
    bool fHigh = false;
    for (char c : s)
        fHigh = fHigh || (static_cast<unsigned char>(c) & 0x80);
    if (!fHigh)
        return s;
    std::string strResult;
    strResult.reserve(s.size() * 2);
    for (char c : s) {
        unsigned char uc = static_cast<unsigned char>(c);
        if (uc < 0x80) {
            strResult += c;
        } else {
            strResult += static_cast<char>(0xC0 + (uc >> 6));
            strResult += static_cast<char>(0x80 + (uc & 0x3F));
        }
    }
    return strResult;
}

int GetUtf8Size(unsigned char ch)
{
    if (!(ch & 0x80))
        return 1;
    if (!(ch & 0x20))
        return 2;
    if (!(ch & 0x10))
        return 3;
    return 4;
}

namespace {
// Continuation bytes announced by a lead byte with the high bit set.
size_t ContinuationCount(unsigned char uc)
{
    if ((uc & 0x30) == 0x30)
        return 3;
    if (uc & 0x20)
        return 2;
    return 1;
}
} // namespace

std::string Utf8ToLatin1(std::string s)
{
    // First pass: a sequence may reach the terminating NUL (index size())
    // but not beyond it; anything longer makes the whole text unusable.
    const size_t len = s.size();
    bool fMulti = false;
    for (size_t i = 0; i < len; i++) {
        unsigned char uc = static_cast<unsigned char>(s[i]);
        if (!(uc & 0x80))
            continue;
        fMulti = true;
        i += ContinuationCount(uc);
        if (i > len)
            return std::string();
    }
    if (!fMulti)
        return s;

    std::string strResult;
    for (size_t i = 0; i < len; i++) {
        unsigned char uc = static_cast<unsigned char>(s[i]);
        if (!(uc & 0x80)) {
            strResult += s[i];
        } else if (uc & 0x20) {
            // Three or four bytes: beyond Latin-1 in any case.
            strResult += '?';
            i += ContinuationCount(uc);
        } else {
            // s[len] is the NUL, so the truncated last sequence reads 0 here.
            unsigned char next = static_cast<unsigned char>(s[i + 1]);
            if (uc & 0x1C)
                strResult += '?';
            else
                strResult += static_cast<char>(((uc << 6) + (next & 0x3F)) & 0xFF);
            i++;
        }
    }
    return strResult;
}

namespace {
bool IsTrimChar(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
} // namespace

void trim(std::string& s)
{
    size_t iFirst = 0;
    while (iFirst < s.size() && IsTrimChar(s[iFirst]))
        iFirst++;
    // Nothing but trim characters: left as it is, so a blank list element survives.
    if (iFirst == s.size())
        return;
    size_t iLast = s.size() - 1;
    while (IsTrimChar(s[iLast]))
        iLast--;
    s = s.substr(iFirst, iLast - iFirst + 1);
}

void trimWord(std::string& s)
{
    size_t iStart = 0;
    while (iStart < s.size() && isspace(static_cast<unsigned char>(s[iStart])))
        iStart++;
    size_t iEnd = iStart;
    while (iEnd < s.size() && !isspace(static_cast<unsigned char>(s[iEnd])))
        iEnd++;
    s = s.substr(iStart, iEnd - iStart);
}

std::string ToStdString(int i)
{
    return std::to_string(i);
}

std::string ToStdString(long long i)
{
    return std::to_string(i);
}

std::string StdStringNullSafe(const char* s)
{
    return s ? std::string(s) : std::string();
}

void lt_split(std::vector<std::string>& out, std::string text, char sep)
{
    std::string strElem;
    for (const char* p = text.c_str(); *p; p++) {
        if (*p == sep) {
            out.push_back(strElem);
            strElem.clear();
        } else {
            strElem += *p;
        }
    }
    out.push_back(strElem);
}

void lt_split_quotes(std::vector<std::string>& out, std::string text, char sep)
{
    std::string strElem;
    bool fQuoted = false;
    for (const char* p = text.c_str(); *p; p++) {
        if (*p == '"')
            fQuoted = !fQuoted;
        else if (*p == sep && !fQuoted) {
            out.push_back(strElem);
            strElem.clear();
        } else
            strElem += *p;
    }
    out.push_back(strElem);
}

std::list<std::string> getElements(std::string text)
{
    std::list<std::string> lResult;
    if (text.empty())
        return lResult;
    size_t iStart = 0;
    size_t iBar;
    while ((iBar = text.find('|', iStart)) != std::string::npos) {
        lResult.push_back(text.substr(iStart, iBar - iStart));
        iStart = iBar + 1;
    }
    lResult.push_back(text.substr(iStart));
    return lResult;
}

long StrToLong(const std::string& s)
{
    // strtol already saturates at LONG_MIN / LONG_MAX and gives 0 without digits.
    return strtol(s.c_str(), nullptr, 10);
}

int StrToInt(const std::string& s)
{
    long l = StrToLong(s);
    if (l > INT_MAX)
        return INT_MAX;
    if (l < INT_MIN)
        return INT_MIN;
    return static_cast<int>(l);
}
