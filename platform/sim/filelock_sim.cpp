// The panel's file lock, as its vendor library describes it: a descriptor on the
// lock file and an exclusive flock() held for a scope.
#include "platform/kavo_api.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace TOOL {
namespace COMMON {

// O_CLOEXEC on top of the vendor's flags: flock() locks belong to the open
// file, so a child started while the lock is held would otherwise keep the
// settings program locked out after this process has let go.
FileLock::FileLock(const char* path)
    : m_fd(path == nullptr ? -1 : open(path, O_CREAT | O_CLOEXEC, 0777))
{
}

FileLock::~FileLock()
{
    if (m_fd >= 0)
        close(m_fd);
}

FileLocker::FileLocker(FileLock& lock)
    : m_lock(lock)
    , m_locked(false)
{
    if (m_lock.fd() < 0)
        return;
    int result;
    do {
        result = flock(m_lock.fd(), LOCK_EX);
    } while (result != 0 && errno == EINTR);
    m_locked = result == 0;
}

FileLocker::~FileLocker()
{
    if (m_locked)
        flock(m_lock.fd(), LOCK_UN);
}

} // namespace COMMON
} // namespace TOOL
