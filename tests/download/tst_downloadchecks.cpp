// What a whole download cannot pin: disk space to the byte (tmpfs file systems
// in a private mount namespace), version parsing, the platform file's order, "$".
#include "recordingdownload.h"
#include "testenv.h"

#include <QtTest>

#include <QAbstractEventDispatcher>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <sys/stat.h>
#include <sys/mount.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

qint64 treeSize(const QString& path)
{
    qint64 total = QFileInfo(path).size();
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        total += QFileInfo(it.next()).size();
    return total;
}

// A sparse file of `size` zero bytes in the package, listed with its size and CRC-32.
bool writeZeroProject(qint64 size)
{
    QFile file("proj/v7/zero.bin");
    if (!QDir().mkpath("proj/v7") || !file.open(QIODevice::WriteOnly) || !file.resize(size))
        return false;
    const Bytef zero = 0;
    uLong crc = crc32(0, &zero, 1);
    for (qint64 length = 1; length < size; length *= 2)
        crc = crc32_combine(crc, crc, z_off_t(length));
    return testenv::writeFile("proj/v7/project.ini",
                              "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n[FILE1]\nNAME=zero.bin\nSIZE="
                                  + QByteArray::number(size) + "\nDESPATH=/usr/kavo_app/project\nCRC="
                                  + QByteArray::number(qulonglong(crc), 16).toUpper() + "\n");
}

// Nanoseconds this thread has spent waiting for a processor while it could
// have run; 0 where the kernel does not count them.
qint64 runQueueWait()
{
    QFile stats("/proc/thread-self/schedstat");
    if (!stats.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return 0;
    const QList<QByteArray> fields = stats.read(128).split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() : 0;
}

// The longest stretch in which the event loop did not look at pending events,
// and how often it looked. A stretch does not count the time the thread waited
// for a processor that other processes had (the tests run side by side, and
// under an emulator on few processors): that is the machine's doing, not the
// code's. The counter is read at most once a millisecond, so a stretch may come
// out up to a millisecond short.
class EventWatch : public QObject
{
public:
    EventWatch()
    {
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this, [this] {
            m_longest = qMax(m_longest, stretch());
            m_last = m_clock.nsecsElapsed();
            ++m_rounds;
        });
    }
    void start()
    {
        m_clock.start();
        m_last = 0;
        m_sampledAt = 0;
        m_sampledWait = runQueueWait();
        m_longest = 0;
        m_rounds = 0;
    }
    // The longest stretch without a look up to now, in milliseconds.
    qint64 longest() { return qMax(m_longest, stretch()) / 1000000; }
    qint64 rounds() const { return m_rounds; }

private:
    // The stretch since the last look, without the waiting for a processor
    // since the counter was last read, which was less than a millisecond
    // before that look.
    qint64 stretch()
    {
        const qint64 now = m_clock.nsecsElapsed();
        qint64 waited = 0;
        if (now - m_sampledAt >= 1000000) {
            const qint64 wait = runQueueWait();
            waited = wait - m_sampledWait;
            m_sampledAt = now;
            m_sampledWait = wait;
        }
        return now - m_last - waited;
    }

    QElapsedTimer m_clock;
    qint64 m_last = 0;
    qint64 m_sampledAt = 0;
    qint64 m_sampledWait = 0;
    qint64 m_longest = 0;
    qint64 m_rounds = 0;
};

