#include "testenv.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

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

QString substitute(QString text, const QString& out, const QString& exeDir)
{
    return text.replace(QLatin1String("${OUT}"), out).replace(QLatin1String("${EXE}"), exeDir);
}

QStringList substitute(const QStringList& texts, const QString& out, const QString& exeDir)
{
    QStringList result;
    for (const QString& text : texts)
        result << substitute(text, out, exeDir);
    return result;
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
class ListeningSocket
{
public:
    explicit ListeningSocket(const QString& path)
        : m_path(QFile::encodeName(path))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (m_path.size() >= static_cast<int>(sizeof(address.sun_path)))
            return;
        qstrcpy(address.sun_path, m_path.constData());
        m_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (m_fd < 0)
            return;
        m_listening = bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
                      && listen(m_fd, 4) == 0;
    }
    ~ListeningSocket()
    {
        if (m_fd >= 0)
            close(m_fd);
        unlink(m_path.constData());
    }
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    bool isListening() const { return m_listening; }

private:
    QByteArray m_path;
    int m_fd = -1;
    bool m_listening = false;
};

} // namespace

class tst_executable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void directReport_data();
    void directReport();
    void languageReachesReport_data();
    void languageReachesReport();
    void stopsOtherCopies();
    void displayServerFallback_data();
    void displayServerFallback();
    void displayServerAnswers();
};

void tst_executable::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
}

void tst_executable::directReport_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("report");
    QTest::addColumn<QByteArray>("earlierReport");

    QTest::newRow("missing nested directory created")
        << QStringList{"-s proj", "-p ${OUT}/a/b"} << "${OUT}/a/b/pro_update_result.log" << QByteArray();
    QTest::newRow("earlier report replaced")
        << QStringList{"-s proj", "-p ${OUT}"} << "${OUT}/pro_update_result.log"
        << QByteArray("OLD REPORT FROM AN EARLIER RUN\nline two\n");
    QTest::newRow("beside the executable") << QStringList{"-s proj"} << "${EXE}/pro_update_result.log"
                                           << QByteArray();
    QTest::newRow("-p and its directory as two arguments")
        << QStringList{"-s proj", "-p", "${OUT}"} << "${EXE}/pro_update_result.log" << QByteArray();
    QTest::newRow("-qws among the arguments")
        << QStringList{"-qws", "-s proj", "-qws", "-p ${OUT}"} << "${OUT}/pro_update_result.log" << QByteArray();
}

void tst_executable::directReport()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, report);
    QFETCH(QByteArray, earlierReport);

    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    report = substitute(report, out.path(), stick.packageDir());
    if (!earlierReport.isNull())
        QVERIFY(testenv::writeFile(report, earlierReport));

    const testenv::RunResult run =
        testenv::runPackage(stick, panel.root(), substitute(arguments, out.path(), stick.packageDir()));
    QVERIFY(run.finished);
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 0);

    QCOMPARE(testenv::readFile(report), kMissingProjectReport);
}

void tst_executable::languageReachesReport_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("panelSetupDir"); // where the panel's lan_setup.ini (type 3) lies; null: none
    QTest::addColumn<QString>("projectDirEnv"); // KAVO_PROJECT_DIR; null: unset
    QTest::addColumn<bool>("packageSetting");   // config/proUpdateSet.ini with type 3
    QTest::addColumn<QByteArray>("head"); // the report's marker and first line

    const QString none;
    QTest::newRow("built-in table") << QStringList{} << none << none << false << kBuiltinHead;
    QTest::newRow("given language") << QStringList{"-lanID 0003"} << none << none << false << kLanguage0003Head;
    QTest::newRow("panel setting") << QStringList{} << "/usr/kavo_app/project" << none << false
                                   << kLanguage0003Head;
    QTest::newRow("panel setting in KAVO_PROJECT_DIR")
        << QStringList{} << "/elsewhere/project" << "/elsewhere/project" << false << kLanguage0003Head;
    QTest::newRow("panel setting outside KAVO_PROJECT_DIR ignored")
        << QStringList{} << "/usr/kavo_app/project" << "/elsewhere/project" << false << kBuiltinHead;
    QTest::newRow("package setting") << QStringList{} << none << none << true << kLanguage0003Head;
    QTest::newRow("given language without its file")
        << QStringList{"-lanID 0009"} << none << none << false << kBuiltinHead;
}

void tst_executable::languageReachesReport()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, panelSetupDir);
    QFETCH(QString, projectDirEnv);
    QFETCH(bool, packageSetting);
    QFETCH(QByteArray, head);

    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    QVERIFY(testenv::writeFile(stick.packageDir() + "/language/0003.lan", kLanguage0003));
    if (!panelSetupDir.isNull())
        QVERIFY(testenv::writeFile(panel.path(panelSetupDir + "/lan_setup.ini"), "[current_language]\ntype=3\n"));
    if (packageSetting)
        QVERIFY(testenv::writeFile(stick.packageDir() + "/config/proUpdateSet.ini", "[tool_language]\ntype=3\n"));
    QStringList env;
    if (!projectDirEnv.isNull())
        env << "KAVO_PROJECT_DIR=" + projectDirEnv;

    const testenv::RunResult run =
        testenv::runPackage(stick, panel.root(), arguments + QStringList{"-s proj", "-p " + out.path()}, env);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(testenv::readFile(out.path() + "/pro_update_result.log").left(head.size()), head);
}

