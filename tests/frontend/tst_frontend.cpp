// The front end's dialogs in process on temporary panels and sticks, one table
// of states and presses each: start note, main window, password, runtime stop.
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/app_exit_failed_dlg.h"
#include "frontend/dlgupnote.h"
#include "frontend/kavo_process.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"
#include "upload/zeltupdlg.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QComboBox>
#include <QLineEdit>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

using testenv::child;
using testenv::textsOf;

const QString kConfig = QStringLiteral("/usr/kavo_app/config/kavo_app_conf.ini");

QByteArray md5Hex(const QByteArray& password)
{
    return QCryptographicHash::hash(password, QCryptographicHash::Md5).toHex();
}

// Every text shows its id; 1010 also takes the reason a reboot failed.
QString tagged(int id)
{
    return id == 1010 ? QStringLiteral("#1010 %1") : QStringLiteral("#%1").arg(id);
}

} // namespace

class tst_frontend : public QObject
{
    Q_OBJECT

private slots:
    // The note and the main window end the application with their last window.
    void initTestCase() { QApplication::setQuitOnLastWindowClosed(false); }
    void init();
    void cleanup();
    void note_data();
    void note();
    void mainWindow_data();
    void mainWindow();
    void password_data();
    void password();
    void runtimeStop_data();
    void runtimeStop();

private:
    // A kit panel and a stick with the package, the working directory.
    void makeStick(const kit::PanelSpec& panel, const kit::PackageSpec& package, int deviceWidth);

    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    QProcess m_runtime;
};

void tst_frontend::init()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_panel = std::make_unique<testenv::TempPanel>();
}

void tst_frontend::cleanup()
{
    m_runtime.kill();
    m_runtime.waitForFinished(5000);
    for (const char* name : {"KAVO_UDISK_ROOT", "KAVO_SIM_REFUSE_STOP", "KAVO_SIM_REBOOT_ERRNO"})
        qunsetenv(name);
    kavo_process::setMulLanguage(nullptr);
    m_panel.reset();
}

void tst_frontend::makeStick(const kit::PanelSpec& panel, const kit::PackageSpec& package, int deviceWidth)
{
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(kit::makePanel(m_panel->root(), panel) && kit::writePackage(m_stick->path(), package));
    QVERIFY(QDir::setCurrent(m_stick->path()));
    ScreenSetting::setDeviceWidthOverride(deviceWidth);
    selectWinSize(ScreenSetting::deviceWidth());
}

void tst_frontend::note_data()
{
    QTest::addColumn<QStringList>("ids");    // of the package's three languages
    QTest::addColumn<int>("toolLanguage");   // the package's fallback
    QTest::addColumn<QString>("lanId");      // in use at the start
    QTest::addColumn<int>("entry");          // selected at the start
    QTest::addColumn<int>("select");         // by the operator; -1: none
    QTest::addColumn<QString>("language");   // in use afterwards
    QTest::addColumn<QString>("captions");   // "Yes/No" from the English file
    QTest::addColumn<QString>("press");      // on the note
    QTest::addColumn<QStringList>("opened"); // the dialogs run in turn, each closed; a password dialog: one is set

    const QStringList three{"0000", "0001", "0002"}, two{"0000", "0001"}, none;
    const QString yes = QStringLiteral("upBtnOk"), no = QStringLiteral("upBtnCancel");
    // Selecting the entry in use at the start loads nothing: the built-in texts stay.
    QTest::newRow("listed language, No") << three << 0 << "0001" << 1 << -1 << "0001" << "是/否" << no << none;
    QTest::newRow("language not listed, more names than ids")
        << two << 0 << "0042" << 0 << -1 << "0042" << "是/否" << no << none;
    QTest::newRow("language with its file, Yes without a password")
        << three << 0 << "0000" << 0 << 1 << "0001" << "Yes/No" << yes << QStringList{"UDiskUpWin 0001"};
    QTest::newRow("missing file, tool language has one, password dialog closed")
        << three << 1 << "0000" << 0 << 2 << "0002" << "Yes/No" << yes << QStringList{"PwdEntryDialog"};
    QTest::newRow("no file for either language") << three << 3 << "0000" << 0 << 2 << "0002" << "是/否" << no << none;
    QTest::newRow("entry beyond the id list") << two << 1 << "0000" << 0 << 2 << "0000" << "是/否" << no << none;
}

