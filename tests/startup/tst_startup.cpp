#include "app/startup.h"

#include "testenv.h"

#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>

namespace {

QByteArray iniType(const char* group, int type)
{
    return QByteArray("[") + group + "]\ntype=" + QByteArray::number(type) + "\n";
}

} // namespace

class tst_startup : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { qunsetenv("KAVO_PROJECT_DIR"); }
    void removeQws();
    void parseOptions_data();
    void parseOptions();
    void findPackageProcesses();
    void chooseLanguageCode_data();
    void chooseLanguageCode();
};

void tst_startup::removeQws()
{
    QByteArray storage[] = {"prog", "-qws", "-s proj", "x-qws", "-qwsx", "-qws", "-p /out"};
    std::vector<char*> argv;
    for (QByteArray& argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    const std::vector<char*> reduced = startup::removeQwsArguments(int(argv.size()) - 1, argv.data());
    QCOMPARE(reduced.back(), nullptr);
    QStringList kept;
    for (std::size_t i = 0; i + 1 < reduced.size(); ++i)
        kept << QString::fromUtf8(reduced[i]);
    QCOMPARE(kept, (QStringList{"prog", "-s proj", "x-qws", "-qwsx", "-p /out"}));
}

void tst_startup::parseOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("haveProject");
    QTest::addColumn<bool>("haveDirect");
    QTest::addColumn<int>("projectResult");
    QTest::addColumn<QString>("projectArg");
    QTest::addColumn<QString>("resultDir");
    QTest::addColumn<QString>("lanId");

    QTest::newRow("no options") << QStringList{} << false << false << -1 << "" << "" << "";
    QTest::newRow("direct with report dir")
        << QStringList{"-s my proj", "-p /out/dir"} << false << true << -1 << "my proj" << "/out/dir" << "";
    QTest::newRow("values as their own arguments")
        << QStringList{"-s", "proj", "-p", "/out"} << false << true << -1 << "" << "" << "";
    QTest::newRow("resume, also read as -p")
        << QStringList{"-project 0 /mnt/my proj"} << true << false << 0 << "/mnt/my proj" << "0 /mnt/my proj" << "";
    QTest::newRow("resume, negative result")
        << QStringList{"-project -2 /mnt/p"} << true << false << -2 << "/mnt/p" << "-2 /mnt/p" << "";
    QTest::newRow("resume, result not a number")
        << QStringList{"-project x /mnt/p"} << true << false << 0 << "/mnt/p" << "x /mnt/p" << "";
    QTest::newRow("resume without path") << QStringList{"-project 5"} << true << false << 5 << "" << "5" << "";
    QTest::newRow("resume path holding -s")
        << QStringList{"-project 0 /mnt/usb-stick/p"} << true << true << 0 << "0 /mnt/usb-stick/p"
        << "0 /mnt/usb-stick/p" << "";
    QTest::newRow("direct project named like -project")
        << QStringList{"-s my-project"} << true << true << 0 << "my-project" << "my-project" << "";
    QTest::newRow("direct project name holding -p")
        << QStringList{"-s my-proj"} << false << true << -1 << "my-proj" << "my-proj" << "";
    QTest::newRow("language, extra pieces") << QStringList{"-lanID 0012 x"} << false << false << -1 << "" << ""
                                            << "0012";
    QTest::newRow("language after two blanks") << QStringList{"-lanID  0003"} << false << false << -1 << "" << ""
                                               << "";
    QTest::newRow("option inside a longer text") << QStringList{"x-s y"} << false << true << -1 << "y" << "" << "";
    QTest::newRow("case matters") << QStringList{"-S proj", "-P /out", "-LANID 0001", "-PROJECT 0 /p"} << false
                                  << false << -1 << "" << "" << "";
    QTest::newRow("later argument wins") << QStringList{"-s a", "-s b", "-p /x", "-p /y"} << false << true << -1
                                         << "b" << "/y" << "";
    QTest::newRow("resume with language")
        << QStringList{"-qws", "-project 0 /p", "-lanID 0002"} << true << false << 0 << "/p" << "0 /p" << "0002";
}

void tst_startup::parseOptions()
{
    QFETCH(QStringList, arguments);

    startup::StartupOptions options;
    startup::parseOptions(arguments, options);

    QTEST(options.haveProject, "haveProject");
    QTEST(options.haveDirect, "haveDirect");
    QTEST(options.projectResult, "projectResult");
    QTEST(options.projectArg, "projectArg");
    QTEST(options.resultDir, "resultDir");
    QTEST(options.lanId, "lanId");
}

