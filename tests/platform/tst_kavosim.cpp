// The simulated panel's closed functions and their fault switches: directories,
// saved data, the stick, the runtime application, the configuration lock and
// the reboot.
#include "platform/kavo_api.h"
#include "platform/platform.h"
#include "testenv.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <QtTest>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testenv::readFile;
using testenv::writeFile;

namespace {

// Sets (or, with a null value, unsets) one environment variable for a scope.
struct EnvVar
{
    EnvVar(const char* n, const QByteArray& value) : name(n) { value.isNull() ? qunsetenv(name) : qputenv(name, value); }
    ~EnvVar() { had ? qputenv(name, previous) : qunsetenv(name); }
    const char* name;
    const bool had = qEnvironmentVariableIsSet(name);
    const QByteArray previous = qgetenv(name);
};

QByteArray local(const QString& path) { return QFile::encodeName(path); }

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// A small tree with the kinds of entries a panel directory may hold.
const QStringList kTree = {".hidden", "file.dat", "sub"};
bool fillTree(const QString& dir)
{
    return writeFile(dir + "/file.dat", "data") && writeFile(dir + "/.hidden", "h") && writeFile(dir + "/sub/deeper/file.txt", "x");
}

QChar processState(qint64 pid)
{
    const QByteArray stat = readFile(QString("/proc/%1/stat").arg(pid));
    const int close = stat.lastIndexOf(')');
    return close >= 0 && close + 2 < stat.size() ? QChar(stat.at(close + 2)) : QChar();
}

// A stand-in for the runtime application: lives until it is killed.
bool startSleeper(QProcess& process)
{
    process.start("sleep", {"30"});
    return process.waitForStarted();
}

bool writePid(const testenv::TempPanel& panel, const QByteArray& text)
{
    return writeFile(panel.path("/var/run/kavo_app.pid"), text);
}

// 1 while the runtime runs, 0 once it stopped (and the settings program is in
// front), -1 when the package's two questions get different answers.
int runtimeRuns()
{
    const int stopped = __check_application_state(0);
    return stopped != __check_application_state(1) ? -1 : stopped == 0 ? 1 : 0;
}

} // namespace

class tst_KavoSim : public QObject
{
    Q_OBJECT

private slots:
    void directories();
    void directoryTrees();
    void delSaveData_data();
    void delSaveData();
    void udiskOpen();
    void runtimeApplication();
    void fileLock();
    void reboot_data();
    void reboot();
};

void tst_KavoSim::directories()
{
    const QList<QPair<int, QString>> table = {{0, "/usr/kavo_app"}, {2, "/data"}, {3, "/usr/kavo_app/project"},
                                              {7, "/usr/kavo_app/font"}, {8, "/data/userfile"},
                                              {-1, ""}, {1, ""}, {4, ""}, {9, ""}, {100, ""}};
    {
        testenv::TempPanel panel;
        // Every text is fetched first: a caller may keep several at once.
        QList<const char*> texts;
        for (const auto& row : table)
            texts << Kavo_GetDirectory(row.first);
        for (int i = 0; i < table.size(); ++i)
            QCOMPARE(QString::fromUtf8(texts.at(i)), table.at(i).second.isEmpty() ? QString() : panel.root() + table.at(i).second);
    }
    EnvVar realPanel("KAVO_PANEL_ROOT", QByteArray());
    for (const auto& row : table)
        QCOMPARE(QString::fromUtf8(Kavo_GetDirectory(row.first)), row.second);
}

// Trees hold hidden files, a fifo and links to a tree outside: the links go
// with the tree, what they point to stays.
void tst_KavoSim::directoryTrees()
{
    QTemporaryDir dir;
    const QString d = dir.path();
    QCOMPARE(Kavo_CreateDirectory(local(d + "/new//deeper/").constData()), 0);
    QVERIFY(QFileInfo(d + "/new/deeper").isDir());
    QCOMPARE(Kavo_CreateDirectory(local(d + "/new").constData()), 0);
    QVERIFY(writeFile(d + "/file", "f"));
    QCOMPARE(Kavo_CreateDirectory(local(d + "/file/sub").constData()), -1);
    for (int (*function)(const char*) : {Kavo_CreateDirectory, Kavo_DeleteDirectory}) {
        QCOMPARE(function(""), -1);
        QCOMPARE(function(nullptr), -1);
    }

    const QString outside = d + "/outside";
    const QString tree = d + "/tree";
    QVERIFY(fillTree(outside) && fillTree(tree));
    QVERIFY(QFile::link(outside, tree + "/dirlink") && QFile::link(outside + "/file.dat", tree + "/sub/filelink"));
    QCOMPARE(mkfifo(local(tree + "/fifo").constData(), 0600), 0);
    {
        EnvVar fault("KAVO_SIM_DELETEDIR_FAIL", "1");
        QCOMPARE(Kavo_DeleteDirectory(local(tree).constData()), -1);
        QCOMPARE(entries(tree), QStringList({".hidden", "dirlink", "fifo", "file.dat", "sub"}));
    }
    EnvVar switchedOff("KAVO_SIM_DELETEDIR_FAIL", "0");
    QCOMPARE(Kavo_DeleteDirectory(local(tree + "/").constData()), 0);
    QVERIFY(!QFileInfo::exists(tree));
    QCOMPARE(entries(outside), kTree);
    QCOMPARE(readFile(outside + "/sub/deeper/file.txt"), QByteArray("x"));
    QCOMPARE(Kavo_DeleteDirectory(local(d + "/missing/too").constData()), 0);
}

