// The upload of the panel's project to the stick: the chunked copy and the
// unpacking byte by byte, then the upload dialog over a disabled main window.
#include "upload/projectupload.h"
#include "upload/zeltupdlg.h"

#include "frame/winsize.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/container.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QRandomGenerator>
#include <QtTest>

#include <csignal>
#include <memory>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kMiB = 1024 * 1024;
const QByteArray kNone;

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

// `bytes` with the bytes at `positions` xor-ed with `mask`.
QByteArray flipped(QByteArray bytes, std::initializer_list<int> positions, char mask)
{
    for (int position : positions)
        bytes[position] = char(bytes.at(position) ^ mask);
    return bytes;
}

// What `run` writes to standard error.
QByteArray stderrOf(const std::function<void()>& run)
{
    QTemporaryFile file;
    const int saved = dup(STDERR_FILENO);
    if (!file.open() || dup2(file.handle(), STDERR_FILENO) == -1)
        qFatal("no file for standard error");
    run();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    file.seek(0);
    return file.readAll();
}

} // namespace

class TestUpload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(testenv::loadBuiltinTexts()); }
    void init();
    void cleanup();
    // First, while the process is still small, so that its peak memory tells.
    void unpackingStreams();
    void copyAndUnpack_data();
    void copyAndUnpack();
    void dialog_data();
    void dialog();

private:
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    const QString m_startDir = QDir::currentPath();
};

void TestUpload::init()
{
    // The stick the panel writes to, its "opxbackup" the working directory.
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));
    QVERIFY(QDir(m_stick->path()).mkdir(QStringLiteral("opxbackup")) && QDir::setCurrent(m_stick->path() + "/opxbackup"));
}

void TestUpload::cleanup()
{
    projectupload::freeCopyBuffers();
    QDir::setCurrent(m_startDir);
    m_stick.reset();
    m_panel.reset();
}

void TestUpload::unpackingStreams()
{
    // Packed from a sparse file, so that the test itself never holds the zeros.
    QFile zeros(m_stick->path() + QStringLiteral("/zeros"));
    QVERIFY(zeros.open(QIODevice::WriteOnly) && zeros.resize(50000000));
    QVERIFY(kit::writeKavoZipContainer(zeros.fileName(), QStringLiteral("bomb.bin"), 9) && zeros.remove());
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    QVERIFY(projectupload::unpackProject(QStringLiteral("bomb.bin"), QStringLiteral("bomb.KVP"), {}));
    getrusage(RUSAGE_SELF, &after);
    QVERIFY2(after.ru_maxrss - before.ru_maxrss < 16 * 1024, "the unpacking held the inflated data");
    QCOMPARE(QFileInfo(QStringLiteral("bomb.KVP")).size(), 50000000);
}

void TestUpload::copyAndUnpack_data()
{
    QTest::addColumn<QByteArray>("source");      // the panel's backup file; null: a directory
    QTest::addColumn<int>("chunks");             // copied, each followed by a call
    QTest::addColumn<QByteArray>("diagnostics"); // "%" stands for the source's mode
    QTest::addColumn<bool>("unpacked");
    // The target (null: none), or, unpacked in vain, what it is a true prefix of.
    QTest::addColumn<QByteArray>("project");
    QTest::addColumn<int>("fileLimit"); // the size files may grow to during the copy; 0: no limit

    const QByteArray empty(""), small("a small project\n"), random = randomBytes(kMiB + kMiB / 2 + 123, 1);
    const QByteArray good = kit::kavoZipContainer(small), big = kit::kavoZipContainer(random);
    QTest::newRow("empty file") << empty << 0 << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n")
                                << false << empty << 0;
    QTest::newRow("exactly one buffer") << randomBytes(kMiB, 7) << 1 << kNone << false << empty << 0;
    QTest::newRow("one buffer and a byte") << randomBytes(kMiB + 1, 7) << 2 << kNone << false << empty << 0;
    // The write of the second buffer lands only in part; the rest is refused.
    QTest::newRow("file limit half-way into the second buffer")
        << randomBytes(2 * kMiB + 5, 11) << 1 << QByteArray("error write failed!File too large\n") << false << empty
        << kMiB + kMiB / 2;
    QTest::newRow("source is a directory") << kNone << 0 << QByteArray("src file is not a regular file:%\n") << false
                                           << kNone << 0;
    QTest::newRow("empty project") << kit::kavoZipContainer(empty) << 1 << kNone << true << empty << 0;
    QTest::newRow("trailing garbage") << good + randomBytes(40000, 3) << 1 << kNone << true << small << 0;
    QTest::newRow("short header") << good.left(10) << 1 << kNone << false << empty << 0;
    QTest::newRow("wrong magic") << flipped(good, {0}, 1) << 1 << kNone << false << empty << 0;
    QTest::newRow("header words differ") << flipped(good, {13}, 3) << 1 << kNone << false << empty << 0;
    // The magic is compared with its terminating zero, the first byte of the first word.
    QTest::newRow("byte 8 not 0") << flipped(good, {8, 12}, 1) << 1 << kNone << false << empty << 0;
    QTest::newRow("truncated stream") << big.left(big.size() - 1000) << 2 << kNone << false << random << 0;
    QTest::newRow("wrong adler-32") << flipped(big, {big.size() - 1}, 0x5a) << 2 << kNone << false << random << 0;
}

