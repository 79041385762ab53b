// The simulated panel's closed functions: directories, saved data, the stick,
// the runtime application, the configuration lock and the reboot.
#include "platform/kavo_api.h"
#include "platform/platform.h"
#include "testenv.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
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

namespace {

// Sets (or, with a null value, unsets) one environment variable for a scope.
class EnvVar
{
public:
    EnvVar(const char* name, const QByteArray& value)
        : m_name(name)
        , m_had(qEnvironmentVariableIsSet(name))
        , m_previous(qgetenv(name))
    {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~EnvVar()
    {
        if (m_had)
            qputenv(m_name, m_previous);
        else
            qunsetenv(m_name);
    }
    EnvVar(const EnvVar&) = delete;
    EnvVar& operator=(const EnvVar&) = delete;

private:
    const char* m_name;
    bool m_had;
    QByteArray m_previous;
};

QByteArray utf8(const QString& path)
{
    return path.toUtf8();
}

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// A small tree with the kinds of entries a panel directory may hold.
bool fillTree(const QString& dir)
{
    return testenv::writeFile(dir + "/file.dat", "data") && testenv::writeFile(dir + "/.hidden", "h")
           && testenv::writeFile(dir + "/sub/deeper/file.txt", "x");
}

QChar processState(qint64 pid)
{
    const QByteArray stat = testenv::readFile(QString("/proc/%1/stat").arg(pid));
    const int close = stat.lastIndexOf(')');
    return close >= 0 && close + 2 < stat.size() ? QChar(stat.at(close + 2)) : QChar();
}

bool writePid(const testenv::TempPanel& panel, const QByteArray& text)
{
    return testenv::writeFile(panel.path("/var/run/kavo_app.pid"), text);
}

bool runtimeStopped()
{
    return __check_application_state(0) != 0 && __check_application_state(1) != 0;
}

bool runtimeRuns()
{
    return __check_application_state(0) == 0 && __check_application_state(1) == 0;
}

} // namespace

class tst_KavoSim : public QObject
{
    Q_OBJECT

private slots:
    void directories_data();
    void directories();
    void directoriesStayApart();
    void createDirectory_data();
    void createDirectory();
    void deleteDirectory_data();
    void deleteDirectory();
    void deleteKeepsLinkTargets();
    void delSaveData_data();
    void delSaveData();
    void delSaveDataOddCategories();
    void udiskOpen();
    void runtimeState_data();
    void runtimeState();
    void stopRuntime();
    void refusedStop();
    void fileLock();
    void fileLockWithoutFile();
    void reboot_data();
    void reboot();
};

void tst_KavoSim::directories_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("expected"); // under the panel root; "" for none

    QTest::newRow("0 runtime") << 0 << "/usr/kavo_app";
    QTest::newRow("2 data") << 2 << "/data";
    QTest::newRow("3 project") << 3 << "/usr/kavo_app/project";
    QTest::newRow("7 fonts") << 7 << "/usr/kavo_app/font";
    QTest::newRow("8 user files") << 8 << "/data/userfile";
    for (int none : {-1, 1, 4, 5, 6, 9, 100})
        QTest::newRow(qPrintable(QString("%1 none").arg(none))) << none << QString();
}

void tst_KavoSim::directories()
{
    QFETCH(int, index);
    QFETCH(QString, expected);
    {
        testenv::TempPanel panel;
        QCOMPARE(QString::fromUtf8(Kavo_GetDirectory(index)), expected.isEmpty() ? expected : panel.root() + expected);
    }
    EnvVar realPanel("KAVO_PANEL_ROOT", QByteArray());
    QCOMPARE(QString::fromUtf8(Kavo_GetDirectory(index)), expected);
}

void tst_KavoSim::directoriesStayApart()
{
    testenv::TempPanel panel;
    const char* runtime = Kavo_GetDirectory(0);
    const char* project = Kavo_GetDirectory(3);
    const char* fonts = Kavo_GetDirectory(7);
    QCOMPARE(QString::fromUtf8(runtime), panel.root() + "/usr/kavo_app");
    QCOMPARE(QString::fromUtf8(project), panel.root() + "/usr/kavo_app/project");
    QCOMPARE(QString::fromUtf8(fonts), panel.root() + "/usr/kavo_app/font");
}

void tst_KavoSim::createDirectory_data()
{
    QTest::addColumn<QString>("path"); // relative to a fresh directory
    QTest::addColumn<int>("expected");

    QTest::newRow("new with parents") << "a/b/c" << 0;
    QTest::newRow("existing") << "existing" << 0;
    QTest::newRow("doubled separators") << "x//y///z/" << 0;
    QTest::newRow("through a file") << "file/sub" << -1;
    QTest::newRow("a file") << "file" << -1;
}