void tst_frontend::note()
{
    QFETCH(QStringList, ids);
    QFETCH(int, toolLanguage);
    QFETCH(QString, lanId);
    QFETCH(int, entry);
    QFETCH(int, select);
    QFETCH(QString, language);
    QFETCH(QString, captions);
    QFETCH(QString, press);
    QFETCH(QStringList, opened);
    kit::PanelSpec panel;
    if (opened.contains(QStringLiteral("PwdEntryDialog")))
        panel.passwordDigest = QString::fromLatin1(md5Hex("A1B"));
    // The note needs neither the executable nor the updater.
    const kit::PackageSpec package{{}, {}, "V2.3.4.5", {"中文", "English", "Français"}, ids, toolLanguage};
    makeStick(panel, package, ids.size() == 3 ? 1025 : 1024);
    const QString appDir = m_stick->path() + QStringLiteral("/opxupdateu");
    QVERIFY(testenv::writeFile(appDir + QStringLiteral("/language/0001.lan"),
                               "[1004]\nstring = Yes\n[1005]\nstring = No\n[2000]\nstring = USB package\n"));

    dlgUpNote note(appDir, lanId);
    auto* combo = child<QComboBox>(note, "comboBox");
    QCOMPARE(combo->currentIndex(), entry);
    QCOMPARE(note.size(), ids.size() == 3 ? QSize(550, 220) : QSize(397, 173));
    // The clear copy of the scrambled description does not outlive the reading.
    QCOMPARE(QDir(appDir + QStringLiteral("/config")).entryList({"proUpdate*.ini"}).size(), 2);
    if (select >= 0)
        combo->setCurrentIndex(select);
    QCOMPARE(textsOf(note, {"upBtnOk", "upBtnCancel", "upNoteLbl"}) << note.lanId(),
             QStringList({(captions == QLatin1String("Yes/No") ? "USB package" : "kavoOpx U盘综合功能包")
                              + QStringLiteral(" V2.3.4.5"),
                          captions.section('/', 0, 0), captions.section('/', 1),
                          "<html><head/><body><p align='center' style='margin:3px'>您正在使用 kavoOpx U盘综合功能包 "
                          "V2.3.4.5，</span></p><p align='center' style='margin:3px'> 点击“是”返回到系统设置界面并启动"
                          "综合功能包，点击“否”退出!</span></p></body></html>",
                          language}));

    // Each dialog the note runs, the note hidden meanwhile, is closed from its own loop.
    QStringList seen;
    testenv::ShowWatcher watcher([&](QWidget* shown) {
        auto* main = qobject_cast<UDiskUpWin*>(shown);
        if (qobject_cast<PwdEntryDialog*>(shown) == nullptr && main == nullptr)
            return;
        seen << QString::fromLatin1(shown->metaObject()->className()) + (main ? " " + main->lanId() : QString());
        QVERIFY(!note.isVisible());
        QTimer::singleShot(50, shown, &QWidget::close);
    });
    note.show();
    child<QPushButton>(note, qPrintable(press))->click();
    QCOMPARE(seen, opened);
}

void tst_frontend::mainWindow_data()
{
    QTest::addColumn<bool>("backup");    // the panel's packed project, #BKCompreProj.bin, is there
    QTest::addColumn<bool>("opxbackup"); // on the stick; an upload makes it
    QTest::newRow("packed project, opxbackup, small screen") << true << true;
    QTest::newRow("packed project, no opxbackup, large screen") << true << false;
    QTest::newRow("nothing to upload") << false << true;
}

