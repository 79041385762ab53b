#include "testenv.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A run on a project that is not on the stick: the start marker has been
// replaced by the failure marker, followed by every line the download showed.
const QByteArray kMissingProjectReport = QByteArrayLiteral(
    "[失败]\n"
    "正在校验工程数据的完整性...\n"
    "工程配置文件缺失，不能下载，可能原因：\n1.所选工程与触摸屏的平台不匹配。\n"
    "2.当前操作程序对应的U盘中工程数据文件不完整。\n建议：重新制作U盘综合功能包。\n"
    "3.当前操作程序对应的U盘松动或被拔出。\n\n"
    "工程数据完整性校验不通过!\n不能升级！\n");
const QByteArray kBuiltinHead = QByteArrayLiteral("[失败]\n正在校验工程数据的完整性...\n");
const QByteArray kFallbackMessage = QByteArrayLiteral("connect more than 20 seconds");
const QByteArray kChmodFailedMessage = QByteArrayLiteral("cmd exec failed...");

// A language whose failure marker and first progress line differ from the
// built-in ones; the markers keep their nine bytes.
const QByteArray kLanguage0003 =
    QByteArrayLiteral("[2107]\nstring = [Failed]\\n\n[2011]\nstring = Checking the package...\n");
const QByteArray kLanguage0003Head = QByteArrayLiteral("[Failed]\nChecking the package...\n");

// The texts with "${OUT}" and "${EXE}" replaced.
QStringList substitute(QStringList texts, const QString& out, const QString& exeDir)
{
    for (QString& text : texts)
        text.replace(QLatin1String("${OUT}"), out).replace(QLatin1String("${EXE}"), exeDir);
    return texts;
}

// The first string of a running process's command line, the program as started.
QByteArray commandOf(qint64 pid)
{
    const QByteArray cmdline = testenv::readFile(QStringLiteral("/proc/%1/cmdline").arg(pid));
    return cmdline.left(cmdline.indexOf('\0'));
}

// A fake display server for the stick: records its arguments on the panel. The
// padding makes it span several copy blocks.
QByteArray fakeServerScript()
{
    return QByteArrayLiteral("#!/bin/sh\n# ") + QByteArray(10000, 'x')
           + QByteArrayLiteral("\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/qwsserver.args\"\n");
}

// A Unix stream socket listening at `path` for as long as it lives.
struct ListeningSocket
{
    explicit ListeningSocket(const QString& socketPath)
        : path(QFile::encodeName(socketPath))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() < int(sizeof(address.sun_path)) && fd >= 0) {
            qstrcpy(address.sun_path, path.constData());
            listening = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
                        && listen(fd, 4) == 0;
        }
    }
    ~ListeningSocket()
    {
        close(fd);
        unlink(path.constData());
    }

    QByteArray path;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    bool listening = false;
};

} // namespace

class tst_executable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void directReport_data();
    void directReport();
    void stopsOtherCopies();
    void displayServer_data();
    void displayServer();
};

void tst_executable::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
}

// An unattended download of a project that is not on the stick: where its
// report goes, and in which language.
void tst_executable::directReport_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("report");
    QTest::addColumn<QByteArray>("earlierReport");
    QTest::addColumn<QString>("languageSetting"); // "-lanID", "panel" or "package" naming language 3; empty: none

    const QString out = QStringLiteral("${OUT}/pro_update_result.log");
    const QStringList direct = {"-s proj", "-p ${OUT}"};
    QTest::newRow("missing nested directory created")
        << QStringList{"-s proj", "-p ${OUT}/a/b"} << "${OUT}/a/b/pro_update_result.log" << QByteArray() << "";
    QTest::newRow("longer earlier report replaced") << direct << out << QByteArray(5000, 'O') << "";
    QTest::newRow("beside the executable") << QStringList{"-s proj"} << "${EXE}/pro_update_result.log"
                                           << QByteArray() << "";
    QTest::newRow("-p and its directory as two arguments")
        << QStringList{"-s proj", "-p", "${OUT}"} << "${EXE}/pro_update_result.log" << QByteArray() << "";
    QTest::newRow("-qws among the arguments")
        << QStringList{"-qws", "-s proj", "-qws", "-p ${OUT}"} << out << QByteArray() << "";
    QTest::newRow("given language") << direct + QStringList{"-lanID 0003"} << out << QByteArray() << "-lanID";
    QTest::newRow("panel's language") << direct << out << QByteArray() << "panel";
    QTest::newRow("package's language") << direct << out << QByteArray() << "package";
}