void tst_KavoSim::createDirectory()
{
    QFETCH(QString, path);
    QFETCH(int, expected);
    QTemporaryDir dir;
    QVERIFY(QDir().mkpath(dir.path() + "/existing"));
    QVERIFY(testenv::writeFile(dir.path() + "/file", "f"));
    const QString full = dir.path() + "/" + path;
    QCOMPARE(Kavo_CreateDirectory(utf8(full).constData()), expected);
    QCOMPARE(QFileInfo(full).isDir(), expected == 0);
    QCOMPARE(Kavo_CreateDirectory(""), -1);
    QCOMPARE(Kavo_CreateDirectory(nullptr), -1);
}

void tst_KavoSim::deleteDirectory_data()
{
    QTest::addColumn<QByteArray>("fault"); // KAVO_SIM_DELETEDIR_FAIL; null: unset
    QTest::addColumn<QString>("path");     // relative to a directory holding "tree"
    QTest::addColumn<int>("expected");
    QTest::addColumn<bool>("treeLeft");

    QTest::newRow("tree") << QByteArray() << "tree" << 0 << false;
    QTest::newRow("tree with trailing /") << QByteArray() << "tree/" << 0 << false;
    QTest::newRow("subtree") << QByteArray() << "tree/sub" << 0 << true;
    QTest::newRow("missing") << QByteArray() << "missing" << 0 << true;
    QTest::newRow("missing parent") << QByteArray() << "missing/too" << 0 << true;
    QTest::newRow("fault") << QByteArray("1") << "tree" << -1 << true;
    QTest::newRow("fault on a missing one") << QByteArray("1") << "missing" << -1 << true;
    QTest::newRow("fault switched off") << QByteArray("0") << "tree" << 0 << false;
    QTest::newRow("fault empty") << QByteArray("") << "tree" << 0 << false;
}

void tst_KavoSim::deleteDirectory()
{
    QFETCH(QByteArray, fault);
    QFETCH(QString, path);
    QFETCH(int, expected);
    QFETCH(bool, treeLeft);
    QTemporaryDir dir;
    const QString tree = dir.path() + "/tree";
    QVERIFY(fillTree(tree));
    EnvVar variable("KAVO_SIM_DELETEDIR_FAIL", fault);

    QCOMPARE(Kavo_DeleteDirectory(utf8(dir.path() + "/" + path).constData()), expected);
    QCOMPARE(QFileInfo::exists(tree), treeLeft);
    if (expected == 0)
        QVERIFY(!QFileInfo::exists(dir.path() + "/" + path));
    else
        QCOMPARE(entries(tree), QStringList({".hidden", "file.dat", "sub"}));
    QCOMPARE(Kavo_DeleteDirectory(""), -1);
    QCOMPARE(Kavo_DeleteDirectory(nullptr), -1);
}

// Links inside the tree go with it; what they point to stays.
void tst_KavoSim::deleteKeepsLinkTargets()
{
    QTemporaryDir dir;
    const QString outside = dir.path() + "/outside";
    QVERIFY(fillTree(outside));
    const QString tree = dir.path() + "/tree";
    QVERIFY(fillTree(tree));
    QVERIFY(QFile::link(outside, tree + "/dirlink"));
    QVERIFY(QFile::link(outside + "/file.dat", tree + "/sub/filelink"));
    QCOMPARE(mkfifo(utf8(tree + "/fifo").constData(), 0600), 0);

    QCOMPARE(Kavo_DeleteDirectory(utf8(tree).constData()), 0);
    QVERIFY(!QFileInfo::exists(tree));
    QCOMPARE(entries(outside), QStringList({".hidden", "file.dat", "sub"}));
    QCOMPARE(testenv::readFile(outside + "/sub/deeper/file.txt"), QByteArray("x"));
}

