// The platform layer on a simulated panel: relocation of panel-side paths
// under KAVO_PANEL_ROOT, and the closed functions with their fault switches.
#include "platform/kavo_api.h"
#include "platform/platform.h"
#include "testenv.h"

#include <QProcess>
#include <QScopeGuard>
#include <QtTest>

#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

class tst_Platform : public QObject
{
    Q_OBJECT

private slots:
    void panelPaths_data();
    void panelPaths();
    void relativeRoot();
    void simulatedFunctions_data();
    void simulatedFunctions();

private:
    QProcess m_runtime; // the runtime application's stand-in
};

void tst_Platform::panelPaths_data()
{
    QTest::addColumn<QByteArray>("root"); // null: unset
    QTest::addColumn<QString>("path");    // "confine:" + path: confinedPanelPath
    QTest::addColumn<QString>("expected");
    const QString r = "/tmp/panel-root", ini = "/usr/kavo_app/update.ini";
    // ".." never climbs out of a simulated panel; the refused form lies below
    // a device file, where nothing can be created or opened.
    const QString refused = "/dev/null/outside-panel-root";
    const QByteArray rb = r.toUtf8();
    QTest::newRow("unset root") << QByteArray() << ini << ini;
    QTest::newRow("root is /") << QByteArray("/") << ini << ini;
    QTest::newRow("absolute") << rb << ini << r + ini;
    QTest::newRow("root with trailing /, path with one") << rb + "/" << "/usr/kavo_app/" << r + "/usr/kavo_app/";
    QTest::newRow("relative path") << rb << "language/0000.lan" << "language/0000.lan";
    QTest::newRow("//proc/1/cmdline") << rb << "//proc/1/cmdline" << "//proc/1/cmdline";
    QTest::newRow("/procfoo relocated") << rb << "/procfoo" << r + "/procfoo";
    QTest::newRow(".. inside kept") << rb << "/usr/../tmp/x" << r + "/usr/../tmp/x";
    QTest::newRow(".. out, trailing / kept") << rb << "//tmp/./../../" << refused + "/";
    QTest::newRow(".. out through /proc") << rb << "/proc/../../etc/passwd" << refused;
    QTest::newRow(".. on the panel itself") << QByteArray() << "/../x" << "/../x";
    QTest::newRow("UTF-8 root and path") << QByteArray("/tmp/面板") << "/data/用户" << "/tmp/面板/data/用户";
    // A package file's name joined to its relocated destination stays inside.
    QTest::newRow("confined inside") << rb << "confine:" + r + "/d/x/../y.dat" << r + "/d/x/../y.dat";
    QTest::newRow("confined, name climbs out") << rb << "confine:" + r + "/d/x/../../../esc.dat" << refused;
    QTest::newRow("confined, beside the root") << rb << "confine:" + r + "-other/d/y.dat" << refused;
    QTest::newRow("confined on the panel itself") << QByteArray() << "confine:/d/../../e.dat" << "/d/../../e.dat";
}

void tst_Platform::panelPaths()
{
    QFETCH(QByteArray, root);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    root.isNull() ? qunsetenv("KAVO_PANEL_ROOT") : qputenv("KAVO_PANEL_ROOT", root);
    const auto restore = qScopeGuard([] { qunsetenv("KAVO_PANEL_ROOT"); });
    QCOMPARE(platform::panelRoot(), QString::fromUtf8(root).remove(QRegularExpression("/$")));
    if (path.startsWith("confine:"))
        QCOMPARE(platform::confinedPanelPath(path.mid(8)), expected);
    else
        QCOMPARE(platform::panelPath(path) + '|' + QString::fromStdString(platform::panelPath(path.toUtf8().constData())), expected + '|' + expected);
}

// The package changes its working directory after start: a relative root
// keeps the place it named at its first use.
void tst_Platform::relativeRoot()
{
    QTemporaryDir first, second;
    const QString start = QDir::currentPath(), root = first.path() + "/sim-panel";
    qputenv("KAVO_PANEL_ROOT", "sim-panel");
    const auto restore = qScopeGuard([start] { qunsetenv("KAVO_PANEL_ROOT"), QDir::setCurrent(start); });
    QVERIFY(QDir::setCurrent(first.path()) && platform::panelPath(QStringLiteral("/usr")) == root + "/usr" && QDir::setCurrent(second.path()));
    QCOMPARE(QString::fromStdString(platform::panelPath("/usr")) + platform::panelPath(static_cast<const char*>(nullptr)).c_str(), root + "/usr");
}