// The data in the system's write buffers that has not reached a disk yet.
qint64 dirtyKiB()
{
    for (const QByteArray& line : testenv::readFile("/proc/meminfo").split('\n'))
        if (line.startsWith("Dirty:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return 0;
}

// A stand-in md5sum that reports one good file, then takes its time over the next.
bool writeSlowMd5sum(const QByteArray& pause)
{
    return testenv::writeFile("bin/md5sum", "#!/bin/sh\necho $$ >md5sum.pid\necho 'bin/kavo_app: OK'\nsleep " + pause
                                                + "\necho 'lib/libkavo.so: OK'\n")
           && QFile::setPermissions("bin/md5sum", QFile::ReadOwner | QFile::ExeOwner)
           && testenv::writeFile("rt/update.ini", "[PREPARE]\nversion=7.2.1\n") && testenv::writeFile("rt/version.7.2.1", {});
}

} // namespace

class tst_DownloadChecks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void readings_data();
    void readings();
    void corners();
    void integrityUnderSignals();
    void fileCrc_data();
    void fileCrc();
    void stickPulledWhileChecked();
    void eventsKeepComing();
    void eventsWhileDiskStalls_data();
    void eventsWhileDiskStalls();
    void eventsWhileSyncing();
    void fullDisk();
    void stopHonoured_data();
    void stopHonoured();
    void inPlaceFileVerified();
    void bigFile();
    void freeSpace_data();
    void freeSpace();

private:
    // Where the copy puts the package's zero.bin on the panel, its directory made.
    QString zeroCopyPath();
    // One long step of a download, by name; true when it went through.
    bool runStep(const QString& step);

    QString m_previousDir = QDir::currentPath();
    bool m_privateMounts = false;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<RecordingDownload> m_download;
};

void tst_DownloadChecks::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_privateMounts = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    // For "$" destinations: new variables go to the end of the environment in this order.
    qputenv("OPXDESC_USRDIR", "/usr/longer");
    qputenv("OPXDESC_USR", "/usr/exact");
    qputenv("$OPXDESC_Y", "/dollar");
    qputenv("OPXDESC_Y", "/without-dollar");
    qputenv("OPXDESC_EQ", "/a=b");
}

void tst_DownloadChecks::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid() && QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<RecordingDownload>();
    m_download->m_projectName = "proj";
    m_download->m_platformCode = "10";
    m_download->m_variantDir = "v7/";
}

void tst_DownloadChecks::cleanup()
{
    QDir::setCurrent(m_previousDir);
    for (const char* dir : {"/usr/kavo_app", "/data"})
        umount2(QFile::encodeName(m_panel->path(dir)).constData(), MNT_DETACH);
    m_panel.reset();
}

void tst_DownloadChecks::readings_data()
{
    // "lib ENTRY...": the platform file among /lib's entries, libc.so.6 only as given ("f:" file,
    // "d:" directory, "l:NAME>TARGET" link). "version TEXT": the fields read, 9.9.9 before. "despath
    // PATH": a file's destination, a "$" naming an environment variable in place of the first character.
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected"); // panel-side when absolute
    QTest::newRow("libc.so.6 a directory with a libc")
        << "lib d:libc.so.6 f:libc.so.6/libc-2.30.so f:libc-2.23.so" << "/lib/libc.so.6/libc-2.30.so";
    QTest::newRow("libc.so.6 an empty directory") << "lib d:libc.so.6 f:libc-2.23.so" << "/lib/libc-2.23.so";
    QTest::newRow("libc.so.6 a dangling link") << "lib l:libc.so.6>gone f:libc-2.23.so" << "/lib/libc-2.23.so";
    // Name order with case ignored; the prefix with case; a link to a file counts.
    QTest::newRow("first libc in name order") << "lib f:LIBC-0.so f:libc-B.so f:libcrypt.so.1 l:libc-a.so>libc-B.so"
                                              << "/lib/libc-a.so";
    QTest::newRow("nothing found") << "lib f:libm.so.6 f:libc.a f:libcso d:libc-0.so d:libc.so.6" << "";
    QTest::newRow("fourth part ignored") << "version 7.2.1.3" << "7.2.1";
    QTest::newRow("two parts keep the build") << "version 7.2" << "7.9.9";
    QTest::newRow("no dot sets nothing") << "version 7" << "9.9.9";
    QTest::newRow("11 characters read") << "version 00000000007.00000000008.00000000009" << "7.8.9";
    // Read as on the panel, whose 32-bit strtol stops at its limits.
    QTest::newRow("oversized parts saturate") << "version 99999999999.-9999999999.4294967297"
                                              << "2147483647.-2147483648.2147483647";
    QTest::newRow("12th character cut") << "version 000000000007.000000000008.000000000009" << "0.0.0";
    QTest::newRow("x$Y drops the x") << "despath x$OPXDESC_Y/data" << "/dollar/data/";
    QTest::newRow("unknown variable") << "despath $OPXDESC_NONE/data" << "data/";
    QTest::newRow("prefix match, environment order") << "despath $OPXDESC_USR/bin" << "/usr/longer/bin/";
    QTest::newRow("value cut at its own =") << "despath $OPXDESC_EQ/x" << "/a/x/";
}