void tst_KavoSim::delSaveData_data()
{
    QTest::addColumn<int>("mask");
    QTest::addColumn<QByteArray>("fault"); // KAVO_SIM_DELSAVEDATA_FAIL; null: unset
    QTest::addColumn<int>("expected");
    QTest::addColumn<int>("emptied"); // categories found empty afterwards

    QTest::newRow("recipe") << 1 << QByteArray() << 0 << 1;
    QTest::newRow("history") << 2 << QByteArray() << 0 << 2;
    QTest::newRow("alarm") << 4 << QByteArray() << 0 << 4;
    QTest::newRow("initvalue") << 8 << QByteArray() << 0 << 8;
    QTest::newRow("all four") << 15 << QByteArray() << 0 << 15;
    QTest::newRow("nothing") << 0 << QByteArray() << 0 << 0;
    QTest::newRow("unknown bits only") << 0x30 << QByteArray() << 0 << 0;
    QTest::newRow("unknown bits with recipe") << 0x31 << QByteArray() << 0 << 1;
    QTest::newRow("history fails of three") << 7 << QByteArray("2") << 2 << 5;
    QTest::newRow("hexadecimal fault mask") << 15 << QByteArray("0xc") << 12 << 3;
    QTest::newRow("fault on a bit not asked") << 1 << QByteArray("8") << 0 << 1;
    QTest::newRow("everything fails") << 15 << QByteArray("15") << 15 << 0;
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
    for (const QString& category : categories)
        QVERIFY(fillTree(panel.path(category)));
    QVERIFY(fillTree(panel.path("/data/userfile")));
    EnvVar variable("KAVO_SIM_DELSAVEDATA_FAIL", fault);

    QCOMPARE(Kavo_DelSaveData(mask, 0), expected);
    for (int i = 0; i < categories.size(); ++i) {
        const QString dir = panel.path(categories.at(i));
        QVERIFY2(QFileInfo(dir).isDir(), qPrintable(dir));
        const QStringList expectedEntries =
            (emptied & (1 << i)) != 0 ? QStringList() : QStringList({".hidden", "file.dat", "sub"});
        QCOMPARE(entries(dir), expectedEntries);
    }
    QCOMPARE(entries(panel.path("/data/userfile")), QStringList({".hidden", "file.dat", "sub"}));
}

void tst_KavoSim::delSaveDataOddCategories()
{
    testenv::TempPanel panel;
    QVERIFY(QDir(panel.path("/data/recipe")).removeRecursively());
    QVERIFY(QDir(panel.path("/data/alarm")).removeRecursively());
    QVERIFY(testenv::writeFile(panel.path("/data/alarm"), "not a directory"));
    QVERIFY(fillTree(panel.path("/data/history")));

    QCOMPARE(Kavo_DelSaveData(1 | 2 | 4, 0), 4);
    QCOMPARE(entries(panel.path("/data/history")), QStringList());
    QCOMPARE(testenv::readFile(panel.path("/data/alarm")), QByteArray("not a directory"));
}

void tst_KavoSim::udiskOpen()
{
    QTemporaryDir stick;
    QVERIFY(QDir().mkpath(stick.path() + "/opxbackup"));
    {
        EnvVar udisk("KAVO_UDISK_ROOT", QFile::encodeName(stick.path()));
        const int fd = Kavo_udisk_open("opxbackup/KavoBackupProject.bin", O_WRONLY | O_CREAT | O_TRUNC, 0777);
        QVERIFY(fd >= 0);
        QCOMPARE(write(fd, "abc", 3), ssize_t(3));
        close(fd);
        QCOMPARE(testenv::readFile(stick.path() + "/opxbackup/KavoBackupProject.bin"), QByteArray("abc"));

        errno = 0;
        QCOMPARE(Kavo_udisk_open("missing/KavoBackupProject.bin", O_RDONLY, 0), -1);
        QCOMPARE(errno, ENOENT);
    }

    // Without KAVO_UDISK_ROOT (or with it empty) the stick is the package
    // root: the parent of the directory holding the executable.
    const QFileInfo self(QCoreApplication::applicationFilePath());
    const QString relative = self.dir().dirName() + "/" + self.fileName();
    struct stat expected;
    QCOMPARE(stat(QFile::encodeName(self.filePath()).constData(), &expected), 0);
    for (const QByteArray& value : {QByteArray(), QByteArray("")}) {
        EnvVar udisk("KAVO_UDISK_ROOT", value);
        const int fd = Kavo_udisk_open(utf8(relative).constData(), O_RDONLY, 0);
        QVERIFY(fd >= 0);
        struct stat opened;
        QCOMPARE(fstat(fd, &opened), 0);
        close(fd);
        QCOMPARE(opened.st_ino, expected.st_ino);
        QCOMPARE(opened.st_dev, expected.st_dev);
    }
}