void tst_executable::stopsOtherCopies()
{
    QTemporaryDir decoys;
    QVERIFY(decoys.isValid());
    const QString copyName = decoys.path() + "/opxupdateu_proj.bin";
    const QString oldName = decoys.path() + "/opxupdateu_proj.bin.old";
    QVERIFY(QFile::copy("/bin/sleep", copyName));
    QVERIFY(QFile::copy("/bin/sleep", oldName));

    QProcess copy;
    QProcess oldCopy;
    QProcess shell;
    copy.start(copyName, {"600"});
    oldCopy.start(oldName, {"600"});
    // The package's name only as a later argument; "read" keeps the shell
    // itself waiting, with no child left behind when it is killed.
    shell.start("sh", {"-c", "read line", "opxupdateu_proj.bin"});
    QVERIFY(copy.waitForStarted() && oldCopy.waitForStarted() && shell.waitForStarted());
    QTRY_VERIFY(commandOf(copy.processId()).endsWith("/opxupdateu_proj.bin"));
    QTRY_VERIFY(commandOf(oldCopy.processId()).endsWith("/opxupdateu_proj.bin.old"));
    QTRY_COMPARE(QFileInfo(QFile::decodeName(commandOf(shell.processId()))).fileName(), QStringLiteral("sh"));

    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    const testenv::RunResult run = testenv::runPackage(stick, panel.root(), {"-s proj", "-p " + out.path()});
    QVERIFY(run.finished);
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 0);

    QVERIFY(copy.waitForFinished(10000));
    QCOMPARE(copy.exitStatus(), QProcess::CrashExit);
    QCOMPARE(copy.exitCode(), SIGTERM);
    QCOMPARE(oldCopy.state(), QProcess::Running);
    QCOMPARE(shell.state(), QProcess::Running);

    oldCopy.kill();
    shell.kill();
    QVERIFY(oldCopy.waitForFinished() && shell.waitForFinished());
}

void tst_executable::displayServerFallback_data()
{
    QTest::addColumn<bool>("serverOnStick");
    QTest::addColumn<QString>("panelDirName");
    QTest::addColumn<bool>("started");

    QTest::newRow("server started from the stick") << true << "panel" << true;
    QTest::newRow("no server on the stick") << false << "panel" << false;
    // "chmod +x" splits the path at the blank and fails.
    QTest::newRow("chmod fails") << true << "panel root" << false;
}

void tst_executable::displayServerFallback()
{
    QFETCH(bool, serverOnStick);
    QFETCH(QString, panelDirName);
    QFETCH(bool, started);

    QTemporaryDir base;
    testenv::TempStick stick;
    QVERIFY(base.isValid() && stick.isValid());
    const QString root = base.path() + "/" + panelDirName;
    const QString copied = root + "/tmp/qwsserver";
    const QString arguments = root + "/tmp/qwsserver.args";
    const QByteArray script = fakeServerScript();
    if (serverOnStick) {
        QVERIFY(testenv::writeFile(stick.packageDir() + "/qws/qwsserver", script));
        QVERIFY(QFile::setPermissions(stick.packageDir() + "/qws/qwsserver",
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    }

    testenv::OptionSafeDir out;
    QElapsedTimer clock;
    clock.start();
    const testenv::RunResult run = testenv::runPackage(stick, root, {"-s proj", "-p " + out.path()});
    // The fallback starts on the first failed connect, not after 20 seconds.
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains(kFallbackMessage), run.out.constData());
    QCOMPARE(run.out.contains(kChmodFailedMessage), serverOnStick && !started);

    if (serverOnStick)
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

void tst_executable::displayServerAnswers()
{
    testenv::TempPanel panel;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(panel.isValid() && stick.isValid() && out.isValid());
    QVERIFY(testenv::writeFile(stick.packageDir() + "/qws/qwsserver", fakeServerScript()));
    QVERIFY(QDir().mkpath(panel.path("/tmp/qtembedded-0")));
    ListeningSocket server(panel.path("/tmp/qtembedded-0/QtEmbedded-0"));
    QVERIFY(server.isListening());

    const testenv::RunResult run = testenv::runPackage(stick, panel.root(), {"-s proj", "-p " + out.path()});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(!run.out.contains(kFallbackMessage), run.out.constData());
    QVERIFY(!QFile::exists(panel.path("/tmp/qwsserver")));
}

QTEST_GUILESS_MAIN(tst_executable)
#include "tst_executable.moc"
