// Reading the package description files: the usable-description test, the
// project description (platform, file list, destinations, clear flags) and
// the package product from version.ini.
#include "recordingdownload.h"
#include "testenv.h"

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

const char* const kVariables[] = {"OPXDESC_HOME", "OPXDESC_USRDIR", "OPXDESC_USR", "$OPXDESC_Y", "OPXDESC_Y",
                                  "OPXDESC_EQ"};

QByteArray fileGroup(int i, const QByteArray& name, const QByteArray& desPath)
{
    return "[FILE" + QByteArray::number(i) + "]\nNAME=" + name + "\nCRC=1\nSIZE=1\nDESPATH=" + desPath + "\n";
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
    void refused_data();
    void refused();
    void destination_data();
    void destination();
    void fileFields_data();
    void fileFields();

private:
    void writeProject(const QByteArray& content, const QString& variant = QString())
    {
        QVERIFY(testenv::writeFile(m_stick->path() + "/proj/" + variant + "project.ini", content));
    }
    bool parse() { return m_download->parseIniFile(m_download->packagePrefix() + "project.ini"); }

    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<RecordingDownload> m_download;
};

void tst_PackageDescription::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_oldCwd = QDir::currentPath();
    // New variables go to the end of the environment in this order, so
    // OPXDESC_USRDIR is met before OPXDESC_USR by the destination lookup.
    for (const char* name : kVariables)
        qunsetenv(name);
    qputenv("OPXDESC_HOME", "/root");
    qputenv("OPXDESC_USRDIR", "/usr/longer");
    qputenv("OPXDESC_USR", "/usr/exact");
    qputenv("$OPXDESC_Y", "/dollar");
    qputenv("OPXDESC_Y", "/without-dollar");
    qputenv("OPXDESC_EQ", "/a=b");
}

void tst_PackageDescription::cleanupTestCase()
{
    for (const char* name : kVariables)
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
}

void tst_PackageDescription::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
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
}

void tst_PackageDescription::projectIniNodeExist()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, usable);
    writeProject(content);
    QSettings ini("proj/project.ini", QSettings::IniFormat);
    QCOMPARE(m_download->projectIniNodeExist(&ini), usable);
    QVERIFY(m_download->events.isEmpty());
}

void tst_PackageDescription::refused_data()
{
    QTest::addColumn<QByteArray>("global");
    QTest::addColumn<QByteArray>("versionIni"); // empty: none
    QTest::addColumn<bool>("stop");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<int>("kept"); // entries in the list afterwards

    const QStringList noFiles("text: 没有需要下载的文件！");
    const QByteArray none;
    // The platform is checked before the earlier list is replaced.
    QTest::newRow("other platform") << QByteArray("OPXPlatform=5\nOPXName=\"  触摸屏五  \"\nFILENUM=1\n") << none << false
                                    << QStringList("text: 平台不兼容，触摸屏五的工程只能运行在触摸屏五的屏上！") << 1;
    QTest::newRow("no files") << QByteArray("OPXPlatform=10\nFILENUM=0\n") << none << false << noFiles << 0;
    QTest::newRow("negative count") << QByteArray("OPXPlatform=10\nFILENUM=-3\n") << none << false << noFiles << 0;
    QTest::newRow("count missing") << QByteArray("OPXPlatform=10\n") << none << false << noFiles << 0;
    QTest::newRow("stop pressed before") << QByteArray("OPXPlatform=10\nFILENUM=1\n") << none << true
                                         << QStringList() << 1;
    // The product is read last, after the file list.
    QTest::newRow("empty product") << QByteArray("OPXPlatform=10\nFILENUM=1\n")
                                   << QByteArray("[version]\nproduct=\nsetversion=7.2.1\n") << false
                                   << QStringList("fail: 工程文件配置对应系列有误，请重新做包后重试！") << 1;
}

void tst_PackageDescription::refused()
{
    QFETCH(QByteArray, global);
    QFETCH(QByteArray, versionIni);
    QFETCH(bool, stop);
    QFETCH(QStringList, events);
    QFETCH(int, kept);
    writeProject("[GLOBAL]\nOPXName=KP\nVERSION=1\n" + global + fileGroup(1, "a", "/x"));
    if (!versionIni.isEmpty())
        QVERIFY(testenv::writeFile(m_stick->path() + "/proj/version.ini", versionIni));
    m_download->m_fileList.append(FILE_INFO());
    m_download->m_stop = stop;

    QVERIFY(!parse());
    QCOMPARE(m_download->events, events);
    QCOMPARE(m_download->m_fileList.size(), kept);
    QCOMPARE(m_download->m_packageProduct, QString("KavoPro"));
}

void tst_PackageDescription::destination_data()
{
    // A "$" names an environment variable in place of the first character;
    // the result is a panel-side directory, placed under the simulated panel.
    QTest::addColumn<QString>("desPath");
    QTest::addColumn<QString>("expected");

    QTest::newRow("$VAR/data") << QString("$OPXDESC_HOME/data") << QString("/root/data/");
    QTest::newRow("$VAR") << QString("$OPXDESC_HOME") << QString("/root/");
    QTest::newRow("$VAR/") << QString("$OPXDESC_HOME/") << QString("/root/");
    QTest::newRow("plain") << QString("/usr/app") << QString("/usr/app/");
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
    writeProject("[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n" + fileGroup(1, "a", desPath.toUtf8()));

    QVERIFY(parse());
    QCOMPARE(m_download->m_fileList.size(), 1);
    // Only absolute destinations are panel places.
    QCOMPARE(m_download->m_fileList.at(0).desPath, expected.startsWith('/') ? m_panel->path(expected) : expected);
}

