// Platform and version compatibility: finding the panel's C library, the
// hardware conditions of a project and the project/runtime version rule.
#include "recordingdownload.h"
#include "testenv.h"

#include "platform/kavo_api.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <sys/statfs.h>
#include <sys/sysinfo.h>

namespace {

// Builds directory entries, each given as "f:NAME" a file, "d:NAME" a directory,
// "l:NAME>TARGET" a symbolic link.
bool makeEntries(const QString& dir, const QStringList& entries)
{
    bool ok = true;
    for (const QString& entry : entries) {
        const QString path = dir + "/" + entry.mid(2).section('>', 0, 0);
        if (entry.startsWith("f:"))
            ok = testenv::writeFile(path, "\x7f" "ELF") && ok;
        else if (entry.startsWith("d:"))
            ok = QDir().mkpath(path) && ok;
        else
            ok = QFile::link(entry.section('>', 1), path) && ok;
    }
    return ok;
}

} // namespace

class tst_Compatibility : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void panelPlatformFile_data();
    void panelPlatformFile();
    void checkHardware_data();
    void checkHardware();
    void formatVersion_data();
    void formatVersion();
    void checkVersion_data();
    void checkVersion();

private:
    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<RecordingDownload> m_download;
};

void tst_Compatibility::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_oldCwd = QDir::currentPath();
}

void tst_Compatibility::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<RecordingDownload>();
    m_download->m_projectName = "proj";
    m_download->m_platformCode = "10";
}

void tst_Compatibility::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_Compatibility::panelPlatformFile_data()
{
    QTest::addColumn<QStringList>("entries"); // made in the panel's /lib after libc.so.6 was removed
    QTest::addColumn<QString>("expected");    // panel-side path, or ""

    QTest::newRow("regular libc.so.6") << QStringList({"f:libc.so.6", "f:libc-2.23.so"}) << QString("/lib/libc.so.6");
    QTest::newRow("libc.so.6 links to a regular file")
        << QStringList({"f:libc-2.23.so", "l:libc.so.6>libc-2.23.so"}) << QString("/lib/libc.so.6");
    QTest::newRow("libc.so.6 a directory with a libc")
        << QStringList({"d:libc.so.6", "f:libc.so.6/libc-2.30.so", "f:libc-2.23.so"})
        << QString("/lib/libc.so.6/libc-2.30.so");
    QTest::newRow("libc.so.6 an empty directory") << QStringList({"d:libc.so.6", "f:libc-2.23.so"})
                                                  << QString("/lib/libc-2.23.so");
    QTest::newRow("libc.so.6 a dangling link") << QStringList({"l:libc.so.6>gone", "f:libc-2.23.so"})
                                               << QString("/lib/libc-2.23.so");
    // Without libc.so.6: the first "libc*" shared object in name order, case
    // ignored in the order but not in the prefix.
    QTest::newRow("first libc in name order")
        << QStringList({"f:LIBC-0.so", "f:libc-B.so", "f:libcrypt.so.1", "f:libc-a.so"}) << QString("/lib/libc-a.so");
    QTest::newRow("link to a file counts") << QStringList({"f:real", "l:libc-1.so>real"}) << QString("/lib/libc-1.so");
    QTest::newRow("nothing found")
        << QStringList({"f:libm.so.6", "f:libc.a", "f:libcso", "d:libc-0.so", "d:libc.so.6"}) << QString();
}

void tst_Compatibility::panelPlatformFile()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, expected);
    QVERIFY(QFile::remove(m_panel->path("/lib/libc.so.6")));
    QVERIFY(makeEntries(m_panel->path("/lib"), entries));

    QCOMPARE(m_download->panelPlatformFile(), expected.isEmpty() ? QString() : m_panel->path(expected));
}

void tst_Compatibility::checkHardware_data()
{
    // Capacities "TOTAL" and "TOTAL+1" stand for the size of the file system
    // holding the data partition in whole MiB and one MiB more; cores "N" and
    // "N+1" for this machine's count.
    QTest::addColumn<QString>("capacity");
    QTest::addColumn<QStringList>("platforms");
    QTest::addColumn<QString>("cores");
    QTest::addColumn<QString>("product");
    QTest::addColumn<bool>("noDataDir");
    QTest::addColumn<int>("code"); // 1: passes

    auto row = [](const char* name, const char* capacity, const QStringList& platforms, const char* cores,
                  const char* product = "KavoPro", bool noDataDir = false) -> QTestData& {
        return QTest::newRow(name) << QString(capacity) << platforms << QString(cores) << QString(product)
                                   << noDataDir;
    };
    const QStringList any;
    row("nothing asked", "", any, "") << 1;
    row("capacity of the file system", "TOTAL", any, "") << 1;
    row("capacity one MiB more", "TOTAL+1", any, "") << -1;
    row("capacity beyond any disk", "99999999999999", any, "") << -1;
    row("capacity not a number", "lots", any, "") << 1;
    row("capacity with a unit reads its digits", "99999999MB", any, "") << -1;
    row("statfs fails", "1", any, "", "KavoPro", true) << 0;
    row("platform listed", "", {"5", "10"}, "") << 1;
    row("platform not listed", "", {"5", "100"}, "") << -2;
    row("cores of this machine", "", any, "N") << 1;
    row("one core more", "", any, "N+1") << -3;
    row("cores with a unit read their digits", "", any, "4096 cores") << -3;
    // KavoStu asks for 4 cores when the project names none: a 2-core machine fails.
    row("KavoStu needs 4 cores", "", any, "", "KavoStu") << (get_nprocs() < 4 ? -3 : 1);
    row("KavoStu with its own count", "", any, "1", "KavoStu") << 1;
    row("disk decides first", "TOTAL+1", {"5"}, "N+1") << -1;
}

