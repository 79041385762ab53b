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

Q_DECLARE_METATYPE(stVersionInfo)

namespace {

stVersionInfo triple(int32_t major, int32_t minor, int32_t build)
{
    stVersionInfo v;
    v.major = major;
    v.minor = minor;
    v.build = build;
    return v;
}

// Builds directory entries from specs: "f:NAME" a file, "d:NAME" a directory,
// "l:NAME>TARGET" a symbolic link.
bool makeEntries(const QString& dir, const QStringList& specs)
{
    for (const QString& spec : specs) {
        const QString what = spec.mid(2);
        if (spec.startsWith("f:")) {
            if (!testenv::writeFile(dir + "/" + what, "\x7f" "ELF"))
                return false;
        } else if (spec.startsWith("d:")) {
            if (!QDir().mkpath(dir + "/" + what))
                return false;
        } else if (spec.startsWith("l:")) {
            const QStringList parts = what.split('>');
            if (!QFile::link(parts.at(1), dir + "/" + parts.at(0)))
                return false;
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

namespace QTest {
template <>
char* toString(const stVersionInfo& v)
{
    const QByteArray text =
        QByteArray::number(v.major) + "." + QByteArray::number(v.minor) + "." + QByteArray::number(v.build);
    return qstrdup(text.constData());
}
} // namespace QTest

class tst_Compatibility : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void findPlatformFile_data();
    void findPlatformFile();
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
    QVERIFY(loadBuiltinTexts());
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

void tst_Compatibility::findPlatformFile_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QString>("expected"); // file name in the directory, or ""

    QTest::newRow("first libc in name order")
        << QStringList({"f:libc.so.6", "f:libc-2.23.so", "f:libcrypt.so.1"}) << QString("libc-2.23.so");
    QTest::newRow("order ignores case") << QStringList({"f:libc-B.so", "f:libc-a.so"}) << QString("libc-a.so");
    QTest::newRow("prefix is case-sensitive") << QStringList({"f:LIBC-0.so", "f:Libc-1.so", "f:libc-2.so"})
                                               << QString("libc-2.so");
    QTest::newRow("other libraries do not count") << QStringList({"f:libm.so.6", "f:ld-2.23.so"}) << QString();
    QTest::newRow("name filter *.so*") << QStringList({"f:libc.a", "f:libc_nonshared.o", "f:libcso"}) << QString();
    QTest::newRow("directories do not count") << QStringList({"d:libc-0.so", "f:libc-1.so"}) << QString("libc-1.so");
    QTest::newRow("link to a file counts") << QStringList({"f:real", "l:libc-1.so>real"}) << QString("libc-1.so");
    QTest::newRow("empty directory") << QStringList() << QString();
}

void tst_Compatibility::findPlatformFile()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, expected);
    const QString dir = m_stick->path() + "/lib";
    QVERIFY(QDir().mkpath(dir));
    QVERIFY(makeEntries(dir, entries));

    QCOMPARE(m_download->findPlatformFile(dir), expected.isEmpty() ? QString() : dir + "/" + expected);
}

void tst_Compatibility::panelPlatformFile_data()
{
    QTest::addColumn<QStringList>("entries");  // made in the panel's /lib after libc.so.6 was removed
    QTest::addColumn<QString>("expected");     // panel-side path, or ""

    QTest::newRow("regular libc.so.6") << QStringList({"f:libc.so.6", "f:libc-2.23.so"}) << QString("/lib/libc.so.6");
    QTest::newRow("libc.so.6 links to a regular file")
        << QStringList({"f:libc-2.23.so", "l:libc.so.6>libc-2.23.so"}) << QString("/lib/libc.so.6");
    QTest::newRow("libc.so.6 a directory with a libc")
        << QStringList({"d:libc.so.6", "f:libc.so.6/libc-2.30.so", "f:libc-2.23.so"})
        << QString("/lib/libc.so.6/libc-2.30.so");
    QTest::newRow("libc.so.6 an empty directory") << QStringList({"d:libc.so.6", "f:libc-2.23.so"})
                                                  << QString("/lib/libc-2.23.so");
    QTest::newRow("libc.so.6 missing") << QStringList({"f:libcrypt.so.1", "f:libc-2.23.so"})
                                       << QString("/lib/libc-2.23.so");
    QTest::newRow("libc.so.6 a dangling link") << QStringList({"l:libc.so.6>gone", "f:libc-2.23.so"})
                                               << QString("/lib/libc-2.23.so");
    QTest::newRow("nothing found") << QStringList({"f:libm.so.6", "d:libc.so.6"}) << QString();
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
    // Capacities "TOTAL" and "TOTAL+1" stand for the data file system's size in
    // whole MiB and one MiB more; cores "N" and "N+1" for this machine's count.
    QTest::addColumn<QString>("capacity");
    QTest::addColumn<QStringList>("platforms");
    QTest::addColumn<QString>("cores");
    QTest::addColumn<QString>("product");
    QTest::addColumn<bool>("noDataDir");
    QTest::addColumn<int>("code"); // 1: passes

    const QStringList none;
    const QString pro = "KavoPro";
    QTest::newRow("nothing asked") << QString() << none << QString() << pro << false << 1;
    QTest::newRow("capacity 0") << QString("0") << none << QString() << pro << false << 1;
    QTest::newRow("capacity of the file system") << QString("TOTAL") << none << QString() << pro << false << 1;
    QTest::newRow("capacity one MiB more") << QString("TOTAL+1") << none << QString() << pro << false << -1;
    QTest::newRow("capacity beyond any disk") << QString("99999999999999") << none << QString() << pro << false << -1;
    QTest::newRow("capacity not a number") << QString("lots") << none << QString() << pro << false << 1;
    QTest::newRow("statfs fails") << QString("1") << none << QString() << pro << true << 0;
    QTest::newRow("statfs not needed") << QString() << none << QString() << pro << true << 1;
    QTest::newRow("platform listed") << QString() << QStringList({"5", "10"}) << QString() << pro << false << 1;
    QTest::newRow("platform not listed") << QString() << QStringList({"5", "100"}) << QString() << pro << false << -2;
    QTest::newRow("empty platform code") << QString() << QStringList({""}) << QString() << pro << false << -2;
    QTest::newRow("cores of this machine") << QString() << none << QString("N") << pro << false << 1;
    QTest::newRow("one core more") << QString() << none << QString("N+1") << pro << false << -3;
    QTest::newRow("KavoStu needs 4 cores") << QString() << none << QString() << QString("KavoStu") << false
                                           << (get_nprocs() < 4 ? -3 : 1);
    QTest::newRow("KavoStu with its own count") << QString() << none << QString("1") << QString("KavoStu") << false
                                                << 1;
    QTest::newRow("kavostu is another product") << QString() << none << QString() << QString("kavostu") << false
                                                << 1;
    QTest::newRow("disk decides first") << QString("TOTAL+1") << QStringList("5") << QString("N+1") << pro << false
                                        << -1;
    QTest::newRow("platform before cores") << QString("0") << QStringList("5") << QString("N+1") << pro << false
                                           << -2;
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
    if (capacity == "TOTAL")
        capacity = QString::number(totalMiB);
    else if (capacity == "TOTAL+1")
        capacity = QString::number(totalMiB + 1);
    if (cores == "N")
        cores = QString::number(get_nprocs());
    else if (cores == "N+1")
        cores = QString::number(get_nprocs() + 1);
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
    QTest::addColumn<stVersionInfo>("before");
    QTest::addColumn<stVersionInfo>("after");

    const stVersionInfo zero;
    const stVersionInfo nines = triple(9, 9, 9);
    QTest::newRow("three parts") << QByteArray("7.2.1") << zero << triple(7, 2, 1);
    QTest::newRow("fourth part ignored") << QByteArray("7.2.1.3") << zero << triple(7, 2, 1);
    QTest::newRow("numbers, not text") << QByteArray("7.10.0") << zero << triple(7, 10, 0);
    QTest::newRow("two parts") << QByteArray("7.2") << zero << triple(7, 0, 0);
    QTest::newRow("two parts keep minor and build") << QByteArray("7.2") << nines << triple(7, 9, 9);
    QTest::newRow("no dot sets nothing") << QByteArray("7") << nines << nines;
    QTest::newRow("no dot from zero") << QByteArray("7") << zero << zero;
    QTest::newRow("empty") << QByteArray("") << nines << nines;
    QTest::newRow("empty parts") << QByteArray("..") << nines << zero;
    QTest::newRow("empty middle") << QByteArray("7..1") << zero << triple(7, 0, 1);
    QTest::newRow("blanks and signs") << QByteArray("  7. +2.-1") << zero << triple(7, 2, -1);
    QTest::newRow("stops at a non-digit") << QByteArray("7a.2b.1rc") << zero << triple(7, 2, 1);
    QTest::newRow("no digits") << QByteArray("x.y.z") << nines << zero;
    QTest::newRow("11 characters read") << QByteArray("00000000007.00000000008.00000000009") << zero
                                        << triple(7, 8, 9);
    QTest::newRow("12th character cut") << QByteArray("000000000007.000000000008.000000000009") << nines << zero;
    QTest::newRow("last part cut before a dot") << QByteArray("1.2.000000000003.4") << zero << triple(1, 2, 0);
}

void tst_Compatibility::formatVersion()
{
    QFETCH(QByteArray, text);
    QFETCH(stVersionInfo, before);
    QFETCH(stVersionInfo, after);
    stVersionInfo version = before;
    m_download->formatVersion(text.data(), version);
    QCOMPARE(version, after);
}

void tst_Compatibility::checkVersion_data()
{
    // Version texts; a null text leaves the key out. updateIni false: no
    // update.ini on the panel.
    QTest::addColumn<QString>("set");     // S, version.ini
    QTest::addColumn<QString>("minRun");  // M, version.ini
    QTest::addColumn<QString>("run");     // V, update.ini
    QTest::addColumn<QString>("minSet");  // N, update.ini
    QTest::addColumn<bool>("updateIni");
    QTest::addColumn<bool>("stop");
    QTest::addColumn<bool>("compatible");
    QTest::addColumn<QStringList>("events");

    const QStringList quiet;
    const QStringList missing("fail: 工程版本和运行环境版本不兼容！\n不能升级！");
    auto row = [](const char* name, const char* s, const char* m, const char* v, const char* n) -> QTestData& {
        return QTest::newRow(name) << QString(s) << QString(m) << QString(v) << QString(n);
    };

    row("equal, fourth part ignored", "7.2.1", "9.9.9", "7.2.1.0", "9.9.9") << true << false << true << quiet;
    row("runtime newer and accepts the project", "7.2.0", "7.5.0", "7.3.0", "7.0.0")
        << true << false << true << quiet;
    row("project newer and runs on the runtime", "7.4.0", "7.1.0", "7.2.0", "7.9.0")
        << true << false << true << quiet;
    row("components compare as numbers", "7.10.0", "7.11.0", "7.11.0", "7.9.9") << true << false << true << quiet;
    row("two parts read as x.0.0", "7.2", "7.2", "7.0.0", "7.0.0") << true << false << true << quiet;
    row("no dots anywhere", "7", "abc", "8", "9") << true << false << true << quiet;
    row("blanks and signs", "+7. 2.1", "7.0.0", "7.2.1", "7.0.0") << true << false << true << quiet;
    row("design too old: shows the runtime", "7.1.9", "7.0.0", "7.3.0", "7.2.0")
        << true << false << false << QStringList("fail: 组态环境版本不匹配，请升级组态环境至7.3.0版本！");
    row("runtime too old: shows the project", "7.4.0", "7.3.0", "7.2.0", "7.0.0")
        << true << false << false << QStringList("fail: 运行环境版本不匹配，请升级运行环境至7.4.0版本！");
    row("long component cut to 11 characters", "000000000007.2.1", "0.0.0", "7.2.1", "7.0.0")
        << true << false << false << QStringList("fail: 组态环境版本不匹配，请升级组态环境至7.2.1版本！");
    row("setversion missing", nullptr, "7.0.0", "7.2.0", "7.0.0") << true << false << false << missing;
    row("minrunversion missing", "7.2.0", nullptr, "7.2.0", "7.0.0") << true << false << false << missing;
    row("minrunversion empty", "7.2.0", "", "7.2.0", "7.0.0") << true << false << false << missing;
    row("runtime version missing", "7.2.0", "7.0.0", nullptr, "7.0.0") << true << false << false << missing;
    row("minsetversion missing", "7.2.0", "7.0.0", "7.2.0", nullptr) << true << false << false << missing;
    row("no update.ini", "7.2.0", "7.0.0", "7.2.0", "7.0.0") << false << false << false << missing;
    row("stop requested", "7.2.0", "7.0.0", "7.2.0", "7.0.0") << true << true << false << quiet;
}

void tst_Compatibility::checkVersion()
{
    QFETCH(QString, set);
    QFETCH(QString, minRun);
    QFETCH(QString, run);
    QFETCH(QString, minSet);
    QFETCH(bool, updateIni);
    QFETCH(bool, stop);
    QFETCH(bool, compatible);
    QFETCH(QStringList, events);

    auto line = [](const char* key, const QString& value) {
        return value.isNull() ? QByteArray() : QByteArray(key) + "=" + value.toUtf8() + "\n";
    };
    QVERIFY(testenv::writeFile(m_stick->path() + "/proj/version.ini", "[version]\nproduct=KavoPro\n"
                                                                          + line("setversion", set)
                                                                          + line("minrunversion", minRun)));
    if (updateIni)
        QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/update.ini"), "[PREPARE]\nproduct=KavoPro\n"
                                                                                  + line("version", run)
                                                                                  + line("minsetversion", minSet)));
    m_download->m_stop = stop;

    QCOMPARE(m_download->checkVersion(), compatible);
    QCOMPARE(m_download->events, events);
}

QTEST_GUILESS_MAIN(tst_Compatibility)
#include "tst_compatibility.moc"
