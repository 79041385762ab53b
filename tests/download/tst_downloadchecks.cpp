// What a whole download cannot pin: disk space to the byte (tmpfs file systems
// in a private mount namespace), version parsing, the platform file's order, "$".
#include "log/clogger.h"
#include "recordingdownload.h"
#include "testenv.h"

#include <QDirIterator>
#include <QStorageInfo>
#include <QtTest>

#include <memory>
#include <sched.h>
#include <sys/mount.h>

namespace {

qint64 treeSize(const QString& path)
{
    qint64 total = QFileInfo(path).size();
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        total += QFileInfo(it.next()).size();
    return total;
}

bool writeSized(const QString& path, qint64 size)
{
    return testenv::writeFile(path, QByteArray()) && QFile::resize(path, size);
}

bool growBy(const QString& path, qint64 delta)
{
    return QFile::resize(path, QFileInfo(path).size() + delta);
}

} // namespace

class tst_DownloadChecks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void platformFile_data();
    void platformFile();
    void formatVersion_data();
    void formatVersion();
    void destination_data();
    void destination();
    void corners();
    void projectArea_data();
    void projectArea();
    void userFileArea_data();
    void userFileArea();

private:
    QString m_previousDir = QDir::currentPath();
    bool m_privateMounts = false;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<RecordingDownload> m_download;
};

void tst_DownloadChecks::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_privateMounts = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void tst_DownloadChecks::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid() && QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<RecordingDownload>();
    m_download->m_projectName = "proj";
    m_download->m_platformCode = "10";
    m_download->m_variantDir = "v7/";
}

void tst_DownloadChecks::cleanup()
{
    QDir::setCurrent(m_previousDir);
    for (const char* dir : {"/usr/kavo_app", "/data"})
        umount2(QFile::encodeName(m_panel->path(dir)).constData(), MNT_DETACH);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_DownloadChecks::platformFile_data()
{
    // In /lib without libc.so.6: "f:" file, "d:" directory, "l:NAME>TARGET" link.
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QString>("expected");
    QTest::newRow("libc.so.6 links to a file") << QStringList{"f:libc-2.23.so", "l:libc.so.6>libc-2.23.so"}
                                               << "/lib/libc.so.6";
    QTest::newRow("libc.so.6 a directory with a libc")
        << QStringList{"d:libc.so.6", "f:libc.so.6/libc-2.30.so", "f:libc-2.23.so"} << "/lib/libc.so.6/libc-2.30.so";
    QTest::newRow("libc.so.6 an empty directory") << QStringList{"d:libc.so.6", "f:libc-2.23.so"} << "/lib/libc-2.23.so";
    QTest::newRow("libc.so.6 a dangling link") << QStringList{"l:libc.so.6>gone", "f:libc-2.23.so"}
                                               << "/lib/libc-2.23.so";
    // Name order with case ignored; the prefix with case.
    QTest::newRow("first libc in name order")
        << QStringList{"f:LIBC-0.so", "f:libc-B.so", "f:libcrypt.so.1", "f:libc-a.so"} << "/lib/libc-a.so";
    QTest::newRow("link to a file counts") << QStringList{"f:real", "l:libc-1.so>real"} << "/lib/libc-1.so";
    QTest::newRow("nothing found") << QStringList{"f:libm.so.6", "f:libc.a", "f:libcso", "d:libc-0.so", "d:libc.so.6"}
                                   << "";
}

void tst_DownloadChecks::platformFile()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, expected);
    QVERIFY(QFile::remove(m_panel->path("/lib/libc.so.6")));
    for (const QString& entry : entries) {
        const QString path = m_panel->path("/lib/") + entry.mid(2).section('>', 0, 0);
        QVERIFY(entry[0] == 'f'   ? testenv::writeFile(path, "\x7f" "ELF")
                : entry[0] == 'd' ? QDir().mkpath(path)
                                  : QFile::link(entry.section('>', 1), path));
    }
    QCOMPARE(m_download->panelPlatformFile(), expected.isEmpty() ? QString() : m_panel->path(expected));
}

void tst_DownloadChecks::formatVersion_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("fromNines"); // the fields hold 9.9.9 before, else 0.0.0
    QTest::addColumn<QString>("after");
    QTest::newRow("three parts") << QByteArray("7.10.1") << false << "7.10.1";
    QTest::newRow("fourth part ignored") << QByteArray("7.2.1.3") << false << "7.2.1";
    QTest::newRow("two parts keep the build") << QByteArray("7.2") << true << "7.9.9";
    QTest::newRow("no dot sets nothing") << QByteArray("7") << true << "9.9.9";
    QTest::newRow("blanks, signs, trailing letters") << QByteArray(" 7a. +2b.-1rc") << false << "7.2.-1";
    QTest::newRow("11 characters read") << QByteArray("00000000007.00000000008.00000000009") << false << "7.8.9";
    // Read as on the panel, whose 32-bit strtol stops at its limits.
    QTest::newRow("oversized parts saturate") << QByteArray("99999999999.-9999999999.4294967297") << false
                                              << "2147483647.-2147483648.2147483647";
    QTest::newRow("12th character cut") << QByteArray("000000000007.000000000008.000000000009") << true << "0.0.0";
}