void tst_Compatibility::checkHardware()
{
    QFETCH(QString, capacity);
    QFETCH(QStringList, platforms);
    QFETCH(QString, cores);
    QFETCH(QString, product);
    QFETCH(bool, noDataDir);
    QFETCH(int, code);

    struct statfs64 fs;
    QCOMPARE(statfs64(QFile::encodeName(m_panel->path("/data")).constData(), &fs), 0);
    const quint64 totalMiB = quint64(fs.f_frsize) * quint64(fs.f_blocks) >> 20;
    if (capacity.startsWith("TOTAL"))
        capacity = QString::number(totalMiB + (capacity.endsWith("+1") ? 1 : 0));
    if (cores.startsWith("N"))
        cores = QString::number(get_nprocs() + (cores.endsWith("+1") ? 1 : 0));
    if (noDataDir)
        QVERIFY(QDir(m_panel->path("/data")).removeRecursively());
    QCOMPARE(QString::fromUtf8(Kavo_GetDirectory(2)), m_panel->path("/data"));

    m_download->m_diskCapacity = capacity;
    m_download->m_platformList = platforms;
    m_download->m_cpuCore = cores;
    m_download->m_packageProduct = product;
    int errorCode = 42;
    QCOMPARE(m_download->checkHardware(errorCode), code == 1);
    if (code != 1)
        QCOMPARE(errorCode, code);
    if (product == "KavoStu" && cores.isEmpty())
        QCOMPARE(m_download->m_cpuCore, QString("4"));
    QVERIFY(m_download->events.isEmpty());
}

void tst_Compatibility::formatVersion_data()
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

void tst_Compatibility::formatVersion()
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

void tst_Compatibility::checkVersion_data()
{
    // Version texts; a null text leaves the key out.
    QTest::addColumn<QString>("set");    // S, version.ini
    QTest::addColumn<QString>("minRun"); // M, version.ini
    QTest::addColumn<QString>("run");    // V, update.ini
    QTest::addColumn<QString>("minSet"); // N, update.ini
    QTest::addColumn<bool>("stop");
    QTest::addColumn<QStringList>("events"); // fails when not empty

    const QStringList quiet;
    const QStringList missing("fail: 工程版本和运行环境版本不兼容！\n不能升级！");
    auto row = [](const char* name, const char* s, const char* m, const char* v, const char* n) -> QTestData& {
        return QTest::newRow(name) << QString(s) << QString(m) << QString(v) << QString(n);
    };

    row("equal", "7.2.1", "9.9.9", "7.2.1.0", "9.9.9") << false << quiet;
    row("runtime newer and accepts the project", "7.2.0", "7.5.0", "7.3.0", "7.0.0") << false << quiet;
    row("project newer and runs on the runtime", "7.4.0", "7.1.0", "7.2.0", "7.9.0") << false << quiet;
    row("components compare as numbers", "7.10.0", "7.11.0", "7.11.0", "7.9.9") << false << quiet;
    row("design too old: shows the runtime", "7.1.9", "7.0.0", "7.3.0", "7.2.0")
        << false << QStringList("fail: 组态环境版本不匹配，请升级组态环境至7.3.0版本！");
    row("runtime too old: shows the project", "7.4.0", "7.3.0", "7.2.0", "7.0.0")
        << false << QStringList("fail: 运行环境版本不匹配，请升级运行环境至7.4.0版本！");
    row("setversion missing", nullptr, "7.0.0", "7.2.0", "7.0.0") << false << missing;
    row("minrunversion missing", "7.2.0", nullptr, "7.2.0", "7.0.0") << false << missing;
    row("runtime version missing", "7.2.0", "7.0.0", nullptr, "7.0.0") << false << missing;
    row("minsetversion missing", "7.2.0", "7.0.0", "7.2.0", nullptr) << false << missing;
    row("stop requested", "7.2.0", "7.0.0", "7.2.0", "7.0.0") << true << quiet;
}

void tst_Compatibility::checkVersion()
{
    QFETCH(QString, set);
    QFETCH(QString, minRun);
    QFETCH(QString, run);
    QFETCH(QString, minSet);
    QFETCH(bool, stop);
    QFETCH(QStringList, events);

    auto line = [](const char* key, const QString& value) {
        return value.isNull() ? QByteArray() : QByteArray(key) + "=" + value.toUtf8() + "\n";
    };
    QVERIFY(testenv::writeFile(m_stick->path() + "/proj/version.ini",
                               "[version]\nproduct=KavoPro\n" + line("setversion", set) + line("minrunversion", minRun)));
    QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/update.ini"),
                               "[PREPARE]\nproduct=KavoPro\n" + line("version", run) + line("minsetversion", minSet)));
    m_download->m_stop = stop;

    QCOMPARE(m_download->checkVersion(), events.isEmpty() && !stop);
    QCOMPARE(m_download->events, events);
}

QTEST_GUILESS_MAIN(tst_Compatibility)
#include "tst_compatibility.moc"
