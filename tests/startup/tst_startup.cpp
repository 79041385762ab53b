// Start-up: options, package processes and a failed resume's box in process; the executable starting the
// display server from the stick when none answers (its downloads and stops are tst_download_e2e's).
#include "app/runmodes.h"
#include "app/startup.h"

#include "boxanswerer.h"
#include "testenv.h"
#include "tools/kit/stick.h"

#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class tst_startup : public QObject
{
    Q_OBJECT

private slots:
    void parseOptions_data();
    void parseOptions();
    void findPackageProcesses();
    void resumeFailedBox();
    void displayServer_data();
    void displayServer();
};

void tst_startup::parseOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("parsed"); // haveProject haveDirect projectResult|projectArg|resultDir|lanId
    auto row = [](const char* name, const QStringList& arguments, const QString& parsed) { QTest::newRow(name) << arguments << parsed; };
    row("no options", {}, "0 0 -1|||");
    row("direct with report dir", {"-s my proj", "-p /out/dir"}, "0 1 -1|my proj|/out/dir|");
    row("values as their own arguments", {"-s", "proj", "-p", "/out"}, "0 1 -1|||");
    row("resume, also read as -p", {"-project 0 /mnt/my proj"}, "1 0 0|/mnt/my proj|0 /mnt/my proj|");
    row("resume, result not a number", {"-project x /mnt/p"}, "1 0 0|/mnt/p|x /mnt/p|");
    row("resume without path", {"-project 5"}, "1 0 5||5|");
    row("resume path holding -s", {"-project 0 /mnt/usb-stick/p"}, "1 1 0|0 /mnt/usb-stick/p|0 /mnt/usb-stick/p|");
    row("direct project named like -project", {"-s my-project"}, "1 1 0|my-project|my-project|");
    row("direct project name holding -p", {"-s my-proj"}, "0 1 -1|my-proj|my-proj|");
    row("language, extra pieces", {"-lanID 0012 x"}, "0 0 -1|||0012");
    row("language after two blanks", {"-lanID  0003"}, "0 0 -1|||");
    row("case matters", {"-S proj", "-P /out", "-LANID 0001", "-PROJECT 0 /p"}, "0 0 -1|||");
    row("later argument wins", {"-s a", "-s b", "-p /x", "-p /y"}, "0 1 -1|b|/y|");
    row("-qws kept, resume with language", {"-qws", "-project 0 /p", "-lanID 0002"}, "1 0 0|/p|0 /p|0002");
}

void tst_startup::parseOptions()
{
    QFETCH(QStringList, arguments);
    startup::StartupOptions o;
    startup::parseOptions(arguments, o);
    QTEST(QString("%1 %2 %3|%4|%5|%6").arg(o.haveProject).arg(o.haveDirect).arg(o.projectResult).arg(o.projectArg, o.resultDir, o.lanId), "parsed");
}

// A /proc stand-in: only a first string naming the executable counts, in 255 bytes.
void tst_startup::findPackageProcesses()
{
    QTemporaryDir proc;
    const QList<QPair<QString, QByteArray>> entries = {{"101", QByteArray("/mnt/usb/opxupdateu/opxupdateu_proj.bin\0-s p\0", 45)},
        {"102", "opxupdateu_proj.bin"}, {"201", QByteArray("/mnt/opxupdateu_proj.bin.old\0", 29)}, {"202", QByteArray("sh\0opxupdateu_proj.bin\0", 23)},
        {"203", ""}, {"204", "/" + QByteArray(250, 'd') + "/opxupdateu_proj.bin"}, {"self", "opxupdateu_proj.bin"}};
    for (const auto& entry : entries)
        QVERIFY(testenv::writeFile(proc.path() + "/" + entry.first + "/cmdline", entry.second) && QDir().mkpath(proc.path() + "/205"));
    std::vector<pid_t> found = startup::findPackageProcesses(proc.path());
    std::sort(found.begin(), found.end());
    QVERIFY(found == (std::vector<pid_t>{101, 102}) && startup::findPackageProcesses(proc.path(), 1).size() == 1);
}

