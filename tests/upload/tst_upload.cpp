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
    if (!file.open())
        qFatal("no file for standard error");
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(file.handle(), STDERR_FILENO);
    run();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    file.seek(0);
    return file.readAll();
}

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
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
    QString opxbackup() const { return m_stick->path() + QStringLiteral("/opxbackup"); }

    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    QString m_oldCwd = QDir::currentPath();
};

void TestUpload::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));
    QVERIFY(QDir().mkpath(opxbackup()) && QDir::setCurrent(opxbackup()));
}

void TestUpload::cleanup()
{
    projectupload::freeCopyBuffers();
    QDir::setCurrent(m_oldCwd);
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
    QTest::addColumn<int>("fileLimit");          // to which files may grow during the copy; 0: no limit
    QTest::addColumn<bool>("copied");
    QTest::addColumn<int>("chunks");             // calls after a chunk
    QTest::addColumn<QByteArray>("diagnostics"); // "%" stands for the source's mode
    QTest::addColumn<bool>("unpacked");
    // The target (null: none), or, unpacked in vain, what it is a true prefix of.
    QTest::addColumn<QByteArray>("project");

    const QByteArray empty(""), small("a small project\n"), random = randomBytes(kMiB + kMiB / 2 + 123, 1);
    const QByteArray good = kit::kavoZipContainer(small), big = kit::kavoZipContainer(random);
    QTest::newRow("empty file") << empty << 0 << true << 0
                                << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n") << false
                                << empty;
    QTest::newRow("exactly one buffer") << randomBytes(kMiB, 7) << 0 << true << 1 << kNone << false << empty;
    QTest::newRow("one buffer and a byte") << randomBytes(kMiB + 1, 7) << 0 << true << 2 << kNone << false << empty;
    // The write of the second buffer lands only in part; the rest is refused.
    QTest::newRow("file limit half-way into the second buffer")
        << randomBytes(2 * kMiB + 5, 11) << kMiB + kMiB / 2 << false << 1
        << QByteArray("error write failed!File too large\n") << false << empty;
    QTest::newRow("source is a directory") << kNone << 0 << false << 0
                                           << QByteArray("src file is not a regular file:%\n") << false << kNone;
    QTest::newRow("empty project") << kit::kavoZipContainer(empty) << 0 << true << 1 << kNone << true << empty;
    QTest::newRow("trailing garbage") << good + randomBytes(40000, 3) << 0 << true << 1 << kNone << true << small;
    QTest::newRow("short header") << good.left(10) << 0 << true << 1 << kNone << false << empty;
    QTest::newRow("wrong magic") << flipped(good, {0}, 1) << 0 << true << 1 << kNone << false << empty;
    QTest::newRow("header words differ") << flipped(good, {13}, 3) << 0 << true << 1 << kNone << false << empty;
    // The magic is compared with its terminating zero, the first byte of the first word.
    QTest::newRow("byte 8 not 0") << flipped(good, {8, 12}, 1) << 0 << true << 1 << kNone << false << empty;
    QTest::newRow("truncated stream") << big.left(big.size() - 1000) << 0 << true << 2 << kNone << false << random;
    QTest::newRow("wrong adler-32") << flipped(big, {big.size() - 1}, 0x5a) << 0 << true << 2 << kNone << false
                                    << random;
}

