// datafile.h - the text format of the callextra column: one "key: value"
// line per entry, CR LF line ends, values quoted (\r \n \0 \\).
#ifndef DATAFILE_H
#define DATAFILE_H

#include <string>

#include "fstring.h"

std::string DataQuote(std::string s);
std::string DataUnQuote(std::string s);
std::string ArrayToString(StdStringMap rMap);
StdStringMap StringToArray(std::string strText);

#endif