void tst_KavoSim::delSaveData_data()
{
    QTest::addColumn<int>("mask");
    QTest::addColumn<QByteArray>("fault"); // KAVO_SIM_DELSAVEDATA_FAIL; null: unset
    QTest::addColumn<int>("expected");
    QTest::addColumn<int>("emptied"); // categories found empty afterwards
    QTest::newRow("recipe") << 1 << QByteArray() << 0 << 1;
    QTest::newRow("all four") << 15 << QByteArray() << 0 << 15;
    QTest::newRow("unknown bits with recipe") << 0x31 << QByteArray() << 0 << 1;
    QTest::newRow("history fails of three") << 7 << QByteArray("2") << 2 << 5;
    QTest::newRow("hexadecimal fault mask") << 15 << QByteArray("0xc") << 12 << 3;
    QTest::newRow("fault not a number") << 15 << QByteArray("x") << 0 << 15;
}

void tst_KavoSim::delSaveData()
{
    QFETCH(int, mask);
    QFETCH(QByteArray, fault);
    QFETCH(int, expected);
    QFETCH(int, emptied);
    testenv::TempPanel panel;
    const QStringList categories = {"/data/recipe", "/data/history", "/data/alarm", "/data/initvalue"};
    for (const QString& dir : categories + QStringList("/data/userfile"))
        QVERIFY(fillTree(panel.path(dir)));
    EnvVar variable("KAVO_SIM_DELSAVEDATA_FAIL", fault);

    QCOMPARE(Kavo_DelSaveData(mask, 0), expected);
    for (int i = 0; i < categories.size(); ++i) {
        const QString dir = panel.path(categories.at(i));
        QVERIFY2(QFileInfo(dir).isDir(), qPrintable(dir));
        QCOMPARE(entries(dir), (emptied & (1 << i)) != 0 ? QStringList() : kTree);
    }
    QCOMPARE(entries(panel.path("/data/userfile")), kTree);
}

void tst_KavoSim::udiskOpen()
{
    QTemporaryDir stick;
    QVERIFY(QDir().mkpath(stick.path() + "/opxbackup"));
    {
        EnvVar udisk("KAVO_UDISK_ROOT", local(stick.path()));
        const int fd = Kavo_udisk_open("opxbackup/KavoBackupProject.bin", O_WRONLY | O_CREAT | O_TRUNC, 0777);
        QVERIFY(fd >= 0);
        QCOMPARE(write(fd, "abc", 3), ssize_t(3));
        close(fd);
        QCOMPARE(readFile(stick.path() + "/opxbackup/KavoBackupProject.bin"), QByteArray("abc"));
        errno = 0;
        QCOMPARE(Kavo_udisk_open("missing/KavoBackupProject.bin", O_RDONLY, 0), -1);
        QCOMPARE(errno, ENOENT);
    }
    // Without KAVO_UDISK_ROOT (or with it empty) the stick is the package
    // root: the parent of the directory holding the executable.
    const QFileInfo self(QCoreApplication::applicationFilePath());
    struct stat expected;
    QCOMPARE(stat(local(self.filePath()).constData(), &expected), 0);
    for (const QByteArray& value : {QByteArray(), QByteArray("")}) {
        EnvVar udisk("KAVO_UDISK_ROOT", value);
        const int fd = Kavo_udisk_open(local(self.dir().dirName() + "/" + self.fileName()).constData(), O_RDONLY, 0);
        QVERIFY(fd >= 0);
        struct stat opened;
        QCOMPARE(fstat(fd, &opened), 0);
        close(fd);
        QVERIFY(opened.st_ino == expected.st_ino && opened.st_dev == expected.st_dev);
    }
}

