// Tree measurement and the disk space checks of the project area and the user
// file area.
//
// The space checks need file systems whose free space nothing else changes: the
// rows run again in a child of this program inside a private mount namespace
// (unshare), which mounts small tmpfs file systems over the simulated panel's
// directories. The stick stays on the ordinary file system.
#include "download/projectdownload.h"
#include "testenv.h"
#include "text/multilingualmanager.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QtTest>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

class Recorder : public ProjectDownload
{
public:
    Recorder()
        : ProjectDownload(QString(), QStringLiteral("0000"))
    {
        m_projectName = QStringLiteral("proj");
    }
    QStringList lines;

protected:
    void setTextEditContent(const QString& text) override { lines << QStringLiteral("text:") + text; }
    void resetUpgrageUI(const QString& text) override { lines << QStringLiteral("fail:") + text; }
    void setBntEnable(bool, bool, bool) override {}
    bool askYesNo(QuestionIcon, const QString&, const QString& text) override
    {
        lines << QStringLiteral("ask:") + text;
        return false;
    }
};

QStringList textLines(const QList<int>& ids)
{
    QStringList lines;
    for (const int id : ids)
        lines << QStringLiteral("text:") + MultilingualManager::GetInstance()->getMultilingualValue(id);
    return lines;
}

qint64 statSize(const QString& path)
{
    struct stat64 info;
    return stat64(QFile::encodeName(path).constData(), &info) == 0 ? info.st_size : -1;
}

// What a tree walk reports for `path`: a regular file's size, or the st_size of
// the directory and of every entry below it; 0 when it does not exist.
qint64 treeSize(const QString& path)
{
    const QFileInfo root(path);
    if (!root.exists())
        return 0;
    if (root.isFile())
        return statSize(path);
    qint64 total = statSize(path);
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        total += statSize(it.next());
    return total;
}

