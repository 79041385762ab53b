// Tree measurement and the disk space checks of the project area and the user
// file area.
//
// The space checks need file systems whose free space nothing else changes: the
// program runs itself again inside a private mount namespace (unshare -m) and
// mounts small tmpfs file systems over the simulated panel's directories. The
// stick stays on the ordinary file system.
#include "recordingdownload.h"
#include "testenv.h"

#include <QDirIterator>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// "1" inside the private mount namespace, "0" when none could be made.
const char kPrivateMounts[] = "OPX_TST_PRIVATE_MOUNTS";

qint64 statSize(const QString& path)
{
    struct stat64 info;
    return stat64(QFile::encodeName(path).constData(), &info) == 0 ? info.st_size : -1;
}

// What a tree walk reports for `path`: a regular file's size, or the st_size of
// the directory and of every entry below it; 0 when it does not exist.
qint64 treeSize(const QString& path)
{
    if (!QFileInfo::exists(path))
        return 0;
    qint64 total = statSize(path);
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        total += statSize(it.next());
    return total;
}

qint64 freeBytes(const QString& path)
{
    return QStorageInfo(path).bytesAvailable();
}

bool writeSized(const QString& path, qint64 size)
{
    return testenv::writeFile(path, QByteArray(int(size), 'x'));
}

// A file of `size` bytes that occupies no blocks.
bool writeSparse(const QString& path, qint64 size)
{
    return testenv::writeFile(path, QByteArray()) && QFile::resize(path, size);
}

bool growBy(const QString& path, qint64 delta)
{
    return QFile::resize(path, QFileInfo(path).size() + delta);
}

QString text(int id)
{
    return QStringLiteral("text: ") + msg(id);
}

} // namespace

class tst_DiskSpace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void getDirectorySize();
    void isDiskSpaceEnough_data();
    void isDiskSpaceEnough();
    void checkUserFileArea_data();
    void checkUserFileArea();

private:
    // Empty when a tmpfs of `size` now lies over `dir`, else why not.
    QString mountTmpfs(const QString& dir, const char* size);

    QString m_previousDir;
    QStringList m_mounts;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_DiskSpace::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
}

void tst_DiskSpace::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    m_previousDir = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_stick->path()));
}

void tst_DiskSpace::cleanup()
{
    QDir::setCurrent(m_previousDir);
    qunsetenv("KAVO_SIM_DELETEDIR_FAIL");
    for (const QString& dir : qAsConst(m_mounts))
        umount2(QFile::encodeName(dir).constData(), MNT_DETACH);
    m_mounts.clear();
    m_stick.reset();
    m_panel.reset();
}

QString tst_DiskSpace::mountTmpfs(const QString& dir, const char* size)
{
    if (qgetenv(kPrivateMounts) != "1")
        return QStringLiteral("unshare cannot make a private mount namespace here");
    QDir().mkpath(dir);
    const QByteArray options = QByteArray("size=") + size;
    if (mount("tmpfs", QFile::encodeName(dir).constData(), "tmpfs", 0, options.constData()) != 0)
        return QStringLiteral("cannot mount a tmpfs: ") + QString::fromLocal8Bit(strerror(errno));
    m_mounts << dir;
    return QString();
}

void tst_DiskSpace::getDirectorySize()
{
    QVERIFY(writeSized(QStringLiteral("tree/a.bin"), 12345));
    QVERIFY(writeSized(QStringLiteral("tree/.hidden"), 77));
    QVERIFY(QDir().mkpath(QStringLiteral("tree/sub/void")));
    // The length counts, not the blocks: the copy writes every byte.
    QVERIFY(writeSparse(QStringLiteral("tree/sub/sparse.bin"), Q_INT64_C(5) << 30));

    QCOMPARE(AccessFile::getDirectorySize("tree/nothing"), Q_INT64_C(0));
    QCOMPARE(AccessFile::getDirectorySize("tree/sub/sparse.bin"), Q_INT64_C(5) << 30);
    QVERIFY(treeSize(QStringLiteral("tree")) > (Q_INT64_C(5) << 30) + 12345 + 77);
    QCOMPARE(AccessFile::getDirectorySize("tree"), treeSize(QStringLiteral("tree")));
}