void tst_DownloadChecks::readings()
{
    QFETCH(QString, input);
    QFETCH(QString, expected);
    QByteArray text = input.section(' ', 1).toUtf8();
    QString read;
    if (input.startsWith("version ")) {
        stVersionInfo version{9, 9, 9};
        m_download->formatVersion(text.data(), version);
        read = QString("%1.%2.%3").arg(version.major).arg(version.minor).arg(version.build);
    } else if (input.startsWith("despath ")) {
        QVERIFY(testenv::writeFile("proj/v7/project.ini", "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n"
                                                          "[FILE1]\nNAME=a\nDESPATH=" + text + "\n"));
        QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
        read = m_download->m_fileList.value(0).desPath;
    } else {
        QVERIFY(QFile::remove(m_panel->path("/lib/libc.so.6")));
        for (const QString& entry : input.split(' ').mid(1)) {
            const QString path = m_panel->path("/lib/") + entry.mid(2).section('>', 0, 0);
            QVERIFY(entry[0] == 'f'   ? testenv::writeFile(path, "\x7f" "ELF")
                    : entry[0] == 'd' ? QDir().mkpath(path)
                                      : QFile::link(entry.section('>', 1), path));
        }
        read = m_download->panelPlatformFile();
    }
    QCOMPARE(read, expected.startsWith('/') ? m_panel->path(expected) : expected);
}

// What no download reaches: a stop before each step, places that are gone, a
// file that is its own destination.
void tst_DownloadChecks::corners()
{
    m_download->m_stop = true;
    QVERIFY(!m_download->parseIniFile("proj/v7/project.ini") && !m_download->checkFileCRC(AFTER_DOWNLOAD));
    QVERIFY(!m_download->removeOldProjectFiles() && m_download->events.isEmpty());
    m_download->m_stop = false;
    QVERIFY(m_download->removeDir(m_panel->path("/gone")));
    QVERIFY(!m_download->checkAppIntegrity(INSTALLED_APP, m_panel->path("/gone").toUtf8().constData()));
    QVERIFY(QDir(m_panel->path("/data")).removeRecursively() && !m_download->checkUserFileArea());
    m_download->m_fileList = {{"DownLoadFile/", "1", 1, QString(), "./proj/v7/"}}; // names no file on the panel
    QVERIFY(m_download->checkFileCRC(AFTER_DOWNLOAD));
    // A file that is its own destination, by its path or behind a link: a
    // copy would truncate the source before reading it.
    const QString own = m_panel->path("/own/");
    QVERIFY(testenv::writeFile(own + "a.bin", "own destination\n") && QFile::link(own, m_panel->path("/via")));
    for (const QString& destination : {own, m_panel->path("/via/")}) {
        m_download->m_fileList = {{"a.bin", "1", 16, destination, own}};
        QVERIFY(m_download->updateProjectFile());
        QCOMPARE(testenv::readFile(own + "a.bin"), QByteArray("own destination\n"));
    }
    QCOMPARE(m_download->events, QStringList{"fail: " + msg(2064).arg(m_panel->path("/gone"))});
}

// A signal handler installed without restarts (a timer of the screen, a child's end) interrupts the
// read of md5sum's report; the check reads on and the damaged runtime is still found.
void tst_DownloadChecks::integrityUnderSignals()
{
    QVERIFY(testenv::writeFile("bin/md5sum", "#!/bin/sh\necho 'bin/kavo_app: OK'\nsleep 0.3\n"
                                             "echo 'lib/libkavo.so: FAILED'\necho 'md5sum: WARNING: 1 did NOT match'\n"));
    QVERIFY(QFile::setPermissions("bin/md5sum", QFile::ReadOwner | QFile::ExeOwner));
    QVERIFY(testenv::writeFile("rt/update.ini", "[PREPARE]\nversion=7.2.1\n") && testenv::writeFile("rt/version.7.2.1", {}));
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(QDir::currentPath()) + "/bin:" + path);

    struct sigaction tick = {};
    struct sigaction previous = {};
    tick.sa_handler = [](int) {};
    sigaction(SIGALRM, &tick, &previous);
    const itimerval every5ms{{0, 5000}, {0, 5000}};
    const itimerval off{};
    setitimer(ITIMER_REAL, &every5ms, nullptr);
    const bool passed = m_download->checkAppIntegrity(INSTALLED_APP, QFile::encodeName(QFileInfo("rt").absoluteFilePath()).constData());
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
    qputenv("PATH", path);
    QVERIFY(!passed);
}

