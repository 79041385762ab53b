// The download dialog: which stick directories it offers, how a touch selects
// one, the button states, the close rules, the countdown, the reboot and quit
// paths, the direct mode's report and the operator's questions.
#include "download/dlgdownload.h"
#include "download/list_view.h"

#include "frame/screensetting.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"
#include "log/clogger.h"
#include "recordingdownload.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QApplication>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QtTest>

#include <cstring>
#include <memory>

#include <sys/time.h>

namespace {

using testenv::child;
using testenv::paneLines;

// "start stop restart" as 0/1 digits.
QString enabledButtons(const dlgDownLoad& dialog)
{
    return testenv::enabledButtons(dialog, {"btnStart", "btnStop", "btnRestart"});
}

// Creates the files (or, ending in "/", directories) in the working directory.
void populate(const QStringList& entries)
{
    for (const QString& entry : entries)
        QVERIFY(entry.endsWith(QLatin1Char('/')) ? QDir().mkpath(entry) : testenv::writeFile(entry, "x"));
}

// The text pane's style sheet carries a property that the style sheet parser
// does not know; its complaint for every new dialog would bury the test log.
QtMessageHandler g_testLogHandler = nullptr;

void dropStyleSheetNoise(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtDebugMsg && text == QLatin1String("Unknown property font-margin"))
        return;
    g_testLogHandler(type, context, text);
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
    void touchSelectsProject();
    void buttonStates_data();
    void buttonStates();
    void closeIgnoredWhileRunning_data();
    void closeIgnoredWhileRunning();
    void resumeCloseAsksAndReboots();
    void countdownAndRestart();
    void directModeReport_data();
    void directModeReport();
    void askYesNo_data();
    void askYesNo();

private:
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<testenv::TempPanel> m_panel;
    QString m_oldCwd;
};

void TestDlgDownload::initTestCase()
{
    g_testLogHandler = qInstallMessageHandler(dropStyleSheetNoise);
    QVERIFY(testenv::loadBuiltinTexts());
    // Every reboot fails with EIO, so that the process survives it.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "5");
}

void TestDlgDownload::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    m_oldCwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_stick->path()));
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
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("mtimes"); // "directory=seconds"
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("no project")
        << QStringList{"empty/", "other/v5/readme.txt", "context.dat", "Upper/Context.dat", "q/context.dat/"}
        << QStringList() << QStringList();
    QTest::newRow("only in v7") << QStringList{"p/v7/context.dat"} << QStringList() << QStringList{"p"};
    // The v5 tree decides when there is one, and a variant tree hides the top.
    QTest::newRow("v5 decides, listed") << QStringList{"p/v5/context.dat", "p/v7/"} << QStringList()
                                        << QStringList{"p"};
    QTest::newRow("v5 decides, not listed") << QStringList{"p/v5/", "p/v7/context.dat"} << QStringList()
                                            << QStringList();
    QTest::newRow("variant hides the top") << QStringList{"p/context.dat", "p/v7/"} << QStringList()
                                           << QStringList();
    QTest::newRow("newest first, updater skipped")
        << QStringList{"a/context.dat", "b/v5/context.dat", "c/v7/context.dat", "opxupdateu/context.dat"}
        << QStringList{"a=1500000000", "b=1700000000", "c=1600000000", "opxupdateu=1800000000"}
        << QStringList{"b", "c", "a"};
}

void TestDlgDownload::projectList()
{
    QFETCH(QStringList, entries);
    QFETCH(QStringList, mtimes);
    QFETCH(QStringList, expected);
    populate(entries);
    for (const QString& mtime : mtimes) {
        const QStringList parts = mtime.split(QLatin1Char('='));
        const timeval times[2] = {{parts[1].toLong(), 0}, {parts[1].toLong(), 0}};
        QCOMPARE(utimes(QFile::encodeName(parts[0]).constData(), times), 0);
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
    QCOMPARE(enabledButtons(dialog), QStringLiteral("101"));
}

void TestDlgDownload::touchSelectsProject()
{
    populate({"first/context.dat", "second/context.dat"});
    dlgDownLoad dialog{QString(), QString()};
    dialog.setPackageRoot(m_stick->path());
    auto* list = child<list_view>(dialog, "listView");
    auto* restart = child<QPushButton>(dialog, "btnRestart");
    restart->setText(msg(2010));
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    // The release selects, before the click arrives.
    const QModelIndex second = list->model()->index(1, 0);
    QStringList order;
    connect(list, &list_view::emitSelectInfo, this, [&](const QString& name) { order << "release:" + name; });
    connect(list, &QListView::clicked, this, [&] { order << "clicked:" + dialog.windowTitle(); });
    QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, list->visualRect(second).center());

    const QString name = second.data().toString();
    QCOMPARE(order, (QStringList{"release:" + name, "clicked:" + name}));
    QCOMPARE(dialog.m_projectName, name);
    QCOMPARE(dialog.windowTitle(), name);
    // A new choice undoes the quit button of an earlier failure.
    QCOMPARE(restart->text(), msg(2007));
    dialog.close();
}

