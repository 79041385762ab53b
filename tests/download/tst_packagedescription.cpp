// Reading the package description files: the usable-description test, the
// project description (platform, file list, destinations, clear flags) and
// the package product from version.ini.
#include "recordingdownload.h"
#include "testenv.h"

#include <QDataStream>
#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <memory>
#include <unistd.h>

namespace {

// The downloader whose stop button StopPress presses.
ProjectDownload* g_pressTarget = nullptr;

} // namespace

// A value that presses the stop button when the INI reader loads it, so a test
// can stop a parse exactly while one file group is being read.
struct StopPress
{
};
Q_DECLARE_METATYPE(StopPress)

QDataStream& operator<<(QDataStream& stream, const StopPress&)
{
    return stream;
}

QDataStream& operator>>(QDataStream& stream, StopPress&)
{
    if (g_pressTarget != nullptr)
        g_pressTarget->m_stop = true;
    return stream;
}

namespace {

const QByteArray kGlobal = "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\n";

QByteArray fileGroup(int i, const QByteArray& name, const QByteArray& desPath)
{
    return "[FILE" + QByteArray::number(i) + "]\nNAME=" + name + "\nCRC=1\nSIZE=1\nDESPATH=" + desPath + "\n";
}

// The panel-side place that a destination names, under the test panel.
QString onPanel(const testenv::TempPanel& panel, const QString& destination)
{
    return destination.startsWith(QLatin1Char('/')) ? panel.root() + destination : destination;
}

// The first environment entry that begins with `prefix`, or "".
QByteArray firstEntryWith(const QByteArray& prefix)
{
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, prefix.constData(), size_t(prefix.size())) == 0)
            return QByteArray(*entry);
    }
    return QByteArray();
}

} // namespace

class tst_PackageDescription : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void projectIniNodeExist_data();
    void projectIniNodeExist();
    void platformMismatch();
    void fileCount_data();
    void fileCount();
    void stopAtEntry();
    void stopWhileReadingFiles();
    void destination_data();
    void destination();
    void fileFields_data();
    void fileFields();
    void product_data();
    void product();

private:
    void writeProject(const QByteArray& content, const QString& variant = QString());
    bool parse() { return m_download->parseIniFile(m_download->packagePrefix() + "project.ini"); }

    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<RecordingDownload> m_download;
};

void tst_PackageDescription::initTestCase()
{
    QVERIFY(loadBuiltinTexts());
    m_oldCwd = QDir::currentPath();
    qRegisterMetaTypeStreamOperators<StopPress>("StopPress");

    // Variables of the destination table, added in this order at the end of
    // the environment: OPXDESC_USRDIR comes before OPXDESC_USR.
    for (const char* name : {"OPXDESC_HOME", "OPXDESC_USRDIR", "OPXDESC_USR", "$OPXDESC_Y", "OPXDESC_Y", "OPXDESC_EQ"})
        qunsetenv(name);
    qputenv("OPXDESC_HOME", "/root");
    qputenv("OPXDESC_USRDIR", "/usr/longer");
    qputenv("OPXDESC_USR", "/usr/exact");
    qputenv("$OPXDESC_Y", "/dollar");
    qputenv("OPXDESC_Y", "/without-dollar");
    qputenv("OPXDESC_EQ", "/a=b");
    QCOMPARE(firstEntryWith("OPXDESC_USR"), QByteArray("OPXDESC_USRDIR=/usr/longer"));
    QCOMPARE(firstEntryWith("OPXDESC_HOME"), QByteArray("OPXDESC_HOME=/root"));
}

void tst_PackageDescription::cleanupTestCase()
{
    for (const char* name : {"OPXDESC_HOME", "OPXDESC_USRDIR", "OPXDESC_USR", "$OPXDESC_Y", "OPXDESC_Y", "OPXDESC_EQ"})
        qunsetenv(name);
}

void tst_PackageDescription::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<RecordingDownload>();
    m_download->m_projectName = "proj";
    m_download->m_platformCode = "10";
    g_pressTarget = m_download.get();
}

void tst_PackageDescription::cleanup()
{
    g_pressTarget = nullptr;
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_PackageDescription::writeProject(const QByteArray& content, const QString& variant)
{
    QVERIFY(testenv::writeFile(m_stick->path() + "/proj/" + variant + "project.ini", content));
}

void tst_PackageDescription::projectIniNodeExist_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("usable");

    QTest::newRow("all four") << QByteArray("[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nFILENUM=1\nVERSION=\n") << true;
    QTest::newRow("no OPXPlatform") << QByteArray("[GLOBAL]\nOPXName=KP\nFILENUM=1\nVERSION=1\n") << false;
    QTest::newRow("no OPXName") << QByteArray("[GLOBAL]\nOPXPlatform=10\nFILENUM=1\nVERSION=1\n") << false;
    QTest::newRow("no FILENUM") << QByteArray("[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\n") << false;
    QTest::newRow("no VERSION") << QByteArray("[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nFILENUM=1\n") << false;
    QTest::newRow("scrambled bytes") << QByteArray("\x8e\x13\xa7\x01\xff") << false;
}

