// filedir.h - existence, whole-file reading, names, directories, and
// DeleteFn, through which every recording and status file is removed so
// that the secure-delete option holds everywhere.
#ifndef FILEDIR_H
#define FILEDIR_H

#include <string>

bool file_exists(std::string path);
std::string StdGetFileContent(std::string path);
std::string ExtractFileName(std::string path);
void EnsurePath(std::string path);
std::string RemoveFileExtension(std::string path);
// Deletes fn; with the secure-delete marker file present, through shred.
bool DeleteFn(const char* fn);
// The marker file that switches DeleteFn to shred.
std::string SecureDeleteMarkerPath();

#endif
