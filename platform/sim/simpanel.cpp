#include "platform/sim/simpanel.h"

#include "platform/platform.h"

#include <QByteArray>

#include <cerrno>
#include <climits>
#include <csignal>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace sim {
namespace {

bool isDirectory(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path) == 0 ? 0 : -1;
}

// Reads at most `limit` bytes of a small file such as a pid file or a /proc
// entry; an empty result when it cannot be opened.
QByteArray readSmallFile(const std::string& path, int limit)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return QByteArray();
    std::vector<char> buffer(size_t(limit > 0 ? limit : 0));
    ssize_t got;
    do {
        got = read(fd, buffer.data(), buffer.size());
    } while (got < 0 && errno == EINTR);
    close(fd);
    return QByteArray(buffer.data(), got > 0 ? int(got) : 0);
}

// A process that has ended but is not yet reaped by its parent still answers
// kill(pid, 0); its state letter in /proc tells it apart.
bool isZombie(pid_t pid)
{
    const QByteArray stat = readSmallFile("/proc/" + std::to_string(pid) + "/stat", 512);
    const int close = stat.lastIndexOf(')');
    if (close < 0 || close + 2 >= stat.size())
        return false;
    const char state = stat.at(close + 2);
    return state == 'Z' || state == 'X';
}

} // namespace

bool faultFlag(const char* name)
{
    const QByteArray value = qgetenv(name);
    return !value.isEmpty() && value != "0";
}

long long faultNumber(const char* name)
{
    bool ok = false;
    const long long value = qgetenv(name).trimmed().toLongLong(&ok, 0);
    return ok ? value : 0;
}

int makeDirectories(const std::string& path)
{
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    std::string::size_type slash = 0;
    for (;;) {
        slash = path.find('/', slash + 1);
        const std::string prefix = path.substr(0, slash);
        if (!prefix.empty() && prefix.back() != '/' && mkdir(prefix.c_str(), 0777) != 0) {
            // An existing directory may answer EACCES or EROFS instead of
            // EEXIST when its parent is not writable; only its absence counts.
            const int error = errno;
            if (!isDirectory(prefix)) {
                errno = error == EEXIST ? ENOTDIR : error;
                return -1;
            }
        }
        if (slash == std::string::npos)
            break;
    }
    return 0;
}

int removeTree(const std::string& path)
{
    struct stat info;
    if (lstat(path.c_str(), &info) != 0)
        return errno == ENOENT ? 0 : -1;
    return nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) == 0 ? 0 : -1;
}

int emptyDirectory(const std::string& path)
{
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return errno == ENOENT ? 0 : -1;
    // Names first, removal afterwards: removing while readdir() walks the same
    // directory may skip entries.
    std::vector<std::string> names;
    int listError = 0;
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            listError = errno;
            break;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(dir);
    if (listError != 0) {
        errno = listError;
        return -1;
    }
    int result = 0;
    int firstError = 0;
    for (const std::string& name : names) {
        if (removeTree(path + "/" + name) != 0 && result == 0) {
            result = -1;
            firstError = errno;
        }
    }
    if (result != 0)
        errno = firstError;
    return result;
}

std::string runtimePidFile()
{
    return panelPath("/var/run/kavo_app.pid");
}

pid_t runningRuntimePid()
{
    const QByteArray text = readSmallFile(runtimePidFile(), 32).trimmed();
    if (text.isEmpty())
        return 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return 0;
    }
    bool ok = false;
    const long long pid = text.toLongLong(&ok);
    if (!ok || pid <= 1 || pid > INT_MAX)
        return 0;
    const pid_t runtime = pid_t(pid);
    // EPERM: the process exists but belongs to someone else; it still runs.
    if (kill(runtime, 0) != 0 && errno != EPERM)
        return 0;
    return isZombie(runtime) ? 0 : runtime;
}

} // namespace sim
} // namespace platform