void TestUpload::copyAndUnpack()
{
    QFETCH(QByteArray, source);
    QFETCH(int, chunks);
    QFETCH(QByteArray, diagnostics);
    QFETCH(bool, unpacked);
    QFETCH(QByteArray, project);
    QFETCH(int, fileLimit);

    // Every copy replaces a longer earlier one.
    const QString path = m_stick->path() + QStringLiteral("/source.bin");
    QVERIFY(source.isNull() ? QDir().mkpath(path)
                            : testenv::writeFile(path, source)
                                  && testenv::writeFile(projectupload::kLocalPackedPath, QByteArray(3 * kMiB, 'x')));
    struct stat info;
    QCOMPARE(stat(QFile::encodeName(path).constData(), &info), 0);
    rlimit previous, limited;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    limited = previous;
    limited.rlim_cur = fileLimit > 0 ? rlim_t(fileLimit) : previous.rlim_cur;
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit fails instead of ending the test
    int calls = 0;
    bool copied = false;
    QCOMPARE(stderrOf([&] {
                 setrlimit(RLIMIT_FSIZE, &limited);
                 copied = projectupload::copyToUdisk(path, [&calls] { ++calls; });
                 setrlimit(RLIMIT_FSIZE, &previous);
             }),
             diagnostics.replace('%', QByteArray::number(int(info.st_mode))));
    // Only the empty file is copied with a diagnostic.
    QCOMPARE(copied, diagnostics.isEmpty() || diagnostics.startsWith("real copy"));
    QCOMPARE(calls, chunks);
    QVERIFY(testenv::readFile(projectupload::kLocalPackedPath) == (copied ? source : source.left(fileLimit)));

    int inflating = 0;
    QCOMPARE(projectupload::unpackProject(projectupload::kLocalPackedPath, "target", [&] { ++inflating; }), unpacked);
    QCOMPARE(inflating, project.isNull() ? 0 : 1);
    const QByteArray target = testenv::readFile(QStringLiteral("target"));
    QVERIFY(unpacked || project.isEmpty() ? target == project
                                          : !target.isEmpty() && target.size() < project.size() && project.startsWith(target));
    // Nothing is written anywhere but the target.
    QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             source.isNull() ? QStringList() : QStringList({"KavoBackupProject.bin", "target"}));
}

void TestUpload::dialog_data()
{
    QTest::addColumn<QByteArray>("backup");      // the panel's packed project file; null: none
    QTest::addColumn<QString>("suffix");         // of the project settings; null: no settings file
    QTest::addColumn<QByteArray>("earlier");     // an earlier upload on the stick; null: none
    QTest::addColumn<int>("answer");             // to the question whether to replace it
    QTest::addColumn<QList<int>>("pane");        // its lines afterwards; 2098 with the project's name
    QTest::addColumn<QByteArray>("target");      // the project on the stick; null: none
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the backup file
    QTest::addColumn<QString>("leave");          // by "back", "Escape", or "close" during the copy, then back

    const QByteArray project("the panel's project, as the design software opens it\n");
    // Incompressible, so that the packed file spans three copy chunks.
    const QByteArray large = randomBytes(2 * kMiB + 4321, 5);
    const QByteArray packed = kit::kavoZipContainer(project), earlier(300000, 'e');
    const QList<int> uploaded{2090, 2092, 2093, 2094, 2099, 2097, 2098}, copyFailed{2090, 2092, 2095};
    const int yes = QMessageBox::Yes;
    const QString noFile;
    QTest::newRow("small project") << packed << noFile << kNone << yes << uploaded << project << kNone << "back";
    QTest::newRow("three chunks, empty suffix, closed during the copy")
        << kit::kavoZipContainer(large) << "" << kNone << yes << uploaded << large << kNone << "close";
    QTest::newRow("utf-8 suffix") << packed << "工程" << kNone << yes << uploaded << project << kNone << "Escape";
    QTest::newRow("earlier upload, yes replaces") << packed << noFile << earlier << yes << uploaded << project << kNone
                                                  << "back";
    // Kept, the earlier upload can still be replaced.
    QTest::newRow("earlier upload, no keeps it") << packed << noFile << earlier << int(QMessageBox::No)
                                                 << QList<int>{2090} << earlier << kNone << "Escape";
    QTest::newRow("earlier upload, closed box overwrites")
        << packed << noFile << earlier << int(QMessageBox::NoButton) << uploaded << project << kNone << "back";
    QTest::newRow("unpacking fails") << flipped(packed, {0}, 1) << noFile << kNone << yes
                                     << QList<int>{2090, 2092, 2093, 2094, 2099, 2096} << QByteArray("") << kNone
                                     << "back";
    QTest::newRow("suffix naming a missing directory") << packed << "no/such" << kNone << yes
                                                       << QList<int>{2090, 2092, 2093, 2094, 2096} << kNone << kNone
                                                       << "back";
    QTest::newRow("missing backup file") << kNone << noFile << kNone << yes << copyFailed << kNone
                                         << QByteArray("stat src path:@ failed! No such file or directory\n")
                                         << "Escape";
    // An existing backup fails to copy only when the stick the panel writes to
    // has no "opxbackup", unlike the working directory.
    QTest::newRow("stick without opxbackup")
        << packed << noFile << kNone << yes << copyFailed << kNone
        << QByteArray("copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n") << "back";
}

