// The upload dialog on a simulated panel and stick: its form, the text pane
// line by line for good and failing uploads, the files left on the stick, the
// question before an earlier upload is replaced, and the main window it hands
// back.
#include "upload/zeltupdlg.h"

#include "frame/winsize.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/container.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "stderrcapture.h"
#include "testenv.h"

#include <QDir>
#include <QPushButton>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QtTest>

#include <memory>

namespace {

using testenv::child;
using testenv::paneLines;

// Whether the upload and the back button are enabled, as two 0/1 digits.
QString enabledButtons(const zeltUpDlg& dialog)
{
    return testenv::enabledButtons(dialog, {"startup_bt", "back_bt"});
}

// The pane of an upload whose unpacking succeeded, for the project file `name`.
QStringList successLines(const QString& name)
{
    return {msg(2090), msg(2092), msg(2093), msg(2094), msg(2099), msg(2097), msg(2098).arg(name)};
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

} // namespace

class TestZeltUpDlg : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void form_data();
    void form();
    void upload_data();
    void upload();
    void closeWaitsForTheUpload();

private:
    // The panel's packed project file and the suffix its project settings name
    // (null: no file).
    void makePanel(const QByteArray& backup, const QString& suffix);
    QString backupFile() const
    {
        return QString::fromUtf8(Kavo_GetDirectory(3)) + QStringLiteral("/#BKCompreProj.bin");
    }
    QString opxbackup() const { return m_stick->path() + QStringLiteral("/opxbackup"); }
    QStringList stickFiles() const
    {
        return QDir(opxbackup()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }

    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<QWidget> m_mainWindow;
    QString m_oldCwd;
};

void TestZeltUpDlg::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
}

void TestZeltUpDlg::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));
    QVERIFY(QDir().mkpath(opxbackup()));
    m_oldCwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(opxbackup()));
    selectWinSize(1024);
    // The main window disables itself before it opens the dialog.
    m_mainWindow = std::make_unique<QWidget>();
    m_mainWindow->setEnabled(false);
}

void TestZeltUpDlg::cleanup()
{
    m_mainWindow.reset();
    QDir::setCurrent(m_oldCwd);
    qunsetenv("KAVO_UDISK_ROOT");
    m_stick.reset();
    m_panel.reset();
}

void TestZeltUpDlg::makePanel(const QByteArray& backup, const QString& suffix)
{
    if (!backup.isNull())
        QVERIFY(testenv::writeFile(backupFile(), backup));
    if (!suffix.isNull())
        QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/project/project_setup.ini"),
                                   "[PROJECTINFO]\nSUFFIX_NAME=" + suffix.toUtf8() + "\n"));
}

void TestZeltUpDlg::form_data()
{
    QTest::addColumn<int>("screenWidth");
    QTest::addColumn<QSize>("size");

    QTest::newRow("small screen") << 1024 << QSize(432, 300);
    QTest::newRow("large screen") << 1280 << QSize(700, 480);
}

void TestZeltUpDlg::form()
{
    QFETCH(int, screenWidth);
    QFETCH(QSize, size);

    selectWinSize(screenWidth);
    zeltUpDlg dialog(m_mainWindow.get(), QStringLiteral("/nowhere"));
    QCOMPARE(dialog.size(), size);
    QCOMPARE(dialog.windowTitle(), msg(2104));
    QVERIFY(dialog.windowFlags() & Qt::WindowStaysOnTopHint);
    QVERIFY(!(dialog.windowFlags() & Qt::WindowContextHelpButtonHint));
    QVERIFY(child<QTextEdit>(dialog, "textEdit")->isReadOnly());
    QCOMPARE(paneLines(dialog), QStringList{msg(2090)});
    QCOMPARE(child<QPushButton>(dialog, "startup_bt")->text(), msg(2102));
    QCOMPARE(child<QPushButton>(dialog, "back_bt")->text(), msg(2103));
    QCOMPARE(enabledButtons(dialog), QStringLiteral("11"));
}

void TestZeltUpDlg::upload_data()
{
    QTest::addColumn<QByteArray>("backup"); // the panel's packed project file; null: none
    QTest::addColumn<QString>("suffix");    // of the project settings; null: no settings file
    QTest::addColumn<QByteArray>("earlier"); // an earlier upload on the stick; null: none
    QTest::addColumn<int>("answer");         // to the question whether to replace it
    QTest::addColumn<QString>("outcome");    // "uploaded", "kept", "unpack failed", "copy failed"
    QTest::addColumn<QByteArray>("target");  // the project file on the stick, or what it is a prefix of; null: none
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the backup file

    const QByteArray project("the panel's project, as the design software opens it\n");
    // Incompressible, so that the packed file spans three copy chunks.
    const QByteArray large = randomBytes(2 * 1024 * 1024 + 4321, 5);
    const QByteArray packed = kit::kavoZipContainer(project);
    const QByteArray packedLarge = kit::kavoZipContainer(large);
    const QByteArray none;
    const QByteArray earlier(300000, 'e');
    const int yes = QMessageBox::Yes;
    const QString noFile;

    QTest::newRow("small project") << packed << noFile << none << yes << "uploaded" << project << none;
    QTest::newRow("project over several chunks, empty suffix")
        << packedLarge << QStringLiteral("") << none << yes << "uploaded" << large << none;
    QTest::newRow("suffix of the project settings") << packed << "opx" << none << yes << "uploaded" << project << none;
    QTest::newRow("utf-8 suffix") << packed << "工程" << none << yes << "uploaded" << project << none;
    QTest::newRow("earlier upload, yes replaces")
        << packed << noFile << earlier << yes << "uploaded" << project << none;
    QTest::newRow("earlier upload, no keeps it") << packed << noFile << earlier << int(QMessageBox::No) << "kept"
                                                 << earlier << none;
    QTest::newRow("earlier upload, closed box overwrites")
        << packed << noFile << earlier << int(QMessageBox::NoButton) << "uploaded" << project << none;
    QTest::newRow("empty backup file") << QByteArray("") << noFile << none << yes << "unpack failed" << QByteArray("")
                                       << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    QTest::newRow("wrong magic") << QByteArray("X") + packed.mid(1) << noFile << none << yes << "unpack failed"
                                 << QByteArray("") << none;
    QTest::newRow("truncated stream") << packedLarge.left(packedLarge.size() / 2) << noFile << none << yes
                                      << "unpack failed" << large << none;
    QTest::newRow("missing backup file") << none << noFile << none << yes << "copy failed" << none
                                         << QByteArray("stat src path:@ failed! No such file or directory\n");
    // The working directory is the stick's "opxbackup", but the stick the
    // panel writes to has none.
    QTest::newRow("stick without opxbackup")
        << packed << noFile << none << yes << "copy failed" << none
        << QByteArray("copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n");
}

