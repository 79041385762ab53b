// The download dialog: which stick directories it offers, how a touch selects
// one, the button states, the text pane and result report, the countdown, the
// reboot and quit paths and the two screen classes.
#include "download/dlgdownload.h"
#include "download/list_view.h"

#include "frame/screensetting.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"
#include "log/clogger.h"
#include "text/multilingualmanager.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QApplication>
#include <QDesktopWidget>
#include <QDir>
#include <QLayout>
#include <QListView>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QTextEdit>
#include <QtTest>

#include <cstring>

#include <sys/time.h>

namespace {

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

template <typename T>
T* child(const dlgDownLoad& dialog, const char* name)
{
    T* widget = dialog.findChild<T*>(QLatin1String(name));
    if (widget == nullptr)
        qFatal("no child %s", name);
    return widget;
}

QStringList paneLines(const dlgDownLoad& dialog)
{
    return child<QTextEdit>(dialog, "textEdit")->toPlainText().split(QLatin1Char('\n'));
}

// "start stop restart" as 0/1 digits.
QString enabledButtons(const dlgDownLoad& dialog)
{
    QString states;
    for (const char* name : {"btnStart", "btnStop", "btnRestart"})
        states += child<QPushButton>(dialog, name)->isEnabled() ? QLatin1Char('1') : QLatin1Char('0');
    return states;
}

// Creates the files (or, ending in "/", directories) below `root`.
void populate(const QString& root, const QStringList& entries)
{
    for (const QString& entry : entries) {
        if (entry.endsWith(QLatin1Char('/')))
            QVERIFY(QDir().mkpath(root + QLatin1Char('/') + entry));
        else
            QVERIFY(testenv::writeFile(root + QLatin1Char('/') + entry, "x"));
    }
}

void setModified(const QString& path, long seconds)
{
    const timeval times[2] = {{seconds, 0}, {seconds, 0}};
    QVERIFY2(utimes(QFile::encodeName(path).constData(), times) == 0, qPrintable(path));
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
    void paneParagraphs();
    void closeIgnoredWhileRunning();
    void resumeCloseAsksAndReboots();
    void restartButton_data();
    void restartButton();
    void countdown();
    void directModeReport_data();
    void directModeReport();
    void directModeStartsOnShow();
    void askYesNo_data();
    void askYesNo();
    void screenClass_data();
    void screenClass();

private:
    QTemporaryDir* m_stick = nullptr;
    QString m_oldCwd;
    testenv::TempPanel* m_panel = nullptr;
};

void TestDlgDownload::initTestCase()
{
    g_testLogHandler = qInstallMessageHandler(dropStyleSheetNoise);
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QCOMPARE(msg(2007), QStringLiteral("重启OPX"));
    // Every reboot fails with EIO, so that the process survives it.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "5");
}

void TestDlgDownload::init()
{
    m_panel = new testenv::TempPanel;
    QVERIFY(m_panel->isValid());
    m_stick = new QTemporaryDir;
    QVERIFY(m_stick->isValid());
    m_oldCwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_stick->path()));
    selectWinSize(1280);
    ScreenSetting::setDeviceWidthOverride(1280);
}

void TestDlgDownload::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    delete m_stick;
    m_stick = nullptr;
    delete m_panel;
    m_panel = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets())
        QVERIFY2(!widget->isVisible(), widget->metaObject()->className());
}

