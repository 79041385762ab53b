// The download dialog: the projects it offers, and its states and presses.
#include "download/dlgdownload.h"
#include "download/list_view.h"
#include "frame/screensetting.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QApplication>
#include <QtTest>

#include <cstring>
#include <memory>
#include <sys/time.h>

namespace {

using testenv::child;

WinBackground* background()
{
    const QWidgetList widgets = QApplication::topLevelWidgets();
    auto found = std::find_if(widgets.begin(), widgets.end(), [](QWidget* w) { return qobject_cast<WinBackground*>(w); });
    return found == widgets.end() ? nullptr : static_cast<WinBackground*>(*found);
}

// The release selects the second project before the click; it undoes a failure's quit button.
void touchSecond(dlgDownLoad& dialog)
{
    auto* list = child<list_view>(dialog, "listView");
    child<QPushButton>(dialog, "btnRestart")->setText(msg(2010));
    const QModelIndex second = list->model()->index(1, 0);
    QStringList order;
    QObject listening;
    QObject::connect(list, &list_view::emitSelectInfo, &listening, [&](const QString& name) { order << "release:" + name; });
    QObject::connect(list, &QListView::clicked, &listening, [&] { order << "clicked:" + dialog.windowTitle(); });
    QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, list->visualRect(second).center());
    const QString name = second.data().toString();
    QCOMPARE(order, (QStringList{"release:" + name, "clicked:" + name}));
    QCOMPARE(dialog.m_projectName + dialog.windowTitle(), name + name);
    QCOMPARE(child<QPushButton>(dialog, "btnRestart")->text(), msg(2007));
}

} // namespace

class TestDlgDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void projectList_data();
    void projectList();
    void presses_data();
    void presses();

private:
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<testenv::TempPanel> m_panel;
    QString m_oldCwd = QDir::currentPath();
};

void TestDlgDownload::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    // Every reboot fails with EIO, so that the process survives it.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "5");
}

void TestDlgDownload::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid() && QDir::setCurrent(m_stick->path()));
    selectWinSize(1280);
    ScreenSetting::setDeviceWidthOverride(1280);
}

void TestDlgDownload::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_stick.reset();
    m_panel.reset();
    for (QWidget* widget : QApplication::topLevelWidgets())
        QVERIFY2(!widget->isVisible(), widget->metaObject()->className());
}

void TestDlgDownload::projectList_data()
{
    // Made on the stick ("/" ends a directory, "DIR=SECONDS" sets its time), the list.
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("no project") << QStringList{"e/", "o/v5/readme.txt", "context.dat", "U/Context.dat", "q/context.dat/"}
                                << QStringList();
    // The v5 tree decides, a variant tree hides the top; newest first, never the package's.
    QTest::newRow("projects") << QStringList{"a/v7/context.dat", "b/v5/context.dat", "b/v7/", "c/v5/", "c/v7/context.dat",
                                             "d/context.dat", "d/v7/", "e/context.dat", "opxupdateu/context.dat",
                                             "a=1500000000", "b=1700000000", "e=1600000000", "opxupdateu=1800000000"}
                              << QStringList{"b", "e", "a"};
}

void TestDlgDownload::projectList()
{
    QFETCH(QStringList, entries);
    QFETCH(QStringList, expected);
    for (const QString& entry : entries) {
        const timeval time = {entry.section('=', 1).toLong(), 0};
        const timeval times[2] = {time, time};
        QVERIFY(entry.contains('=')      ? utimes(QFile::encodeName(entry.section('=', 0, 0)).constData(), times) == 0
                : entry.endsWith('/') ? QDir().mkpath(entry)
                                      : testenv::writeFile(entry, "x"));
    }
    // The list is the package root's, wherever the working directory is.
    QVERIFY(QDir::setCurrent(QDir::tempPath()));
    dlgDownLoad dialog(QStringLiteral("/usr/kavo_app/project"), QStringLiteral("0"));
    dialog.setPackageRoot(m_stick->path());
    auto* list = child<QListView>(dialog, "listView");
    QStringList shown;
    for (int row = 0; row < list->model()->rowCount(); ++row)
        shown << list->model()->index(row, 0).data().toString();
    QCOMPARE(shown, expected);
    // The newest is chosen; without any the title names the default project.
    QCOMPARE(list->currentIndex().row(), expected.isEmpty() ? -1 : 0);
    QCOMPARE(dialog.windowTitle(), expected.value(0, QStringLiteral("project")));
    QCOMPARE(dialog.m_projectName, expected.value(0, QStringLiteral("project")));
    QCOMPARE(testenv::enabledButtons(dialog, {"btnStart", "btnStop", "btnRestart"}), QStringLiteral("101"));
}