void tst_startup::resumeFailedBox()
{
    QVERIFY(testenv::loadBuiltinTexts());
    testenv::BoxAnswerer answerer;
    QVERIFY(runmodes::runResumeFailed(37) == 37 && answerer.seen().size() == 1);
    const testenv::SeenBox& box = answerer.seen().first();
    QCOMPARE(box.title + '|' + box.text + '|' + box.buttons.join('|'), "提示|更新运行环境失败，请检查：\n1、U盘是否松动；\n2、升级包是否正确；\n3、确认后重试。|确认");
    QVERIFY(box.icon == QMessageBox::Information && box.parent == nullptr && box.flags.testFlag(Qt::WindowStaysOnTopHint));
}

void tst_startup::displayServer_data()
{
    QTest::addColumn<bool>("serverAnswers");
    QTest::addColumn<bool>("serverOnStick");
    QTest::addColumn<QString>("panelDirName");
    QTest::addColumn<bool>("started");
    QTest::newRow("server answers") << true << true << "panel" << false;
    QTest::newRow("server started from the stick") << false << true << "panel" << true;
    QTest::newRow("no server on the stick") << false << false << "panel" << false;
    // "chmod +x" splits the path at the blank and fails.
    QTest::newRow("chmod fails") << false << true << "panel root" << false;
}

void tst_startup::displayServer()
{
    QFETCH(bool, serverAnswers);
    QFETCH(bool, serverOnStick);
    QFETCH(QString, panelDirName);
    QFETCH(bool, started);
    QTemporaryDir stick;
    testenv::OptionSafeDir out; // the report's directory, with the panel inside
    QVERIFY(kit::writePackage(stick.path(), {qEnvironmentVariable("OPX_EXECUTABLE"), {}}));
    const QString root = out.path() + "/" + panelDirName;
    // It spans several copy blocks and records its arguments on the panel.
    const QByteArray script = "#!/bin/sh\n# " + QByteArray(10000, 'x')
                              + "\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/qwsserver.args\"\n";
    const QString server = stick.path() + "/opxupdateu/qws/qwsserver";
    QVERIFY(!serverOnStick || (testenv::writeFile(server, script) && QFile::setPermissions(server, QFile::ReadOwner | QFile::ExeOwner)));
    QVERIFY(QDir().mkpath(root + "/tmp/qtembedded-0"));
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, QFile::encodeName(root + "/tmp/qtembedded-0/QtEmbedded-0").constData(), sizeof address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    QVERIFY(!serverAnswers || (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 4) == 0));

    // The fallback starts on the first failed connect, not after 20 seconds.
    QProcess run;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KAVO_PANEL_ROOT", root);
    run.setProcessEnvironment(env);
    run.setWorkingDirectory(stick.path());
    run.start(stick.path() + "/opxupdateu/opxupdateu_proj.bin", {"-s proj", "-p " + out.path()});
    QVERIFY(run.waitForFinished(10000) && run.exitStatus() == QProcess::NormalExit && run.exitCode() == 0);
    close(fd);
    const QByteArray printed = run.readAllStandardOutput();
    QCOMPARE(printed.contains("connect more than 20 seconds"), !serverAnswers);
    QCOMPARE(printed.contains("cmd exec failed..."), serverOnStick && !serverAnswers && !started);
    QCOMPARE(testenv::readFile(root + "/tmp/qwsserver"), serverOnStick && !serverAnswers ? script : QByteArray());
    QCOMPARE(QFileInfo(root + "/tmp/qwsserver").isExecutable(), started);
    QTest::qWait(started ? 0 : 500); // a server started by mistake would have written its arguments by then
    QTRY_COMPARE_WITH_TIMEOUT(testenv::readFile(root + "/tmp/qwsserver.args"), QByteArray(started ? "-qws\n" : ""),
                              10000);
}

QTEST_MAIN(tst_startup)
#include "tst_startup.moc"