void tst_PackageDescription::projectIniNodeExist()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, usable);
    writeProject(content);
    QSettings ini("proj/project.ini", QSettings::IniFormat);
    ini.setIniCodec("UTF-8");
    QCOMPARE(m_download->projectIniNodeExist(&ini), usable);
    QVERIFY(m_download->events.isEmpty());
}

void tst_PackageDescription::platformMismatch()
{
    writeProject("[GLOBAL]\nOPXPlatform=5\nOPXName=\"  触摸屏五  \"\nFILENUM=1\nVERSION=1\n" + fileGroup(1, "a", "/x"));
    m_download->m_fileList.append(FILE_INFO());

    QVERIFY(!parse());
    QCOMPARE(m_download->events,
             QStringList("text: 平台不兼容，触摸屏五的工程只能运行在触摸屏五的屏上！"));
    QCOMPARE(m_download->m_fileList.size(), 1);
}

void tst_PackageDescription::fileCount_data()
{
    QTest::addColumn<QByteArray>("global");
    QTest::addColumn<int>("entries"); // -1: no files to download

    QTest::newRow("zero") << QByteArray("OPXPlatform=10\nFILENUM=0\n") << -1;
    QTest::newRow("negative") << QByteArray("OPXPlatform=10\nFILENUM=-3\n") << -1;
    QTest::newRow("not a number") << QByteArray("OPXPlatform=10\nFILENUM=abc\n") << -1;
    QTest::newRow("missing") << QByteArray("OPXPlatform=10\n") << -1;
    QTest::newRow("two, platform code trimmed") << QByteArray("OPXPlatform=\" 10 \"\nFILENUM=2\n") << 2;
}

void tst_PackageDescription::fileCount()
{
    QFETCH(QByteArray, global);
    QFETCH(int, entries);
    writeProject("[GLOBAL]\nOPXName=KP\nVERSION=1\n" + global + fileGroup(1, "a", "/x") + fileGroup(2, "b", "/y"));
    m_download->m_fileList.append(FILE_INFO());

    if (entries < 0) {
        QVERIFY(!parse());
        QCOMPARE(m_download->events, QStringList("text: 没有需要下载的文件！"));
        QVERIFY(m_download->m_fileList.isEmpty());
    } else {
        QVERIFY(parse());
        QVERIFY(m_download->events.isEmpty());
        QCOMPARE(m_download->m_fileList.size(), entries);
        QCOMPARE(m_download->m_fileList.at(1).fileName, QString("b"));
    }
}

void tst_PackageDescription::stopAtEntry()
{
    writeProject(kGlobal + "FILENUM=1\n" + fileGroup(1, "a", "/x"));
    FILE_INFO earlier;
    earlier.fileName = "earlier";
    m_download->m_fileList.append(earlier);
    m_download->m_stop = true;

    QVERIFY(!parse());
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(m_download->m_fileList.size(), 1);
    QCOMPARE(m_download->m_fileList.at(0).fileName, QString("earlier"));
}

void tst_PackageDescription::stopWhileReadingFiles()
{
    // The INI writer gives the serialized form of a StopPress value.
    QByteArray pressLine;
    {
        QSettings generator(m_stick->path() + "/generator.ini", QSettings::IniFormat);
        generator.setValue("g/v", QVariant::fromValue(StopPress()));
    }
    for (const QByteArray& line : testenv::readFile(m_stick->path() + "/generator.ini").split('\n')) {
        if (line.startsWith("v="))
            pressLine = line.mid(2);
    }
    QVERIFY(pressLine.startsWith("@Variant("));

    writeProject(kGlobal + "FILENUM=3\n" + fileGroup(1, "a", "/x") + fileGroup(2, pressLine, "/y")
                 + fileGroup(3, "c", "/z"));

    QVERIFY(!parse());
    QVERIFY(m_download->m_stop);
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(m_download->m_fileList.size(), 2);
    QCOMPARE(m_download->m_fileList.at(0).fileName, QString("a"));
    QCOMPARE(m_download->m_fileList.at(1).desPath, m_panel->root() + "/y/");
}

void tst_PackageDescription::destination_data()
{
    QTest::addColumn<QString>("desPath");
    QTest::addColumn<QString>("expected");

    QTest::newRow("$VAR/data") << QString("$OPXDESC_HOME/data") << QString("/root/data/");
    QTest::newRow("$VAR") << QString("$OPXDESC_HOME") << QString("/root/");
    QTest::newRow("$VAR/") << QString("$OPXDESC_HOME/") << QString("/root/");
    QTest::newRow("$VAR/a/b") << QString("$OPXDESC_HOME/a/b") << QString("/root/a/b/");
    QTest::newRow("plain") << QString("/usr/app") << QString("/usr/app/");
    QTest::newRow("plain with slash") << QString("/usr/app/") << QString("/usr/app//");
    QTest::newRow("x$Y drops the x") << QString("x$OPXDESC_Y/data") << QString("/dollar/data/");
    QTest::newRow("unknown variable") << QString("$OPXDESC_NONE/data") << QString("data/");
    QTest::newRow("unknown variable alone") << QString("$OPXDESC_NONE") << QString("");
    QTest::newRow("prefix match, environment order") << QString("$OPXDESC_USR/bin") << QString("/usr/longer/bin/");
    QTest::newRow("value cut at its own =") << QString("$OPXDESC_EQ/x") << QString("/a/x/");
}

