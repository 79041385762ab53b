// The start note (dlgUpNote) and the package's main window (UDiskUpWin), in
// process on an offscreen screen, on temporary panels and sticks. Modal
// dialogs are answered from a timer that watches the active modal widget.
#include "download/dlgdownload.h"
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
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
#include <QMouseEvent>
#include <QPushButton>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const QString kNoteText = QStringLiteral(
    "<html><head/><body><p align='center' style='margin:3px'>您正在使用 kavoOpx U盘综合功能包 %1，"
    "</span></p><p align='center' style='margin:3px'> "
    "点击“是”返回到系统设置界面并启动综合功能包，点击“否”退出!</span></p></body></html>");

// A language file that renames the note's title and buttons.
const QByteArray kEnglishTexts = "[1004]\nstring = Yes\n[1005]\nstring = No\n[2000]\nstring = USB package\n";

QString text(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

QPoint centred(const QWidget& window)
{
    const QRect desktop = QApplication::desktop()->geometry();
    return QPoint((desktop.width() - window.width()) / 2, (desktop.height() - window.height()) / 2);
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
    void mainWindowWorkingDirectory_data();
    void mainWindowWorkingDirectory();
    void downloadOpensOnce();
    void uploadOverDisabledWindow();

    void noteFromPackage_data();
    void noteFromPackage();
    void noteInitialSelection_data();
    void noteInitialSelection();
    void noteLanguageChange_data();
    void noteLanguageChange();
    void noteYesWithoutPassword();
    void noteYesWithPassword_data();
    void noteYesWithPassword();
    void noteTitleBarDoubleClick_data();
    void noteTitleBarDoubleClick();

private:
    // A panel laid out by the kit, KAVO_PANEL_ROOT while the test runs.
    void makePanel(const kit::PanelSpec& spec);
    // A stick with the package description of `spec` and `lanFiles` (code ->
    // content) in its "language/" directory; becomes the working directory.
    void makeStick(const kit::PackageSpec& spec, const QMap<QString, QByteArray>& lanFiles = {});
    QString appDir() const { return m_stick->path() + QStringLiteral("/opxupdateu"); }
    void useScreen(int deviceWidth);

    QString m_startDir;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_frontend::initTestCase()
{
    initKavoResources();
    // The note and the main window end the application when their last window
    // closes; the test runs many of them in one application.
    QApplication::setQuitOnLastWindowClosed(false);
    m_startDir = QDir::currentPath();
}

void tst_frontend::init()
{
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
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

void tst_frontend::useScreen(int deviceWidth)
{
    ScreenSetting::setDeviceWidthOverride(deviceWidth);
    selectWinSize(ScreenSetting::deviceWidth());
}

void tst_frontend::mainWindow_data()
{
    QTest::addColumn<bool>("withBackup");
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    QTest::newRow("packed project, small screen") << true << 1024 << QSize(432, 180);
    QTest::newRow("packed project, large screen") << true << 1025 << QSize(550, 180);
    QTest::newRow("nothing to upload, small screen") << false << 1024 << QSize(432, 180);
    QTest::newRow("nothing to upload, large screen") << false << 1025 << QSize(550, 180);
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
    makeStick(kit::PackageSpec());
    useScreen(deviceWidth);

    UDiskUpWin window(QStringLiteral("0007"));
    auto* download = window.findChild<QPushButton*>(QStringLiteral("btnProUpToNew"));
    auto* upload = window.findChild<QPushButton*>(QStringLiteral("btnUpToUdisk"));
    QVERIFY(download != nullptr && upload != nullptr);

    QCOMPARE(window.windowTitle(), QStringLiteral("kavoOpx U盘综合功能包"));
    QCOMPARE(download->text(), QStringLiteral("用户工程下载"));
    QCOMPARE(upload->text(), QStringLiteral("上传工程到U盘"));
    QVERIFY(download->isEnabled());
    QCOMPARE(upload->isEnabled(), withBackup);
    QCOMPARE(window.size(), size);
    QCOMPARE(window.minimumSize(), size);
    QCOMPARE(window.maximumSize(), size);
    QCOMPARE(window.pos(), centred(window));
    QVERIFY(window.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!window.windowFlags().testFlag(Qt::WindowContextHelpButtonHint));
    QCOMPARE(window.panelDir(), m_panel->path(QStringLiteral("/usr/kavo_app/project")));
    QCOMPARE(window.backupFile(), m_panel->path(QStringLiteral("/usr/kavo_app/project/#BKCompreProj.bin")));
    QCOMPARE(window.lanId(), QStringLiteral("0007"));
}

void tst_frontend::mainWindowWorkingDirectory_data()
{
    QTest::addColumn<bool>("withBackupDir");
    QTest::newRow("stick with opxbackup") << true;
    QTest::newRow("stick without opxbackup") << false;
}

void tst_frontend::mainWindowWorkingDirectory()
{
    QFETCH(bool, withBackupDir);
    makePanel(kit::PanelSpec());
    makeStick(kit::PackageSpec());
    if (withBackupDir)
        QVERIFY(QDir().mkpath(m_stick->path() + QStringLiteral("/opxbackup")));
    const QString before = QDir::currentPath();

    UDiskUpWin window(QStringLiteral("0000"));

    QCOMPARE(QDir::currentPath(), withBackupDir ? before + QStringLiteral("/opxbackup") : before);
    QVERIFY(UDiskUpWin::changeWorkingDir(qPrintable(m_stick->path())));
    QCOMPARE(QDir::currentPath(), m_stick->path());
    QVERIFY(!UDiskUpWin::changeWorkingDir("./no-such-directory/"));
    QCOMPARE(QDir::currentPath(), m_stick->path());
}

void tst_frontend::downloadOpensOnce()
{
    makePanel(kit::PanelSpec());
    makeStick(kit::PackageSpec());
    UDiskUpWin window(QStringLiteral("0000"));
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    auto* download = window.findChild<QPushButton*>(QStringLiteral("btnProUpToNew"));

    int downloadDialogs = 0;
    bool windowHidden = false;
    QString dataDir;
    ModalWatcher watcher([&](QWidget* modal) {
        auto* dialog = qobject_cast<dlgDownLoad*>(modal);
        if (dialog == nullptr)
            return;
        ++downloadDialogs;
        windowHidden = !window.isVisible();
        dataDir = dialog->m_dataDir;
        // The second press arrives while the first dialog is up.
        download->click();
        QTimer::singleShot(100, dialog, &QDialog::close);
    });
    download->click();
    download->click();

    QCOMPARE(downloadDialogs, 1);
    QVERIFY(windowHidden);
    QCOMPARE(dataDir, window.panelDir());
    QVERIFY(!window.isVisible());
}

void tst_frontend::uploadOverDisabledWindow()
{
    makePanel(kit::PanelSpec());
    makeStick(kit::PackageSpec());
    UDiskUpWin window(QStringLiteral("0000"));
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    window.findChild<QPushButton*>(QStringLiteral("btnUpToUdisk"))->click();

    QVERIFY(!window.isEnabled());
    QVERIFY(window.isVisible());
    const QList<zeltUpDlg*> uploads = window.findChildren<zeltUpDlg*>();
    QCOMPARE(uploads.size(), 1);
    zeltUpDlg* upload = uploads.first();
    QVERIFY(upload->isVisible());
    QVERIFY(!upload->isModal());
    QCOMPARE(upload->parentWidget(), &window);

    upload->close();
    QVERIFY(window.isEnabled());
    window.close();
    QVERIFY(!window.isVisible());
}

void tst_frontend::noteFromPackage_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    QTest::newRow("one language, small screen")
        << "V1.0.0.0" << QStringList{"中文"} << QStringList{"0000"} << 1024 << QSize(397, 173);
    QTest::newRow("three languages, large screen")
        << "V2.3.4.5" << QStringList{"中文", "English", "Deutsch"} << QStringList{"0000", "0001", "0002"} << 1025
        << QSize(550, 220);
    QTest::newRow("more names than ids")
        << "V1.0.0.1" << QStringList{"中文", "English"} << QStringList{"0000"} << 1024 << QSize(397, 173);
}

void tst_frontend::noteFromPackage()
{
    QFETCH(QString, version);
    QFETCH(QStringList, names);
    QFETCH(QStringList, ids);
    QFETCH(int, deviceWidth);
    QFETCH(QSize, size);
    makePanel(kit::PanelSpec());
    kit::PackageSpec package;
    package.version = version;
    package.languageNames = names;
    package.languageIds = ids;
    makeStick(package);
    useScreen(deviceWidth);

    dlgUpNote note(appDir(), QStringLiteral("0000"));

    QCOMPARE(note.objectName(), QStringLiteral("kavotoolwnd"));
    QCOMPARE(note.windowTitle(), QStringLiteral("kavoOpx U盘综合功能包 ") + version);
    QCOMPARE(note.findChild<QLabel*>(QStringLiteral("upNoteLbl"))->text(), kNoteText.arg(version));
    QCOMPARE(note.findChild<QPushButton*>(QStringLiteral("upBtnOk"))->text(), QStringLiteral("是"));
    QCOMPARE(note.findChild<QPushButton*>(QStringLiteral("upBtnCancel"))->text(), QStringLiteral("否"));
    QCOMPARE(note.version(), version);
    QCOMPARE(note.languageIds(), ids);
    auto* combo = note.findChild<QComboBox*>(QStringLiteral("comboBox"));
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    QCOMPARE(items, names);
    QCOMPARE(combo->currentIndex(), 0);
    QVERIFY(note.isInitialised());
    QCOMPARE(note.size(), size);
    QCOMPARE(note.minimumSize(), size);
    QCOMPARE(note.maximumSize(), size);
    QCOMPARE(note.pos(), centred(note));
    QVERIFY(note.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!note.windowFlags().testFlag(Qt::WindowContextHelpButtonHint));
    // The clear copy of the scrambled description does not outlive the reading.
    QVERIFY(!QFile::exists(appDir() + QStringLiteral("/config/proUpdateTmp.ini")));
    QVERIFY(QFile::exists(appDir() + QStringLiteral("/config/proUpdate.ini")));
}

void tst_frontend::noteInitialSelection_data()
{
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<int>("entry");
    QTest::newRow("listed second") << "0001" << 1;
    QTest::newRow("listed first") << "0000" << 0;
    QTest::newRow("not listed") << "0042" << 0;
}

void tst_frontend::noteInitialSelection()
{
    QFETCH(QString, lanId);
    QFETCH(int, entry);
    makePanel(kit::PanelSpec());
    kit::PackageSpec package;
    package.languageNames = QStringList{"中文", "English"};
    package.languageIds = QStringList{"0000", "0001"};
    makeStick(package, {{"0000", kEnglishTexts}, {"0001", kEnglishTexts}});

    dlgUpNote note(appDir(), lanId);

    QCOMPARE(note.findChild<QComboBox*>(QStringLiteral("comboBox"))->currentIndex(), entry);
    QCOMPARE(note.lanId(), lanId);
    // Selecting the entry happens before the note is initialised: the language
    // loaded at start-up (here the built-in one) stays.
    QCOMPARE(text(1004), QStringLiteral("是"));
    QCOMPARE(note.findChild<QPushButton*>(QStringLiteral("upBtnOk"))->text(), QStringLiteral("是"));
}

void tst_frontend::noteLanguageChange_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<int>("toolLanguage");
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("yes");
    QTest::addColumn<QString>("no");

    const QStringList names{"中文", "English", "Français"};
    QTest::newRow("language with its file")
        << names << QStringList{"0000", "0001", "0002"} << 0 << 1 << "0001" << "USB package V1.0.0.0" << "Yes"
        << "No";
    QTest::newRow("missing file, tool language has one")
        << names << QStringList{"0000", "0001", "0002"} << 1 << 2 << "0002" << "USB package V1.0.0.0" << "Yes"
        << "No";
    QTest::newRow("missing file, tool language has none either")
        << names << QStringList{"0000", "0001", "0002"} << 3 << 2 << "0002" << "kavoOpx U盘综合功能包 V1.0.0.0"
        << "是" << "否";
    QTest::newRow("entry beyond the id list")
        << names << QStringList{"0000", "0001"} << 1 << 2 << "0000" << "kavoOpx U盘综合功能包 V1.0.0.0" << "是"
        << "否";
}

void tst_frontend::noteLanguageChange()
{
    QFETCH(QStringList, names);
    QFETCH(QStringList, ids);
    QFETCH(int, toolLanguage);
    QFETCH(int, index);
    QFETCH(QString, lanId);
    QFETCH(QString, title);
    QFETCH(QString, yes);
    QFETCH(QString, no);
    makePanel(kit::PanelSpec());
    kit::PackageSpec package;
    package.languageNames = names;
    package.languageIds = ids;
    package.toolLanguage = toolLanguage;
    makeStick(package, {{"0001", kEnglishTexts}});
    dlgUpNote note(appDir(), QStringLiteral("0000"));
    // A table other than any the change could load shows whether one was
    // loaded at all.
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(
        QString(), testenv::writeFile(m_stick->path() + "/other.lan", "[1004]\nstring = other\n")
                       ? m_stick->path() + "/other.lan"
                       : QString()));
    QCOMPARE(text(1004), QStringLiteral("other"));

    note.findChild<QComboBox*>(QStringLiteral("comboBox"))->setCurrentIndex(index);

    QCOMPARE(note.lanId(), lanId);
    QCOMPARE(note.windowTitle(), title);
    QCOMPARE(note.findChild<QPushButton*>(QStringLiteral("upBtnOk"))->text(), yes);
    QCOMPARE(note.findChild<QPushButton*>(QStringLiteral("upBtnCancel"))->text(), no);
    const bool loaded = index < ids.size();
    QCOMPARE(text(1004), loaded ? yes : QStringLiteral("other"));
    if (loaded)
        QCOMPARE(text(2001), QStringLiteral("您正在使用 kavoOpx U盘综合功能包 %1，"));
}