void TestDlgDownload::projectList_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("mtimes"); // "directory=seconds"
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("no project") << QStringList{"empty/", "other/v5/readme.txt", "context.dat", "Upper/Context.dat"}
                                << QStringList() << QStringList();
    QTest::newRow("directly in the project") << QStringList{"p/context.dat"} << QStringList() << QStringList{"p"};
    QTest::newRow("only in v7") << QStringList{"p/v7/context.dat"} << QStringList() << QStringList{"p"};
    QTest::newRow("v5 decides, listed") << QStringList{"p/v5/context.dat", "p/v7/"} << QStringList()
                                        << QStringList{"p"};
    QTest::newRow("v5 decides, not listed") << QStringList{"p/v5/", "p/v7/context.dat"} << QStringList()
                                            << QStringList();
    QTest::newRow("variant hides the top") << QStringList{"p/context.dat", "p/v7/"} << QStringList()
                                           << QStringList();
    QTest::newRow("not a regular file") << QStringList{"p/context.dat/"} << QStringList() << QStringList();
    QTest::newRow("updater skipped") << QStringList{"opxupdateu/context.dat", "p/context.dat"} << QStringList()
                                     << QStringList{"p"};
    QTest::newRow("newest first") << QStringList{"a/context.dat", "b/v5/context.dat", "c/v7/context.dat"}
                                  << QStringList{"a=1500000000", "b=1700000000", "c=1600000000"}
                                  << QStringList{"b", "c", "a"};
}

void TestDlgDownload::projectList()
{
    QFETCH(QStringList, entries);
    QFETCH(QStringList, mtimes);
    QFETCH(QStringList, expected);
    populate(m_stick->path(), entries);
    for (const QString& mtime : mtimes) {
        const QStringList parts = mtime.split(QLatin1Char('='));
        setModified(m_stick->path() + QLatin1Char('/') + parts[0], parts[1].toLong());
    }

    dlgDownLoad dialog(QStringLiteral("/usr/kavo_app/project"), QStringLiteral("0"));
    auto* list = child<QListView>(dialog, "listView");
    QStringList shown;
    for (int row = 0; row < list->model()->rowCount(); ++row)
        shown << list->model()->index(row, 0).data().toString();
    QCOMPARE(shown, expected);
    if (expected.isEmpty()) {
        QCOMPARE(dialog.windowTitle(), QStringLiteral("project"));
        QCOMPARE(dialog.m_projectName, QStringLiteral("project"));
    } else {
        QCOMPARE(list->currentIndex().row(), 0);
        QCOMPARE(dialog.windowTitle(), expected.first());
        QCOMPARE(dialog.m_projectName, expected.first());
    }
    QCOMPARE(enabledButtons(dialog), QStringLiteral("101"));
}

void TestDlgDownload::touchSelectsProject()
{
    populate(m_stick->path(), {"first/context.dat", "second/context.dat"});
    setModified(m_stick->path() + QStringLiteral("/first"), 1700000000);
    setModified(m_stick->path() + QStringLiteral("/second"), 1600000000);
    dlgDownLoad dialog{QString(), QString()};
    auto* list = child<list_view>(dialog, "listView");
    auto* restart = child<QPushButton>(dialog, "btnRestart");
    restart->setText(msg(2010));
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    QStringList order;
    connect(list, &list_view::emitSelectInfo, this, [&](const QString& name) { order << "release:" + name; });
    connect(list, &QListView::clicked, this, [&](const QModelIndex& index) {
        order << "clicked:" + index.data().toString();
        QCOMPARE(dialog.windowTitle(), QStringLiteral("second"));
    });
    const QRect rect = list->visualRect(list->model()->index(1, 0));
    QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, rect.center());

    QCOMPARE(order, (QStringList{"release:second", "clicked:second"}));
    QCOMPARE(dialog.m_projectName, QStringLiteral("second"));
    QCOMPARE(dialog.windowTitle(), QStringLiteral("second"));
    QCOMPARE(restart->text(), msg(2007));
    dialog.close();
}