// Each row makes calls, a line apart: "dirs", "create PATH", "delete PATH",
// "delsave MASK", "stick PATH" (writes "abc" there), "pid TEXT" (the runtime's
// pid file, then whether it runs), "stop", "reboot", "failedreboot" (errno).
// {R} is the panel root.
void tst_Platform::simulatedFunctions_data()
{
    QTest::addColumn<QString>("calls");
    QTest::addColumn<QString>("env");        // "NAME=value"
    QTest::addColumn<QString>("expected");   // what the calls gave, a blank apart
    QTest::addColumn<QStringList>("checks"); // "path" exists, "!path" does not, "path=content"
    auto row = [](const char* name, const QString& calls, const QString& env, const QString& expected,
                  const QStringList& checks = {}) { QTest::newRow(name) << calls << env << expected << checks; };
    row("directories", "dirs", "", "|{R}/usr/kavo_app||{R}/data|{R}/usr/kavo_app/project|{R}/usr/kavo_app/font|{R}/data/userfile|");
    row("create with missing parents", "create {R}/new//deeper/\ncreate {R}/new", "", "0 0", {"new/deeper"});
    row("create below a file, or nothing", "create {R}/tree/f/sub\ncreate \ndelete ", "", "-1 -1 -1 -1 -1");
    // Links go with the tree; what they point to stays.
    row("delete a tree", "delete {R}/tree/\ndelete {R}/missing/too", "KAVO_SIM_DELETEDIR_FAIL=0", "0 0", {"!tree", "data/f", "data/sub/f"});
    row("delete fails", "delete {R}/tree", "KAVO_SIM_DELETEDIR_FAIL=1", "-1", {"tree/fifo", "tree/dirlink", "tree/f"});
    row("saved data", "delsave 49", "", "0", {"data/recipe", "!data/recipe/f", "!data/recipe/sub", "data/history/f"});
    row("saved data, all four", "delsave 15", "KAVO_SIM_DELSAVEDATA_FAIL=x", "0", {"!data/history/f", "!data/alarm/f", "!data/initvalue/f"});
    row("saved data, faults", "delsave 7", "KAVO_SIM_DELSAVEDATA_FAIL=0xa", "2", {"!data/recipe/f", "data/history/f", "!data/alarm/f"});
    row("stick", "stick opxbackup/b.bin\nstick missing/b.bin", "KAVO_UDISK_ROOT={R}", "0 -1", {"opxbackup/b.bin=abc"});
    // Without KAVO_UDISK_ROOT the stick is the parent of the executable's directory.
    row("stick of the executable", "stick " + QFileInfo(QCoreApplication::applicationDirPath()).fileName() + "/b.bin", "", "0");
    row("file lock", "lock", "", "1 0 0 -1 0 0");
    // The runtime is whatever the pid file names while that process lives; a
    // damaged file never names init or a process group.
    row("runtime by its pid file", "stop\npid {live}\npid  {live} \npid \npid {live} 1\npid -{live}\npid 1\npid 0\npid 99999999999", "", "0 0 1 1 0 0 0 0 0 0");
    row("stop refused", "pid {live}\nstop", "KAVO_SIM_REFUSE_STOP=1", "1 -1 1");
    row("stop", "pid {live}\nstop", "", "1 0 0");
    row("reboot creates var/run", "reboot\nreboot", "RUN=none", "0 0", {"var/run/reboot-requested=reboot\nreboot\n"});
    row("reboot fails with errno 5", "failedreboot", "KAVO_SIM_REBOOT_ERRNO=5", "5", {"!var/run/reboot-requested"});
    row("reboot cannot record", "failedreboot", "RUN=file", QString::number(ENOTDIR));
}