void tst_DiskSpace::isDiskSpaceEnough_data()
{
    QTest::addColumn<QString>("variant");
    QTest::addColumn<bool>("areaPresent");
    QTest::addColumn<qint64>("shift"); // need - (available - 4,194,303)
    QTest::addColumn<bool>("result");

    QTest::newRow("need one byte below the limit") << QStringLiteral("v7/") << true << Q_INT64_C(-1) << true;
    QTest::newRow("need equal to the limit") << QStringLiteral("v7/") << true << Q_INT64_C(0) << false;
    QTest::newRow("no variant: runtime copy not counted") << QString() << true << Q_INT64_C(-1) << true;
    QTest::newRow("missing project area created and counted") << QStringLiteral("v7/") << false << Q_INT64_C(-1)
                                                              << true;
}

void tst_DiskSpace::isDiskSpaceEnough()
{
    QFETCH(QString, variant);
    QFETCH(bool, areaPresent);
    QFETCH(qint64, shift);
    QFETCH(bool, result);

    const QString app = m_panel->path(QStringLiteral("/usr/kavo_app"));
    const QString why = mountTmpfs(app, "16m");
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const QString area = app + QStringLiteral("/project");
    const QString fonts = app + QStringLiteral("/font");
    if (areaPresent) {
        QVERIFY(writeSized(area + QStringLiteral("/#BKCompreProj.bin"), 300000));
        QVERIFY(writeSized(area + QStringLiteral("/project_setup.ini"), 900));
    }
    QVERIFY(writeSized(fonts + QStringLiteral("/simsun.ttf"), 200000));
    QVERIFY(writeSized(fonts + QStringLiteral("/fontdir/fonts.dir"), 3000));
    QVERIFY(writeSized(fonts + QStringLiteral("/project.ttf"), 50000));

    // The package: project files, and user files and a runtime copy far larger
    // than the area, so that counting either of them shows.
    const QString prefix = QStringLiteral("proj/") + variant;
    QVERIFY(writeSized(prefix + QStringLiteral("project.bin"), 1000));
    QVERIFY(writeSparse(prefix + QStringLiteral("DownLoadFile/user.bin"), Q_INT64_C(64) << 20));
    QVERIFY(writeSparse(QStringLiteral("proj/KavoPro/") + variant + QStringLiteral("kavo_app/bin/kavo_app"),
                        Q_INT64_C(64) << 20));

    // A directory made later in the area measures like any new directory there.
    qint64 areaSize = treeSize(area);
    if (!areaPresent) {
        QVERIFY(QDir().mkdir(app + QStringLiteral("/scratch")));
        areaSize = statSize(app + QStringLiteral("/scratch"));
        QVERIFY(QDir().rmdir(app + QStringLiteral("/scratch")));
    }
    // The old project and the fonts other than the panel's own count as free.
    const qint64 free = freeBytes(app);
    const qint64 available = free - 2048 + areaSize + treeSize(fonts) - treeSize(fonts + QStringLiteral("/simsun.ttf"))
                             - treeSize(fonts + QStringLiteral("/fontdir"));
    const auto need = [&] {
        return treeSize(prefix) - treeSize(prefix + QStringLiteral("DownLoadFile"))
               - (variant.isEmpty() ? treeSize(QStringLiteral("proj/KavoPro")) : 0);
    };
    const qint64 target = available - 4194303 + shift;
    QVERIFY(growBy(prefix + QStringLiteral("project.bin"), target - need()));
    QCOMPARE(need(), target);

    RecordingDownload download;
    download.m_projectName = QStringLiteral("proj");
    download.m_variantDir = variant;
    QCOMPARE(download.isDiskSpaceEnough(), result);
    QVERIFY(download.events.isEmpty());
    QVERIFY(QFileInfo(area).isDir());
    QCOMPARE(treeSize(area), areaSize);
    QCOMPARE(freeBytes(app), free);
}