qint64 freeBytes(const QString& path)
{
    struct statfs64 info;
    if (statfs64(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return qint64(info.f_bsize) * qint64(info.f_bavail);
}

bool writeSized(const QString& path, qint64 size, char fill)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(QByteArray(int(size), fill)) == size;
}

// A file of `size` bytes that occupies no blocks.
bool writeSparse(const QString& path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(size);
}

bool growBy(const QString& path, qint64 delta)
{
    QFile file(path);
    return file.resize(file.size() + delta);
}

// Collects what is written to `stream` (stdout or stderr) while it lives.
class CapturedOutput
{
public:
    explicit CapturedOutput(FILE* stream)
        : m_stream(stream)
    {
        m_file.open();
        fflush(m_stream);
        m_saved = dup(fileno(m_stream));
        dup2(m_file.handle(), fileno(m_stream));
    }
    QByteArray finish()
    {
        fflush(m_stream);
        dup2(m_saved, fileno(m_stream));
        close(m_saved);
        return testenv::readFile(m_file.fileName());
    }

private:
    FILE* m_stream;
    QTemporaryFile m_file;
    int m_saved = -1;
};

const char kInsidePrivateMounts[] = "OPX_TST_PRIVATE_MOUNTS";

bool insidePrivateMounts()
{
    return qEnvironmentVariableIsSet(kInsidePrivateMounts);
}

QStringList unshareArguments()
{
    QStringList arguments;
    if (geteuid() != 0)
        arguments << QStringLiteral("--user") << QStringLiteral("--map-root-user");
    return arguments << QStringLiteral("--mount") << QStringLiteral("--propagation") << QStringLiteral("private");
}

// Why this machine cannot give the tests a private mount namespace; "" when it can.
QString privateMountsUnavailable()
{
    QProcess probe;
    probe.start(QStringLiteral("unshare"), unshareArguments() << QStringLiteral("true"));
    if (!probe.waitForStarted())
        return QStringLiteral("unshare(1) cannot be started: ") + probe.errorString();
    if (!probe.waitForFinished(30000) || probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
        return QStringLiteral("unshare cannot create a private mount namespace here: ")
               + QString::fromLocal8Bit(probe.readAllStandardError()).trimmed();
    return QString();
}

} // namespace

class tst_DiskSpace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void getDirectorySize_data();
    void getDirectorySize();
    void getDirectorySize_diagnostics();
    void isDiskSpaceEnough_data();
    void isDiskSpaceEnough();
    void checkUserFileArea_data();
    void checkUserFileArea();

private:
    // Runs the current row in a child of this program inside a private mount
    // namespace. False when the row has been dealt with there (passed, failed or
    // skipped), true when the caller is the child and runs the row itself.
    bool runHere();
    bool mountTmpfs(const QString& dir, const char* size);

    QString m_previousDir;
    QStringList m_mounts;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_DiskSpace::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QCOMPARE(MultilingualManager::GetInstance()->getMultilingualValue(2048), QStringLiteral("删除用户文件区数据失败!"));
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

bool tst_DiskSpace::runHere()
{
    if (insidePrivateMounts())
        return true;

    const QString unavailable = privateMountsUnavailable();
    if (!unavailable.isEmpty()) {
        QTest::qSkip(qPrintable(unavailable), __FILE__, __LINE__);
        return false;
    }

    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(kInsidePrivateMounts), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    const QString row = QString::fromLatin1(QTest::currentTestFunction()) + QLatin1Char(':')
                        + QString::fromLatin1(QTest::currentDataTag());
    child.start(QStringLiteral("unshare"), unshareArguments() << QCoreApplication::applicationFilePath() << row);
    const bool finished = child.waitForFinished(120000);
    const QByteArray output = child.readAll();
    if (!finished)
        child.kill();
    if (finished && child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0) {
        const int skip = output.indexOf("SKIP   :");
        if (skip >= 0)
            QTest::qSkip(output.mid(skip).constData(), __FILE__, __LINE__);
        return false;
    }
    QTest::qFail(("the row failed in its mount namespace:\n" + output).constData(), __FILE__, __LINE__);
    return false;
}

bool tst_DiskSpace::mountTmpfs(const QString& dir, const char* size)
{
    QDir().mkpath(dir);
    const QByteArray options = QByteArray("size=") + size;
    if (mount("tmpfs", QFile::encodeName(dir).constData(), "tmpfs", 0, options.constData()) != 0) {
        QTest::qSkip(qPrintable(QStringLiteral("cannot mount a tmpfs: ") + QString::fromLocal8Bit(strerror(errno))),
                     __FILE__, __LINE__);
        return false;
    }
    m_mounts << dir;
    return true;
}

void tst_DiskSpace::getDirectorySize_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<qint64>("known"); // -1: the walk total of the tree as built

    QTest::newRow("missing path") << QStringLiteral("tree/nothing") << Q_INT64_C(0);
    QTest::newRow("regular file") << QStringLiteral("tree/a.bin") << Q_INT64_C(12345);
    QTest::newRow("sparse file counts its length") << QStringLiteral("tree/sub/sparse.bin") << (Q_INT64_C(5) << 30);
    QTest::newRow("empty regular file") << QStringLiteral("tree/sub/empty") << Q_INT64_C(0);
    QTest::newRow("empty directory") << QStringLiteral("tree/sub/void") << Q_INT64_C(-1);
    QTest::newRow("tree with hidden entries") << QStringLiteral("tree") << Q_INT64_C(-1);
    QTest::newRow("tree given with a trailing slash") << QStringLiteral("./tree/") << Q_INT64_C(-1);
}

