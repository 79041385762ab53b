// The start note (dlgUpNote) and the package's main window (UDiskUpWin), in
// process on an offscreen screen, on temporary panels and sticks: one row a
// state of the window and the presses on it.
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"
#include "upload/zeltupdlg.h"

#include "dialogprobe.h"
#include "testenv.h"

#include <QComboBox>
#include <QCryptographicHash>
#include <QDesktopWidget>
#include <QDir>
#include <QLabel>
#include <QtTest>

#include <memory>

namespace {

QPoint centred(const QWidget& window)
{
    const QRect desktop = QApplication::desktop()->geometry();
    return QPoint((desktop.width() - window.width()) / 2, (desktop.height() - window.height()) / 2);
}

QString captionPair(const QWidget& window, const char* first, const char* second)
{
    return testenv::child<QPushButton>(window, first)->text() + QLatin1Char('/')
           + testenv::child<QPushButton>(window, second)->text();
}

} // namespace

class tst_frontend : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void note_data();
    void note();
    void mainWindow_data();
    void mainWindow();

private:
    // A panel laid out by the kit and a stick with the package; the stick is
    // the working directory.
    void makePanelAndStick(const kit::PanelSpec& panel, const kit::PackageSpec& package, int deviceWidth);

    QString m_startDir;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_frontend::initTestCase()
{
    // The note and the main window end the application when their last window
    // closes; the test runs many of them in one application.
    QApplication::setQuitOnLastWindowClosed(false);
    m_startDir = QDir::currentPath();
}

void tst_frontend::init()
{
    QVERIFY(testenv::loadBuiltinTexts());
}

void tst_frontend::cleanup()
{
    QDir::setCurrent(m_startDir);
    qunsetenv("KAVO_UDISK_ROOT");
    m_stick.reset();
    m_panel.reset();
    ScreenSetting::setDeviceWidthOverride(0);
    for (QWidget* window : QApplication::topLevelWidgets())
        QVERIFY2(!window->isVisible() || qobject_cast<QDialog*>(window) == nullptr, window->metaObject()->className());
}

void tst_frontend::makePanelAndStick(const kit::PanelSpec& panel, const kit::PackageSpec& package, int deviceWidth)
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(kit::makePanel(m_panel->root(), panel) && kit::writePackage(m_stick->path(), package));
    QVERIFY(QDir::setCurrent(m_stick->path()));
    ScreenSetting::setDeviceWidthOverride(deviceWidth);
    selectWinSize(ScreenSetting::deviceWidth());
}

void tst_frontend::note_data()
{
    QTest::addColumn<QStringList>("ids");     // of the three languages of the package
    QTest::addColumn<int>("toolLanguage");    // the package's fallback language
    QTest::addColumn<QString>("lanId");       // in use at the start
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<int>("entry");           // selected at the start
    QTest::addColumn<int>("select");          // by the operator; -1: none
    QTest::addColumn<QString>("language");    // the code in use afterwards
    QTest::addColumn<QString>("captions");    // Yes/No afterwards, "Yes/No" once the English file was loaded
    QTest::addColumn<bool>("password");       // the panel has one, "A1B"
    QTest::addColumn<QString>("button");      // pressed on the note; empty: none
    QTest::addColumn<QStringList>("keys");    // pressed on the password dialog; none: it is closed
    QTest::addColumn<QStringList>("opened");  // dialogs run, in turn

    const QStringList three{"0000", "0001", "0002"}, two{"0000", "0001"}, none;
    // Selecting the entry in use at the start loads nothing: the language
    // loaded at start-up (here the built-in one) stays.
    QTest::newRow("listed language, large screen, Yes without a password")
        << three << 0 << "0001" << 1025 << 1 << -1 << "0001" << "是/否" << false << "upBtnOk" << none
        << QStringList{"UDiskUpWin"};
    QTest::newRow("language not listed, more names than ids, No")
        << two << 0 << "0042" << 1024 << 0 << -1 << "0042" << "是/否" << false << "upBtnCancel" << none << none;
    QTest::newRow("language with its file, right password")
        << three << 0 << "0000" << 1024 << 0 << 1 << "0001" << "Yes/No" << true << "upBtnOk"
        << QStringList{"keyBtnA", "keyBtn1", "keyBtnB"} << QStringList{"PwdEntryDialog", "UDiskUpWin"};
    QTest::newRow("missing file, tool language has one, password dialog closed")
        << three << 1 << "0000" << 1024 << 0 << 2 << "0002" << "Yes/No" << true << "upBtnOk" << none
        << QStringList{"PwdEntryDialog"};
    QTest::newRow("missing file, tool language has none either")
        << three << 3 << "0000" << 1024 << 0 << 2 << "0002" << "是/否" << false << "" << none << none;
    QTest::newRow("entry beyond the id list") << two << 1 << "0000" << 1024 << 0 << 2 << "0000" << "是/否" << false
                                              << "" << none << none;
}