// The runtime application is whatever the pid file names while that process
// lives. A damaged file never names init or a process group, asking never
// signals anything, and a stop is a SIGTERM unless KAVO_SIM_REFUSE_STOP is set.
void tst_KavoSim::runtimeApplication()
{
    testenv::TempPanel panel;
    QProcess runtime;
    QProcess ended;
    QVERIFY(startSleeper(runtime) && startSleeper(ended));
    const QByteArray live = QByteArray::number(runtime.processId());
    const QByteArray stale = QByteArray::number(ended.processId());
    ended.kill();
    QVERIFY(ended.waitForFinished());
    fflush(nullptr);
    const pid_t zombie = fork();
    if (zombie == 0)
        _exit(0);
    QVERIFY(zombie > 0);
    QElapsedTimer timer;
    timer.start();
    while (processState(zombie) != 'Z' && timer.elapsed() < 5000)
        QThread::msleep(10);
    QCOMPARE(processState(zombie), QChar('Z'));

    QCOMPARE(runtimeRuns(), 0); // no pid file
    QCOMPARE(__notify_stop_application(0), 0); // nothing runs: accepted, nothing to do
    const QList<QPair<QByteArray, int>> pidFiles = {
        {live + "\n", 1}, {"  " + live + "  \n", 1}, {"", 0}, {stale, 0}, {QByteArray::number(zombie), 0},
        {live + " 1", 0}, {"-" + live, 0}, {"kavo_app", 0}, {"0", 0}, {"1", 0}, {"99999999999", 0}};
    for (const auto& pidFile : pidFiles) {
        QVERIFY(writePid(panel, pidFile.first));
        QVERIFY2(runtimeRuns() == pidFile.second, pidFile.first.constData());
    }
    QCOMPARE(waitpid(zombie, nullptr, 0), zombie);
    QCOMPARE(runtime.state(), QProcess::Running);

    QVERIFY(writePid(panel, live));
    {
        EnvVar refuse("KAVO_SIM_REFUSE_STOP", "1");
        QCOMPARE(__notify_stop_application(0), -1);
        QVERIFY(!runtime.waitForFinished(300));
    }
    QCOMPARE(__notify_stop_application(0), 0);
    // Polled the way the package polls: sleeping, without an event loop, so
    // the ended process may not be reaped yet.
    timer.restart();
    while (runtimeRuns() != 0 && timer.elapsed() < 5000)
        QThread::msleep(20);
    QCOMPARE(runtimeRuns(), 0);
    QVERIFY(runtime.waitForFinished(5000));
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
}

// The lock the settings program shares: held while a locker lives, released
// with it, never inherited by children.
void tst_KavoSim::fileLock()
{
    testenv::TempPanel panel;
    const QByteArray path = local(panel.path("/tmp/kavo_app_conf.lck"));
    TOOL::COMMON::FileLock lock(path.constData());
    QVERIFY(lock.fd() >= 0 && (fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC) != 0);
    const int other = open(path.constData(), O_RDONLY | O_CLOEXEC); // the settings program's side
    QVERIFY(other >= 0);
    QCOMPARE(flock(other, LOCK_SH | LOCK_NB), 0); // opening alone takes no lock
    QCOMPARE(flock(other, LOCK_UN), 0);
    {
        TOOL::COMMON::FileLocker locker(lock);
        QVERIFY(locker.locked());
        QCOMPARE(flock(other, LOCK_SH | LOCK_NB), -1);
    }
    QCOMPARE(flock(other, LOCK_EX | LOCK_NB), 0);
    close(other);

    TOOL::COMMON::FileLock missing(local(panel.path("/missing/dir/kavo_app_conf.lck")).constData());
    TOOL::COMMON::FileLocker locker(missing);
    QVERIFY(missing.fd() == -1 && !locker.locked());
    QCOMPARE(TOOL::COMMON::FileLock(nullptr).fd(), -1);
}

void tst_KavoSim::reboot_data()
{
    QTest::addColumn<QByteArray>("errnoValue"); // KAVO_SIM_REBOOT_ERRNO; null: unset
    QTest::addColumn<QString>("varRun");        // "dir", "missing" or "file"
    QTest::addColumn<int>("exitStatus");        // 0, or 100 + errno of a failed reboot
    QTest::newRow("reboot") << QByteArray() << "dir" << 0;
    QTest::newRow("var/run created") << QByteArray() << "missing" << 0;
    QTest::newRow("errno 5") << QByteArray("5") << "dir" << 105;
    QTest::newRow("var/run is a file") << QByteArray() << "file" << 100 + ENOTDIR;
}

// Two reboots, each in a child process: a successful one ends its process and
// appends to the record.
void tst_KavoSim::reboot()
{
    QFETCH(QByteArray, errnoValue);
    QFETCH(QString, varRun);
    QFETCH(int, exitStatus);
    testenv::TempPanel panel;
    if (varRun != "dir")
        QVERIFY(QDir(panel.path("/var")).removeRecursively());
    if (varRun == "file")
        QVERIFY(writeFile(panel.path("/var/run"), "x"));
    EnvVar variable("KAVO_SIM_REBOOT_ERRNO", errnoValue);

    for (int call = 0; call < 2; ++call) {
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) // only a failed reboot comes back; anything but -1 is wrong
            _exit(platform::rebootPanel() == -1 ? 100 + errno : 99);
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), exitStatus);
    }
    QCOMPARE(readFile(panel.path("/var/run/reboot-requested")), exitStatus == 0 ? QByteArray("reboot\nreboot\n") : QByteArray());
}

QTEST_GUILESS_MAIN(tst_KavoSim)
#include "tst_kavosim.moc"
