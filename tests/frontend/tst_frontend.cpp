// The start note (dlgUpNote) and the package's main window (UDiskUpWin), in
// process on an offscreen screen, on temporary panels and sticks. Modal
// dialogs are answered from a timer that watches the active modal widget.
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "dialogprobe.h"
#include "testenv.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"
#include "upload/zeltupdlg.h"

#include <QApplication>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDesktopWidget>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QScopeGuard>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

// A language file that renames the note's title and buttons.
const QByteArray kEnglishTexts = "[1004]\nstring = Yes\n[1005]\nstring = No\n[2000]\nstring = USB package\n";

QPoint centred(const QWidget& window)
{
    const QRect desktop = QApplication::desktop()->geometry();
    return QPoint((desktop.width() - window.width()) / 2, (desktop.height() - window.height()) / 2);
}

QString buttonText(const QWidget& window, const QString& name)
{
    return window.findChild<QPushButton*>(name)->text();
}

// Runs `handle` on each modal widget that becomes active while it lives, once
// per widget, from inside the modal loops.
class ModalWatcher
{
public:
    explicit ModalWatcher(std::function<void(QWidget*)> handle)
        : m_handle(std::move(handle))
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            QWidget* modal = QApplication::activeModalWidget();
            if (modal == nullptr || !modal->isVisible() || m_seen.contains(modal))
                return;
            m_seen.insert(modal);
            m_handle(modal);
        });
        m_timer.start(20);
    }

private:
    std::function<void(QWidget*)> m_handle;
    QSet<QWidget*> m_seen;
    QTimer m_timer;
};

} // namespace

class tst_frontend : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void mainWindow_data();
    void mainWindow();
    void uploadOverDisabledWindow();

    void noteFromPackage_data();
    void noteFromPackage();
    void noteLanguageChange_data();
    void noteLanguageChange();
    void noteAnswers_data();
    void noteAnswers();

private:
    // A panel laid out by the kit, KAVO_PANEL_ROOT while the test runs.
    void makePanel(const kit::PanelSpec& spec = {});
    // A stick with the package description of `spec` and `lanFiles` (code ->
    // content) in its "language/" directory; becomes the working directory.
    void makeStick(const kit::PackageSpec& spec = {}, const QMap<QString, QByteArray>& lanFiles = {});
    QString appDir() const { return m_stick->path() + QStringLiteral("/opxupdateu"); }
    void useScreen(int deviceWidth)
    {
        ScreenSetting::setDeviceWidthOverride(deviceWidth);
        selectWinSize(ScreenSetting::deviceWidth());
    }

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
    useScreen(1024);
}

void tst_frontend::cleanup()
{
    QDir::setCurrent(m_startDir);
    m_stick.reset();
    m_panel.reset();
    ScreenSetting::setDeviceWidthOverride(0);
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window->isVisible() && qobject_cast<QDialog*>(window) != nullptr)
            QFAIL(qPrintable(QStringLiteral("left open: ") + window->metaObject()->className()));
    }
}

void tst_frontend::makePanel(const kit::PanelSpec& spec)
{
    m_panel = std::make_unique<testenv::TempPanel>();
    QVERIFY(m_panel->isValid());
    QVERIFY(kit::makePanel(m_panel->root(), spec));
}

void tst_frontend::makeStick(const kit::PackageSpec& spec, const QMap<QString, QByteArray>& lanFiles)
{
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_stick->isValid());
    QVERIFY(kit::writePackage(m_stick->path(), spec));
    for (auto it = lanFiles.cbegin(); it != lanFiles.cend(); ++it)
        QVERIFY(testenv::writeFile(appDir() + QStringLiteral("/language/") + it.key() + QStringLiteral(".lan"),
                                   it.value()));
    QVERIFY(QDir::setCurrent(m_stick->path()));
}

void tst_frontend::mainWindow_data()
{
    QTest::addColumn<bool>("withBackup");
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    // Upload needs the panel's packed project, #BKCompreProj.bin. An upload
    // goes to the stick's opxbackup directory where there is one.
    QTest::newRow("packed project, opxbackup, small screen") << true << 1024 << QSize(432, 180);
    QTest::newRow("nothing to upload, no opxbackup, large screen") << false << 1025 << QSize(550, 180);
}

void tst_frontend::mainWindow()
{
    QFETCH(bool, withBackup);
    QFETCH(int, deviceWidth);
    QFETCH(QSize, size);
    kit::PanelSpec panel;
    if (!withBackup)
        panel.backupProject = QByteArray();
    makePanel(panel);
    makeStick();
    const QString backupDir = m_stick->path() + QStringLiteral("/opxbackup");
    QVERIFY(withBackup || QDir(backupDir).removeRecursively());
    useScreen(deviceWidth);

    UDiskUpWin window(QStringLiteral("0007"));

    QCOMPARE(window.windowTitle(), QStringLiteral("kavoOpx U盘综合功能包"));
    const auto* download = window.findChild<QPushButton*>(QStringLiteral("btnProUpToNew"));
    const auto* upload = window.findChild<QPushButton*>(QStringLiteral("btnUpToUdisk"));
    QCOMPARE(download->text(), QStringLiteral("用户工程下载"));
    QCOMPARE(upload->text(), QStringLiteral("上传工程到U盘"));
    QVERIFY(download->isEnabled());
    QCOMPARE(upload->isEnabled(), withBackup);
    QCOMPARE(window.size(), size);
    QCOMPARE(window.pos(), centred(window));
    QCOMPARE(window.panelDir(), m_panel->path(QStringLiteral("/usr/kavo_app/project")));
    QCOMPARE(QDir::currentPath(), withBackup ? backupDir : m_stick->path());
}