void tst_frontend::note()
{
    QFETCH(QStringList, ids);
    QFETCH(int, toolLanguage);
    QFETCH(QString, lanId);
    QFETCH(int, deviceWidth);
    QFETCH(int, entry);
    QFETCH(int, select);
    QFETCH(QString, language);
    QFETCH(QString, captions);
    QFETCH(bool, password);
    QFETCH(QString, button);
    QFETCH(QStringList, keys);
    QFETCH(QStringList, opened);
    kit::PanelSpec panel;
    if (password)
        panel.passwordDigest = QString::fromLatin1(QCryptographicHash::hash("A1B", QCryptographicHash::Md5).toHex());
    kit::PackageSpec package;
    package.version = QStringLiteral("V2.3.4.5");
    package.languageNames = QStringList{"中文", "English", "Français"};
    package.languageIds = ids;
    package.toolLanguage = toolLanguage;
    makePanelAndStick(panel, package, deviceWidth);
    const QString appDir = m_stick->path() + QStringLiteral("/opxupdateu");
    QVERIFY(testenv::writeFile(appDir + QStringLiteral("/language/0001.lan"),
                               "[1004]\nstring = Yes\n[1005]\nstring = No\n[2000]\nstring = USB package\n"));

    dlgUpNote note(appDir, lanId);
    auto* combo = testenv::child<QComboBox>(note, "comboBox");
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    QCOMPARE(items, package.languageNames);
    QCOMPARE(combo->currentIndex(), entry);
    QCOMPARE(note.languageIds(), ids);
    QCOMPARE(note.size(), deviceWidth > 1024 ? QSize(550, 220) : QSize(397, 173));
    QCOMPARE(note.pos(), centred(note));
    // The clear copy of the scrambled description does not outlive the reading.
    QVERIFY(!QFile::exists(appDir + QStringLiteral("/config/proUpdateTmp.ini")));
    QVERIFY(QFile::exists(appDir + QStringLiteral("/config/proUpdate.ini")));
    if (select >= 0)
        combo->setCurrentIndex(select);
    QCOMPARE(note.lanId(), language);
    QCOMPARE(captionPair(note, "upBtnOk", "upBtnCancel"), captions);
    const bool english = captions.startsWith(QLatin1String("Yes"));
    QCOMPARE(note.windowTitle(), (english ? QStringLiteral("USB package") : QStringLiteral("kavoOpx U盘综合功能包"))
                                     + QStringLiteral(" V2.3.4.5"));
    QCOMPARE(testenv::child<QLabel>(note, "upNoteLbl")->text(),
             QStringLiteral("<html><head/><body><p align='center' style='margin:3px'>"
                            "您正在使用 kavoOpx U盘综合功能包 V2.3.4.5，</span></p><p align='center' "
                            "style='margin:3px'> 点击“是”返回到系统设置界面并启动综合功能包，点击“否”退出!"
                            "</span></p></body></html>"));
    if (button.isEmpty())
        return;

    // Each dialog the note runs is noted, then answered from its own loop.
    QStringList seen;
    bool noteHidden = true;
    testenv::ShowWatcher watcher([&](QWidget* shown) {
        if (qobject_cast<PwdEntryDialog*>(shown) == nullptr && qobject_cast<UDiskUpWin*>(shown) == nullptr)
            return;
        seen << QString::fromLatin1(shown->metaObject()->className());
        noteHidden = noteHidden && !note.isVisible();
        if (auto* window = qobject_cast<UDiskUpWin*>(shown))
            QCOMPARE(window->lanId(), language);
        QTimer::singleShot(50, shown, [shown, keys] {
            if (qobject_cast<UDiskUpWin*>(shown) != nullptr || keys.isEmpty()) {
                shown->close();
                return;
            }
            for (const QString& key : keys)
                testenv::child<QPushButton>(*shown, qPrintable(key))->click();
        });
    });
    note.show();
    testenv::child<QPushButton>(note, qPrintable(button))->click();
    QCOMPARE(seen, opened);
    QVERIFY(noteHidden && !note.isVisible());
    if (!opened.contains(QStringLiteral("UDiskUpWin")))
        return;
    // "Yes" works once.
    note.show();
    testenv::child<QPushButton>(note, qPrintable(button))->click();
    QCOMPARE(seen, opened);
    note.close();
}