void tst_Platform::simulatedFunctions()
{
    QFETCH(QString, calls);
    QFETCH(QString, env);
    QFETCH(QString, expected);
    QFETCH(QStringList, checks);
    testenv::TempPanel panel;
    const QString r = panel.root();
    for (const char* dir : {"/data/recipe", "/data/history", "/data/alarm", "/data/initvalue", "/tree", "/data"})
        QVERIFY(testenv::writeFile(r + dir + "/f", "f") && testenv::writeFile(r + dir + "/sub/f", "f"));
    QVERIFY(QFile::link(r + "/data", r + "/tree/dirlink") && QFile::link(r + "/data/f", r + "/tree/sub/link"));
    QVERIFY(mkfifo(QFile::encodeName(r + "/tree/fifo").constData(), 0600) == 0 && QDir().mkpath(r + "/opxbackup"));
    QVERIFY(env != "RUN=none" || QDir(r + "/var").removeRecursively());
    QVERIFY(env != "RUN=file" || (QDir(r + "/var").removeRecursively() && testenv::writeFile(r + "/var/run", "x")));
    const QByteArray name = env.section('=', 0, 0).toUtf8();
    qputenv(name.constData(), QString(env.section('=', 1)).replace("{R}", r).toUtf8());
    const auto restore = qScopeGuard([name] { qunsetenv(name.constData()); });
    if (m_runtime.state() == QProcess::NotRunning)
        m_runtime.start("sleep", {"30"});
    QVERIFY(m_runtime.waitForStarted());

    QStringList result;
    const auto put = [&result](int value) { result << QString::number(value); };
    for (const QString& call : calls.split('\n')) {
        const QString verb = call.section(' ', 0, 0);
        const QByteArray arg = call.section(' ', 1).replace("{R}", r).replace("{live}", QString::number(m_runtime.processId())).toUtf8();
        if (verb == "dirs") {
            const char* kept[] = {Kavo_GetDirectory(-1), Kavo_GetDirectory(0), Kavo_GetDirectory(1), Kavo_GetDirectory(2), Kavo_GetDirectory(3),
                                  Kavo_GetDirectory(7), Kavo_GetDirectory(8), Kavo_GetDirectory(9)}; // a caller may keep several at once
            result << QStringList(std::begin(kept), std::end(kept)).join('|');
        } else if (verb == "create" || verb == "delete") {
            const auto function = verb == "create" ? Kavo_CreateDirectory : Kavo_DeleteDirectory;
            put(function(arg.isEmpty() ? nullptr : arg.constData()));
            if (arg.isEmpty())
                put(function(""));
        } else if (verb == "delsave") {
            put(Kavo_DelSaveData(arg.toInt(), 0));
        } else if (verb == "stick") {
            const int fd = Kavo_udisk_open(arg.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            put(fd >= 0 && write(fd, "abc", 3) == 3 && close(fd) == 0 ? 0 : -1);
            QVERIFY(!env.isEmpty() || QFile::remove(QCoreApplication::applicationDirPath() + "/b.bin"));
        } else if (verb == "pid") {
            QVERIFY(testenv::writeFile(r + "/var/run/kavo_app.pid", arg));
            put(__check_application_state(0) == 0 ? 1 : 0);
            QCOMPARE(__check_application_state(1), __check_application_state(0));
        } else if (verb == "stop") { // polled as the package polls: sleeping, without reaping
            put(__notify_stop_application(0));
            for (int i = 0; i < 50 && __check_application_state(0) == 0; ++i)
                QThread::msleep(20);
            put(__check_application_state(0) == 0 ? 1 : 0);
        } else if (verb == "lock") { // held while a locker lives, never inherited; none without a file
            TOOL::COMMON::FileLock lock(QFile::encodeName(r + "/tmp/kavo_app_conf.lck").constData()), missing(QFile::encodeName(r + "/no/x").constData());
            const int other = open(QFile::encodeName(r + "/tmp/kavo_app_conf.lck").constData(), O_RDONLY | O_CLOEXEC);
            put((fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC) != 0), put(flock(other, LOCK_SH | LOCK_NB)), put(flock(other, LOCK_UN));
            auto locker = std::make_unique<TOOL::COMMON::FileLocker>(lock);
            put(flock(other, LOCK_EX | LOCK_NB)), locker.reset(), put(flock(other, LOCK_EX | LOCK_NB));
            put(TOOL::COMMON::FileLocker(missing).locked() || TOOL::COMMON::FileLock(nullptr).fd() != -1);
            close(other);
        } else if (verb == "reboot") { // in a child, which a reboot ends with status 0
            fflush(nullptr);
            const pid_t child = fork();
            if (child == 0)
                _exit(platform::rebootPanel() == -1 ? 100 + errno : 99);
            int status = 0;
            put(waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        } else if (verb == "failedreboot") {
            put(platform::rebootPanel() == -1 ? errno : 0);
        }
    }
    QCOMPARE(result.join(' '), expected.replace("{R}", r));
    for (const QString& check : checks) {
        const QString path = r + '/' + check.section('=', 0, 0).remove(QRegularExpression("^!"));
        QVERIFY2((QFileInfo::exists(path) || QFileInfo(path).isSymLink()) != check.startsWith('!'), qPrintable(check));
        QVERIFY2(!check.contains('=') || testenv::readFile(path) == check.section('=', 1).toUtf8(), qPrintable(check));
    }
}

QTEST_GUILESS_MAIN(tst_Platform)
#include "tst_platform.moc"