void tst_frontend::uploadOverDisabledWindow()
{
    makePanel();
    makeStick();
    // A stick that has never taken an upload; the panel writes to it as to
    // the stick the package runs from.
    const QString backupDir = m_stick->path() + QStringLiteral("/opxbackup");
    QVERIFY(QDir(backupDir).removeRecursively());
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));
    const auto unset = qScopeGuard([] { qunsetenv("KAVO_UDISK_ROOT"); });
    UDiskUpWin window(QStringLiteral("0000"));
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    window.findChild<QPushButton*>(QStringLiteral("btnUpToUdisk"))->click();

    // The upload shows over the main window, which takes no input meanwhile.
    QVERIFY(!window.isEnabled());
    const QList<zeltUpDlg*> uploads = window.findChildren<zeltUpDlg*>();
    QCOMPARE(uploads.size(), 1);
    zeltUpDlg* upload = uploads.first();
    QVERIFY(upload->isVisible());
    QVERIFY(!upload->isModal());

    // The backup directory is made for the upload, which lands in it.
    upload->findChild<QPushButton*>(QStringLiteral("startup_bt"))->click();
    QCOMPARE(testenv::paneLines(*upload).last(), msg(2098).arg(upload->targetName()));
    QCOMPARE(QDir(backupDir).entryList(QDir::Files | QDir::Hidden), QStringList{upload->targetName()});
    QCOMPARE(QDir::currentPath(), backupDir);

    // Escape closes through the dialog's own rules and gives the window back.
    QTest::keyClick(upload, Qt::Key_Escape);
    QVERIFY(!upload->isVisible());
    QVERIFY(window.isEnabled());
    window.close();
}

void tst_frontend::noteFromPackage_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<int>("entry");
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    QTest::newRow("three languages, the second in use, large screen")
        << QStringList{"中文", "English", "Deutsch"} << QStringList{"0000", "0001", "0002"} << "0001" << 1 << 1025
        << QSize(550, 220);
    QTest::newRow("more names than ids, language not listed, small screen")
        << QStringList{"中文", "English"} << QStringList{"0000"} << "0042" << 0 << 1024 << QSize(397, 173);
}

void tst_frontend::noteFromPackage()
{
    QFETCH(QStringList, names);
    QFETCH(QStringList, ids);
    QFETCH(QString, lanId);
    QFETCH(int, entry);
    QFETCH(int, deviceWidth);
    QFETCH(QSize, size);
    makePanel();
    kit::PackageSpec package;
    package.version = QStringLiteral("V2.3.4.5");
    package.languageNames = names;
    package.languageIds = ids;
    makeStick(package, {{"0000", kEnglishTexts}, {"0001", kEnglishTexts}});
    useScreen(deviceWidth);

    dlgUpNote note(appDir(), lanId);

    QCOMPARE(note.windowTitle(), QStringLiteral("kavoOpx U盘综合功能包 V2.3.4.5"));
    QCOMPARE(note.findChild<QLabel*>(QStringLiteral("upNoteLbl"))->text(),
             QStringLiteral("<html><head/><body><p align='center' style='margin:3px'>"
                            "您正在使用 kavoOpx U盘综合功能包 V2.3.4.5，</span></p><p align='center' "
                            "style='margin:3px'> 点击“是”返回到系统设置界面并启动综合功能包，点击“否”退出!"
                            "</span></p></body></html>"));
    // Selecting the entry in use happens before the note is initialised: the
    // language loaded at start-up (here the built-in one) stays.
    QCOMPARE(buttonText(note, QStringLiteral("upBtnOk")), QStringLiteral("是"));
    QCOMPARE(buttonText(note, QStringLiteral("upBtnCancel")), QStringLiteral("否"));
    QCOMPARE(note.languageIds(), ids);
    QCOMPARE(note.lanId(), lanId);
    auto* combo = note.findChild<QComboBox*>(QStringLiteral("comboBox"));
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    QCOMPARE(items, names);
    QCOMPARE(combo->currentIndex(), entry);
    QCOMPARE(note.size(), size);
    QCOMPARE(note.pos(), centred(note));
    // The clear copy of the scrambled description does not outlive the reading.
    QVERIFY(!QFile::exists(appDir() + QStringLiteral("/config/proUpdateTmp.ini")));
    QVERIFY(QFile::exists(appDir() + QStringLiteral("/config/proUpdate.ini")));
}