// A file's CRC-32 is zlib's over all of it, whether it is read in one piece or,
// from 4 MiB on, in two halves at once; a missing file gives none.
void tst_DownloadChecks::fileCrc_data()
{
    QTest::addColumn<qint64>("size");
    for (const qint64 size : {Q_INT64_C(0), Q_INT64_C(1), Q_INT64_C(65537), (Q_INT64_C(4) << 20) - 1,
                              Q_INT64_C(4) << 20, (Q_INT64_C(4) << 20) + 1, (Q_INT64_C(9) << 20) + 7})
        QTest::addRow("%lld bytes", size) << size;
}

void tst_DownloadChecks::fileCrc()
{
    QFETCH(qint64, size);
    QByteArray data(int(size), Qt::Uninitialized);
    QRandomGenerator generator{quint32(size)};
    for (char& byte : data)
        byte = char(generator.generate());
    QVERIFY(testenv::writeFile("data.bin", data));
    unsigned int crc = 1;
    QVERIFY(m_download->CalcFileCrc("data.bin", crc));
    QCOMPARE(crc, uint(crc32(0, reinterpret_cast<const Bytef*>(data.constData()), uInt(data.size()))));

    QVERIFY(!m_download->CalcFileCrc("missing.bin", crc));
    QCOMPARE(crc, 0u);
}

// A package file that loses its data while its checksum is taken, as when the
// stick is pulled: both halves of its reading give up, and the file has no
// checksum rather than that of what could be read.
void tst_DownloadChecks::stickPulledWhileChecked()
{
    QVERIFY(writeZeroProject(256 << 20));
    QTimer::singleShot(0, [] { QFile::resize("proj/v7/zero.bin", 0); });
    unsigned int crc = 1;
    QVERIFY(!m_download->CalcFileCrc("proj/v7/zero.bin", crc));
    QCOMPARE(crc, 0u);
    QCOMPARE(QFileInfo("proj/v7/zero.bin").size(), 0);
}

QString tst_DownloadChecks::zeroCopyPath()
{
    const QString directory = m_panel->path("/usr/kavo_app/project");
    return QDir().mkpath(directory) ? directory + "/zero.bin" : QString();
}

bool tst_DownloadChecks::runStep(const QString& step)
{
    if (step == "package check")
        return m_download->checkFileCRC(BEFORE_DOWNLOAD);
    if (step == "copy")
        return m_download->updateProjectFile();
    if (step == "panel check")
        return m_download->checkFileCRC(AFTER_DOWNLOAD);
    return m_download->checkAppIntegrity(step.endsWith("installed") ? INSTALLED_APP : PACKAGE_APP,
                                         QFile::encodeName(QFileInfo("rt").absoluteFilePath()).constData());
}

