// The upload dialog on a simulated panel and stick: its form, the text pane
// line by line for good and failing uploads, the files left on the stick, the
// question before an earlier upload is replaced, and the main window it hands
// back.
#include "upload/zeltupdlg.h"

#include "frame/winsize.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/container.h"
#include "tools/kit/panel.h"

#include "boxanswerer.h"
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

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

template <typename T>
T* child(const QWidget& dialog, const char* name)
{
    T* widget = dialog.findChild<T*>(QLatin1String(name));
    if (widget == nullptr)
        qFatal("no child %s", name);
    return widget;
}

QStringList paneLines(const zeltUpDlg& dialog)
{
    return child<QTextEdit>(dialog, "textEdit")->toPlainText().split(QLatin1Char('\n'));
}

// Whether the upload and the back button are enabled, as two 0/1 digits.
QString enabledButtons(const zeltUpDlg& dialog)
{
    QString states;
    for (const char* name : {"startup_bt", "back_bt"})
        states += child<QPushButton>(dialog, name)->isEnabled() ? QLatin1Char('1') : QLatin1Char('0');
    return states;
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
    void existingTarget_data();
    void existingTarget();
    void closeWaitsForTheUpload();

private:
    // A ready panel whose packed project holds `backup` (null: no backup file;
    // `raw`: written as it is instead of packed) and whose project settings name
    // `suffix`.
    void makePanel(const QByteArray& backup, bool raw, const QString& suffix);
    QString backupFile() const
    {
        return QString::fromUtf8(Kavo_GetDirectory(3)) + QStringLiteral("/#BKCompreProj.bin");
    }
    QString opxbackup() const { return m_stick->path() + QStringLiteral("/opxbackup"); }
    QStringList stickFiles() const
    {
        return QDir(opxbackup()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }

    std::unique_ptr<QTemporaryDir> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<QWidget> m_mainWindow;
    QString m_oldCwd;
};

void TestZeltUpDlg::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
}

void TestZeltUpDlg::init()
{
    m_panel = std::make_unique<QTemporaryDir>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(m_panel->path()));
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
    qunsetenv("KAVO_PANEL_ROOT");
    m_stick.reset();
    m_panel.reset();
}

void TestZeltUpDlg::makePanel(const QByteArray& backup, bool raw, const QString& suffix)
{
    kit::PanelSpec spec;
    spec.backupProject = raw ? QByteArray() : backup;
    spec.projectSuffix = suffix;
    QVERIFY(kit::makePanel(m_panel->path(), spec));
    if (raw)
        QVERIFY(testenv::writeFile(backupFile(), backup));
    else if (backup.isNull())
        QVERIFY(!QFileInfo::exists(backupFile()));
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
    QTest::addColumn<QByteArray>("project");    // packed as the panel packs it
    QTest::addColumn<QByteArray>("rawBackup");  // or this backup file as it is
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<bool>("stickWithoutBackupDir");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QByteArray>("target");      // null: no target file
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the backup file

    const QString kvp = QStringLiteral("OPX上传工程.KVP");
    const QByteArray project("the panel's project, as the design software opens it\n");
    // Incompressible, so that the packed file spans three copy chunks.
    const QByteArray large = randomBytes(2 * 1024 * 1024 + 4321, 5);
    const QByteArray none;
    const QStringList failedUnpack = {msg(2090), msg(2092), msg(2093), msg(2094), msg(2099), msg(2096)};
    const QStringList failedCopy = {msg(2090), msg(2092), msg(2095)};

    QTest::newRow("small project") << project << none << QString() << false << kvp << successLines(kvp) << project
                                   << none;
    QTest::newRow("project over several chunks") << large << none << QString() << false << kvp << successLines(kvp)
                                                 << large << none;
    QTest::newRow("suffix of the project settings")
        << project << none << QStringLiteral("opx") << false << QStringLiteral("OPX上传工程.opx")
        << successLines(QStringLiteral("OPX上传工程.opx")) << project << none;
    QTest::newRow("empty backup file")
        << none << QByteArray("") << QString() << false << kvp << failedUnpack << QByteArray("")
        << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    QByteArray wrongMagic = kit::kavoZipContainer(project);
    wrongMagic[0] = 'X';
    QTest::newRow("wrong magic") << none << wrongMagic << QString() << false << kvp << failedUnpack << QByteArray("")
                                 << none;
    const QByteArray packedLarge = kit::kavoZipContainer(large);
    QTest::newRow("truncated stream") << none << packedLarge.left(packedLarge.size() / 2) << QString() << false << kvp
                                      << failedUnpack << large << none;
    QTest::newRow("missing backup file")
        << none << none << QString() << false << kvp << failedCopy << none
        << QByteArray("stat src path:@ failed! No such file or directory\n");
    QTest::newRow("stick without opxbackup")
        << project << none << QString() << true << kvp << failedCopy << none
        << QByteArray("copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n");
}

