// The upload of the panel's project to the stick through the upload dialog over
// a disabled main window: the chunked copy, and the unpacking byte by byte.
#include "upload/projectupload.h"
#include "upload/zeltupdlg.h"

#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/container.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

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
    QVector<quint32> words(size / 4 + 1);
    QRandomGenerator(seed).fillRange(words.data(), words.size());
    return QByteArray(reinterpret_cast<const char*>(words.constData()), size);
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
    void upload_data();
    void upload();

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
    QVERIFY(QDir(m_stick->path()).mkdir("opxbackup") && QDir::setCurrent(m_stick->path() + "/opxbackup"));
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

void TestUpload::upload_data()
{
    QTest::addColumn<QByteArray>("backup");      // the panel's packed project file; null: none; "/": a directory
    QTest::addColumn<QString>("suffix");         // of the project settings; null: no settings file
    QTest::addColumn<QByteArray>("earlier");     // an earlier upload on the stick; null: none
    QTest::addColumn<int>("answer");             // to the question whether to replace it
    QTest::addColumn<QString>("stick");          // the panel writes to: "", "without opxbackup", "full" at 1.5 MiB
    QTest::addColumn<QList<int>>("pane");        // its lines afterwards; 2098 with the project's name
    QTest::addColumn<QByteArray>("target");      // the project on the stick (null: none), or what it is a prefix of
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the backup file
    QTest::addColumn<QString>("leave");          // by "back", "Escape", or "close" during the copy, then back

    // Incompressible, so that the packed file spans three copy chunks.
    const QByteArray project("the panel's project\n"), large = randomBytes(2 * kMiB + 4321, 5);
    const QByteArray packed = kit::kavoZipContainer(project), big = kit::kavoZipContainer(large), earlier(300, 'e');
    const QList<int> uploaded{2090, 2092, 2093, 2094, 2099, 2097, 2098}, copyFailed{2090, 2092, 2095};
    const QList<int> unpackFailed{2090, 2092, 2093, 2094, 2099, 2096}, targetUnopened{2090, 2092, 2093, 2094, 2096};
    const int yes = QMessageBox::Yes, no = QMessageBox::No;
    const QString noFile;
    QTest::newRow("three chunks, empty suffix, closed during the copy")
        << big << "" << kNone << yes << "" << uploaded << large << kNone << "close";
    QTest::newRow("utf-8 suffix, earlier upload, yes replaces")
        << packed << "工程" << earlier << yes << "" << uploaded << project << kNone << "Escape";
    // Kept, the earlier upload can still be replaced.
    QTest::newRow("earlier upload, no keeps it")
        << packed << noFile << earlier << no << "" << QList<int>{2090} << earlier << kNone << "Escape";
    QTest::newRow("earlier upload, closed box overwrites")
        << packed << noFile << earlier << int(QMessageBox::NoButton) << "" << uploaded << project << kNone << "back";
    QTest::newRow("suffix naming a missing directory")
        << packed << "no/such" << kNone << yes << "" << targetUnopened << kNone << kNone << "back";
    // From a plain start, left with "back".
    const auto row = [&](const char* name, const QByteArray& backup, const QList<int>& pane, const QByteArray& target,
                         const QByteArray& diagnostics, const QString& stick = QString("")) {
        QTest::newRow(name) << backup << noFile << kNone << yes << stick << pane << target << diagnostics << "back";
    };
    const QByteArray empty(""), padded = packed + randomBytes(kMiB - packed.size(), 3);
    row("missing backup file", kNone, copyFailed, kNone, "stat src path:@ failed! No such file or directory\n");
    row("backup is a directory", "/", copyFailed, kNone,
        "src file is not a regular file:" + QByteArray::number(S_IFDIR | 0700) + '\n');
    // An existing backup fails to copy only when the stick the panel writes to
    // has no "opxbackup", unlike the working directory.
    row("stick without opxbackup", packed, copyFailed, kNone,
        "copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n", "without opxbackup");
    // The write of the second buffer lands only in part; the rest is refused.
    row("stick full half-way into the second buffer", large, copyFailed, kNone, "error write failed!File too large\n",
        "full");
    row("empty backup file", empty, unpackFailed, empty, "real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    row("exactly one buffer, trailing garbage", padded, uploaded, project, kNone);
    row("short header", packed.left(10), unpackFailed, empty, kNone);
    row("header words differ", flipped(packed, {13}, 3), unpackFailed, empty, kNone);
    // The magic is compared with its terminating zero, the first byte of the first word.
    row("byte 8 not 0", flipped(packed, {8, 12}, 1), unpackFailed, empty, kNone);
    row("truncated stream", big.left(big.size() - 1000), unpackFailed, large, kNone);
    row("wrong adler-32", flipped(big, {big.size() - 1}, 0x5a), unpackFailed, large, kNone);
}

void TestUpload::upload()
{
    QFETCH(QByteArray, backup);
    QFETCH(QString, suffix);
    QFETCH(QByteArray, earlier);
    QFETCH(int, answer);
    QFETCH(QString, stick);
    QFETCH(QList<int>, pane);
    QFETCH(QByteArray, target);
    QFETCH(QByteArray, diagnostics);
    QFETCH(QString, leave);

    const QString backupFile = QString::fromUtf8(Kavo_GetDirectory(3)) + QStringLiteral("/#BKCompreProj.bin");
    QVERIFY(backup.isNull()
            || (backup == "/" ? mkdir(QFile::encodeName(backupFile).constData(), 0700) == 0
                              : testenv::writeFile(backupFile, backup)));
    QVERIFY(suffix.isNull() || testenv::writeFile(m_panel->path("/usr/kavo_app/project/project_setup.ini"),
                                                  "[PROJECTINFO]\nSUFFIX_NAME=" + suffix.toUtf8() + "\n"));
    const QString name = QStringLiteral("OPX上传工程.") + (suffix.isEmpty() ? QStringLiteral("KVP") : suffix);
    QVERIFY(earlier.isNull() || testenv::writeFile(name, earlier));
    if (stick == QLatin1String("without opxbackup"))
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_panel->root()));
    rlimit previous;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const rlimit limited{stick == "full" ? rlim_t(kMiB + kMiB / 2) : previous.rlim_cur, previous.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit fails instead of ending the test
    // The main window disables itself before it opens the dialog.
    QWidget mainWindow;
    mainWindow.setEnabled(false);
    zeltUpDlg dialog(&mainWindow, backupFile);
    dialog.show();
    const auto state = [&dialog] {
        return testenv::textsOf(dialog, {"startup_bt", "back_bt"})
               << testenv::enabledButtons(dialog, {"startup_bt", "back_bt"}) << testenv::paneLines(dialog);
    };

    // Between two chunks of the copy a close request (the title bar's) has to
    // wait for the upload.
    QStringList duringCopy;
    if (leave == QLatin1String("close"))
        QTimer::singleShot(0, &dialog, [&] { duringCopy = state().mid(3, 1) << QString::number(dialog.close()); });
    testenv::BoxAnswerer answerer({}, QMessageBox::StandardButton(answer));
    QCOMPARE(stderrOf([&] {
                 setrlimit(RLIMIT_FSIZE, &limited);
                 QTest::mouseClick(testenv::child<QPushButton>(dialog, "startup_bt"), Qt::LeftButton);
                 setrlimit(RLIMIT_FSIZE, &previous);
             }),
             diagnostics.replace('@', backupFile.toUtf8()));
    QCOMPARE(duringCopy, leave == QLatin1String("close") ? QStringList({"00", "0"}) : QStringList());
    const QString question = msg(2030) + '|' + msg(2091).arg(name) + '|' + msg(1004) + '/' + msg(1005);
    QCOMPARE(testenv::boxTexts(answerer.seen()), earlier.isNull() ? QStringList() : QStringList{question});
    for (const testenv::SeenBox& box : answerer.seen())
        QVERIFY(box.icon == QMessageBox::Warning && (box.flags & Qt::WindowStaysOnTopHint));
    // One upload per opening; only the project file stays on the stick, never the packed copy.
    QCOMPARE(state(), testenv::texts({2104, 2102, 2103}) << (pane.size() == 1 ? "11" : "01")
                          << testenv::texts(pane).replaceInStrings(QStringLiteral("%1"), name));
    QCOMPARE(QDir().entryList(QDir::Files), target.isNull() ? QStringList() : QStringList{name});
    // A stream that breaks off leaves what was unpacked until then.
    const QByteArray onStick = testenv::readFile(name);
    const bool prefix = !onStick.isEmpty() && onStick.size() < target.size() && target.startsWith(onStick);
    QVERIFY(pane.endsWith(2096) && !target.isEmpty() ? prefix : onStick == target);
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
