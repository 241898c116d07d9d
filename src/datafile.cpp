// datafile.cpp - the text form of a call's extra data (callextra).
//
// DESIGN: pure functions. Rows written by any version are read by any
// other and by the web front end, so the format is kept to the byte:
// "key: value" lines in key order, every line ended by CR LF, values quoted
// so that CR, LF, NUL and backslash never stand raw in the text. Reading
// walks the text as a C string (it ends at the first NUL) and drops a
// malformed line without a word.
#include "datafile.h"

std::string DataQuote(std::string s)
{
    std::string strResult;
    strResult.reserve(s.size());
    for (char c : s) {
        switch (c) {
        case '\r':
            strResult += "\\r";
            break;
        case '\n':
            strResult += "\\n";
            break;
        case '\0':
            strResult += "\\0";
            break;
        case '\\':
            strResult += "\\\\";
            break;
        default:
            strResult += c;
        }
    }
    return strResult;
}

std::string DataUnQuote(std::string s)
{
    std::string strResult;
    for (const char* p = s.c_str(); *p; p++) {
        if (*p != '\\') {
            strResult += *p;
            continue;
        }
        // A backslash at the very end is dropped.
        if (!p[1])
            break;
        p++;
        switch (*p) {
        case 'r':
            strResult += '\r';
            break;
        case 'n':
            strResult += '\n';
            break;
        case '0':
            strResult += '\0';
            break;
        case '\\':
            strResult += '\\';
            break;
        default:
            // Not an escape of ours: both bytes stay.
            strResult += '\\';
            strResult += *p;
        }
    }
    return strResult;
}

std::string ArrayToString(StdStringMap rMap)
{
    std::string strResult;
    for (const auto& kv : rMap)
        strResult += kv.first + ": " + DataQuote(kv.second) + "\r\n";
    return strResult;
}

namespace {
// Stores one "key: value" line; a line whose first colon has no blank
// behind it is dropped.
void StoreLine(StdStringMap& rMap, const std::string& strLine)
{
    size_t iColon = strLine.find(':');
    if (iColon == std::string::npos || iColon + 1 >= strLine.size() || strLine[iColon + 1] != ' ')
        return;
    rMap[strLine.substr(0, iColon)] = DataUnQuote(strLine.substr(iColon + 2));
}
} // namespace

StdStringMap StringToArray(std::string strText)
{
    StdStringMap rMap;
    std::string strLine;
    // Only the pair CR LF ends a line; a lone CR or LF belongs to the line.
    for (const char* p = strText.c_str(); *p; p++) {
        if (p[0] == '\r' && p[1] == '\n') {
            if (!strLine.empty())
                StoreLine(rMap, strLine);
            strLine.clear();
            p++;
        } else {
            strLine += *p;
        }
    }
    if (!strLine.empty())
        StoreLine(rMap, strLine);
    return rMap;
}