void TestDlgDownload::presses_data()
{
    // Steps: running, stop, failure, state N, resume, close, escape, tick N, quit, restart, touch.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("buttons");  // start stop restart, as 0/1
    QTest::addColumn<QStringList>("pane"); // the text pane's last lines
    QTest::addColumn<bool>("visible");     // the dialog and its background
    QTest::addColumn<QStringList>("boxes"); // "title|text" of each box shown, answered with OK

    const QString failedReboot = msg(2030) + '|' + QString::fromLocal8Bit(std::strerror(5));
    QStringList countdown;
    for (int seconds = 10; seconds >= 0; --seconds)
        countdown << msg(2061).arg(seconds);
    const auto row = [](const char* tag, const QStringList& steps) -> QTestData& { return QTest::newRow(tag) << steps; };
    row("running", {"running"}) << "010" << QStringList{""} << true << QStringList();
    row("stopped", {"stop"}) << "101" << QStringList{msg(2060)} << true << QStringList();
    row("running after a stop", {"stop", "running"}) << "110" << QStringList{msg(2060)} << true << QStringList();
    row("failure report", {"running", "failure"}) << "101" << QStringList{"失败"} << true << QStringList();
    // The sequence runs inside the dialog's call stack: no close while it runs.
    row("close while running", {"state 1", "close"}) << "101" << QStringList{""} << true << QStringList();
    row("Escape while running", {"state 1", "escape"}) << "101" << QStringList{""} << true << QStringList();
    row("Escape when done", {"state 2", "escape"}) << "101" << QStringList{""} << false << QStringList();
    // After a runtime update the panel must reboot: closing asks, then reboots.
    row("resume mode closed", {"resume", "close"}) << "101" << QStringList{""} << false
                                                   << QStringList{msg(2030) + '|' + msg(2062), failedReboot};
    row("countdown to one", {"tick 10"}) << "101" << QStringList(countdown.mid(0, 10)) << true << QStringList();
    // At 0 the reboot is tried; after it failed the count starts over at 10.
    row("countdown to zero and again", {"tick 12"}) << "101" << countdown + QStringList{msg(2061).arg(9)} << true
                                                    << QStringList{failedReboot};
    row("restart pressed", {"restart"}) << "101" << QStringList{""} << true << QStringList{failedReboot};
    row("quit pressed", {"quit"}) << "101" << QStringList{""} << false << QStringList();
    row("project touched", {"touch"}) << "101" << QStringList{""} << true << QStringList();
}

void TestDlgDownload::presses()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, buttons);
    QFETCH(QStringList, pane);
    QFETCH(bool, visible);
    QFETCH(QStringList, boxes);
    QVERIFY(testenv::writeFile("first/context.dat", "x") && testenv::writeFile("second/context.dat", "x"));
    dlgDownLoad dialog{QString(), QString()};
    dialog.setPackageRoot(m_stick->path());
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QVERIFY(background() && background()->isVisible() && !background()->isEnabled());
    testenv::BoxAnswerer answerer({}, QMessageBox::Ok);
    for (const QString& step : steps) {
        const int n = step.section(' ', 1).toInt();
        if (step == "running")
            dialog.setBntEnable(false, true, false);
        else if (step == "stop")
            dialog.clickedStopBt();
        else if (step == "failure")
            dialog.resetUpgrageUI("失败");
        else if (step.startsWith("state"))
            dialog.m_loadState = n;
        else if (step == "resume")
            dialog.setResumeMode(true);
        else if (step == "close")
            dialog.close();
        else if (step == "escape")
            QTest::keyClick(&dialog, Qt::Key_Escape);
        else if (step.startsWith("tick"))
            for (int i = 0; i < n; ++i)
                dialog.onTimer();
        else if (step == "touch")
            touchSecond(dialog);
        else
            child<QPushButton>(dialog, "btnRestart")->setText(msg(step == "quit" ? 2010 : 2007));
        if (step == "quit" || step == "restart")
            child<QPushButton>(dialog, "btnRestart")->click();
    }
    QCOMPARE(testenv::enabledButtons(dialog, {"btnStart", "btnStop", "btnRestart"}), buttons);
    const QStringList lines = testenv::paneLines(dialog);
    QCOMPARE(lines.mid(lines.size() - pane.size()), pane);
    QCOMPARE(dialog.isVisible(), visible);
    QCOMPARE(background()->isVisible(), visible);
    QStringList seen;
    for (const testenv::SeenBox& box : answerer.seen())
        seen << box.title + '|' + box.text;
    QCOMPARE(seen, boxes);
    QVERIFY(!QFile::exists(m_panel->path("/var/run/reboot-requested")));
    dialog.m_loadState = 2;
    dialog.setResumeMode(false);
    dialog.close();
}

QTEST_MAIN(TestDlgDownload)
#include "tst_dlgdownload.moc"