void TestDlgDownload::buttonStates_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<QString>("states");
    QTest::addColumn<QString>("lastLine");

    QTest::newRow("running") << "running" << "010" << "";
    QTest::newRow("stopped") << "stop" << "101" << msg(2060);
    QTest::newRow("running after a stop") << "stop,running" << "110" << msg(2060);
    QTest::newRow("failure report") << "running,failure" << "101" << "失败";
}

void TestDlgDownload::buttonStates()
{
    QFETCH(QString, action);
    QFETCH(QString, states);
    QFETCH(QString, lastLine);
    dlgDownLoad dialog{QString(), QString()};
    for (const QString& step : action.split(QLatin1Char(','))) {
        if (step == QLatin1String("running"))
            dialog.setBntEnable(false, true, false);
        else if (step == QLatin1String("stop"))
            dialog.clickedStopBt();
        else if (step == QLatin1String("failure"))
            dialog.resetUpgrageUI(QStringLiteral("失败"));
    }
    QCOMPARE(enabledButtons(dialog), states);
    QCOMPARE(paneLines(dialog).last(), lastLine);
}

void TestDlgDownload::closeIgnoredWhileRunning_data()
{
    QTest::addColumn<bool>("escape"); // closed with the Escape key, else through close()
    QTest::newRow("close") << false;
    QTest::newRow("escape") << true;
}

void TestDlgDownload::closeIgnoredWhileRunning()
{
    QFETCH(bool, escape);
    dlgDownLoad dialog{QString(), QString()};
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    WinBackground* background = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* found = qobject_cast<WinBackground*>(widget))
            background = found;
    }
    QVERIFY(background != nullptr);
    QVERIFY(background->isVisible());
    QVERIFY(!background->isEnabled());
    const auto closeIt = [&] {
        if (escape)
            QTest::keyClick(&dialog, Qt::Key_Escape);
        else
            dialog.close();
    };

    dialog.m_loadState = 1;
    closeIt();
    QVERIFY(dialog.isVisible());
    QVERIFY(background->isVisible());

    dialog.m_loadState = 2;
    closeIt();
    QVERIFY(!dialog.isVisible());
    QVERIFY(!background->isVisible());
}

void TestDlgDownload::resumeCloseAsksAndReboots()
{
    dlgDownLoad dialog{QString(), QString()};
    dialog.setResumeMode(true);
    testenv::BoxAnswerer answerer({QMessageBox::Ok, QMessageBox::Ok});
    QVERIFY(dialog.close());

    QCOMPARE(answerer.seen().size(), 2);
    const testenv::SeenBox& note = answerer.seen()[0];
    QCOMPARE(note.title, msg(2030));
    QCOMPARE(note.text, QStringLiteral("运行环境已更新，需要重启系统，请确认!"));
    QCOMPARE(note.buttons, QStringList{QStringLiteral("确认")});
    QCOMPARE(note.icon, QMessageBox::Information);
    QVERIFY(note.flags & Qt::WindowStaysOnTopHint);
    const testenv::SeenBox& failure = answerer.seen()[1];
    QCOMPARE(failure.title, msg(2030));
    QCOMPARE(failure.text, QString::fromLocal8Bit(std::strerror(5)));
    QVERIFY(!QFile::exists(m_panel->path(QStringLiteral("/var/run/reboot-requested"))));
}