void tst_frontend::mainWindow_data()
{
    QTest::addColumn<bool>("backup");    // the panel's packed project, #BKCompreProj.bin, is there
    QTest::addColumn<bool>("opxbackup"); // the stick has one
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    // An upload goes to the stick's opxbackup, made for it where there is none.
    QTest::newRow("packed project, opxbackup, small screen") << true << true << 1024 << QSize(432, 180);
    QTest::newRow("packed project, no opxbackup, large screen") << true << false << 1025 << QSize(550, 180);
    QTest::newRow("nothing to upload") << false << true << 1024 << QSize(432, 180);
}

void tst_frontend::mainWindow()
{
    QFETCH(bool, backup);
    QFETCH(bool, opxbackup);
    QFETCH(int, deviceWidth);
    QFETCH(QSize, size);
    kit::PanelSpec panel;
    if (!backup)
        panel.backupProject = QByteArray();
    makePanelAndStick(panel, {}, deviceWidth);
    const QString backupDir = m_stick->path() + QStringLiteral("/opxbackup");
    QVERIFY(opxbackup || QDir(backupDir).removeRecursively());
    // The panel writes to the stick the package runs from.
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));

    UDiskUpWin window(QStringLiteral("0007"));
    window.show();
    QCOMPARE(window.windowTitle(), QStringLiteral("kavoOpx U盘综合功能包"));
    QCOMPARE(captionPair(window, "btnProUpToNew", "btnUpToUdisk"), QStringLiteral("用户工程下载/上传工程到U盘"));
    QCOMPARE(testenv::enabledButtons(window, {"btnProUpToNew", "btnUpToUdisk"}), QString(backup ? "11" : "10"));
    QCOMPARE(window.size(), size);
    QCOMPARE(window.pos(), centred(window));
    QCOMPARE(window.panelDir(), m_panel->path(QStringLiteral("/usr/kavo_app/project")));
    QCOMPARE(QDir::currentPath(), opxbackup ? backupDir : m_stick->path());
    if (!backup) {
        window.close();
        return;
    }

    // The upload shows over the main window, which takes no input meanwhile,
    // and lands in the backup directory.
    testenv::child<QPushButton>(window, "btnUpToUdisk")->click();
    QVERIFY(!window.isEnabled());
    const QList<zeltUpDlg*> uploads = window.findChildren<zeltUpDlg*>();
    QCOMPARE(uploads.size(), 1);
    zeltUpDlg* upload = uploads.first();
    QVERIFY(upload->isVisible() && !upload->isModal());
    testenv::child<QPushButton>(*upload, "startup_bt")->click();
    QCOMPARE(testenv::paneLines(*upload).last(), msg(2098).arg(upload->targetName()));
    QCOMPARE(QDir(backupDir).entryList(QDir::Files | QDir::Hidden), QStringList{upload->targetName()});
    QCOMPARE(QDir::currentPath(), backupDir);
    // Escape closes through the dialog's own rules and gives the window back.
    QTest::keyClick(upload, Qt::Key_Escape);
    QVERIFY(!upload->isVisible() && window.isEnabled());
    window.close();
}

QTEST_MAIN(tst_frontend)
#include "tst_frontend.moc"