// A stand-in for /proc: only a command line whose first string is the package's
// executable, by path or bare, counts.
void tst_startup::findPackageProcesses()
{
    QTemporaryDir proc;
    QVERIFY(proc.isValid());
    const auto cmdline = [&proc](const QString& entry, const QByteArray& content) {
        return testenv::writeFile(proc.path() + "/" + entry + "/cmdline", content);
    };
    QVERIFY(cmdline("101", QByteArray("/mnt/usb/opxupdateu/opxupdateu_proj.bin\0-s proj\0", 48)));
    QVERIFY(cmdline("102", QByteArray("./opxupdateu_proj.bin\0", 22)));
    QVERIFY(cmdline("103", QByteArray("opxupdateu_proj.bin", 19)));
    QVERIFY(cmdline("201", QByteArray("/mnt/opxupdateu_proj.bin.old\0", 29)));
    QVERIFY(cmdline("202", QByteArray("sh\0-c\0sleep 60\0opxupdateu_proj.bin\0", 35)));
    QVERIFY(cmdline("203", QByteArray()));
    // Only the first 255 bytes are read.
    QVERIFY(cmdline("204", "/" + QByteArray(250, 'd') + "/opxupdateu_proj.bin"));
    QVERIFY(cmdline("self", QByteArray("opxupdateu_proj.bin\0", 20)));
    QVERIFY(QDir().mkpath(proc.path() + "/205"));

    std::vector<pid_t> found = startup::findPackageProcesses(proc.path());
    std::sort(found.begin(), found.end());
    QCOMPARE(found, (std::vector<pid_t>{101, 102, 103}));
    QCOMPARE(int(startup::findPackageProcesses(proc.path(), 2).size()), 2);
}

void tst_startup::chooseLanguageCode_data()
{
    QTest::addColumn<QString>("projectDirEnv");   // null: KAVO_PROJECT_DIR unset
    QTest::addColumn<QByteArray>("defaultSetup"); // lan_setup.ini in "/usr/kavo_app/project"; null: none
    QTest::addColumn<QByteArray>("envSetup");     // lan_setup.ini in KAVO_PROJECT_DIR; null: none
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<QStringList>("languageFiles");
    QTest::addColumn<QByteArray>("toolSettings"); // config/proUpdateSet.ini; null: none
    QTest::addColumn<QString>("expected");

    const QString unset;
    const QByteArray none;
    const QByteArray tool2 = iniType("tool_language", 2);

    QTest::newRow("panel setting") << unset << iniType("current_language", 12) << none << ""
                                   << QStringList{"0012", "0002"} << tool2 << "0012";
    QTest::newRow("panel setting -1 falls back") << unset << iniType("current_language", -1) << none << ""
                                                 << QStringList{"-001", "0001", "0002"} << tool2 << "0002";
    QTest::newRow("panel setting negative") << unset << iniType("current_language", -5) << none << ""
                                            << QStringList{"-005"} << tool2 << "-005";
    QTest::newRow("panel setting without the key") << unset << iniType("other_language", 1) << none << ""
                                                   << QStringList{"0001", "0002"} << tool2 << "0002";
    QTest::newRow("panel language file missing") << unset << iniType("current_language", 12) << none << ""
                                                 << QStringList{"0002"} << tool2 << "0002";
    QTest::newRow("given language used as written") << unset << iniType("current_language", 1) << none << "7"
                                                    << QStringList{"0001", "7", "0007"} << tool2 << "7";
    QTest::newRow("given language file missing") << unset << iniType("current_language", 1) << none << "0007"
                                                 << QStringList{"0001"} << tool2 << "0002";
    QTest::newRow("fallback file need not exist") << unset << none << none << "" << QStringList{} << tool2 << "0002";
    QTest::newRow("no package setting") << unset << none << none << "" << QStringList{"0001"} << none << "0000";
    QTest::newRow("KAVO_PROJECT_DIR set") << "/custom/proj" << iniType("current_language", 1)
                                          << iniType("current_language", 4) << "" << QStringList{"0001", "0004"}
                                          << tool2 << "0004";
    QTest::newRow("KAVO_PROJECT_DIR without setting") << "/custom/proj" << iniType("current_language", 1) << none
                                                      << "" << QStringList{"0001", "0002"} << tool2 << "0002";
    QTest::newRow("KAVO_PROJECT_DIR empty") << QStringLiteral("") << iniType("current_language", 1)
                                            << iniType("current_language", 4) << "" << QStringList{"0001", "0004"}
                                            << tool2 << "0001";
}

void tst_startup::chooseLanguageCode()
{
    QFETCH(QString, projectDirEnv);
    QFETCH(QByteArray, defaultSetup);
    QFETCH(QByteArray, envSetup);
    QFETCH(QString, lanId);
    QFETCH(QStringList, languageFiles);
    QFETCH(QByteArray, toolSettings);

    testenv::TempPanel panel;
    QTemporaryDir exeDir;
    QVERIFY(panel.isValid() && exeDir.isValid());
    if (!projectDirEnv.isNull())
        qputenv("KAVO_PROJECT_DIR", projectDirEnv.toUtf8());
    if (!defaultSetup.isNull())
        QVERIFY(testenv::writeFile(panel.path("/usr/kavo_app/project/lan_setup.ini"), defaultSetup));
    if (!envSetup.isNull())
        QVERIFY(testenv::writeFile(panel.path("/custom/proj/lan_setup.ini"), envSetup));
    for (const QString& code : languageFiles)
        QVERIFY(testenv::writeFile(startup::languageFilePath(exeDir.path(), code), "[2000]\nstring = x\n"));
    if (!toolSettings.isNull())
        QVERIFY(testenv::writeFile(exeDir.path() + "/config/proUpdateSet.ini", toolSettings));

    QTEST(startup::chooseLanguageCode(lanId, exeDir.path()), "expected");
}

QTEST_GUILESS_MAIN(tst_startup)
#include "tst_startup.moc"