void TestUpload::dialog()
{
    QFETCH(QByteArray, backup);
    QFETCH(QString, suffix);
    QFETCH(QByteArray, earlier);
    QFETCH(int, answer);
    QFETCH(QList<int>, pane);
    QFETCH(QByteArray, target);
    QFETCH(QByteArray, diagnostics);
    QFETCH(QString, leave);

    const QString backupFile = QString::fromUtf8(Kavo_GetDirectory(3)) + QStringLiteral("/#BKCompreProj.bin");
    QVERIFY(backup.isNull() || testenv::writeFile(backupFile, backup));
    QVERIFY(suffix.isNull() || testenv::writeFile(m_panel->path("/usr/kavo_app/project/project_setup.ini"),
                                                  "[PROJECTINFO]\nSUFFIX_NAME=" + suffix.toUtf8() + "\n"));
    const QString name = QStringLiteral("OPX上传工程.") + (suffix.isEmpty() ? QStringLiteral("KVP") : suffix);
    QVERIFY(earlier.isNull() || testenv::writeFile(name, earlier));
    QTemporaryDir otherStick;
    if (!backup.isNull() && pane == QList<int>{2090, 2092, 2095})
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));
    selectWinSize(1024);
    // The main window disables itself before it opens the dialog.
    QWidget mainWindow;
    mainWindow.setEnabled(false);
    zeltUpDlg dialog(&mainWindow, backupFile);
    dialog.show();
    const auto state = [&dialog] {
        return testenv::textsOf(dialog, {"startup_bt", "back_bt"})
               << testenv::enabledButtons(dialog, {"startup_bt", "back_bt"}) << testenv::paneLines(dialog);
    };
    QCOMPARE(state(), testenv::texts({2104, 2102, 2103}) << "11" << msg(2090));

    // Between two chunks of the copy a close request (the title bar's) has to
    // wait for the upload.
    QStringList duringCopy;
    QTimer closer;
    connect(&closer, &QTimer::timeout, this, [&] {
        closer.stop();
        duringCopy = state().mid(3, 1);
        dialog.close();
    });
    if (leave == QLatin1String("close"))
        closer.start(0);
    testenv::BoxAnswerer answerer({}, QMessageBox::StandardButton(answer));
    QCOMPARE(stderrOf([&] { QTest::mouseClick(testenv::child<QPushButton>(dialog, "startup_bt"), Qt::LeftButton); }),
             diagnostics.replace('@', backupFile.toUtf8()));
    QCOMPARE(duringCopy, leave == QLatin1String("close") ? QStringList{"00"} : QStringList());
    QCOMPARE(testenv::boxTexts(answerer.seen()),
             earlier.isNull() ? QStringList() : QStringList{msg(2030) + '|' + msg(2091).arg("OPX上传工程.KVP") + '|' + msg(1004) + '/' + msg(1005)});
    for (const testenv::SeenBox& box : answerer.seen())
        QVERIFY(box.icon == QMessageBox::Warning && (box.flags & Qt::WindowStaysOnTopHint));
    // One upload per opening; only the project file stays on the stick, never the packed copy.
    QStringList lines = testenv::texts(pane);
    if (pane.endsWith(2098))
        lines.last() = msg(2098).arg(name);
    QCOMPARE(state(), testenv::texts({2104, 2102, 2103}) << (pane.size() == 1 ? "11" : "01") << lines);
    QCOMPARE(dialog.targetName(), name);
    QCOMPARE(QDir().entryList(QDir::Files), target.isNull() ? QStringList() : QStringList{name});
    QVERIFY(testenv::readFile(name) == target && testenv::readFile(backupFile) == backup);
    // Whatever happened, leaving closes the dialog and frees the main window.
    QVERIFY(dialog.isVisible() && !mainWindow.isEnabled());
    if (leave == QLatin1String("Escape"))
        QTest::keyClick(&dialog, Qt::Key_Escape);
    else
        QTest::mouseClick(testenv::child<QPushButton>(dialog, "back_bt"), Qt::LeftButton);
    QVERIFY(!dialog.isVisible() && mainWindow.isEnabled());
}

QTEST_MAIN(TestUpload)
#include "tst_upload.moc"