void tst_PackageDescription::fileFields_data()
{
    QTest::addColumn<QString>("variant");
    QTest::addColumn<QString>("product");
    QTest::addColumn<QByteArray>("platform");    // the [hardware] platform value
    QTest::addColumn<QStringList>("platforms");  // as the hardware check sees it
    QTest::addColumn<QByteArray>("fileNum");
    QTest::addColumn<QByteArray>("moreGroups");  // after FILE1 and FILE2
    QTest::addColumn<QStringList>("moreNames");  // entries after the first two

    const QStringList both({"5", "10"});
    const QByteArray two("2");
    QTest::newRow("no variant, no version.ini") << QString() << QString("KavoPro") << QByteArray("5,10") << both << two
                                                << QByteArray() << QStringList();
    QTest::newRow("v7 variant, own product") << QString("v7/") << QString("KavoStu") << QByteArray("5,10") << both
                                             << two << QByteArray() << QStringList();
    QTest::newRow("empty platform list") << QString() << QString("KavoPro") << QByteArray() << QStringList() << two
                                         << QByteArray() << QStringList();
    QTest::newRow("empty platform entries dropped") << QString() << QString("KavoPro") << QByteArray(",10,")
                                                    << QStringList("10") << two << QByteArray() << QStringList();
    // Only groups named FILE and a count without leading zeros are files.
    QTest::newRow("count far beyond the groups")
        << QString() << QString("KavoPro") << QByteArray("5,10") << both << QByteArray("2147483647")
        << QByteArray("[FILE10]\nNAME=ten\n[FILE03]\nNAME=zero-led\n[FILE9]\nNAME=nine\n[FILE0]\nNAME=zero\n"
                      "[FILE4x]\nNAME=letter\n[file5]\nNAME=lower\n")
        << QStringList({"nine", "ten"});
}

void tst_PackageDescription::fileFields()
{
    QFETCH(QString, variant);
    QFETCH(QString, product); // the package's product; KavoPro without a version.ini
    QFETCH(QByteArray, platform);
    QFETCH(QStringList, platforms);
    QFETCH(QByteArray, fileNum);
    QFETCH(QByteArray, moreGroups);
    QFETCH(QStringList, moreNames);
    m_download->m_variantDir = variant;
    if (product != "KavoPro")
        QVERIFY(testenv::writeFile("proj/" + variant + "version.ini", "[version]\nproduct=" + product.toUtf8() + "\n"));
    writeProject("[GLOBAL]\nOPXPlatform=\" 10 \"\nOPXName=KP\nVERSION=1\nFILENUM=" + fileNum + "\n"
                 "[hardware]\ndisk_capacity= 64 \nplatform=" + platform + "\ncpu_core=\" 2 \"\n"
                 "[FILE1]\nNAME=配方 1.dat\nCRC=a1b2c3d4\nSIZE=4294967295\nDESPATH=/usr/kavo_app/project\n"
                 "[FILE2]\nNAME=DownLoadFile/u.txt\nCRC=\nSIZE=12\nDESPATH=/data/userfile/\n"
                 + moreGroups + "[DOWNLOAD]\nCLEARRECIPE=1\nCLEARHISTORY=0\nCLEARALARM=-1\nCLEARUSERDIR=2\n",
                 variant);

    QVERIFY(parse());
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(m_download->m_diskCapacity, QString("64"));
    QCOMPARE(m_download->m_platformList, platforms);
    QCOMPARE(m_download->m_cpuCore, QString("2"));
    QCOMPARE(m_download->m_packageProduct, product);

    const QVector<FILE_INFO>& files = m_download->m_fileList;
    QCOMPARE(files.size(), 2 + moreNames.size());
    QCOMPARE(files[0].fileName, QString("配方 1.dat"));
    QCOMPARE(files[0].crc, QString("A1B2C3D4"));
    QCOMPARE(files[0].size, 4294967295u);
    QCOMPARE(files[0].desPath, m_panel->path("/usr/kavo_app/project/"));
    QCOMPARE(files[1].fileName, QString("DownLoadFile/u.txt"));
    QCOMPARE(files[1].crc, QString());
    QCOMPARE(files[1].size, 12u);
    QCOMPARE(files[1].desPath, m_panel->path("/data/userfile//"));
    for (int i = 0; i < moreNames.size(); ++i)
        QCOMPARE(files[2 + i].fileName, moreNames.at(i));
    for (const FILE_INFO& file : files)
        QCOMPARE(file.srcPath, "./proj/" + variant);

    QVERIFY(m_download->m_clearRecipe && m_download->m_clearAlarm && m_download->m_clearUserDir);
    QVERIFY(!m_download->m_clearHistory && !m_download->m_clearInitValue);
}

QTEST_GUILESS_MAIN(tst_PackageDescription)
#include "tst_packagedescription.moc"