void TestDlgDownload::buttonStates_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<QString>("states");
    QTest::addColumn<QString>("lastLine");

    QTest::newRow("constructed") << "none" << "101" << "";
    QTest::newRow("running") << "running" << "010" << "";
    QTest::newRow("stopped") << "stop" << "101" << msg(2060);
    QTest::newRow("running after a stop") << "stop,running" << "110" << msg(2060);
    QTest::newRow("failure report") << "running,failure" << "101" << "失败";
    QTest::newRow("success ends with only restart") << "running,failure,success" << "001" << "失败";
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
        else if (step == QLatin1String("success"))
            child<QPushButton>(dialog, "btnStart")->setEnabled(false);
    }
    QCOMPARE(enabledButtons(dialog), states);
    QCOMPARE(paneLines(dialog).last(), lastLine);
}

void TestDlgDownload::paneParagraphs()
{
    dlgDownLoad dialog{QString(), QString()};
    dialog.setTextEditContent(QStringLiteral("第一行"));
    dialog.setTextEditContent(msg(2053));
    dialog.resetUpgrageUI(msg(2020));
    QCOMPARE(paneLines(dialog), (QStringList{"第一行", "旧工程数据删除结束!", "正在拷贝新工程数据...",
                                             "工程数据完整性校验不通过!", "不能升级！"}));
    const QTextDocument* document = child<QTextEdit>(dialog, "textEdit")->document();
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next())
        QCOMPARE(block.blockFormat().bottomMargin(), 3.0);
}