void tst_KavoSim::runtimeState_data()
{
    QTest::addColumn<QByteArray>("pidText"); // $LIVE, $STALE and $ZOMBIE are replaced; null: no file
    QTest::addColumn<bool>("runs");

    QTest::newRow("live pid") << QByteArray("$LIVE\n") << true;
    QTest::newRow("live pid with blanks") << QByteArray("  $LIVE  \n") << true;
    QTest::newRow("no pid file") << QByteArray() << false;
    QTest::newRow("empty pid file") << QByteArray("") << false;
    QTest::newRow("stale pid") << QByteArray("$STALE\n") << false;
    QTest::newRow("zombie") << QByteArray("$ZOMBIE\n") << false;
    QTest::newRow("not a number") << QByteArray("kavo_app\n") << false;
    QTest::newRow("pid and more") << QByteArray("$LIVE 1\n") << false;
    QTest::newRow("negative") << QByteArray("-$LIVE\n") << false;
    QTest::newRow("plus sign") << QByteArray("+$LIVE\n") << false;
    QTest::newRow("zero: the process group") << QByteArray("0\n") << false;
    QTest::newRow("one: init") << QByteArray("1\n") << false;
    QTest::newRow("beyond pid range") << QByteArray("99999999999\n") << false;
}

void tst_KavoSim::runtimeState()
{
    QFETCH(QByteArray, pidText);
    QFETCH(bool, runs);
    testenv::TempPanel panel;

    QProcess live;
    live.start("sleep", {"30"});
    QVERIFY(live.waitForStarted());
    QProcess ended;
    ended.start("sleep", {"30"});
    QVERIFY(ended.waitForStarted());
    const qint64 stale = ended.processId();
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

    if (!pidText.isNull()) {
        pidText.replace("$LIVE", QByteArray::number(live.processId()));
        pidText.replace("$STALE", QByteArray::number(stale));
        pidText.replace("$ZOMBIE", QByteArray::number(zombie));
        QVERIFY(writePid(panel, pidText));
    }
    const bool zombieSeen = processState(zombie) == 'Z';
    const bool stopped = runtimeStopped();
    const bool running = runtimeRuns();
    QCOMPARE(waitpid(zombie, nullptr, 0), zombie);
    QVERIFY(zombieSeen);
    QCOMPARE(running, runs);
    QCOMPARE(stopped, !runs);
    QCOMPARE(live.state(), QProcess::Running);
    live.kill();
    QVERIFY(live.waitForFinished());
}

void tst_KavoSim::stopRuntime()
{
    testenv::TempPanel panel;
    QCOMPARE(__notify_stop_application(0), 0); // nothing runs: accepted, nothing to do

    QProcess runtime;
    runtime.start("sleep", {"30"});
    QVERIFY(runtime.waitForStarted());
    QVERIFY(writePid(panel, QByteArray::number(runtime.processId()) + "\n"));
    QVERIFY(runtimeRuns());

    QCOMPARE(__notify_stop_application(0), 0);
    // Polled the way the package polls: sleeping, without an event loop, so
    // the ended process may not be reaped yet.
    QElapsedTimer timer;
    timer.start();
    while (!runtimeStopped() && timer.elapsed() < 5000)
        QThread::msleep(20);
    QVERIFY(runtimeStopped());
    QVERIFY(runtime.waitForFinished(5000));
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
    QVERIFY(runtimeStopped());
}

void tst_KavoSim::refusedStop()
{
    testenv::TempPanel panel;
    QProcess runtime;
    runtime.start("sleep", {"30"});
    QVERIFY(runtime.waitForStarted());
    QVERIFY(writePid(panel, QByteArray::number(runtime.processId())));
    {
        EnvVar refuse("KAVO_SIM_REFUSE_STOP", "1");
        QCOMPARE(__notify_stop_application(0), -1);
        QVERIFY(!runtime.waitForFinished(300));
        QVERIFY(runtimeRuns());
    }
    QCOMPARE(__notify_stop_application(0), 0);
    QVERIFY(runtime.waitForFinished(5000));
    QVERIFY(runtimeStopped());
}