void tst_DiskSpace::checkUserFileArea_data()
{
    QTest::addColumn<bool>("clear");
    QTest::addColumn<qint64>("shift"); // need - (free - 2 MiB [+ used when clearing])
    QTest::addColumn<bool>("deleteFails");
    QTest::addColumn<bool>("areaPresent");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<bool>("areaKept");

    const QStringList none;
    const QStringList cleared{text(2046), text(2047)};
    QTest::newRow("flag clear: need equals free") << false << Q_INT64_C(0) << false << true << true << none << true;
    QTest::newRow("flag clear: need one byte over free")
        << false << Q_INT64_C(1) << false << true << false << none << true;
    QTest::newRow("flag set: need equals used plus free")
        << true << Q_INT64_C(0) << false << true << true << cleared << false;
    QTest::newRow("flag set: free alone suffices, still cleared")
        << true << Q_INT64_C(-1100000) << false << true << true << cleared << false;
    // Nothing is deleted when clearing would not make room.
    QTest::newRow("flag set: one byte over used plus free")
        << true << Q_INT64_C(1) << false << true << false << none << true;
    QTest::newRow("flag set: deletion fails") << true << Q_INT64_C(0) << true << true << false
                                              << QStringList{text(2046), text(2048)} << true;
    QTest::newRow("user file area missing") << false << Q_INT64_C(-1000000) << false << false << false << none
                                            << false;
}

void tst_DiskSpace::checkUserFileArea()
{
    QFETCH(bool, clear);
    QFETCH(qint64, shift);
    QFETCH(bool, deleteFails);
    QFETCH(bool, areaPresent);
    QFETCH(bool, result);
    QFETCH(QStringList, lines);
    QFETCH(bool, areaKept);

    const QString why = mountTmpfs(m_panel->path(QStringLiteral("/data")), "4m");
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const QString area = m_panel->path(QStringLiteral("/data/userfile"));
    if (areaPresent) {
        QVERIFY(writeSized(area + QStringLiteral("/old/a.bin"), 1 << 20));
        QVERIFY(writeSized(area + QStringLiteral("/b.txt"), 5000));
    }

    const QString user = QStringLiteral("proj/v7/DownLoadFile");
    QVERIFY(writeSized(user + QStringLiteral("/data/user.bin"), 100));
    QVERIFY(writeSized(QStringLiteral("proj/v7/project.bin"), 100));
    const qint64 free = freeBytes(area) - 2097152;
    const qint64 used = treeSize(area);
    const qint64 target = (clear ? free + used : free) + shift;
    if (areaPresent) {
        QVERIFY(free > 0 && used > (1 << 20));
        QVERIFY(growBy(user + QStringLiteral("/data/user.bin"), target - treeSize(user)));
        QCOMPARE(treeSize(user), target);
    }
    if (deleteFails)
        qputenv("KAVO_SIM_DELETEDIR_FAIL", "1");

    RecordingDownload download;
    download.m_projectName = QStringLiteral("proj");
    download.m_variantDir = QStringLiteral("v7/");
    download.m_clearUserDir = clear;
    QCOMPARE(download.checkUserFileArea(), result);
    QCOMPARE(download.events, lines);
    QCOMPARE(QFile::exists(area + QStringLiteral("/old/a.bin")), areaKept);
    // A cleared area is there again, empty, for the runtime and the next download.
    QCOMPARE(QFileInfo(area).isDir(), areaPresent);
    QCOMPARE(QDir(area).isEmpty(), !areaKept);
}

// Runs the tests again inside a private mount namespace when one can be made.
int main(int argc, char** argv)
{
    if (!qEnvironmentVariableIsSet(kPrivateMounts)) {
        std::vector<const char*> command{"unshare"};
        if (geteuid() != 0)
            command.insert(command.end(), {"--user", "--map-root-user"});
        command.insert(command.end(), {"--mount", "--propagation", "private"});
        QByteArray probe;
        for (const char* word : command)
            probe += QByteArray(word) + ' ';
        const bool possible = std::system((probe + "true >/dev/null 2>&1").constData()) == 0;
        char self[4096] = {};
        if (possible && readlink("/proc/self/exe", self, sizeof self - 1) > 0) {
            qputenv(kPrivateMounts, "1");
            command.push_back(self);
            command.insert(command.end(), argv + 1, argv + argc);
            command.push_back(nullptr);
            execvp(command[0], const_cast<char* const*>(command.data()));
            perror("unshare");
            return 1;
        }
        qputenv(kPrivateMounts, "0");
    }
    QCoreApplication app(argc, argv);
    tst_DiskSpace test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_diskspace.moc"