void TestZeltUpDlg::upload()
{
    QFETCH(QByteArray, project);
    QFETCH(QByteArray, rawBackup);
    QFETCH(QString, suffix);
    QFETCH(bool, stickWithoutBackupDir);
    QFETCH(QString, name);
    QFETCH(QStringList, lines);
    QFETCH(QByteArray, target);
    QFETCH(QByteArray, diagnostics);

    makePanel(rawBackup.isNull() ? project : rawBackup, !rawBackup.isNull(), suffix);
    QTemporaryDir otherStick;
    if (stickWithoutBackupDir) {
        // The working directory is the stick's "opxbackup", but the stick the
        // panel writes to has none.
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));
    }

    zeltUpDlg dialog(m_mainWindow.get(), backupFile());
    dialog.show();
    StderrCapture err;
    QTest::mouseClick(child<QPushButton>(dialog, "startup_bt"), Qt::LeftButton);
    QCOMPARE(err.take(), diagnostics.replace('@', backupFile().toUtf8()));

    QCOMPARE(paneLines(dialog), lines);
    QCOMPARE(dialog.targetName(), name);
    // Only the project file stays on the stick, never the packed copy.
    if (target.isNull()) {
        QCOMPARE(stickFiles(), QStringList());
    } else {
        QCOMPARE(stickFiles(), QStringList{name});
        const QByteArray written = testenv::readFile(opxbackup() + QLatin1Char('/') + name);
        if (lines.last() == msg(2096) && !target.isEmpty()) {
            // A broken stream leaves what was inflated before the break.
            QVERIFY(!written.isEmpty());
            QVERIFY(written.size() < target.size());
            QVERIFY(target.startsWith(written));
        } else {
            QVERIFY(written == target);
        }
    }
    if (!rawBackup.isNull())
        QVERIFY(testenv::readFile(backupFile()) == rawBackup);

    // Whatever happened, back closes the dialog and frees the main window.
    QCOMPARE(enabledButtons(dialog), QStringLiteral("01"));
    QVERIFY(!m_mainWindow->isEnabled());
    QTest::mouseClick(child<QPushButton>(dialog, "back_bt"), Qt::LeftButton);
    QVERIFY(!dialog.isVisible());
    QVERIFY(m_mainWindow->isEnabled());
}

void TestZeltUpDlg::existingTarget_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("uploaded");

    QTest::newRow("yes replaces") << int(QMessageBox::Yes) << true;
    QTest::newRow("no keeps the earlier upload") << int(QMessageBox::No) << false;
    QTest::newRow("closed overwrites") << int(QMessageBox::NoButton) << true;
}

void TestZeltUpDlg::existingTarget()
{
    QFETCH(int, answer);
    QFETCH(bool, uploaded);

    const QByteArray project("today's project\n");
    makePanel(project, false, QStringLiteral("abc"));
    const QString name = QStringLiteral("OPX上传工程.abc");
    const QByteArray earlier(300000, 'e');
    QVERIFY(testenv::writeFile(opxbackup() + QLatin1Char('/') + name, earlier));

    zeltUpDlg dialog(m_mainWindow.get(), backupFile());
    dialog.show();
    testenv::BoxAnswerer answerer({}, QMessageBox::StandardButton(answer));
    StderrCapture err;
    dialog.clickedStartUpBt();
    QCOMPARE(err.take(), QByteArray());

    QCOMPARE(answerer.seen().size(), 1);
    const testenv::SeenBox& box = answerer.seen().first();
    QCOMPARE(box.title, msg(2030));
    QCOMPARE(box.text, QStringLiteral("U盘中已包含一个名为“OPX上传工程.abc”的文件，是否覆盖？"));
    QCOMPARE(box.buttons.size(), 2);
    QVERIFY(box.buttons.contains(msg(1004)) && box.buttons.contains(msg(1005)));
    QCOMPARE(box.icon, QMessageBox::Warning);
    QVERIFY(box.flags & Qt::WindowStaysOnTopHint);

    QCOMPARE(stickFiles(), QStringList{name});
    const QByteArray onStick = testenv::readFile(opxbackup() + QLatin1Char('/') + name);
    QCOMPARE(paneLines(dialog), uploaded ? successLines(name) : QStringList{msg(2090)});
    QVERIFY(onStick == (uploaded ? project : earlier));
    QCOMPARE(enabledButtons(dialog), uploaded ? QStringLiteral("01") : QStringLiteral("11"));
}

void TestZeltUpDlg::closeWaitsForTheUpload()
{
    makePanel(randomBytes(3 * 1024 * 1024, 9), false, QString());
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