void tst_frontend::mainWindow()
{
    QFETCH(bool, backup);
    QFETCH(bool, opxbackup);
    kit::PanelSpec panel;
    if (!backup)
        panel.backupProject = QByteArray();
    makeStick(panel, {}, opxbackup ? 1024 : 1025);
    const QString backupDir = m_stick->path() + QStringLiteral("/opxbackup");
    QVERIFY(opxbackup || QDir(backupDir).removeRecursively());
    // The panel writes to the stick the package runs from.
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));

    UDiskUpWin window(QStringLiteral("0007"));
    window.show();
    QCOMPARE(textsOf(window, {"btnProUpToNew", "btnUpToUdisk"})
                 << testenv::enabledButtons(window, {"btnProUpToNew", "btnUpToUdisk"}) << QDir::currentPath(),
             QStringList({"kavoOpx U盘综合功能包", "用户工程下载", "上传工程到U盘", backup ? "11" : "10",
                          opxbackup ? backupDir : m_stick->path()}));
    QCOMPARE(window.size(), opxbackup ? QSize(432, 180) : QSize(550, 180));
    if (!backup)
        return;
    // The upload shows over the main window, which takes no input meanwhile; Escape gives the window back.
    child<QPushButton>(window, "btnUpToUdisk")->click();
    auto* upload = window.findChild<zeltUpDlg*>();
    QVERIFY(upload != nullptr && upload->isVisible() && !upload->isModal() && !window.isEnabled());
    child<QPushButton>(*upload, "startup_bt")->click();
    QCOMPARE(QDir(backupDir).entryList(QDir::Files), QStringList{upload->targetName()});
    QTest::keyClick(upload, Qt::Key_Escape);
    QVERIFY(!upload->isVisible() && window.isEnabled());
}

void tst_frontend::password_data()
{
    QTest::addColumn<QByteArray>("license"); // the stored digest; null: no configuration file
    QTest::addColumn<QString>("start");      // in the line edit: "|" the cursor (else at the end), "|...|" a selection
    QTest::addColumn<QString>("keys");       // pressed; "~": the settings program removes the password
    QTest::addColumn<QString>("typed");      // in the line edit afterwards; "": empty
    QTest::addColumn<QStringList>("boxes");  // shown
    QTest::addColumn<bool>("opens");

    const QByteArray ab1 = md5Hex("AB1"), abLower = md5Hex("ab1");
    const QStringList none;
    const QString tooLong = QStringLiteral("#1001|#1012|#1003");
    // Without a password any key opens.
    QTest::newRow("no configuration file") << QByteArray() << "" << "Z" << "" << none << true;
    QTest::newRow("empty license") << QByteArray("") << "" << "Z" << "" << none << true;
    // The settings program writes lower case only.
    QTest::newRow("upper-case digest") << ab1.toUpper() << "" << "A B 1" << "AB1" << none << false;
    QTest::newRow("digest and a character") << ab1 + "0" << "" << "A B 1" << "AB1" << none << false;
    QTest::newRow("Cap twice") << abLower << "" << "Cap Cap A B 1" << "AB1" << none << false;
    QTest::newRow("Cap, lower-case password") << abLower << "" << "Cap A B 1" << "" << none << true;
    // Del removes a selection only, never the character after the cursor.
    QTest::newRow("Del without a selection") << ab1 << "ZY|XW" << "Del Q" << "ZYQXW" << none << false;
    QTest::newRow("Del, selection forwards") << ab1 << "Z|YX|W" << "Del Q" << "ZQW" << none << false;
    QTest::newRow("Back inside") << ab1 << "ZY|XW" << "Back Q" << "ZQXW" << none << false;
    QTest::newRow("Back at position 0") << ab1 << "|ZYXW" << "Back Q" << "QZYXW" << none << false;
    // Nothing is cut: each key brings the box until the text is short enough.
    // A right password opens on its last key, so Confirm always reports a wrong one.
    QTest::newRow("too long, then Confirm") << ab1 << QString(20, 'Z') << "Z Z Back Back Confirm" << ""
                                            << QStringList{tooLong, tooLong, tooLong, "#1001|#1013|#1003"} << false;
    QTest::newRow("20 characters") << ab1 << QString(19, 'Z') << "Z" << QString(20, 'Z') << none << false;
    // Read again on every key.
    QTest::newRow("password removed meanwhile") << ab1 << "" << "Z ~ Z" << "" << none << true;
}