void tst_frontend::noteYesWithoutPassword()
{
    makePanel(kit::PanelSpec());
    makeStick(kit::PackageSpec());
    dlgUpNote note(appDir(), QStringLiteral("0003"));
    note.show();
    QVERIFY(QTest::qWaitForWindowExposed(&note));

    QStringList modals;
    bool noteHidden = false;
    QString mainWindowLanguage;
    ModalWatcher watcher([&](QWidget* modal) {
        modals << QString::fromLatin1(modal->metaObject()->className());
        if (auto* window = qobject_cast<UDiskUpWin*>(modal)) {
            noteHidden = !note.isVisible();
            mainWindowLanguage = window->lanId();
            QTimer::singleShot(50, window, &QDialog::close);
        }
    });
    auto* yes = note.findChild<QPushButton*>(QStringLiteral("upBtnOk"));
    yes->click();

    QCOMPARE(modals, QStringList{QStringLiteral("UDiskUpWin")});
    QVERIFY(noteHidden);
    QCOMPARE(mainWindowLanguage, QStringLiteral("0003"));
    QVERIFY(!note.isVisible());

    // "Yes" works once.
    note.show();
    yes->click();
    QTest::qWait(100);
    QCOMPARE(modals.size(), 1);
    note.close();
}

void tst_frontend::noteYesWithPassword_data()
{
    QTest::addColumn<QStringList>("keys");
    QTest::addColumn<QStringList>("modals");
    QTest::newRow("right password") << QStringList{"keyBtnA", "keyBtn1", "keyBtnB"}
                                    << QStringList{"PwdEntryDialog", "UDiskUpWin"};
    QTest::newRow("dialog closed") << QStringList() << QStringList{"PwdEntryDialog"};
}

