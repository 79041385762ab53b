// Project replacement: the old project's data directory and the fonts the new
// project does not bring are deleted, then every listed package file is copied
// to its destination on the panel.
#include "download/projectdownload.h"

#include "download/chunkwriter.h"

#include "app/constants.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <unistd.h>

namespace {

// Files are read and written in chunks of kCopyChunk bytes; events are
// processed and the stop flag tested for every kEventBytes of each chunk, so
// that a stop is seen within 1024 bytes as with a byte-by-byte copy. The chunk
// is small enough to keep the screen alive between two rounds of events on a
// slow stick (at 20 MB/s it takes about 6 ms to read).
constexpr qint64 kCopyChunk = 128 * 1024;
constexpr qint64 kEventBytes = 1024;

constexpr QDir::Filters kAllEntries =
    QDir::Files | QDir::AllDirs | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

// The fonts of the panel itself, which no project brings.
bool isSystemFont(const QString& name)
{
    return name == QLatin1String("simsun.ttf") || name == QLatin1String("fontdir");
}

// True when `a` and `b` name the same file: the same path once made absolute,
// or, when both exist, the same file behind links.
bool samePath(const QString& a, const QString& b)
{
    const QFileInfo first(a);
    const QFileInfo second(b);
    if (QDir::cleanPath(first.absoluteFilePath()) == QDir::cleanPath(second.absoluteFilePath()))
        return true;
    // A destination not yet there cannot be the source; asking it first spares
    // resolving the source's path on every file of a first download.
    const QString canonical = second.canonicalFilePath();
    return !canonical.isEmpty() && canonical == first.canonicalFilePath();
}

} // namespace

QString ProjectDownload::panelName(const QString& fileName)
{
    return fileName.startsWith(downFileDir) ? fileName.mid(downFileDir.size() + 1) : fileName;
}

QString ProjectDownload::destinationPath(const FILE_INFO& info)
{
    // The destination directory was kept on the panel where it was read; the
    // name from the package is checked here, with it, as one path.
    return platform::confinedPanelPath(info.desPath + panelName(info.fileName));
}

bool ProjectDownload::removeDir(const QString& path)
{
    QDir dir(path);
    if (!dir.exists())
        return true;

    const QFileInfoList entries = dir.entryInfoList(kAllEntries, QDir::DirsFirst);
    for (const QFileInfo& entry : entries) {
        // A link is removed as the link: following one to a directory would
        // empty a tree outside the one being removed.
        const bool ok = entry.isDir() && !entry.isSymLink() ? removeDir(entry.absoluteFilePath())
                                                            : QFile::remove(entry.absoluteFilePath());
        if (!ok)
            return false;
    }
    return QDir().rmdir(path);
}

bool ProjectDownload::removeOldProjectFiles()
{
    if (m_stop)
        return false;

    setTextEditContent(msg(2051));

    if (!removeDir(m_dataDir)) {
        sync();
        return false;
    }
    sync();

    // Fonts are shared by all projects: only those the new project brings
    // again may go, besides the panel's own.
    const QDir fontDir(QString::fromUtf8(Kavo_GetDirectory(7)));
    if (fontDir.exists()) {
        const QFileInfoList entries = fontDir.entryInfoList(kAllEntries, QDir::DirsFirst);
        for (const QFileInfo& entry : entries) {
            if (!entry.isFile())
                continue;
            const QString name = entry.fileName();
            if (isSystemFont(name))
                continue;
            const bool listed = std::any_of(m_fileList.cbegin(), m_fileList.cend(),
                                            [&name](const FILE_INFO& info) { return info.fileName == name; });
            if (listed)
                continue;
            if (!QFile::remove(entry.absoluteFilePath())) {
                sync();
                return false;
            }
        }
    }

    const bool created = QDir().mkdir(m_dataDir);
    sync();
    return created;
}

bool ProjectDownload::updateProjectFile()
{
    if (m_stop)
        return false;

    m_inPlace.clear();
    ChunkWriter writer(kCopyChunk, [this] { return !keepScreenAlive(); });
    for (const FILE_INFO& info : qAsConst(m_fileList)) {
        const QString source = info.srcPath + info.fileName;
        const QString destination = destinationPath(info);

        QDir().mkpath(info.desPath);
        printf("src:%s dst:%s-------------------------\n", source.toUtf8().constData(),
               destination.toUtf8().constData());

        if (info.fileName.isEmpty())
            continue;

        // A file that is already in place is not written again: a repeated
        // download of an unchanged project then costs only the reading. A
        // missing destination is never in place, not even for an empty file,
        // whose listed checksum is the 0 that an unreadable file yields.
        if (samePath(source, destination))
            continue;
        unsigned int crc = 0;
        const bool present = CalcFileCrc(destination.toStdString(), crc);
        if (m_stop)
            return false;
        if (present && QString::number(crc, 16).toUpper() == info.crc) {
            rememberInPlace(destination, crc);
            continue;
        }

        QFile in(source);
        if (!in.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            // The files before it are left written whole.
            writer.finish();
            setBntEnable(false, false, true);
            setTextEditContent(msg(2054));
            return false;
        }
        // User files may lie in subdirectories of their destination
        // ("DownLoadFile/x/y.dat" goes to desPath + "x/y.dat"), which the
        // panel does not have yet. A destination that still cannot be written
        // shows up in the verification that follows the copy.
        QDir().mkpath(QFileInfo(destination).absolutePath());
        writer.open(QFile::encodeName(destination));

        for (;;) {
            char* buffer = writer.buffer();
            if (!buffer)
                return false;
            const qint64 count = in.read(buffer, kCopyChunk);
            if (count <= 0)
                break;
            for (qint64 done = 0; done < count; done += kEventBytes) {
                QCoreApplication::processEvents();
                if (m_stop)
                    return false;
            }
            m_sinceEvents.start();
            writer.write(count);
        }
    }
    return writer.finish();
}

void ProjectDownload::syncKeepingScreenAlive()
{
    // A panel's flash may need seconds for the end of a large copy. The sync
    // runs on a thread of its own; a stop pressed meanwhile cannot cut it
    // short and is seen by the step after.
    std::future<void> synced = std::async(std::launch::async, [] { sync(); });
    while (synced.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready)
        keepScreenAlive();
}