void tst_DownloadChecks::formatVersion()
{
    QFETCH(QByteArray, text);
    QFETCH(bool, fromNines);
    QFETCH(QString, after);
    stVersionInfo version;
    if (fromNines)
        version = stVersionInfo{9, 9, 9};
    m_download->formatVersion(text.data(), version);
    QCOMPARE(QString("%1.%2.%3").arg(version.major).arg(version.minor).arg(version.build), after);
}

void tst_DownloadChecks::destination_data()
{
    // A "$" names an environment variable in place of the first character.
    QTest::addColumn<QString>("desPath");
    QTest::addColumn<QString>("expected"); // panel-side when absolute
    QTest::newRow("x$Y drops the x") << "x$OPXDESC_Y/data" << "/dollar/data/";
    QTest::newRow("unknown variable") << "$OPXDESC_NONE/data" << "data/";
    QTest::newRow("unknown variable alone") << "$OPXDESC_NONE" << "";
    QTest::newRow("prefix match, environment order") << "$OPXDESC_USR/bin" << "/usr/longer/bin/";
    QTest::newRow("value cut at its own =") << "$OPXDESC_EQ/x" << "/a/x/";
}

void tst_DownloadChecks::destination()
{
    QFETCH(QString, desPath);
    QFETCH(QString, expected);
    // New variables go to the end of the environment in this order.
    for (const char* name : {"OPXDESC_USRDIR", "OPXDESC_USR", "$OPXDESC_Y", "OPXDESC_Y", "OPXDESC_EQ"})
        qunsetenv(name);
    qputenv("OPXDESC_USRDIR", "/usr/longer");
    qputenv("OPXDESC_USR", "/usr/exact");
    qputenv("$OPXDESC_Y", "/dollar");
    qputenv("OPXDESC_Y", "/without-dollar");
    qputenv("OPXDESC_EQ", "/a=b");
    QVERIFY(testenv::writeFile("proj/v7/project.ini", "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n"
                                                      "[FILE1]\nNAME=a\nDESPATH=" + desPath.toUtf8() + "\n"));
    QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
    QCOMPARE(m_download->m_fileList.value(0).desPath, expected.startsWith('/') ? m_panel->path(expected) : expected);
}

// What no download reaches: a stop before each step, places that are gone, a
// file that is its own destination, a report that cannot be opened.
void tst_DownloadChecks::corners()
{
    m_download->m_stop = true;
    QVERIFY(!m_download->parseIniFile("proj/v7/project.ini") && !m_download->checkFileCRC(AFTER_DOWNLOAD));
    QVERIFY(!m_download->removeOldProjectFiles() && m_download->events.isEmpty());
    m_download->m_stop = false;
    QVERIFY(m_download->removeDir(m_panel->path("/gone")));
    QVERIFY(!m_download->checkAppIntegrity(INSTALLED_APP, m_panel->path("/gone").toUtf8().constData()));
    QVERIFY(QDir(m_panel->path("/data")).removeRecursively() && !m_download->checkUserFileArea());
    QVERIFY(testenv::writeFile("proj/v7/a.bin", "own destination\n"));
    m_download->m_fileList = {{"DownLoadFile/", "1", 1, QString(), "./proj/v7/"}}; // names no file on the panel
    QVERIFY(m_download->checkFileCRC(AFTER_DOWNLOAD));
    m_download->m_fileList = {{"a.bin", "1", 16, QDir::currentPath() + "/proj/v7/", "./proj/v7/"}};
    QVERIFY(m_download->updateProjectFile());
    QCOMPARE(testenv::readFile("proj/v7/a.bin"), QByteArray("own destination\n"));
    QCOMPARE(m_download->events, QStringList{"fail: " + msg(2064).arg(m_panel->path("/gone"))});
    CLogger* report = CLogger::GetInstance();
    QVERIFY(testenv::writeFile("plain", "x") && !report->open("plain/sub/report.log"));
    report->writeReport("[开始]\n");
    QCOMPARE(testenv::readFile("plain"), QByteArray("x"));
    // Reopened for a failed reboot's line, a report that went or became a directory stays shut.
    QVERIFY(report->open("report.log") && QFile::remove("report.log") && !report->reopen());
    QVERIFY(report->open("report.log") && QFile::remove("report.log") && QDir().mkdir("report.log") && !report->reopen());
}

void tst_DownloadChecks::projectArea_data()
{
    // need - (available - 4,194,303), the variant directory, whether the area is there.
    QTest::addColumn<qint64>("shift");
    QTest::addColumn<QString>("variant");
    QTest::addColumn<bool>("areaPresent");
    QTest::newRow("need one byte below the limit") << Q_INT64_C(-1) << "v7/" << true;
    QTest::newRow("need equal to the limit") << Q_INT64_C(0) << "v7/" << true;
    QTest::newRow("no variant: runtime copy not counted") << Q_INT64_C(-1) << "" << true;
    QTest::newRow("missing project area created and counted") << Q_INT64_C(-1) << "v7/" << false;
}