// A large project checked in the package, copied and checked on the panel, and a runtime whose
// md5sum takes half a second: the screen's events are looked at all along, and during the copy
// at least once for every 1024 bytes.
void tst_DownloadChecks::eventsKeepComing()
{
    const qint64 size = 256 << 20;
    QVERIFY(writeZeroProject(size) && writeSlowMd5sum("0.5"));
    QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
    // The first reading of a new file makes the system find memory for its
    // cache, which on a virtual machine that gives free memory back to its
    // host took up to 55 ms for a single read of 64 KiB. That is the test
    // machine's time, not the check's: the file is read once before.
    QFile package("proj/v7/zero.bin");
    QVERIFY(package.open(QIODevice::ReadOnly));
    qint64 warmed = 0;
    for (QByteArray chunk; !(chunk = package.read(1 << 20)).isEmpty();)
        warmed += chunk.size();
    QCOMPARE(warmed, size);
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(QDir::currentPath()) + "/bin:" + path);
    EventWatch watch;
    QElapsedTimer step;

    for (const char* name : {"package check", "copy", "panel check", "md5sum installed"}) {
        const QByteArray which(name);
        watch.start();
        step.start();
        QVERIFY2(runStep(name), name);
        QVERIFY2(watch.longest() <= 50, qPrintable(QStringLiteral("%1: %2 ms without events in %3 ms")
                                                       .arg(name).arg(watch.longest()).arg(step.elapsed())));
        if (which == "copy")
            QVERIFY2(watch.rounds() >= size / 1024, qPrintable(QString::number(watch.rounds())));
    }
    qputenv("PATH", path);
    QCOMPARE(m_download->events, QStringList());
}

// A panel disk that takes its time over every write, as flash does once the
// system's write buffers are full (here a pipe that is read slowly): the copy
// waits for it with the screen's events still looked at, and every byte
// arrives. A stop pressed meanwhile ends the copy after the chunk being
// written, not after all that was queued.
void tst_DownloadChecks::eventsWhileDiskStalls_data()
{
    QTest::addColumn<bool>("stop");
    QTest::newRow("copied whole") << false;
    QTest::newRow("stop pressed") << true;
}