void tst_frontend::password()
{
    QFETCH(QByteArray, license);
    QFETCH(QString, start);
    QFETCH(QString, keys);
    QFETCH(QString, typed);
    QFETCH(QStringList, boxes);
    QFETCH(bool, opens);

    QVERIFY(license.isNull() || testenv::writeFile(m_panel->path(kConfig), "[SECURITY]\nlicense=" + license + '\n'));
    PwdEntryDialog dialog(nullptr, tagged);
    dialog.show();
    auto* edit = child<QLineEdit>(dialog, "lineEditPwd");
    QCOMPARE(textsOf(dialog, {"label", "keyBtnConfirm"}), QStringList({"#1011", "#1014", "#1003"}));
    const QStringList parts = start.split(QLatin1Char('|'));
    edit->setText(parts.join(QString()));
    if (parts.size() > 1)
        edit->setSelection(parts.at(0).size(), parts.size() > 2 ? parts.at(1).size() : 0);
    QSignalSpy allowed(&dialog, &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer answerer;
    for (const QString& key : keys.split(QLatin1Char(' '))) {
        if (key == QLatin1String("~"))
            QVERIFY(QFile::remove(m_panel->path(kConfig)));
        else
            QTest::mouseClick(child<QPushButton>(dialog, qPrintable("keyBtn" + key)), Qt::LeftButton);
    }

    QCOMPARE(testenv::boxTexts(answerer.seen()), boxes);
    QCOMPARE(QVariantList({edit->text(), allowed.count(), dialog.isAccessAllowed(), dialog.isVisible()}),
             QVariantList({typed, opens ? 1 : 0, opens, !opens}));
    // Closing forgets what was typed.
    dialog.close();
    QVERIFY(edit->text().isEmpty());
}

void tst_frontend::runtimeStop_data()
{
    QTest::addColumn<QString>("runtime");     // its script
    QTest::addColumn<bool>("refuse");         // the process service refuses stop requests
    QTest::addColumn<QStringList>("presses"); // on each wait dialog in turn
    QTest::addColumn<int>("silentMs");        // waited before the first dialog shows (else before the stop returns)
    QTest::addColumn<QString>("end");         // of the runtime: "running", "requested" (by SIGTERM), "other"

    const QString obedient = QStringLiteral("echo ready; exec sleep 60");
    const QStringList none;
    // Already stopped: a needless request, refused, would bring up the dialog.
    QTest::newRow("pid of a finished process, stop refused") << "echo ready" << true << none << 0 << "other";
    QTest::newRow("stops on request") << obedient << false << none << 100 << "requested";
    // Ten seconds of silent waiting before the operator is asked.
    QTest::newRow("never stops, forced") << "trap '' TERM; echo ready; while :; do sleep 1; done" << false
                                         << QStringList{"force"} << 9900 << "running";
    // A refused request brings the dialog up at once; it sees the runtime end within 100 ms.
    QTest::newRow("refused, the runtime ends meanwhile") << obedient << true << QStringList{"kill"} << 0 << "other";
    QTest::newRow("refused, Escape, refused again, closed, then the request goes through")
        << obedient << true << QStringList{"Escape", "close"} << 0 << "requested";
    // A failed reboot is explained; the operator may still force or wait.
    QTest::newRow("refused, reboot fails, forced")
        << obedient << true << QStringList{"reboot, force"} << 0 << "running";
}

void tst_frontend::runtimeStop()
{
    QFETCH(QString, runtime);
    QFETCH(bool, refuse);
    QFETCH(QStringList, presses);
    QFETCH(int, silentMs);
    QFETCH(QString, end);

    // The runtime says "ready" once a stop request can no longer overtake its set-up.
    m_runtime.start(QStringLiteral("sh"), {QStringLiteral("-c"), runtime});
    QVERIFY(m_runtime.waitForReadyRead(5000) && m_runtime.readLine() == "ready\n");
    QVERIFY(testenv::writeFile(m_panel->path("/var/run/kavo_app.pid"), QByteArray::number(m_runtime.processId())));
    QVERIFY(runtime != QLatin1String("echo ready") || m_runtime.waitForFinished(5000));
    if (refuse)
        qputenv("KAVO_SIM_REFUSE_STOP", "1");
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    testenv::BoxAnswerer boxes;
    kavo_process::setMulLanguage(tagged);
    QWidget owner;
    QElapsedTimer clock;
    clock.start();
    QList<qint64> shownAt;
    testenv::ShowWatcher watcher([&](QWidget* widget) {
        auto* dialog = qobject_cast<app_exit_failed_dlg*>(widget);
        if (dialog == nullptr)
            return;
        const QString press = presses.value(shownAt.size());
        shownAt << clock.elapsed();
        QCOMPARE(textsOf(*dialog, {"label", "label_2", "forceExecBtn", "rebootBtn"}),
                 QStringList({"#1000", "#1008", "#1016", "#1017", "#1018"}));
        QVERIFY(!dialog->pollMode() && dialog->parentWidget() == &owner);
        QTimer::singleShot(0, dialog, [this, dialog, press] {
            if (press.startsWith(QLatin1String("reboot"))) {
                child<QPushButton>(*dialog, "rebootBtn")->click();
                QVERIFY(dialog->isVisible() && dialog->retry());
            }
            if (press.endsWith(QLatin1String("force")))
                child<QPushButton>(*dialog, "forceExecBtn")->click();
            else if (press == QLatin1String("kill"))
                QTimer::singleShot(1250, &m_runtime, [this] { m_runtime.kill(); });
            else if (press == QLatin1String("Escape"))
                QTest::keyClick(dialog, Qt::Key_Escape);
            else if (press == QLatin1String("close")) {
                qunsetenv("KAVO_SIM_REFUSE_STOP");
                dialog->close();
            }
        });
    });
    // The runtime stand-in is this test's child, which a panel's runtime is not
    // to the package. Where Qt catches SIGCHLD to watch its children (kernels
    // without process file descriptors; qemu-user), the stand-in's end would
    // cut the package's 100 ms sleeps short; held back, it arrives afterwards.
    sigset_t childEnd;
    sigemptyset(&childEnd);
    sigaddset(&childEnd, SIGCHLD);
    QCOMPARE(pthread_sigmask(SIG_BLOCK, &childEnd, nullptr), 0);
    const bool backToDovik = kavo_process::backToDovik(7, &owner);
    QCOMPARE(pthread_sigmask(SIG_UNBLOCK, &childEnd, nullptr), 0);
    QVERIFY(backToDovik);

    QCOMPARE(shownAt.size(), presses.size());
    QCOMPARE(testenv::boxTexts(boxes.seen()), presses.contains(QStringLiteral("reboot, force"))
                                                  ? QStringList{"#1000|#1010 Operation not permitted|#1003"}
                                                  : QStringList());
    QVERIFY(!QFile::exists(m_panel->path(QStringLiteral("/var/run/reboot-requested"))));
    const qint64 at = shownAt.isEmpty() ? clock.elapsed() : shownAt.first(), open = clock.elapsed() - at;
    QVERIFY2(at >= silentMs && at <= silentMs + 6000, qPrintable(QString::number(at)));
    QVERIFY2(presses != QStringList{"kill"} || (open >= 1250 && open <= 1800), qPrintable(QString::number(open)));
    QVERIFY(end == "running" || m_runtime.state() == QProcess::NotRunning || m_runtime.waitForFinished(5000));
    // Only a stop request ends the runtime by SIGTERM.
    const bool byTerm = m_runtime.exitStatus() == QProcess::CrashExit && m_runtime.exitCode() == SIGTERM;
    QCOMPARE(QString(m_runtime.state() == QProcess::Running ? "running" : byTerm ? "requested" : "other"), end);
}

QTEST_MAIN(tst_frontend)
#include "tst_frontend.moc"
