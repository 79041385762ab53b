// Disk space: will the new project fit the project area, and will the package's
// user files fit the user file area.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "platform/kavo_api.h"

#include <QFileInfo>

#include <string>
#include <sys/statfs.h>

namespace {

// Kept free in the project area on top of the 2,048 bytes taken off the free
// space, so that the runtime can still write its files after the copy.
constexpr int64_t kProjectAreaMargin = 4194303;
constexpr int64_t kFreeSpaceReserve = 2048;
// Kept free in the user file area.
constexpr int64_t kUserAreaReserve = 2097152;

std::string panelDirectory(int index)
{
    const char* dir = Kavo_GetDirectory(index);
    return dir != nullptr ? std::string(dir) : std::string();
}

// Free bytes for unprivileged users on the file system holding `path`.
bool freeSpace(const std::string& path, int64_t& bytes)
{
    struct statfs64 info;
    if (statfs64(path.c_str(), &info) != 0)
        return false;
    bytes = static_cast<int64_t>(info.f_bsize) * static_cast<int64_t>(info.f_bavail);
    return true;
}

int64_t sizeOf(const std::string& path)
{
    return AccessFile::getDirectorySize(path.c_str());
}

int64_t sizeOf(const QString& path)
{
    return AccessFile::getDirectorySize(path.toUtf8().constData());
}

} // namespace

bool ProjectDownload::isDiskSpaceEnough()
{
    const std::string projectArea = panelDirectory(3);
    if (!QFileInfo::exists(QString::fromStdString(projectArea)))
        Kavo_CreateDirectory(projectArea.c_str());

    int64_t free = 0;
    if (!freeSpace(projectArea, free))
        return false;

    // The old project and the resource area are replaced by the download, so
    // they count as free; the fonts stay.
    const std::string resources = panelDirectory(7);
    const int64_t available = free - kFreeSpaceReserve + sizeOf(projectArea) + sizeOf(resources)
                              - sizeOf(resources + "/simsun.ttf") - sizeOf(resources + "/fontdir");

    // The user files go to the user file area and a runtime copy carried beside
    // the project (no variant subdirectory) to the runtime: neither lands here.
    const QString package = packagePrefix();
    int64_t need = sizeOf(package) - sizeOf(package + downFileDir);
    if (m_variantDir.isEmpty())
        need -= sizeOf(QStringLiteral("./") + m_projectName + QLatin1Char('/') + m_packageProduct);

    return need < available - kProjectAreaMargin;
}

bool ProjectDownload::checkUserFileArea()
{
    const std::string userArea = panelDirectory(8);
    int64_t free = 0;
    if (!freeSpace(userArea, free))
        return false;
    free -= kUserAreaReserve;

    const int64_t used = sizeOf(userArea);
    const int64_t needed = sizeOf(packagePrefix() + downFileDir);

    if (!m_clearUserDir)
        return free >= needed;

    // The area is emptied only when that makes enough room: deleting the
    // operator's files and then failing anyway would lose them for nothing.
    if (used + free < needed)
        return false;
    setTextEditContent(msg(2046));
    // The line above let the stop button through.
    if (m_stop)
        return false;
    if (Kavo_DeleteDirectory(userArea.c_str()) != 0) {
        setTextEditContent(msg(2048));
        return false;
    }
    // The panel's deletion takes the area's directory with it, and the runtime
    // and the next download expect the area to be there, empty.
    if (Kavo_CreateDirectory(userArea.c_str()) != 0) {
        setTextEditContent(msg(2048));
        return false;
    }
    setTextEditContent(msg(2047));
    return true;
}
