// File helpers shared by the download and the upload: tree measurement, the
// working directory, and the upload's copy buffers.
#pragma once

#include <cstddef>
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

// Size of each shared copy buffer: 1 MiB, the chunk the stick copies move.
constexpr size_t kCopyBufferSize = 1024 * 1024;

// A copy buffer and its size in bytes; both empty until the buffer is first
// needed.
struct CopyBuffer
{
    size_t size = 0;
    char* buffer = nullptr;
};

// The copy buffer of the upload's stick copy. Allocated without throwing on
// first use (a panel short of memory fails the copy instead of aborting) and
// freed with delete[] when the upload ends.
extern CopyBuffer _s_accessFile;

// The checksum buffer that goes with the copy buffer, kCopyBufferSize bytes
// when allocated; released together with _s_accessFile.
extern char* _s_sumCodeBuf;

} // namespace AccessFile