void tst_DownloadChecks::eventsWhileDiskStalls()
{
    QFETCH(bool, stop);
    const qint64 size = 1 << 20;
    QVERIFY(writeZeroProject(size) && m_download->parseIniFile("./proj/v7/project.ini"));
    const QByteArray destination = QFile::encodeName(zeroCopyPath());
    QVERIFY(mkfifo(destination.constData(), 0600) == 0);
    // Open for reading and writing, so that neither the copy's open nor this
    // one waits for the other; not blocking, so that the disk sees when the
    // copy has ended and nothing more comes.
    const int disk = ::open(destination.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(disk >= 0);
    QByteArray arrived;
    std::atomic<bool> ended(false);
    std::thread slowDisk([&] {
        std::vector<char> chunk(64 << 10);
        for (;;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            const bool last = ended;
            const ssize_t count = ::read(disk, chunk.data(), chunk.size());
            if (count > 0)
                arrived.append(chunk.data(), int(count));
            else if (last)
                break;
        }
    });
    EventWatch watch;
    // After a stop the copy still waits for the chunk being written.
    qint64 longest = -1;
    QTimer::singleShot(250, [&] {
        if (stop)
            longest = watch.longest();
        m_download->m_stop = stop;
    });
    watch.start();
    QElapsedTimer took;
    took.start();
    const bool copied = runStep("copy");
    if (longest < 0)
        longest = watch.longest();
    const qint64 elapsed = took.elapsed();
    ended = true;
    slowDisk.join();
    ::close(disk);
    QCOMPARE(copied, !stop);
    QVERIFY2(longest <= 50, qPrintable(QString::number(longest)));
    if (!stop) {
        QCOMPARE(arrived, QByteArray(size, '\0'));
        return;
    }
    // Two chunks and the pipe's buffer at most, without the four queued.
    QVERIFY2(arrived.size() <= 320 << 10, qPrintable(QString::number(arrived.size())));
    QVERIFY2(elapsed < 700, qPrintable(QString::number(elapsed)));
    QVERIFY(arrived.count('\0') == arrived.size());
}

// The sync after the copy with much still in the system's write buffers, which
// takes this machine's disk over 100 ms: the screen's events are looked at
// meanwhile, and the data is on the disk when it returns.
void tst_DownloadChecks::eventsWhileSyncing()
{
    sync();
    QFile file("unwritten.bin");
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray chunk(1 << 20, 'u');
    for (int i = 0; i < 256; ++i)
        QCOMPARE(file.write(chunk), qint64(chunk.size()));
    file.close();
    EventWatch watch;
    watch.start();
    m_download->syncKeepingScreenAlive();
    const qint64 longest = watch.longest();
    QVERIFY2(dirtyKiB() < (128 << 10), qPrintable(QString::number(dirtyKiB())));
    QVERIFY2(longest <= 50, qPrintable(QString::number(longest)));
}

// A disk that is full when the copy writes (here the system's full device):
// the copy goes on to its end, and the verification after it finds the file
// that is not what the package holds.
void tst_DownloadChecks::fullDisk()
{
    if (!QFileInfo::exists("/dev/full"))
        QSKIP("no /dev/full here");
    QVERIFY(writeZeroProject(1 << 20) && m_download->parseIniFile("./proj/v7/project.ini"));
    QVERIFY(QFile::link("/dev/full", zeroCopyPath()));
    QVERIFY(runStep("copy"));
    QVERIFY(!runStep("panel check"));
    QCOMPARE(m_download->events, QStringList{"text: " + msg(2017)});
}

// A stop pressed while a file is checked or copied, or while md5sum runs, ends that step at once
// and quietly: the stop button has told it, and a check cut short proves nothing wrong. md5sum is
// not left running.
void tst_DownloadChecks::stopHonoured_data()
{
    QTest::addColumn<QString>("step");
    for (const char* step : {"package check", "copy", "panel check", "md5sum installed", "md5sum package"})
        QTest::newRow(step) << step;
}

void tst_DownloadChecks::stopHonoured()
{
    QFETCH(QString, step);
    QVERIFY(writeZeroProject(Q_INT64_C(3) << 30) && writeSlowMd5sum("30"));
    QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
    const QString copy = zeroCopyPath();
    if (step == "panel check") {
        QFile panelCopy(copy);
        QVERIFY(panelCopy.open(QIODevice::WriteOnly) && panelCopy.resize(Q_INT64_C(3) << 30));
    }
    if (step == "md5sum package")
        QVERIFY(kit::writeScrambled("rt/update.ini", "####\n[PREPARE]\nversion=7.2.1\n"));
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(QDir::currentPath()) + "/bin:" + path);

    // The stop comes after 50 ms, and for md5sum not before the stand-in runs.
    QElapsedTimer took;
    took.start();
    // md5sum runs in the runtime's directory, and so does the check meanwhile.
    const QString pidFile = QFileInfo("rt/md5sum.pid").absoluteFilePath();
    QTimer press;
    connect(&press, &QTimer::timeout, [&] {
        if (took.elapsed() >= 50 && (!step.startsWith("md5sum") || !testenv::readFile(pidFile).isEmpty()))
            m_download->m_stop = true;
    });
    press.start(5);
    const bool done = runStep(step);
    qputenv("PATH", path);
    QVERIFY2(!done, qPrintable(m_download->events.join('|')));
    QVERIFY2(took.elapsed() < 3000, qPrintable(QString::number(took.elapsed())));
    QCOMPARE(m_download->events.join('|'), QString());
    if (step.startsWith("md5sum")) {
        // Ended, or ended and waiting for whoever inherits it to collect it.
        const QByteArray md5sum = testenv::readFile(pidFile).trimmed();
        QVERIFY(md5sum.toInt() > 0);
        QTRY_VERIFY(!testenv::readFile("/proc/" + md5sum + "/stat").contains(") S ")
                    && !testenv::readFile("/proc/" + md5sum + "/stat").contains(") R "));
    }
    if (step == "copy")
        QVERIFY(QFileInfo(copy).size() < (Q_INT64_C(3) << 30));
}