void TestZeltUpDlg::upload()
{
    QFETCH(QByteArray, backup);
    QFETCH(QString, suffix);
    QFETCH(QByteArray, earlier);
    QFETCH(int, answer);
    QFETCH(QString, outcome);
    QFETCH(QByteArray, target);
    QFETCH(QByteArray, diagnostics);

    makePanel(backup, suffix);
    const QString name = QStringLiteral("OPX上传工程.") + (suffix.isEmpty() ? QStringLiteral("KVP") : suffix);
    const QString targetPath = opxbackup() + QLatin1Char('/') + name;
    if (!earlier.isNull())
        QVERIFY(testenv::writeFile(targetPath, earlier));
    QTemporaryDir otherStick;
    if (QByteArray(QTest::currentDataTag()) == "stick without opxbackup")
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));

    zeltUpDlg dialog(m_mainWindow.get(), backupFile());
    dialog.show();
    testenv::BoxAnswerer answerer({}, QMessageBox::StandardButton(answer));
    StderrCapture err;
    QTest::mouseClick(child<QPushButton>(dialog, "startup_bt"), Qt::LeftButton);
    QCOMPARE(err.take(), diagnostics.replace('@', backupFile().toUtf8()));

    QCOMPARE(answerer.seen().size(), earlier.isNull() ? 0 : 1);
    if (!earlier.isNull()) {
        const testenv::SeenBox& box = answerer.seen().first();
        QCOMPARE(box.title, msg(2030));
        QCOMPARE(box.text, QStringLiteral("U盘中已包含一个名为“OPX上传工程.KVP”的文件，是否覆盖？"));
        QCOMPARE(box.buttons.size(), 2);
        QVERIFY(box.buttons.contains(msg(1004)) && box.buttons.contains(msg(1005)));
        QCOMPARE(box.icon, QMessageBox::Warning);
        QVERIFY(box.flags & Qt::WindowStaysOnTopHint);
    }

    const QMap<QString, QStringList> panes = {
        {"uploaded", successLines(name)},
        {"kept", {msg(2090)}},
        {"unpack failed", {msg(2090), msg(2092), msg(2093), msg(2094), msg(2099), msg(2096)}},
        {"copy failed", {msg(2090), msg(2092), msg(2095)}},
    };
    QCOMPARE(paneLines(dialog), panes.value(outcome));
    QCOMPARE(dialog.targetName(), name);
    // Only the project file stays on the stick, never the packed copy.
    QCOMPARE(stickFiles(), target.isNull() ? QStringList() : QStringList{name});
    const QByteArray written = testenv::readFile(targetPath);
    if (outcome == QLatin1String("unpack failed") && !target.isEmpty()) {
        // A broken stream leaves what was inflated before the break.
        QVERIFY(!written.isEmpty());
        QVERIFY(written.size() < target.size());
        QVERIFY(target.startsWith(written));
    } else {
        QVERIFY(written == target);
    }
    if (!backup.isNull())
        QVERIFY(testenv::readFile(backupFile()) == backup);

    // One upload per opening; kept, the earlier upload can still be replaced.
    // Whatever happened, back closes the dialog and frees the main window.
    QCOMPARE(enabledButtons(dialog), outcome == QLatin1String("kept") ? QStringLiteral("11") : QStringLiteral("01"));
    QVERIFY(!m_mainWindow->isEnabled());
    QTest::mouseClick(child<QPushButton>(dialog, "back_bt"), Qt::LeftButton);
    QVERIFY(!dialog.isVisible());
    QVERIFY(m_mainWindow->isEnabled());
}

void TestZeltUpDlg::closeWaitsForTheUpload()
{
    makePanel(kit::kavoZipContainer(randomBytes(3 * 1024 * 1024, 9)), QString());
    zeltUpDlg dialog(m_mainWindow.get(), backupFile());
    dialog.show();

    // Runs between two chunks of the copy: the upload is under way, and a close
    // request (the title bar's) has to wait for it.
    int ticks = 0;
    QString buttonsDuringCopy;
    QTimer timer;
    connect(&timer, &QTimer::timeout, this, [&] {
        if (ticks++ == 0) {
            buttonsDuringCopy = enabledButtons(dialog);
            dialog.close();
        }
    });
    timer.start(0);
    dialog.clickedStartUpBt();
    timer.stop();

    QVERIFY(ticks > 0);
    QCOMPARE(buttonsDuringCopy, QStringLiteral("00"));
    QVERIFY(dialog.isVisible());
    QVERIFY(!m_mainWindow->isEnabled());
    QCOMPARE(paneLines(dialog), successLines(dialog.targetName()));
}

QTEST_MAIN(TestZeltUpDlg)
#include "tst_zeltupdlg.moc"