void TestDlgDownload::closeIgnoredWhileRunning()
{
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

    dialog.m_loadState = 1;
    QVERIFY(!dialog.close());
    QVERIFY(dialog.isVisible());
    QVERIFY(background->isVisible());

    dialog.m_loadState = 2;
    QVERIFY(dialog.close());
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

void TestDlgDownload::restartButton_data()
{
    QTest::addColumn<int>("caption");
    QTest::addColumn<bool>("rebootTried");

    QTest::newRow("restart reboots") << 2007 << true;
    QTest::newRow("quit closes") << 2010 << false;
}

void TestDlgDownload::restartButton()
{
    QFETCH(int, caption);
    QFETCH(bool, rebootTried);
    dlgDownLoad dialog{QString(), QString()};
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    auto* restart = child<QPushButton>(dialog, "btnRestart");
    restart->setText(msg(caption));
    testenv::BoxAnswerer answerer({QMessageBox::Ok});
    restart->click();

    QCOMPARE(answerer.seen().size(), rebootTried ? 1 : 0);
    QCOMPARE(dialog.isVisible(), rebootTried);
    if (rebootTried) {
        QCOMPARE(answerer.seen()[0].title, QStringLiteral("提示"));
        QCOMPARE(answerer.seen()[0].text, QString::fromLocal8Bit(std::strerror(5)));
    }
    dialog.close();
}

void TestDlgDownload::countdown()
{
    dlgDownLoad dialog{QString(), QString()};
    testenv::BoxAnswerer answerer({QMessageBox::Ok});
    for (int tick = 0; tick < 10; ++tick)
        dialog.onTimer();
    QVERIFY(answerer.seen().isEmpty());
    dialog.onTimer();
    QCOMPARE(answerer.seen().size(), 1);
    QCOMPARE(answerer.seen()[0].text, QString::fromLocal8Bit(std::strerror(5)));
    // After a failed reboot the countdown starts over at 10 and has already
    // been counted down once.
    dialog.onTimer();

    QStringList expected;
    for (int seconds = 10; seconds >= 0; --seconds)
        expected << QString::number(seconds) + QStringLiteral("秒钟后自动重启...");
    expected << QStringLiteral("9秒钟后自动重启...");
    QCOMPARE(paneLines(dialog), expected);
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
    const QString path = m_stick->path() + QStringLiteral("/out/") + QStringLiteral("pro_update_result.log");
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

void TestDlgDownload::directModeStartsOnShow()
{
    const QString path = m_stick->path() + QStringLiteral("/pro_update_result.log");
    QVERIFY(CLogger::GetInstance()->open(path));
    CLogger::GetInstance()->writeReport(msg(2105));
    dlgDownLoad dialog{QString(), QString()};
    dialog.setDirectMode(true);
    dialog.show();
    QCOMPARE(dialog.m_loadState, 0);
    // The run ends one way or the other and, in direct mode, takes the dialog
    // and the report with it.
    QTRY_VERIFY_WITH_TIMEOUT(!dialog.isVisible(), 5000);
    QCOMPARE(dialog.m_loadState, 2);
    QVERIFY(!CLogger::GetInstance()->isOpen());
    QVERIFY(testenv::readFile(path).startsWith("[成功]\n") || testenv::readFile(path).startsWith("[失败]\n"));
}

void TestDlgDownload::askYesNo_data()
{
    QTest::addColumn<bool>("question");
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("expected");

    QTest::newRow("question, yes") << true << int(QMessageBox::Yes) << true;
    QTest::newRow("question, no") << true << int(QMessageBox::No) << false;
    QTest::newRow("information, yes") << false << int(QMessageBox::Yes) << true;
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
    QVERIFY(box.windowIconNull);
    QVERIFY(box.flags & Qt::WindowStaysOnTopHint);
    QVERIFY(!(box.flags & Qt::WindowContextHelpButtonHint));
    QCOMPARE(bool(box.flags & Qt::WindowMaximizeButtonHint), bool(dialog.windowFlags() & Qt::WindowMaximizeButtonHint) && !question);
    dialog.close();
}

void TestDlgDownload::screenClass_data()
{
    QTest::addColumn<int>("deviceWidth");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("buttonMaxWidth");
    QTest::addColumn<int>("buttonMinHeight");
    QTest::addColumn<QString>("listStyle");

    QTest::newRow("1024 is small") << 1024 << QSize(450, 380) << 80 << 38
                                   << "QListView{font-size: 12px}QListView::item:indicator {width: 28px;height: 28px;}";
    QTest::newRow("1025 is large") << 1025 << QSize(700, 480) << QWIDGETSIZE_MAX << 45
                                   << "QListView{font-size: 16px}QListView::item:indicator {width: 36px;height: 36px;}";
}

void TestDlgDownload::screenClass()
{
    QFETCH(int, deviceWidth);
    QFETCH(QSize, size);
    QFETCH(int, buttonMaxWidth);
    QFETCH(int, buttonMinHeight);
    QFETCH(QString, listStyle);
    selectWinSize(deviceWidth);
    ScreenSetting::setDeviceWidthOverride(deviceWidth);

    dlgDownLoad dialog{QString(), QString()};
    QCOMPARE(dialog.minimumSize(), size);
    QCOMPARE(dialog.maximumSize(), size);
    for (const char* name : {"btnRestart", "btnStop", "btnStart"}) {
        QCOMPARE(child<QPushButton>(dialog, name)->maximumWidth(), buttonMaxWidth);
        QCOMPARE(child<QPushButton>(dialog, name)->minimumHeight(), buttonMinHeight);
    }
    QCOMPARE(child<QListView>(dialog, "listView")->styleSheet(), listStyle);
    // Laid out, the buttons stand apart inside the column of the text pane.
    dialog.layout()->activate();
    const QRect pane = child<QTextEdit>(dialog, "textEdit")->geometry();
    int left = pane.left();
    for (const char* name : {"btnRestart", "btnStop", "btnStart"}) {
        const QRect button = child<QPushButton>(dialog, name)->geometry();
        QVERIFY2(button.left() >= left, name);
        left = button.right() + 2;
    }
    QVERIFY(left - 2 <= pane.right());
    const QRect desktop = QApplication::desktop()->geometry();
    QCOMPARE(dialog.pos(), QPoint((desktop.width() - size.width()) / 2, (desktop.height() - size.height()) / 2));
    QVERIFY(dialog.windowFlags() & Qt::WindowStaysOnTopHint);
    QVERIFY(!(dialog.windowFlags() & Qt::WindowContextHelpButtonHint));
}

QTEST_MAIN(TestDlgDownload)
#include "tst_dlgdownload.moc"