void tst_DownloadChecks::projectArea()
{
    QFETCH(qint64, shift);
    QFETCH(QString, variant);
    QFETCH(bool, areaPresent);
    const QString app = m_panel->path("/usr/kavo_app");
    if (!m_privateMounts || mount("tmpfs", QFile::encodeName(app).constData(), "tmpfs", 0, "size=16m") != 0)
        QSKIP("no tmpfs in a private mount namespace here (needs CAP_SYS_ADMIN)");
    const QString area = app + "/project";
    const QString fonts = app + "/font";
    if (areaPresent)
        QVERIFY(writeSized(area + "/#BKCompreProj.bin", 300000) && writeSized(area + "/res/setup.ini", 900));
    QVERIFY(writeSized(fonts + "/simsun.ttf", 200000) && writeSized(fonts + "/fontdir/fonts.dir", 3000));
    QVERIFY(writeSized(fonts + "/project.ttf", 50000));
    // User files and a runtime copy far larger than the area: counting either shows.
    const QString prefix = "proj/" + variant;
    QVERIFY(writeSized(prefix + "project.bin", 1000) && writeSized(prefix + "DownLoadFile/user.bin", 64 << 20));
    QVERIFY(writeSized("proj/KavoPro/" + variant + "kavo_app/bin/kavo_app", 64 << 20));
    // A directory made later in the area measures like any new directory there.
    qint64 areaSize = treeSize(area);
    if (!areaPresent) {
        QVERIFY(QDir().mkdir(app + "/scratch"));
        areaSize = QFileInfo(app + "/scratch").size();
        QVERIFY(QDir().rmdir(app + "/scratch"));
    }
    // The old project and the fonts other than the panel's own count as free.
    const qint64 free = QStorageInfo(app).bytesAvailable();
    const qint64 available = free - 2048 + areaSize + treeSize(fonts) - treeSize(fonts + "/simsun.ttf")
                             - treeSize(fonts + "/fontdir");
    const auto need = [&] {
        return treeSize(prefix) - treeSize(prefix + "DownLoadFile")
               - (variant.isEmpty() ? treeSize("proj/KavoPro") : 0);
    };
    const qint64 target = available - 4194303 + shift;
    QVERIFY(growBy(prefix + "project.bin", target - need()));
    QCOMPARE(need(), target);
    m_download->m_variantDir = variant;

    QCOMPARE(m_download->isDiskSpaceEnough(), shift < 0);
    QVERIFY(m_download->events.isEmpty() && QFileInfo(area).isDir());
    QCOMPARE(treeSize(area), areaSize);
    QCOMPARE(QStorageInfo(app).bytesAvailable(), free);
}

void tst_DownloadChecks::userFileArea_data()
{
    // need - (free - 2 MiB [+ used when clearing]).
    QTest::addColumn<bool>("clear");
    QTest::addColumn<qint64>("shift");
    QTest::addColumn<bool>("result");
    QTest::newRow("flag clear: need equals free") << false << Q_INT64_C(0) << true;
    QTest::newRow("flag clear: need one byte over free") << false << Q_INT64_C(1) << false;
    QTest::newRow("flag set: need equals used plus free") << true << Q_INT64_C(0) << true;
    QTest::newRow("flag set: free alone suffices, still cleared") << true << Q_INT64_C(-1100000) << true;
    QTest::newRow("flag set: one byte over used plus free") << true << Q_INT64_C(1) << false;
}

void tst_DownloadChecks::userFileArea()
{
    QFETCH(bool, clear);
    QFETCH(qint64, shift);
    QFETCH(bool, result);
    const QString area = m_panel->path("/data/userfile");
    if (!m_privateMounts || mount("tmpfs", QFile::encodeName(m_panel->path("/data")).constData(), "tmpfs", 0, "size=4m"))
        QSKIP("no tmpfs in a private mount namespace here (needs CAP_SYS_ADMIN)");
    QVERIFY(testenv::writeFile(area + "/old/a.bin", QByteArray(1 << 20, 'o')) && writeSized(area + "/b.txt", 5000));
    const QString user = "proj/v7/DownLoadFile";
    QVERIFY(writeSized(user + "/data/user.bin", 100) && writeSized("proj/v7/project.bin", 100));
    const qint64 free = QStorageInfo(area).bytesAvailable() - 2097152;
    const qint64 target = (clear ? free + treeSize(area) : free) + shift;
    QVERIFY(growBy(user + "/data/user.bin", target - treeSize(user)));
    QCOMPARE(treeSize(user), target);
    m_download->m_clearUserDir = clear;

    QCOMPARE(m_download->checkUserFileArea(), result);
    const bool cleared = clear && result;
    QCOMPARE(m_download->events, cleared ? (QStringList{"text: " + msg(2046), "text: " + msg(2047)}) : QStringList());
    QCOMPARE(QFile::exists(area + "/old/a.bin"), !cleared);
    QVERIFY(QFileInfo(area).isDir());
}

QTEST_GUILESS_MAIN(tst_DownloadChecks)
#include "tst_downloadchecks.moc"
