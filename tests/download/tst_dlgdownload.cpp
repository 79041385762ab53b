// The download dialog: the projects it offers, and its states and presses.
#include "download/dlgdownload.h"
#include "frame/screensetting.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QApplication>
#include <QListView>
#include <QtTest>

#include <cstring>
#include <sys/time.h>

namespace {

using testenv::child;

WinBackground* background()
{
    const QWidgetList widgets = QApplication::topLevelWidgets();
    auto found = std::find_if(widgets.begin(), widgets.end(), [](QWidget* w) { return qobject_cast<WinBackground*>(w); });
    return found == widgets.end() ? nullptr : static_cast<WinBackground*>(*found);
}

} // namespace

class TestDlgDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void presses_data();
    void presses();

private:
    testenv::TempPanel m_panel;
    QTemporaryDir m_stick;
};

void TestDlgDownload::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    // Every reboot fails with EIO, so that the process survives it.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "5");
    selectWinSize(1280);
    ScreenSetting::setDeviceWidthOverride(1280);
    // The stick: "/" ends a directory, "DIR=SECONDS" sets its time. The v5 tree decides, a variant
    // tree hides the top, only a file named context.dat counts.
    QVERIFY(m_panel.isValid() && m_stick.isValid() && QDir::setCurrent(m_stick.path()));
    for (const QString& entry : QStringList{"a/v7/context.dat", "b/v5/context.dat", "b/v7/", "c/v5/",
                                            "c/v7/context.dat", "d/context.dat", "d/v7/", "e/context.dat",
                                            "opxupdateu/context.dat", "U/Context.dat", "q/context.dat/", "a=1000",
                                            "b=3000", "e=2000", "opxupdateu=4000"}) {
        const timeval times[2] = {{entry.section('=', 1).toLong(), 0}, {entry.section('=', 1).toLong(), 0}};
        QVERIFY(entry.contains('=')      ? utimes(QFile::encodeName(entry.section('=', 0, 0)).constData(), times) == 0
                : entry.endsWith('/') ? QDir().mkpath(entry)
                                      : testenv::writeFile(entry, "x"));
    }
    // The list is the package root's, wherever the working directory is.
    QVERIFY(QDir::setCurrent(QDir::tempPath()));
}

void TestDlgDownload::cleanup()
{
    for (QWidget* widget : QApplication::topLevelWidgets())
        QVERIFY2(!widget->isVisible(), widget->metaObject()->className());
}

void TestDlgDownload::presses_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("buttons");  // start stop restart, as 0/1
    QTest::addColumn<QStringList>("pane"); // the text pane's last lines
    QTest::addColumn<bool>("visible");
    QTest::addColumn<QStringList>("boxes"); // "title|text" of each box shown, answered with OK

    const QStringList failedReboot{msg(2030) + '|' + QString::fromLocal8Bit(std::strerror(5))};
    // At 0 the reboot is tried; after it failed the count starts over at 10.
    QStringList countdown;
    for (int seconds : {10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 9})
        countdown << msg(2061).arg(seconds);
    const auto row = [](const char* tag, const QStringList& steps) -> QTestData& { return QTest::newRow(tag) << steps; };
    // The sequence runs inside the dialog's call stack: no close while it runs. After a stop start is
    // offered, whatever the sequence asks for.
    row("stopped while running, Escape", {"in sequence", "stop", "sequence buttons", "escape"})
        << "110" << QStringList{msg(2060)} << true << QStringList();
    // After a runtime update the panel must reboot: closing asks, then reboots.
    row("resume mode, Escape", {"resume mode", "escape"})
        << "101" << QStringList{""} << false << QStringList{msg(2030) + '|' + msg(2062)} + failedReboot;
    row("countdown to zero and again", {"tick 12"}) << "101" << countdown << true << failedReboot;
    row("quit pressed", {"package failed", "restart"}) << "101" << QStringList{""} << false << QStringList();
    // Choosing a project undoes the quit button.
    row("project touched", {"package failed", "touch", "restart"}) << "101" << QStringList{""} << true << failedReboot;
}

void TestDlgDownload::presses()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, buttons);
    QFETCH(QStringList, pane);
    QFETCH(bool, visible);
    QFETCH(QStringList, boxes);
    dlgDownLoad dialog{QString(), QString()};
    dialog.setPackageRoot(m_stick.path());
    auto* list = child<QListView>(dialog, "listView");
    const QModelIndex second = list->model()->index(1, 0);
    QCOMPARE(qobject_cast<QStringListModel*>(list->model())->stringList(), (QStringList{"b", "e", "a"}));
    QCOMPARE(list->currentIndex().row(), 0);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QVERIFY(background() && background()->isVisible() && !background()->isEnabled());
    testenv::BoxAnswerer answerer({}, QMessageBox::Ok);
    for (const QString& step : steps) {
        if (step == "sequence buttons")
            dialog.setBntEnable(false, true, false);
        else if (step == "stop")
            dialog.clickedStopBt();
        else if (step == "in sequence")
            dialog.m_loadState = 1;
        else if (step == "resume mode")
            dialog.setResumeMode(true);
        else if (step == "escape")
            QTest::keyClick(&dialog, Qt::Key_Escape);
        else if (step.startsWith("tick"))
            for (int i = 0; i < step.section(' ', 1).toInt(); ++i)
                dialog.onTimer();
        else if (step == "package failed") // the restart button quits
            child<QPushButton>(dialog, "btnRestart")->setText(msg(2010));
        else if (step == "touch") // the second project
            QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualRect(second).center());
        else
            child<QPushButton>(dialog, "btnRestart")->click();
    }
    QCOMPARE(testenv::enabledButtons(dialog, {"btnStart", "btnStop", "btnRestart"}), buttons);
    const QStringList lines = testenv::paneLines(dialog);
    QCOMPARE(lines.mid(lines.size() - pane.size()), pane);
    QCOMPARE(dialog.isVisible(), visible);
    QCOMPARE(background()->isVisible(), visible);
    // The title and the project to download follow the project chosen in the list.
    const QString chosen = list->currentIndex().data().toString();
    QCOMPARE(dialog.windowTitle() + '|' + dialog.m_projectName, chosen + '|' + chosen);
    QStringList seen;
    for (const testenv::SeenBox& box : answerer.seen())
        seen << box.title + '|' + box.text;
    QCOMPARE(seen, boxes);
}

QTEST_MAIN(TestDlgDownload)
#include "tst_dlgdownload.moc"