void tst_executable::directReport()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, report);
    QFETCH(QByteArray, earlierReport);
    QFETCH(QString, languageSetting);

    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    report = substitute({report}, out.path(), stick.packageDir()).first();
    if (!earlierReport.isNull())
        QVERIFY(testenv::writeFile(report, earlierReport));
    QVERIFY(testenv::writeFile(stick.packageDir() + "/language/0003.lan", kLanguage0003));
    if (languageSetting == QLatin1String("panel"))
        QVERIFY(testenv::writeFile(panel.path("/usr/kavo_app/project/lan_setup.ini"), "[current_language]\ntype=3\n"));
    if (languageSetting == QLatin1String("package"))
        QVERIFY(testenv::writeFile(stick.packageDir() + "/config/proUpdateSet.ini", "[tool_language]\ntype=3\n"));

    const testenv::RunResult run =
        testenv::runPackage(stick, panel.root(), substitute(arguments, out.path(), stick.packageDir()));
    QVERIFY(run.finished);
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 0);

    // The start marker was written first: the failure marker took its place.
    const QByteArray head = languageSetting.isEmpty() ? kBuiltinHead : kLanguage0003Head;
    QCOMPARE(testenv::readFile(report), head + kMissingProjectReport.mid(kBuiltinHead.size()));
}

// The package stops a running copy of itself, and nothing merely named alike
// (the naming rules themselves are tst_startup's).
void tst_executable::stopsOtherCopies()
{
    QTemporaryDir decoys;
    QVERIFY(decoys.isValid());
    const QString copyName = decoys.path() + "/opxupdateu_proj.bin";
    const QString oldName = decoys.path() + "/opxupdateu_proj.bin.old";
    QVERIFY(QFile::copy("/bin/sleep", copyName) && QFile::copy("/bin/sleep", oldName));
    QProcess copy;
    QProcess oldCopy;
    copy.start(copyName, {"600"});
    oldCopy.start(oldName, {"600"});
    QVERIFY(copy.waitForStarted() && oldCopy.waitForStarted());
    QTRY_VERIFY(commandOf(copy.processId()).endsWith("/opxupdateu_proj.bin"));
    QTRY_VERIFY(commandOf(oldCopy.processId()).endsWith("/opxupdateu_proj.bin.old"));

    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    const testenv::RunResult run = testenv::runPackage(stick, panel.root(), {"-s proj", "-p " + out.path()});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);

    QVERIFY(copy.waitForFinished(10000));
    QCOMPARE(copy.exitStatus(), QProcess::CrashExit);
    QCOMPARE(copy.exitCode(), SIGTERM);
    QCOMPARE(oldCopy.state(), QProcess::Running);
    oldCopy.kill();
    QVERIFY(oldCopy.waitForFinished());
}

void tst_executable::displayServer_data()
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

void tst_executable::displayServer()
{
    QFETCH(bool, serverAnswers);
    QFETCH(bool, serverOnStick);
    QFETCH(QString, panelDirName);
    QFETCH(bool, started);

    QTemporaryDir base;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(base.isValid() && stick.isValid() && out.isValid());
    const QString root = base.path() + "/" + panelDirName;
    const QString copied = root + "/tmp/qwsserver";
    const QString arguments = root + "/tmp/qwsserver.args";
    const QByteArray script = fakeServerScript();
    if (serverOnStick) {
        QVERIFY(testenv::writeFile(stick.packageDir() + "/qws/qwsserver", script));
        QVERIFY(QFile::setPermissions(stick.packageDir() + "/qws/qwsserver",
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    }
    QVERIFY(QDir().mkpath(root + "/tmp/qtembedded-0"));
    std::unique_ptr<ListeningSocket> server;
    if (serverAnswers) {
        server = std::make_unique<ListeningSocket>(root + "/tmp/qtembedded-0/QtEmbedded-0");
        QVERIFY(server->listening);
    }

    QElapsedTimer clock;
    clock.start();
    const testenv::RunResult run = testenv::runPackage(stick, root, {"-s proj", "-p " + out.path()});
    // The fallback starts on the first failed connect, not after 20 seconds.
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains(kFallbackMessage) != serverAnswers, run.out.constData());
    QCOMPARE(run.out.contains(kChmodFailedMessage), serverOnStick && !serverAnswers && !started);

    if (serverOnStick && !serverAnswers)
        QCOMPARE(testenv::readFile(copied), script);
    else
        QVERIFY(!QFile::exists(copied));
    QCOMPARE(QFileInfo(copied).isExecutable(), started);
    if (started) {
        QTRY_VERIFY_WITH_TIMEOUT(testenv::readFile(arguments).endsWith('\n'), 10000);
        QCOMPARE(testenv::readFile(arguments), QByteArray("-qws\n"));
    } else {
        QTest::qWait(500);
        QVERIFY(!QFile::exists(arguments));
    }
}

QTEST_GUILESS_MAIN(tst_executable)
#include "tst_executable.moc"