void TestUpload::copyAndUnpack()
{
    QFETCH(QByteArray, source);
    QFETCH(int, fileLimit);
    QFETCH(bool, copied);
    QFETCH(int, chunks);
    QFETCH(QByteArray, diagnostics);
    QFETCH(bool, unpacked);
    QFETCH(QByteArray, project);

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
    if (fileLimit > 0)
        limited.rlim_cur = rlim_t(fileLimit);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    int calls = 0;
    bool ok = false;
    const QByteArray printed = stderrOf([&] {
        setrlimit(RLIMIT_FSIZE, &limited);
        ok = projectupload::copyToUdisk(path, [&calls] { ++calls; });
        setrlimit(RLIMIT_FSIZE, &previous);
    });
    std::signal(SIGXFSZ, previousHandler);
    QCOMPARE(printed, diagnostics.replace('%', QByteArray::number(int(info.st_mode))));
    QCOMPARE(ok, copied);
    QCOMPARE(calls, chunks);
    QVERIFY(testenv::readFile(projectupload::kLocalPackedPath) == (copied ? source : source.left(fileLimit)));

    int inflating = 0;
    QCOMPARE(projectupload::unpackProject(projectupload::kLocalPackedPath, QStringLiteral("target"),
                                          [&] { ++inflating; }),
             unpacked);
    QCOMPARE(inflating, project.isNull() ? 0 : 1);
    const QByteArray target = testenv::readFile(QStringLiteral("target"));
    if (!unpacked && !project.isEmpty())
        QVERIFY(!target.isEmpty() && target.size() < project.size() && project.startsWith(target));
    else
        QVERIFY(target == project);
    // Nothing is written anywhere but the target.
    QCOMPARE(entries(QStringLiteral(".")),
             source.isNull() ? QStringList() : QStringList({"KavoBackupProject.bin", "target"}));
}

void TestUpload::dialog_data()
{
    QTest::addColumn<int>("screenWidth");
    QTest::addColumn<QByteArray>("backup");      // the panel's packed project file; null: none
    QTest::addColumn<QString>("suffix");         // of the project settings; null: no settings file
    QTest::addColumn<QByteArray>("earlier");     // an earlier upload on the stick; null: none
    QTest::addColumn<int>("answer");             // to the question whether to replace it
    QTest::addColumn<QList<int>>("pane");        // its lines after the upload; 2098: the line with the name
    QTest::addColumn<QByteArray>("target");      // the project on the stick; null: none
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the backup file
    QTest::addColumn<QString>("leave");          // "back", "Escape", or "back" after a close during the copy

    const QByteArray project("the panel's project, as the design software opens it\n");
    // Incompressible, so that the packed file spans three copy chunks.
    const QByteArray large = randomBytes(2 * kMiB + 4321, 5);
    const QByteArray packed = kit::kavoZipContainer(project), earlier(300000, 'e');
    const QList<int> uploaded{2090, 2092, 2093, 2094, 2099, 2097, 2098}, copyFailed{2090, 2092, 2095};
    const int yes = QMessageBox::Yes;
    const QString noFile;
    QTest::newRow("large screen") << 1280 << packed << noFile << kNone << yes << uploaded << project << kNone
                                  << "back";
    QTest::newRow("three chunks, empty suffix, closed during the copy")
        << 1024 << kit::kavoZipContainer(large) << "" << kNone << yes << uploaded << large << kNone << "close";
    QTest::newRow("utf-8 suffix") << 1024 << packed << "工程" << kNone << yes << uploaded << project << kNone
                                  << "Escape";
    QTest::newRow("earlier upload, yes replaces")
        << 1024 << packed << noFile << earlier << yes << uploaded << project << kNone << "back";
    // Kept, the earlier upload can still be replaced.
    QTest::newRow("earlier upload, no keeps it") << 1280 << packed << noFile << earlier << int(QMessageBox::No)
                                                 << QList<int>{2090} << earlier << kNone << "Escape";
    QTest::newRow("earlier upload, closed box overwrites")
        << 1024 << packed << noFile << earlier << int(QMessageBox::NoButton) << uploaded << project << kNone
        << "back";
    QTest::newRow("unpacking fails") << 1024 << flipped(packed, {0}, 1) << noFile << kNone << yes
                                     << QList<int>{2090, 2092, 2093, 2094, 2099, 2096} << QByteArray("") << kNone
                                     << "back";
    QTest::newRow("suffix naming a missing directory") << 1024 << packed << "no/such" << kNone << yes
                                                       << QList<int>{2090, 2092, 2093, 2094, 2096} << kNone << kNone
                                                       << "back";
    QTest::newRow("missing backup file") << 1024 << kNone << noFile << kNone << yes << copyFailed << kNone
                                         << QByteArray("stat src path:@ failed! No such file or directory\n")
                                         << "Escape";
    // An existing backup fails to copy only when the stick the panel writes to
    // has no "opxbackup", unlike the working directory.
    QTest::newRow("stick without opxbackup")
        << 1024 << packed << noFile << kNone << yes << copyFailed << kNone
        << QByteArray("copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n")
        << "back";
}

