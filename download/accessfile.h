// File helpers shared by the download and the upload: tree measurement, the
// working directory, and the upload's copy buffers.
#pragma once

#include <cstdint>
#include <sys/stat.h>

// The process-wide tree measurement and working-directory helpers.
namespace AccessFile {

// Byte counter of the running measurement; measurements never overlap.
extern int64_t _s_fileTotalSize;

// Size of `path`: a regular file's size, a directory's walk total (every entry
// the walk reports, directories included), 0 when the path does not exist.
int64_t getDirectorySize(const char* path);

// The walk callback: adds the entry's st_size to the counter; always 0.
int calFileSizeSum(const char* path, const struct stat64* info, int flag);

// Makes `dir` the process's working directory; false when the path length
// limit is unknown or the change fails.
bool changeWorkingDir(const char* dir);

} // namespace AccessFile