void tst_frontend::noteYesWithPassword()
{
    QFETCH(QStringList, keys);
    QFETCH(QStringList, modals);
    kit::PanelSpec panel;
    panel.passwordDigest = QString::fromLatin1(QCryptographicHash::hash("A1B", QCryptographicHash::Md5).toHex());
    makePanel(panel);
    makeStick(kit::PackageSpec());
    dlgUpNote note(appDir(), QStringLiteral("0000"));
    note.show();
    QVERIFY(QTest::qWaitForWindowExposed(&note));

    QStringList seen;
    bool noteHiddenForPassword = false;
    ModalWatcher watcher([&](QWidget* modal) {
        seen << QString::fromLatin1(modal->metaObject()->className());
        if (qobject_cast<PwdEntryDialog*>(modal) != nullptr) {
            noteHiddenForPassword = !note.isVisible();
            QTimer::singleShot(50, modal, [modal, keys] {
                for (const QString& key : keys)
                    modal->findChild<QPushButton*>(key)->click();
                if (keys.isEmpty())
                    modal->close();
            });
        } else {
            QTimer::singleShot(50, modal, &QWidget::close);
        }
    });
    note.findChild<QPushButton*>(QStringLiteral("upBtnOk"))->click();

    QCOMPARE(seen, modals);
    QVERIFY(noteHiddenForPassword);
    QVERIFY(!note.isVisible());
}

void tst_frontend::noteTitleBarDoubleClick_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("recentred");
    QTest::newRow("title bar double click") << int(QEvent::NonClientAreaMouseButtonDblClick) << true;
    QTest::newRow("double click inside") << int(QEvent::MouseButtonDblClick) << false;
}

void tst_frontend::noteTitleBarDoubleClick()
{
    QFETCH(int, type);
    QFETCH(bool, recentred);
    QCOMPARE(int(QEvent::NonClientAreaMouseButtonDblClick), 176);
    makePanel(kit::PanelSpec());
    makeStick(kit::PackageSpec());
    dlgUpNote note(appDir(), QStringLiteral("0000"));
    note.show();
    QVERIFY(QTest::qWaitForWindowExposed(&note));
    note.move(3, 4);
    QCOMPARE(note.pos(), QPoint(3, 4));

    QMouseEvent click(static_cast<QEvent::Type>(type), QPointF(5, 5), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(&note, &click);

    QCOMPARE(note.pos(), recentred ? centred(note) : QPoint(3, 4));
    note.close();
}

QTEST_MAIN(tst_frontend)
#include "tst_frontend.moc"