void tst_frontend::noteLanguageChange_data()
{
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<int>("toolLanguage");
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<QString>("yes"); // "Yes": the English file was loaded

    const QStringList threeIds{"0000", "0001", "0002"};
    QTest::newRow("language with its file") << threeIds << 0 << 1 << "0001" << "Yes";
    QTest::newRow("missing file, tool language has one") << threeIds << 1 << 2 << "0002" << "Yes";
    QTest::newRow("missing file, tool language has none either") << threeIds << 3 << 2 << "0002" << "是";
    QTest::newRow("entry beyond the id list") << QStringList{"0000", "0001"} << 1 << 2 << "0000" << "是";
}

void tst_frontend::noteLanguageChange()
{
    QFETCH(QStringList, ids);
    QFETCH(int, toolLanguage);
    QFETCH(int, index);
    QFETCH(QString, lanId);
    QFETCH(QString, yes);
    makePanel();
    kit::PackageSpec package;
    package.languageNames = QStringList{"中文", "English", "Français"};
    package.languageIds = ids;
    package.toolLanguage = toolLanguage;
    makeStick(package, {{"0001", kEnglishTexts}});
    dlgUpNote note(appDir(), QStringLiteral("0000"));
    // A table other than any the change could load shows whether one was
    // loaded at all.
    const QString other = m_stick->path() + QStringLiteral("/other.lan");
    QVERIFY(testenv::writeFile(other, "[1004]\nstring = other\n"));
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), other));

    note.findChild<QComboBox*>(QStringLiteral("comboBox"))->setCurrentIndex(index);

    const bool english = yes == QLatin1String("Yes");
    QCOMPARE(note.lanId(), lanId);
    QCOMPARE(note.windowTitle(), (english ? QStringLiteral("USB package") : QStringLiteral("kavoOpx U盘综合功能包"))
                                     + QStringLiteral(" V1.0.0.0"));
    QCOMPARE(buttonText(note, QStringLiteral("upBtnOk")), yes);
    QCOMPARE(buttonText(note, QStringLiteral("upBtnCancel")), english ? QStringLiteral("No") : QStringLiteral("否"));
    const bool loaded = index < ids.size();
    QCOMPARE(msg(1004), loaded ? yes : QStringLiteral("other"));
}

void tst_frontend::noteAnswers_data()
{
    QTest::addColumn<bool>("withPassword");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QStringList>("keys"); // pressed on the password dialog; none: it is closed
    QTest::addColumn<QStringList>("modals");
    // Without a configuration on the panel no password is asked.
    QTest::newRow("no configuration, Yes: no password dialog")
        << false << "upBtnOk" << QStringList() << QStringList{"UDiskUpWin"};
    QTest::newRow("No: nothing opens") << false << "upBtnCancel" << QStringList() << QStringList();
    QTest::newRow("Yes, right password") << true << "upBtnOk" << QStringList{"keyBtnA", "keyBtn1", "keyBtnB"}
                                         << QStringList{"PwdEntryDialog", "UDiskUpWin"};
    QTest::newRow("Yes, password dialog closed")
        << true << "upBtnOk" << QStringList() << QStringList{"PwdEntryDialog"};
}

void tst_frontend::noteAnswers()
{
    QFETCH(bool, withPassword);
    QFETCH(QString, button);
    QFETCH(QStringList, keys);
    QFETCH(QStringList, modals);
    kit::PanelSpec panel;
    if (withPassword)
        panel.passwordDigest = QString::fromLatin1(QCryptographicHash::hash("A1B", QCryptographicHash::Md5).toHex());
    makePanel(panel);
    makeStick();
    dlgUpNote note(appDir(), QStringLiteral("0003"));
    note.show();
    QVERIFY(QTest::qWaitForWindowExposed(&note));

    QStringList seen;
    bool noteHidden = true;
    QString mainWindowLanguage;
    ModalWatcher watcher([&](QWidget* modal) {
        seen << QString::fromLatin1(modal->metaObject()->className());
        noteHidden = noteHidden && !note.isVisible();
        if (auto* window = qobject_cast<UDiskUpWin*>(modal))
            mainWindowLanguage = window->lanId();
        QTimer::singleShot(50, modal, [modal, keys] {
            if (qobject_cast<PwdEntryDialog*>(modal) != nullptr && !keys.isEmpty()) {
                for (const QString& key : keys)
                    modal->findChild<QPushButton*>(key)->click();
            } else {
                modal->close();
            }
        });
    });
    auto* pressed = note.findChild<QPushButton*>(button);
    pressed->click();
    QTest::qWait(100);

    QCOMPARE(seen, modals);
    QVERIFY(noteHidden);
    QVERIFY(!note.isVisible());
    if (modals.contains(QStringLiteral("UDiskUpWin"))) {
        QCOMPARE(mainWindowLanguage, QStringLiteral("0003"));
        // "Yes" works once.
        note.show();
        pressed->click();
        QTest::qWait(100);
        QCOMPARE(seen, modals);
        note.close();
    }
}

QTEST_MAIN(tst_frontend)
#include "tst_frontend.moc"