void tst_DiskSpace::getDirectorySize()
{
    QFETCH(QString, path);
    QFETCH(qint64, known);

    QVERIFY(writeSized(QStringLiteral("tree/a.bin"), 12345, 'a'));
    QVERIFY(writeSized(QStringLiteral("tree/.hidden"), 77, 'h'));
    QVERIFY(writeSized(QStringLiteral("tree/sub/empty"), 0, 'e'));
    QVERIFY(writeSparse(QStringLiteral("tree/sub/sparse.bin"), Q_INT64_C(5) << 30));
    QVERIFY(QDir().mkpath(QStringLiteral("tree/sub/void")));

    const qint64 expected = known >= 0 ? known : treeSize(path);
    QVERIFY(expected > 0 || known >= 0);
    AccessFile::_s_fileTotalSize = -1;
    QCOMPARE(AccessFile::getDirectorySize(path.toUtf8().constData()), expected);
    QCOMPARE(AccessFile::_s_fileTotalSize, expected);
}

void tst_DiskSpace::getDirectorySize_diagnostics()
{
    QVERIFY(writeSized(QStringLiteral("plain"), 10, 'p'));

    CapturedOutput out(stdout);
    AccessFile::_s_fileTotalSize = 99;
    QCOMPARE(AccessFile::getDirectorySize(nullptr), Q_INT64_C(0));
    QCOMPARE(out.finish(), QByteArray("input dir can't be null 218\n"));
    QCOMPARE(AccessFile::_s_fileTotalSize, Q_INT64_C(0));

    CapturedOutput err(stderr);
    QCOMPARE(AccessFile::getDirectorySize("plain/below"), Q_INT64_C(0));
    QCOMPARE(err.finish(), QByteArray("stat file:plain/below failed!") + QByteArray(strerror(ENOTDIR)) + "\n");

    // A walk that breaks off keeps what it had counted so far.
    QVERIFY(writeSized(QStringLiteral("looped/a.bin"), 10, 'a'));
    QVERIFY(QFile::link(QStringLiteral("loop"), QStringLiteral("looped/loop")));
    CapturedOutput walk(stderr);
    const qint64 partial = AccessFile::getDirectorySize("looped");
    QCOMPARE(walk.finish(), QByteArray("ftw :looped error:") + QByteArray(strerror(ELOOP)) + "\n");
    QCOMPARE(partial, AccessFile::_s_fileTotalSize);
    QVERIFY(partial >= statSize(QStringLiteral("looped")));
    QVERIFY(partial <= statSize(QStringLiteral("looped")) + 10);

    CapturedOutput quiet(stderr);
    QCOMPARE(AccessFile::getDirectorySize("nothing/here"), Q_INT64_C(0));
    QCOMPARE(quiet.finish(), QByteArray());
}

void tst_DiskSpace::isDiskSpaceEnough_data()
{
    QTest::addColumn<QString>("variant");
    QTest::addColumn<bool>("areaPresent");
    QTest::addColumn<qint64>("shift"); // need - (available - 4,194,303)
    QTest::addColumn<bool>("result");

    QTest::newRow("need one byte below the limit") << QStringLiteral("v7/") << true << Q_INT64_C(-1) << true;
    QTest::newRow("need equal to the limit") << QStringLiteral("v7/") << true << Q_INT64_C(0) << false;
    QTest::newRow("no variant, runtime copy not counted, below") << QString() << true << Q_INT64_C(-1) << true;
    QTest::newRow("no variant, runtime copy not counted, equal") << QString() << true << Q_INT64_C(0) << false;
    QTest::newRow("missing project area created, below") << QStringLiteral("v7/") << false << Q_INT64_C(-1) << true;
    QTest::newRow("missing project area created, equal") << QStringLiteral("v7/") << false << Q_INT64_C(0) << false;
}