void tst_KavoSim::fileLock()
{
    testenv::TempPanel panel;
    const QString path = panel.path("/tmp/kavo_app_conf.lck");
    QVERIFY(!QFileInfo::exists(path));
    int lockFd = -1;
    int other = -1;
    {
        TOOL::COMMON::FileLock lock(utf8(path).constData());
        lockFd = lock.fd();
        QVERIFY(lockFd >= 0);
        QVERIFY(QFileInfo(path).isFile());
        QVERIFY((fcntl(lockFd, F_GETFD) & FD_CLOEXEC) != 0);
        // The settings program's side: another open file on the same lock.
        other = open(utf8(path).constData(), O_RDONLY | O_CLOEXEC);
        QVERIFY(other >= 0);
        // Opening alone takes no lock.
        QCOMPARE(flock(other, LOCK_EX | LOCK_NB), 0);
        QCOMPARE(flock(other, LOCK_UN), 0);
        {
            TOOL::COMMON::FileLocker locker(lock);
            QVERIFY(locker.locked());
            errno = 0;
            QCOMPARE(flock(other, LOCK_EX | LOCK_NB), -1);
            QCOMPARE(errno, EWOULDBLOCK);
            QCOMPARE(flock(other, LOCK_SH | LOCK_NB), -1);
        }
        QCOMPARE(flock(other, LOCK_EX | LOCK_NB), 0);
        QCOMPARE(flock(other, LOCK_UN), 0);
        TOOL::COMMON::FileLocker again(lock);
        QVERIFY(again.locked());
        QCOMPARE(flock(other, LOCK_EX | LOCK_NB), -1);
    }
    // The locker let go, then the lock closed its descriptor.
    QCOMPARE(flock(other, LOCK_EX | LOCK_NB), 0);
    errno = 0;
    QCOMPARE(fcntl(lockFd, F_GETFD), -1);
    QCOMPARE(errno, EBADF);
    close(other);
}

void tst_KavoSim::fileLockWithoutFile()
{
    testenv::TempPanel panel;
    TOOL::COMMON::FileLock lock(utf8(panel.path("/missing/dir/kavo_app_conf.lck")).constData());
    QCOMPARE(lock.fd(), -1);
    TOOL::COMMON::FileLocker locker(lock);
    QVERIFY(!locker.locked());
    TOOL::COMMON::FileLock none(nullptr);
    QCOMPARE(none.fd(), -1);
}

void tst_KavoSim::reboot_data()
{
    QTest::addColumn<QByteArray>("errnoValue"); // KAVO_SIM_REBOOT_ERRNO; null: unset
    QTest::addColumn<QString>("varRun");        // "dir", "missing", "file", "record is a directory"
    QTest::addColumn<int>("calls");
    QTest::addColumn<int>("exitStatus");        // 0, or 100 + errno of a failed reboot
    QTest::addColumn<QByteArray>("record");     // null: no record file

    QTest::newRow("reboot") << QByteArray() << "dir" << 1 << 0 << QByteArray("reboot\n");
    QTest::newRow("second reboot appends") << QByteArray() << "dir" << 2 << 0 << QByteArray("reboot\nreboot\n");
    QTest::newRow("var/run created") << QByteArray() << "missing" << 1 << 0 << QByteArray("reboot\n");
    QTest::newRow("errno 5") << QByteArray("5") << "dir" << 1 << 105 << QByteArray();
    QTest::newRow("errno 1") << QByteArray("1") << "dir" << 1 << 101 << QByteArray();
    QTest::newRow("errno not a number") << QByteArray("EIO") << "dir" << 1 << 0 << QByteArray("reboot\n");
    QTest::newRow("errno empty") << QByteArray("") << "dir" << 1 << 0 << QByteArray("reboot\n");
    QTest::newRow("var/run is a file") << QByteArray() << "file" << 1 << 100 + ENOTDIR << QByteArray();
    QTest::newRow("record is a directory") << QByteArray() << "record is a directory" << 1 << 100 + EISDIR << QByteArray();
}

// Each reboot runs in a child process: a successful one ends its process.
void tst_KavoSim::reboot()
{
    QFETCH(QByteArray, errnoValue);
    QFETCH(QString, varRun);
    QFETCH(int, calls);
    QFETCH(int, exitStatus);
    QFETCH(QByteArray, record);
    testenv::TempPanel panel;
    const QString recordPath = panel.path("/var/run/reboot-requested");
    if (varRun == "missing") {
        QVERIFY(QDir(panel.path("/var")).removeRecursively());
    } else if (varRun == "file") {
        QVERIFY(QDir(panel.path("/var/run")).removeRecursively());
        QVERIFY(testenv::writeFile(panel.path("/var/run"), "x"));
    } else if (varRun == "record is a directory") {
        QVERIFY(QDir().mkpath(recordPath));
    }
    EnvVar variable("KAVO_SIM_REBOOT_ERRNO", errnoValue);

    for (int call = 0; call < calls; ++call) {
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            const int result = platform::rebootPanel();
            const int error = errno;
            // Only a failed reboot comes back; anything but -1 is wrong.
            _exit(result == -1 ? 100 + error : 99);
        }
        QVERIFY(child > 0);
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), exitStatus);
    }
    if (record.isNull())
        QVERIFY(!QFileInfo(recordPath).isFile());
    else
        QCOMPARE(testenv::readFile(recordPath), record);
}

QTEST_GUILESS_MAIN(tst_KavoSim)
#include "tst_kavosim.moc"
