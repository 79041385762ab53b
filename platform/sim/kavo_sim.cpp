// The panel library's directory, file and platform functions on a simulated
// panel. Paths handed in are already where they belong (panel-side paths went
// through platform::panelPath() where they entered the program); the panel's
// own well-known directories are relocated here.
#include "platform/kavo_api.h"

#include "platform/platform.h"
#include "platform/sim/elfarch.h"
#include "platform/sim/simpanel.h"

#include <QByteArray>

#include <cerrno>
#include <climits>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Index -> panel-side directory; nullptr where the panel defines none.
const char* directoryFor(int index)
{
    switch (index) {
    case 0: return "/usr/kavo_app";
    case 2: return "/data";
    case 3: return "/usr/kavo_app/project";
    case 7: return "/usr/kavo_app/font";
    case 8: return "/data/userfile";
    default: return nullptr;
    }
}

// The saved-data categories by their bit in Kavo_DelSaveData's mask.
struct SaveDataCategory
{
    int bit;
    const char* directory;
};

const SaveDataCategory kSaveData[] = {
    {1, "/data/recipe"},
    {2, "/data/history"},
    {4, "/data/alarm"},
    {8, "/data/initvalue"},
};

// The package root on the stick: the parent of the directory that holds the
// running executable. Empty when /proc/self/exe cannot be read.
std::string packageRoot()
{
    std::string exe(PATH_MAX, '\0');
    const ssize_t length = readlink("/proc/self/exe", &exe[0], exe.size());
    if (length <= 0 || size_t(length) >= exe.size())
        return std::string();
    exe.resize(size_t(length));
    const std::string::size_type exeDirEnd = exe.rfind('/');
    if (exeDirEnd == std::string::npos || exeDirEnd == 0)
        return std::string();
    const std::string::size_type rootEnd = exe.rfind('/', exeDirEnd - 1);
    if (rootEnd == std::string::npos)
        return std::string();
    return rootEnd == 0 ? std::string("/") : exe.substr(0, rootEnd);
}

} // namespace

extern "C" {

const char* Kavo_GetDirectory(int index)
{
    // One text per index, so that a caller may keep two directories' texts at
    // once; the root is looked up on every call because it may change.
    static std::string texts[9];
    const char* directory = directoryFor(index);
    if (directory == nullptr)
        return "";
    std::string& text = texts[index];
    text = platform::panelPath(directory);
    return text.c_str();
}

int Kavo_GetPlatform_Arch(const char* path)
{
    return platform::sim::elfCpuArch(path);
}

int Kavo_CreateDirectory(const char* path)
{
    if (path == nullptr)
        return -1;
    return platform::sim::makeDirectories(path);
}

int Kavo_DeleteDirectory(const char* path)
{
    if (path == nullptr || *path == '\0')
        return -1;
    if (platform::sim::faultFlag("KAVO_SIM_DELETEDIR_FAIL"))
        return -1;
    return platform::sim::removeTree(path);
}

int Kavo_DelSaveData(int mask, int)
{
    const long long injected = platform::sim::faultNumber("KAVO_SIM_DELSAVEDATA_FAIL");
    int failed = 0;
    for (const SaveDataCategory& category : kSaveData) {
        if ((mask & category.bit) == 0)
            continue;
        if ((injected & category.bit) != 0
            || platform::sim::emptyDirectory(platform::panelPath(category.directory)) != 0)
            failed |= category.bit;
    }
    return failed;
}

int Kavo_udisk_open(const char* path, int flags, int mode)
{
    const QByteArray configured = qgetenv("KAVO_UDISK_ROOT");
    const std::string udisk = configured.isEmpty() ? packageRoot() : configured.toStdString();
    if (udisk.empty() || path == nullptr) {
        errno = ENOENT;
        return -1;
    }
    return open((udisk + "/" + path).c_str(), flags, mode);
}

} // extern "C"