void TestUpload::dialog()
{
    QFETCH(int, screenWidth);
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
    if (!backup.isNull() && pane.endsWith(2095))
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));
    selectWinSize(screenWidth);
    // The main window disables itself before it opens the dialog.
    QWidget mainWindow;
    mainWindow.setEnabled(false);
    zeltUpDlg dialog(&mainWindow, backupFile);
    dialog.show();
    const auto buttons = [&dialog] { return testenv::enabledButtons(dialog, {"startup_bt", "back_bt"}); };
    QCOMPARE(dialog.size(), screenWidth > 1024 ? QSize(700, 480) : QSize(432, 300));
    QCOMPARE(dialog.windowFlags() & (Qt::WindowStaysOnTopHint | Qt::WindowContextHelpButtonHint),
             Qt::WindowStaysOnTopHint);
    QVERIFY(testenv::child<QTextEdit>(dialog, "textEdit")->isReadOnly());
    QCOMPARE(QStringList({dialog.windowTitle(), testenv::child<QPushButton>(dialog, "startup_bt")->text(),
                          testenv::child<QPushButton>(dialog, "back_bt")->text(), buttons()})
                 + testenv::paneLines(dialog),
             testenv::texts({2104, 2102, 2103}) + QStringList({"11", msg(2090)}));

    // Between two chunks of the copy a close request (the title bar's) has to
    // wait for the upload.
    QString buttonsDuringCopy;
    QTimer closer;
    connect(&closer, &QTimer::timeout, this, [&] {
        closer.stop();
        buttonsDuringCopy = buttons();
        dialog.close();
    });
    if (leave == QLatin1String("close"))
        closer.start(0);
    testenv::BoxAnswerer answerer({}, QMessageBox::StandardButton(answer));
    QCOMPARE(stderrOf([&] { QTest::mouseClick(testenv::child<QPushButton>(dialog, "startup_bt"), Qt::LeftButton); }),
             diagnostics.replace('@', backupFile.toUtf8()));
    QCOMPARE(buttonsDuringCopy, leave == QLatin1String("close") ? QStringLiteral("00") : QString());
    QCOMPARE(answerer.seen().size(), earlier.isNull() ? 0 : 1);
    for (const testenv::SeenBox& box : answerer.seen()) {
        QCOMPARE(QStringList({box.title, box.text, box.buttons.join(QLatin1Char('/'))}),
                 QStringList({msg(2030), "U盘中已包含一个名为“OPX上传工程.KVP”的文件，是否覆盖？", msg(1004) + '/' + msg(1005)}));
        QCOMPARE(box.icon, QMessageBox::Warning);
        QVERIFY(box.flags & Qt::WindowStaysOnTopHint);
    }
    QStringList lines = testenv::texts(pane);
    if (pane.endsWith(2098))
        lines.last() = msg(2098).arg(name);
    QCOMPARE(testenv::paneLines(dialog), lines);
    QCOMPARE(dialog.targetName(), name);
    // Only the project file stays on the stick, never the packed copy.
    QCOMPARE(entries(opxbackup()), target.isNull() ? QStringList() : QStringList{name});
    QVERIFY(testenv::readFile(name) == target && testenv::readFile(backupFile) == backup);

    // One upload per opening. Whatever happened, leaving closes the dialog and
    // frees the main window.
    QCOMPARE(buttons(), pane.size() == 1 ? QStringLiteral("11") : QStringLiteral("01"));
    QVERIFY(dialog.isVisible() && !mainWindow.isEnabled());
    if (leave == QLatin1String("Escape"))
        QTest::keyClick(&dialog, Qt::Key_Escape);
    else
        QTest::mouseClick(testenv::child<QPushButton>(dialog, "back_bt"), Qt::LeftButton);
    QVERIFY(!dialog.isVisible() && mainWindow.isEnabled());
}

QTEST_MAIN(TestUpload)
#include "tst_upload.moc"