void tst_PackageDescription::destination()
{
    QFETCH(QString, desPath);
    QFETCH(QString, expected);
    writeProject(kGlobal + "FILENUM=1\n" + fileGroup(1, "a", desPath.toUtf8()));

    QVERIFY(parse());
    QCOMPARE(m_download->m_fileList.size(), 1);
    QCOMPARE(m_download->m_fileList.at(0).desPath, onPanel(*m_panel, expected));
}

void tst_PackageDescription::fileFields_data()
{
    QTest::addColumn<QString>("variant");
    QTest::newRow("no variant") << QString();
    QTest::newRow("v7 variant") << QString("v7/");
}

void tst_PackageDescription::fileFields()
{
    QFETCH(QString, variant);
    m_download->m_variantDir = variant;
    writeProject(kGlobal
                     + "FILENUM=2\n[hardware]\ndisk_capacity= 64 \nplatform=5,10\ncpu_core=\" 2 \"\n"
                       "[FILE1]\nNAME=配方 1.dat\nCRC=a1b2c3d4\nSIZE=4294967295\nDESPATH=/usr/kavo_app/project\n"
                       "[FILE2]\nNAME=DownLoadFile/u.txt\nCRC=\nSIZE=12\nDESPATH=/data/userfile/\n"
                       "[DOWNLOAD]\nCLEARRECIPE=1\nCLEARHISTORY=0\nCLEARALARM=-1\nCLEARUSERDIR=2\n",
                 variant);

    QVERIFY(parse());
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(m_download->m_diskCapacity, QString("64"));
    QCOMPARE(m_download->m_platformList, QStringList({"5", "10"}));
    QCOMPARE(m_download->m_cpuCore, QString("2"));

    const QVector<FILE_INFO>& files = m_download->m_fileList;
    QCOMPARE(files.size(), 2);
    QCOMPARE(files[0].fileName, QString("配方 1.dat"));
    QCOMPARE(files[0].crc, QString("A1B2C3D4"));
    QCOMPARE(files[0].size, 4294967295u);
    QCOMPARE(files[0].desPath, m_panel->root() + "/usr/kavo_app/project/");
    QCOMPARE(files[0].srcPath, "./proj/" + variant);
    QCOMPARE(files[1].fileName, QString("DownLoadFile/u.txt"));
    QCOMPARE(files[1].crc, QString());
    QCOMPARE(files[1].size, 12u);
    QCOMPARE(files[1].desPath, m_panel->root() + "/data/userfile//");
    QCOMPARE(files[1].srcPath, "./proj/" + variant);

    QVERIFY(m_download->m_clearRecipe);
    QVERIFY(!m_download->m_clearHistory);
    QVERIFY(m_download->m_clearAlarm);
    QVERIFY(!m_download->m_clearInitValue);
    QVERIFY(m_download->m_clearUserDir);
}

void tst_PackageDescription::product_data()
{
    QTest::addColumn<QByteArray>("versionIni"); // empty: no version.ini at all
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("product");
    QTest::addColumn<QStringList>("events");

    QTest::newRow("present") << QByteArray("[version]\nproduct=KavoStu\n") << true << QString("KavoStu") << QStringList();
    QTest::newRow("empty") << QByteArray("[version]\nproduct=\nsetversion=7.2.1\n") << false << QString("KavoPro")
                           << QStringList("fail: 工程文件配置对应系列有误，请重新做包后重试！");
    QTest::newRow("absent key") << QByteArray("[version]\nsetversion=7.2.1\n") << true << QString("KavoPro") << QStringList();
    QTest::newRow("no version.ini") << QByteArray() << true << QString("KavoPro") << QStringList();
    // version.ini is read without a codec: its bytes come back one character each.
    QTest::newRow("read without codec") << QByteArray("[version]\nproduct=Kavo系列\n") << true
                                        << QString::fromLatin1(QByteArray("Kavo系列")) << QStringList();
}

void tst_PackageDescription::product()
{
    QFETCH(QByteArray, versionIni);
    QFETCH(bool, result);
    QFETCH(QString, product);
    QFETCH(QStringList, events);
    writeProject(kGlobal + "FILENUM=1\n" + fileGroup(1, "a", "/x") + "[DOWNLOAD]\nCLEARRECIPE=1\n");
    if (!versionIni.isEmpty())
        QVERIFY(testenv::writeFile(m_stick->path() + "/proj/version.ini", versionIni));

    QCOMPARE(parse(), result);
    QCOMPARE(m_download->m_packageProduct, product);
    QCOMPARE(m_download->events, events);
    QCOMPARE(m_download->m_fileList.size(), 1);
    QVERIFY(m_download->m_clearRecipe);
}

QTEST_GUILESS_MAIN(tst_PackageDescription)
#include "tst_packagedescription.moc"