// A file the copy found in place is not read again by the check on the panel, but a change to it
// in between, however well hidden, is still found.
void tst_DownloadChecks::inPlaceFileVerified()
{
    QVERIFY(testenv::writeFile("proj/v7/a.bin", "in place\n") && testenv::writeFile("proj/v7/project.ini",
        "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n[FILE1]\nNAME=a.bin\nSIZE=9\n"
        "DESPATH=/usr/kavo_app/project\nCRC=" + QByteArray::number(qulonglong(crc32(0, reinterpret_cast<const Bytef*>("in place\n"), 9)), 16).toUpper() + "\n"));
    QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
    const QString copy = m_panel->path("/usr/kavo_app/project/a.bin");
    QVERIFY(testenv::writeFile(copy, "in place\n"));
    struct stat before;
    QVERIFY(stat(QFile::encodeName(copy).constData(), &before) == 0);

    QVERIFY(m_download->updateProjectFile());
    struct stat after;
    QVERIFY(stat(QFile::encodeName(copy).constData(), &after) == 0);
    QCOMPARE(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    QVERIFY(m_download->checkFileCRC(AFTER_DOWNLOAD));

    // Same size, same modification time: only the change time tells.
    QVERIFY(testenv::writeFile(copy, "replaced\n"));
    const timespec times[2] = {before.st_atim, before.st_mtim};
    QVERIFY(utimensat(AT_FDCWD, QFile::encodeName(copy).constData(), times, 0) == 0);
    QVERIFY(!m_download->checkFileCRC(AFTER_DOWNLOAD));
    QCOMPARE(m_download->events, QStringList{"text: " + msg(2017)});
}

// A project file of 2 GiB + 1 byte, its SIZE read as the unsigned 32-bit number it is, checked in
// the package, copied and checked on the panel: every size and offset stays 64 bits wide on the
// panel's 32-bit processors.
void tst_DownloadChecks::bigFile()
{
    const qint64 size = (Q_INT64_C(1) << 31) + 1;
    QFile big("proj/v7/big.bin");
    QVERIFY(QDir().mkpath("proj/v7") && big.open(QIODevice::WriteOnly) && big.seek(size - 1) && big.write("x", 1) == 1);
    big.close();
    // The CRC-32 of 2^31 zero bytes, doubled up from one, then the last byte.
    const Bytef zero = 0;
    uLong crc = crc32(0, &zero, 1);
    for (qint64 length = 1; length < size - 1; length *= 2)
        crc = crc32_combine(crc, crc, z_off_t(length));
    crc = crc32_combine(crc, crc32(0, reinterpret_cast<const Bytef*>("x"), 1), 1);
    QVERIFY(testenv::writeFile("proj/v7/project.ini", "[GLOBAL]\nOPXPlatform=10\nOPXName=KP\nVERSION=1\nFILENUM=1\n"
                                                      "[FILE1]\nNAME=big.bin\nSIZE=2147483649\nDESPATH=/usr/kavo_app/project\nCRC="
                                                      + QByteArray::number(qulonglong(crc), 16) + "\n"));

    QVERIFY(m_download->parseIniFile("./proj/v7/project.ini"));
    QCOMPARE(m_download->m_fileList.value(0).size, 2147483649u);
    QVERIFY(m_download->checkFileCRC(BEFORE_DOWNLOAD));
    QVERIFY(m_download->updateProjectFile());
    const QString copy = m_panel->path("/usr/kavo_app/project/big.bin");
    QCOMPARE(QFileInfo(copy).size(), size);
    const QString project = m_panel->path("/usr/kavo_app/project");
    QCOMPARE(AccessFile::getDirectorySize(QFile::encodeName(project).constData()), treeSize(project));
    QVERIFY(treeSize(project) > size);
    QVERIFY(m_download->checkFileCRC(AFTER_DOWNLOAD));
    QCOMPARE(m_download->events, QStringList());
}

void tst_DownloadChecks::freeSpace_data()
{
    // Both checks to the byte on tmpfs areas: the project area keeps 2,048 + 4,194,303 bytes free, the
    // user file area 2 MiB; each shift is the package's need minus what the check lets through.
    QTest::addColumn<qint64>("projectShift");
    QTest::addColumn<qint64>("userShift");
    QTest::addColumn<QString>("variant");
    QTest::addColumn<bool>("clear"); // the user file area is to be cleared: its files count as free
    QTest::addColumn<QByteArray>("areaSize"); // of both tmpfs areas; beyond 4 GiB no 32-bit count may wrap
    QTest::newRow("one byte below, equal") << Q_INT64_C(-1) << Q_INT64_C(0) << "v7/" << false << QByteArray("16m");
    QTest::newRow("equal, one byte over") << Q_INT64_C(0) << Q_INT64_C(1) << "v7/" << false << QByteArray("16m");
    QTest::newRow("no variant; cleared, equal") << Q_INT64_C(-1) << Q_INT64_C(0) << "" << true << QByteArray("16m");
    QTest::newRow("one byte below; cleared, free suffices") << Q_INT64_C(-1) << Q_INT64_C(-1100000) << "v7/" << true << QByteArray("16m");
    QTest::newRow("one byte below; cleared, one byte over") << Q_INT64_C(-1) << Q_INT64_C(1) << "v7/" << true << QByteArray("16m");
    QTest::newRow("beyond 4 GiB: one byte below, equal") << Q_INT64_C(-1) << Q_INT64_C(0) << "v7/" << false << QByteArray("6g");
    QTest::newRow("beyond 4 GiB: equal, one byte over") << Q_INT64_C(0) << Q_INT64_C(1) << "v7/" << false << QByteArray("6g");
}

void tst_DownloadChecks::freeSpace()
{
    QFETCH(qint64, projectShift);
    QFETCH(qint64, userShift);
    QFETCH(QString, variant);
    QFETCH(bool, clear);
    QFETCH(QByteArray, areaSize);
    for (const char* dir : {"/usr/kavo_app", "/data"}) {
        const QByteArray path = QFile::encodeName(m_panel->path(dir));
        if (!m_privateMounts || mount("tmpfs", path.constData(), "tmpfs", 0, ("size=" + areaSize).constData()) != 0)
            QSKIP("no tmpfs in a private mount namespace here (needs CAP_SYS_ADMIN)");
    }
    const QString app = m_panel->path("/usr/kavo_app");
    const QString fonts = app + "/font";
    const QString userArea = m_panel->path("/data/userfile");
    QVERIFY(testenv::writeFile(app + "/project/#BKCompreProj.bin", QByteArray(300000, 'p'))
            && testenv::writeFile(app + "/project/res/setup.ini", QByteArray(900, 's')));
    QVERIFY(testenv::writeFile(fonts + "/simsun.ttf", QByteArray(200000, 'f'))
            && testenv::writeFile(fonts + "/fontdir/fonts.dir", QByteArray(3000, 'd'))
            && testenv::writeFile(fonts + "/project.ttf", QByteArray(50000, 'f')));
    QVERIFY(testenv::writeFile(userArea + "/old/a.bin", QByteArray(1 << 20, 'o'))
            && testenv::writeFile(userArea + "/b.txt", QByteArray(5000, 'b')));
    // The user files go to their area, a runtime copy beside the project to the runtime.
    const QString prefix = "proj/" + variant;
    const QString user = prefix + "DownLoadFile";
    QVERIFY(testenv::writeFile(prefix + "project.bin", "") && testenv::writeFile(user + "/data/user.bin", ""));
    QVERIFY(testenv::writeFile("proj/KavoPro/" + variant + "kavo_app/bin/kavo_app", "runtime\n"));
    // The old project and the fonts other than the panel's own count as free.
    const qint64 available = QStorageInfo(app).bytesAvailable() - 2048 + treeSize(app + "/project") + treeSize(fonts)
                             - treeSize(fonts + "/simsun.ttf") - treeSize(fonts + "/fontdir");
    const qint64 need = treeSize(prefix) - treeSize(user) - (variant.isEmpty() ? treeSize("proj/KavoPro") : 0);
    const qint64 userFree = QStorageInfo(userArea).bytesAvailable() - 2097152 + (clear ? treeSize(userArea) : 0);
    QVERIFY(QFile::resize(prefix + "project.bin", available - 4194303 + projectShift - need));
    QVERIFY(QFile::resize(user + "/data/user.bin", userFree + userShift - treeSize(user)));
    m_download->m_variantDir = variant;
    m_download->m_clearUserDir = clear;

    QCOMPARE(m_download->isDiskSpaceEnough(), projectShift < 0);
    const bool cleared = clear && userShift <= 0;
    QCOMPARE(m_download->checkUserFileArea(), userShift <= 0);
    QCOMPARE(m_download->events, cleared ? (QStringList{"text: " + msg(2046), "text: " + msg(2047)}) : QStringList());
    QCOMPARE(QFile::exists(userArea + "/old/a.bin"), !cleared);
}

QTEST_GUILESS_MAIN(tst_DownloadChecks)
#include "tst_downloadchecks.moc"
