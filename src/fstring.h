// fstring.h - free string functions and StringMap, the carrier of a call's
// columns. All functions take and return strings by value, hold no state
// and are safe on any thread. Their edge behaviour is relied upon by
// callers (see the comments on each).
#ifndef FSTRING_H
#define FSTRING_H

#include <list>
#include <map>
#include <string>
#include <vector>

typedef std::map<std::string, std::string> StdStringMap;

// Column map of a call row; every text in it is UTF-8.
class StringMap {
public:
    StdStringMap data;
    void AddUtf8(std::string key, std::string value);
    void AddLatin1(std::string key, std::string value);  // converts to UTF-8
};

bool acBeginsWith(const char* s, const char* start);
bool beginsWith(std::string s, std::string start);
std::string StrRepeat(int n, std::string s, std::string sep);
std::string MakeValidFileNameStr(std::string s);
std::string Latin1ToUtf8(std::string s);
int GetUtf8Size(unsigned char ch);
std::string Utf8ToLatin1(std::string s);
// Strips blank, tab, CR, LF from both ends; a text of only these stays as is.
void trim(std::string& s);
void trimWord(std::string& s);
std::string ToStdString(int i);
std::string ToStdString(long long i);
std::string StdStringNullSafe(const char* s);
// Appends to out; an empty text gives one empty element.
void lt_split(std::vector<std::string>& out, std::string text, char sep);
void lt_split_quotes(std::vector<std::string>& out, std::string text, char sep);
// Pieces between '|'; an empty text gives an empty list.
std::list<std::string> getElements(std::string text);

// strtol base 10 of the text: leading blanks and sign, then digits; 0 when
// there are none. Never throws; out-of-range values saturate like strtol.
long StrToLong(const std::string& s);
// The same narrowed to int (saturating).
int StrToInt(const std::string& s);

#endif
