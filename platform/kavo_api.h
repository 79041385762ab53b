// The panel's closed interfaces, as the panel's vendor library declares them.
//
// The sim build (platform/sim) implements them against a simulated panel
// directory; the panel build links the vendor library, which must export
// exactly these declarations. Nothing outside the platform layer calls the
// system services behind them.
#pragma once

extern "C" {

// The panel's well-known directories, without a trailing "/":
// 0 runtime installation, 2 data partition, 3 project area, 7 fonts,
// 8 user file area; an empty text for any other index. The text stays valid
// until the next call with the same index.
const char* Kavo_GetDirectory(int index);

// The platform code of the C library at `path` (Tag_CPU_arch of its ARM
// attributes: 5 ARMv5TEJ, 10 ARMv7, ...), or -1 when it cannot tell.
int Kavo_GetPlatform_Arch(const char* path);

// Creates `path` with all missing parents. 0 on success, -1 on failure.
int Kavo_CreateDirectory(const char* path);

// Deletes the tree at `path`, the directory included. 0 on success (also when
// it did not exist), -1 on failure.
int Kavo_DeleteDirectory(const char* path);

// Empties the saved-data categories of `mask` (1 recipe, 2 history, 4 alarm,
// 8 initial values). Returns the mask of the categories that failed.
int Kavo_DelSaveData(int mask, int reserved);

// Opens a file on the USB stick by a stick-relative path; a POSIX descriptor,
// or -1 with errno set.
int Kavo_udisk_open(const char* path, int flags, int mode);

// Non-zero when the panel's runtime application is stopped (asked with 0 and 1).
int __check_application_state(int which);

// Asks the panel's process service to stop the runtime application and hand
// the panel to its system-settings program. 0 when the request was accepted.
int __notify_stop_application(int code);

} // extern "C"

namespace TOOL {
namespace COMMON {

// A lock file descriptor: open(path, O_CREAT, 0777) on construction, closed on
// destruction; fd() is -1 when the open failed.
class FileLock
{
public:
    explicit FileLock(const char* path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd;
};

// Holds an exclusive flock() on a FileLock for its own lifetime.
class FileLocker
{
public:
    explicit FileLocker(FileLock& lock);
    ~FileLocker();
    FileLocker(const FileLocker&) = delete;
    FileLocker& operator=(const FileLocker&) = delete;

    bool locked() const { return m_locked; }

private:
    FileLock& m_lock;
    bool m_locked;
};

} // namespace COMMON
} // namespace TOOL