void TestDlgDownload::countdownAndRestart()
{
    dlgDownLoad dialog{QString(), QString()};
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    testenv::BoxAnswerer answerer({QMessageBox::Ok});
    for (int tick = 0; tick < 10; ++tick)
        dialog.onTimer();
    QVERIFY(answerer.seen().isEmpty());
    // At 0 "restart" tries the reboot and reports why it failed.
    dialog.onTimer();
    QCOMPARE(answerer.seen().size(), 1);
    QCOMPARE(answerer.seen()[0].title, QStringLiteral("提示"));
    QCOMPARE(answerer.seen()[0].text, QString::fromLocal8Bit(std::strerror(5)));
    QVERIFY(dialog.isVisible());
    // After a failed reboot the countdown starts over at 10 and has already
    // been counted down once.
    dialog.onTimer();
    QStringList expected;
    for (int seconds = 10; seconds >= 0; --seconds)
        expected << QString::number(seconds) + QStringLiteral("秒钟后自动重启...");
    QCOMPARE(paneLines(dialog), expected << QStringLiteral("9秒钟后自动重启..."));

    // "Quit" only closes.
    auto* restart = child<QPushButton>(dialog, "btnRestart");
    restart->setText(msg(2010));
    restart->click();
    QCOMPARE(answerer.seen().size(), 1);
    QVERIFY(!dialog.isVisible());
}

void TestDlgDownload::directModeReport_data()
{
    QTest::addColumn<bool>("direct");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QByteArray>("report");
    QTest::addColumn<bool>("closed");

    QTest::newRow("success") << true << true << QByteArray("[成功]\n正在检测磁盘空间...\n升级工程结束!\n\n") << true;
    QTest::newRow("failure") << true << false << QByteArray("[失败]\n正在检测磁盘空间...\n升级工程结束!\n\n") << true;
    QTest::newRow("not direct") << false << true << QByteArray("[开始]\n") << false;
}

void TestDlgDownload::directModeReport()
{
    QFETCH(bool, direct);
    QFETCH(bool, ok);
    QFETCH(QByteArray, report);
    QFETCH(bool, closed);
    const QString path = m_stick->path() + QStringLiteral("/out/pro_update_result.log");
    QVERIFY(CLogger::GetInstance()->open(path));
    CLogger::GetInstance()->writeReport(msg(2105));

    dlgDownLoad dialog{QString(), QString()};
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    dialog.setDirectMode(direct);
    dialog.setTextEditContent(msg(2044));
    dialog.resetUpgrageUI(msg(2059) + QLatin1Char('\n'));
    dialog.updateFinish(ok);

    QCOMPARE(dialog.m_loadState, 2);
    QCOMPARE(dialog.isVisible(), !closed);
    QCOMPARE(CLogger::GetInstance()->isOpen(), !direct);
    CLogger::GetInstance()->close();
    QCOMPARE(testenv::readFile(path), report);
    dialog.close();
}

void TestDlgDownload::askYesNo_data()
{
    QTest::addColumn<bool>("question");
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("expected");

    QTest::newRow("question, yes") << true << int(QMessageBox::Yes) << true;
    QTest::newRow("question, no") << true << int(QMessageBox::No) << false;
    QTest::newRow("information, closed") << false << int(QMessageBox::Cancel) << false;
}

void TestDlgDownload::askYesNo()
{
    QFETCH(bool, question);
    QFETCH(int, answer);
    QFETCH(bool, expected);
    dlgDownLoad dialog{QString(), QString()};
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    testenv::BoxAnswerer answerer({QMessageBox::StandardButton(answer)});
    const bool result = dialog.askYesNo(
        question ? dlgDownLoad::QuestionIcon::Question : dlgDownLoad::QuestionIcon::Information, msg(2034), msg(2116));

    QCOMPARE(result, expected);
    QCOMPARE(answerer.seen().size(), 1);
    const testenv::SeenBox& box = answerer.seen()[0];
    QCOMPARE(box.title, QStringLiteral("升级运行环境确认"));
    QCOMPARE(box.text, msg(2116));
    QCOMPARE(box.icon, question ? QMessageBox::Question : QMessageBox::Information);
    QCOMPARE(box.buttons, (QStringList{QStringLiteral("是"), QStringLiteral("否")}));
    QVERIFY(box.flags & Qt::WindowStaysOnTopHint);
    dialog.close();
}

QTEST_MAIN(TestDlgDownload)
#include "tst_dlgdownload.moc"