void tst_DiskSpace::isDiskSpaceEnough()
{
    if (!runHere())
        return;
    QFETCH(QString, variant);
    QFETCH(bool, areaPresent);
    QFETCH(qint64, shift);
    QFETCH(bool, result);

    const QString app = m_panel->path(QStringLiteral("/usr/kavo_app"));
    if (!mountTmpfs(app, "16m"))
        return;
    const QString area = app + QStringLiteral("/project");
    const QString fonts = app + QStringLiteral("/font");
    if (areaPresent) {
        QVERIFY(writeSized(area + QStringLiteral("/#BKCompreProj.bin"), 300000, 'o'));
        QVERIFY(writeSized(area + QStringLiteral("/project_setup.ini"), 900, 'i'));
    }
    QVERIFY(writeSized(fonts + QStringLiteral("/simsun.ttf"), 200000, 's'));
    QVERIFY(writeSized(fonts + QStringLiteral("/fontdir/fonts.dir"), 3000, 'd'));
    QVERIFY(writeSized(fonts + QStringLiteral("/project.ttf"), 50000, 'f'));

    // The package: the project files, user files and a runtime copy that are
    // far larger than the area, so that counting either of them shows.
    const QString prefix = QStringLiteral("proj/") + variant;
    QVERIFY(writeSized(prefix + QStringLiteral("project.bin"), 1000, 'p'));
    QVERIFY(writeSized(prefix + QStringLiteral("project.ini"), 100, 'i'));
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

    Recorder download;
    download.m_variantDir = variant;
    QCOMPARE(download.isDiskSpaceEnough(), result);
    QVERIFY(download.lines.isEmpty());
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
    const QStringList cleared = textLines({2046, 2047});
    const QStringList notCleared = textLines({2046, 2048});
    QTest::newRow("flag clear: need equals free") << false << Q_INT64_C(0) << false << true << true << none << true;
    QTest::newRow("flag clear: need one byte over free")
        << false << Q_INT64_C(1) << false << true << false << none << true;
    QTest::newRow("flag set: need equals used plus free")
        << true << Q_INT64_C(0) << false << true << true << cleared << false;
    QTest::newRow("flag set: free alone suffices, still cleared")
        << true << Q_INT64_C(-1100000) << false << true << true << cleared << false;
    QTest::newRow("flag set: one byte over used plus free")
        << true << Q_INT64_C(1) << false << true << false << none << true;
    QTest::newRow("flag set: deletion fails") << true << Q_INT64_C(0) << true << true << false << notCleared << true;
    QTest::newRow("user file area missing") << false << Q_INT64_C(-1000000) << false << false << false << none
                                            << false;
}

void tst_DiskSpace::checkUserFileArea()
{
    if (!runHere())
        return;
    QFETCH(bool, clear);
    QFETCH(qint64, shift);
    QFETCH(bool, deleteFails);
    QFETCH(bool, areaPresent);
    QFETCH(bool, result);
    QFETCH(QStringList, lines);
    QFETCH(bool, areaKept);

    if (!mountTmpfs(m_panel->path(QStringLiteral("/data")), "4m"))
        return;
    const QString area = m_panel->path(QStringLiteral("/data/userfile"));
    if (areaPresent) {
        QVERIFY(writeSized(area + QStringLiteral("/old/a.bin"), 1 << 20, 'u'));
        QVERIFY(writeSized(area + QStringLiteral("/b.txt"), 5000, 'b'));
    }

    const QString user = QStringLiteral("proj/v7/DownLoadFile");
    QVERIFY(writeSized(user + QStringLiteral("/data/user.bin"), 100, 'n'));
    QVERIFY(writeSized(QStringLiteral("proj/v7/project.bin"), 100, 'p'));
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

    Recorder download;
    download.m_variantDir = QStringLiteral("v7/");
    download.m_clearUserDir = clear;
    QCOMPARE(download.checkUserFileArea(), result);
    QCOMPARE(download.lines, lines);
    QCOMPARE(QFile::exists(area + QStringLiteral("/old/a.bin")), areaKept);
    QCOMPARE(QFileInfo(area).exists(), areaKept);
}

QTEST_GUILESS_MAIN(tst_DiskSpace)
#include "tst_diskspace.moc"
