// Stopping the panel's runtime application (kavo_process::backToDovik) and the
// wait dialog app_exit_failed_dlg, against a simulated panel whose runtime is a
// child process of the test named by ROOT/var/run/kavo_app.pid.
#include "frontend/app_exit_failed_dlg.h"
#include "frontend/kavo_process.h"
#include "text/multilingualmanager.h"

#include "testenv.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QLayout>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QTimer>
#include <QVector>
#include <QtTest>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

namespace {

const char kRebootChildArgument[] = "--reboot-from-wait-dialog";

// Runtime stand-ins. Each says "ready" once it is set up, so that a stop
// request can never arrive before the shell has decided to ignore it.
const QString kObedientRuntime = QStringLiteral("echo ready; exec sleep 60");
const QString kSlowRuntime = QStringLiteral("trap '' TERM; echo ready; sleep 3");
const QString kStubbornRuntime = QStringLiteral("trap '' TERM; echo ready; while :; do sleep 1; done");

// A text table whose every text names its id, so that a test sees which
// message went where.
QString taggedText(int id)
{
    return QStringLiteral("#%1").arg(id);
}

// What a wait dialog showed when it appeared.
struct Sighting
{
    qint64 atMs = 0;
    QString title;
    QString label;
    QString label2;
    QString forceCaption;
    QString rebootCaption;
    bool pollMode = true;
    QWidget* parent = nullptr;
};

QString textOf(QWidget* dialog, const char* name)
{
    if (auto* label = dialog->findChild<QLabel*>(QLatin1String(name)))
        return label->text();
    if (auto* button = dialog->findChild<QPushButton*>(QLatin1String(name)))
        return button->text();
    return QStringLiteral("<missing %1>").arg(QLatin1String(name));
}

void clickButton(QWidget* dialog, const char* name)
{
    if (auto* button = dialog->findChild<QPushButton*>(QLatin1String(name)))
        button->click();
}

// Notes every wait dialog as it is shown and then hands it to `answer` from
// the dialog's own event loop, together with its round (0 for the first).
class DialogWatcher : public QObject
{
public:
    using Answer = std::function<void(app_exit_failed_dlg*, int)>;

    explicit DialogWatcher(Answer answer)
        : m_answer(std::move(answer))
    {
        qApp->installEventFilter(this);
        m_clock.start();
    }
    ~DialogWatcher() override { qApp->removeEventFilter(this); }

    qint64 elapsed() const { return m_clock.elapsed(); }

    QVector<Sighting> sightings;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        auto* dialog = qobject_cast<app_exit_failed_dlg*>(watched);
        if (dialog == nullptr || event->type() != QEvent::Show)
            return false;
        Sighting seen;
        seen.atMs = m_clock.elapsed();
        seen.title = dialog->windowTitle();
        seen.label = textOf(dialog, "label");
        seen.label2 = textOf(dialog, "label_2");
        seen.forceCaption = textOf(dialog, "forceExecBtn");
        seen.rebootCaption = textOf(dialog, "rebootBtn");
        seen.pollMode = dialog->pollMode();
        seen.parent = dialog->parentWidget();
        sightings.append(seen);
        const int round = sightings.size() - 1;
        QPointer<app_exit_failed_dlg> guarded(dialog);
        QTimer::singleShot(0, this, [this, guarded, round] {
            if (guarded)
                m_answer(guarded, round);
        });
        return false;
    }

private:
    Answer m_answer;
    QElapsedTimer m_clock;
};

// The child process started with kRebootChildArgument: presses the wait
// dialog's reboot button on the panel of KAVO_PANEL_ROOT. A successful
// simulated reboot ends the process with 0; 3 means the reboot returned, 4
// that a failure box came up.
int rebootChild(int argc, char* argv[])
{
    QApplication app(argc, argv);
    app_exit_failed_dlg dialog(nullptr, std::function<QString(int)>());
    dialog.show();
    QTimer failureBox;
    QObject::connect(&failureBox, &QTimer::timeout, [] {
        if (QApplication::activeModalWidget() != nullptr)
            std::_Exit(4);
    });
    failureBox.start(10);
    clickButton(&dialog, "rebootBtn");
    return 3;
}

} // namespace

class tst_appexit : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void formTexts_data();
    void formTexts();
    void alreadyStopped_data();
    void alreadyStopped();
    void stopsOnRequest();
    void stopsAfterThreeSeconds();
    void neverStopsThenForced();
    void refusedShowsDialogAtOnce();
    void dialogPollsTheRuntime_data();
    void dialogPollsTheRuntime();
    void closingAsksAgain_data();
    void closingAsksAgain();
    void rebootFailureIsReported_data();
    void rebootFailureIsReported();
    void rebootEndsTheProcess();

private:
    // Starts `script` under sh as the panel's runtime application.
    bool startRuntime(const QString& script);

    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QProcess> m_runtime;
};

void tst_appexit::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    QVERIFY(m_panel->isValid());
    kavo_process::setMulLanguage(nullptr);
}

void tst_appexit::cleanup()
{
    if (m_runtime) {
        if (m_runtime->state() != QProcess::NotRunning) {
            m_runtime->kill();
            m_runtime->waitForFinished(5000);
        }
        m_runtime.reset();
    }
    qunsetenv("KAVO_SIM_REFUSE_STOP");
    qunsetenv("KAVO_SIM_REBOOT_ERRNO");
    kavo_process::setMulLanguage(nullptr);
    m_panel.reset();
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (widget->isVisible()) {
            widget->close();
            QFAIL(qPrintable(QStringLiteral("window left open: %1").arg(widget->objectName())));
        }
    }
}

bool tst_appexit::startRuntime(const QString& script)
{
    m_runtime = std::make_unique<QProcess>();
    m_runtime->start(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    if (!m_runtime->waitForStarted(5000))
        return false;
    while (!m_runtime->canReadLine()) {
        if (!m_runtime->waitForReadyRead(5000))
            return false;
    }
    if (m_runtime->readLine().trimmed() != "ready")
        return false;
    return testenv::writeFile(m_panel->path(QStringLiteral("/var/run/kavo_app.pid")),
                              QByteArray::number(m_runtime->processId()) + '\n');
}

void tst_appexit::formTexts_data()
{
    QTest::addColumn<bool>("withTable");
    QTest::addColumn<QStringList>("texts");

    QTest::newRow("no text callable: the form's own captions")
        << false
        << QStringList{QStringLiteral("警告"), QStringLiteral("正在退出应用程序，请稍候..."),
                       QStringLiteral("若长时间无退出可强制执行或继续等待"), QStringLiteral("强制执行"),
                       QStringLiteral("重启OPX")};
    QTest::newRow("text callable")
        << true
        << QStringList{QStringLiteral("#1000"), QStringLiteral("#1015"), QStringLiteral("#1016"),
                       QStringLiteral("#1017"), QStringLiteral("#1018")};
}

void tst_appexit::formTexts()
{
    QFETCH(bool, withTable);
    QFETCH(QStringList, texts);

    app_exit_failed_dlg dialog(nullptr, withTable ? std::function<QString(int)>(taggedText)
                                                  : std::function<QString(int)>());
    QCOMPARE(QStringList({dialog.windowTitle(), textOf(&dialog, "label"), textOf(&dialog, "label_2"),
                          textOf(&dialog, "forceExecBtn"), textOf(&dialog, "rebootBtn")}),
             texts);
    QCOMPARE(dialog.minimumSize(), QSize(370, 160));
    QCOMPARE(dialog.maximumSize(), QSize(370, 160));
    QVERIFY(dialog.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!dialog.windowFlags().testFlag(Qt::WindowContextHelpButtonHint));
    QVERIFY(dialog.retry());
    QVERIFY(dialog.pollMode());

    // The form's structure, by the names the panel's tools know it by.
    const QVector<QPair<const char*, const char*>> nesting = {
        {"verticalLayout", "gridLayout"},       {"horizontalLayout_3", "verticalLayout"},
        {"verticalLayout_2", "verticalLayout"}, {"horizontalLayout_2", "verticalLayout_2"},
        {"horizontalLayout", "verticalLayout"},
    };
    for (const auto& [child, parent] : nesting) {
        auto* layout = dialog.findChild<QLayout*>(QLatin1String(child));
        QVERIFY2(layout != nullptr, child);
        QCOMPARE(layout->parent()->objectName(), QLatin1String(parent));
    }
    const QVector<QPair<const char*, const char*>> places = {
        {"label", "horizontalLayout_3"}, {"label_2", "horizontalLayout_2"},
        {"forceExecBtn", "horizontalLayout"}, {"rebootBtn", "horizontalLayout"},
    };
    for (const auto& [widget, layout] : places) {
        auto* row = dialog.findChild<QLayout*>(QLatin1String(layout));
        QVERIFY2(row != nullptr && row->indexOf(dialog.findChild<QWidget*>(QLatin1String(widget))) >= 0, widget);
    }

    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QCOMPARE(dialog.size(), QSize(370, 160));
    dialog.close();
}

void tst_appexit::alreadyStopped_data()
{
    QTest::addColumn<bool>("deadPid");
    QTest::addColumn<bool>("refuse");

    // A request that should not have been sent, refused, brings up the dialog.
    QTest::newRow("no pid file") << false << false;
    QTest::newRow("no pid file, stop refused") << false << true;
    QTest::newRow("pid of a finished process, stop refused") << true << true;
}

void tst_appexit::alreadyStopped()
{
    QFETCH(bool, deadPid);
    QFETCH(bool, refuse);

    if (deadPid) {
        QProcess finished;
        finished.start(QStringLiteral("true"), QStringList());
        QVERIFY(finished.waitForFinished(5000));
        QVERIFY(testenv::writeFile(m_panel->path(QStringLiteral("/var/run/kavo_app.pid")),
                                   QByteArray::number(finished.processId()) + '\n'));
    }
    if (refuse)
        qputenv("KAVO_SIM_REFUSE_STOP", "1");

    DialogWatcher watcher([](app_exit_failed_dlg* dialog, int) { clickButton(dialog, "forceExecBtn"); });
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    QVERIFY2(watcher.elapsed() < 1000, qPrintable(QString::number(watcher.elapsed())));
    QCOMPARE(watcher.sightings.size(), 0);
}

void tst_appexit::stopsOnRequest()
{
    QVERIFY(startRuntime(kObedientRuntime));

    DialogWatcher watcher([](app_exit_failed_dlg* dialog, int) { clickButton(dialog, "forceExecBtn"); });
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    const qint64 elapsed = watcher.elapsed();
    QVERIFY2(elapsed >= 100 && elapsed < 3000, qPrintable(QString::number(elapsed)));
    QCOMPARE(watcher.sightings.size(), 0);

    QVERIFY(m_runtime->waitForFinished(5000));
    QCOMPARE(m_runtime->exitStatus(), QProcess::CrashExit);
    QCOMPARE(m_runtime->exitCode(), SIGTERM);
}

void tst_appexit::stopsAfterThreeSeconds()
{
    QVERIFY(startRuntime(kSlowRuntime));

    DialogWatcher watcher([](app_exit_failed_dlg* dialog, int) { clickButton(dialog, "forceExecBtn"); });
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    const qint64 elapsed = watcher.elapsed();
    QVERIFY2(elapsed >= 2500 && elapsed <= 6000, qPrintable(QString::number(elapsed)));
    QCOMPARE(watcher.sightings.size(), 0);

    QVERIFY(m_runtime->waitForFinished(5000));
    QCOMPARE(m_runtime->exitStatus(), QProcess::NormalExit);
}

void tst_appexit::neverStopsThenForced()
{
    QVERIFY(startRuntime(kStubbornRuntime));

    QWidget owner;
    DialogWatcher watcher([](app_exit_failed_dlg* dialog, int) { clickButton(dialog, "forceExecBtn"); });
    QVERIFY(kavo_process::backToDovik(7, &owner));

    QCOMPARE(watcher.sightings.size(), 1);
    const Sighting& seen = watcher.sightings.first();
    QVERIFY2(seen.atMs >= 9900 && seen.atMs <= 16000, qPrintable(QString::number(seen.atMs)));
    QCOMPARE(seen.title, QStringLiteral("警告"));
    QCOMPARE(seen.label, QStringLiteral("正在退出到系统设置界面，请稍候..."));
    QCOMPARE(seen.label2, QStringLiteral("若长时间无退出可强制执行或继续等待"));
    QCOMPARE(seen.forceCaption, QStringLiteral("强制执行"));
    QCOMPARE(seen.rebootCaption, QStringLiteral("重启OPX"));
    QVERIFY(!seen.pollMode);
    QCOMPARE(seen.parent, &owner);
    // Forced on: the runtime is still there.
    QCOMPARE(m_runtime->state(), QProcess::Running);
}

void tst_appexit::refusedShowsDialogAtOnce()
{
    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REFUSE_STOP", "1");
    kavo_process::setMulLanguage(taggedText);

    DialogWatcher watcher([](app_exit_failed_dlg* dialog, int) { clickButton(dialog, "forceExecBtn"); });
    QVERIFY(kavo_process::backToDovik(0, nullptr));

    QCOMPARE(watcher.sightings.size(), 1);
    const Sighting& seen = watcher.sightings.first();
    QVERIFY2(seen.atMs < 2000, qPrintable(QString::number(seen.atMs)));
    QCOMPARE(QStringList({seen.title, seen.label, seen.label2, seen.forceCaption, seen.rebootCaption}),
             QStringList({QStringLiteral("#1000"), QStringLiteral("#1008"), QStringLiteral("#1016"),
                          QStringLiteral("#1017"), QStringLiteral("#1018")}));
    QVERIFY(!seen.pollMode);
    QVERIFY(seen.parent == nullptr);
    QVERIFY(!m_runtime->waitForFinished(200));
}

void tst_appexit::dialogPollsTheRuntime_data()
{
    QTest::addColumn<int>("killAfterMs");
    QTest::addColumn<int>("closeFromMs");
    QTest::addColumn<int>("closeToMs");

    // The first look comes one second after the dialog shows, later ones every
    // 100 ms (timers may fire up to 5 % early).
    QTest::newRow("stopped as the dialog shows: first look after a second") << 0 << 900 << 1900;
    QTest::newRow("stopped while the dialog waits: seen within 100 ms") << 1250 << 1250 << 1800;
}

void tst_appexit::dialogPollsTheRuntime()
{
    QFETCH(int, killAfterMs);
    QFETCH(int, closeFromMs);
    QFETCH(int, closeToMs);

    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REFUSE_STOP", "1");

    QProcess* runtime = m_runtime.get();
    DialogWatcher watcher([runtime, killAfterMs](app_exit_failed_dlg* dialog, int round) {
        if (round > 0) {
            clickButton(dialog, "forceExecBtn");
            return;
        }
        QTimer::singleShot(killAfterMs, dialog, [runtime] { runtime->kill(); });
    });
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    const qint64 open = watcher.elapsed() - (watcher.sightings.isEmpty() ? 0 : watcher.sightings.first().atMs);

    QCOMPARE(watcher.sightings.size(), 1);
    QVERIFY2(open >= closeFromMs && open <= closeToMs, qPrintable(QString::number(open)));
    QCOMPARE(m_runtime->state(), QProcess::NotRunning);
}

void tst_appexit::closingAsksAgain_data()
{
    QTest::addColumn<bool>("escape");
    QTest::addColumn<bool>("refuseAgain");
    QTest::addColumn<int>("rounds");
    QTest::addColumn<bool>("stoppedByRequest");

    QTest::newRow("window closed, then the request goes through") << false << false << 1 << true;
    QTest::newRow("escape, then the request goes through") << true << false << 1 << true;
    QTest::newRow("window closed, refused again: the dialog comes back") << false << true << 2 << false;
}

void tst_appexit::closingAsksAgain()
{
    QFETCH(bool, escape);
    QFETCH(bool, refuseAgain);
    QFETCH(int, rounds);
    QFETCH(bool, stoppedByRequest);

    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REFUSE_STOP", "1");

    DialogWatcher watcher([escape, refuseAgain](app_exit_failed_dlg* dialog, int round) {
        if (round > 0) {
            clickButton(dialog, "forceExecBtn");
            return;
        }
        if (!refuseAgain)
            qunsetenv("KAVO_SIM_REFUSE_STOP");
        if (escape)
            QTest::keyClick(dialog, Qt::Key_Escape);
        else
            dialog->close();
    });
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    QCOMPARE(watcher.sightings.size(), rounds);

    // Only a new stop request can have ended the runtime.
    if (stoppedByRequest) {
        QVERIFY(m_runtime->waitForFinished(5000));
        QCOMPARE(m_runtime->exitStatus(), QProcess::CrashExit);
        QCOMPARE(m_runtime->exitCode(), SIGTERM);
    } else {
        QCOMPARE(m_runtime->state(), QProcess::Running);
    }
}

void tst_appexit::rebootFailureIsReported_data()
{
    QTest::addColumn<bool>("withTable");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("caption");

    QTest::newRow("no text callable, EIO")
        << false << 5 << QStringLiteral("警告") << QStringLiteral("系统重启失败!Input/output error")
        << QStringLiteral("确认");
    QTest::newRow("text callable, EPERM")
        << true << 1 << QStringLiteral("W") << QStringLiteral("no restart: Operation not permitted")
        << QStringLiteral("OK");
}

void tst_appexit::rebootFailureIsReported()
{
    QFETCH(bool, withTable);
    QFETCH(int, error);
    QFETCH(QString, title);
    QFETCH(QString, text);
    QFETCH(QString, caption);

    // A running runtime keeps the dialog waiting for as long as the test takes.
    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REBOOT_ERRNO", QByteArray::number(error));
    std::function<QString(int)> table;
    if (withTable) {
        table = [](int id) {
            switch (id) {
            case 1000: return QStringLiteral("W");
            case 1003: return QStringLiteral("OK");
            case 1010: return QStringLiteral("no restart: %1");
            default: return taggedText(id);
            }
        };
    }

    app_exit_failed_dlg dialog(nullptr, table);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    int boxes = 0;
    QString seenTitle;
    QString seenText;
    QStringList captions;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    Qt::WindowFlags flags;
    QWidget* parent = nullptr;
    QTimer answer;
    connect(&answer, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr)
            return;
        ++boxes;
        seenTitle = box->windowTitle();
        seenText = box->text();
        icon = box->icon();
        flags = box->windowFlags();
        parent = box->parentWidget();
        for (QAbstractButton* button : box->buttons())
            captions << button->text();
        box->button(QMessageBox::Ok)->click();
    });
    answer.start(10);
    clickButton(&dialog, "rebootBtn");
    answer.stop();

    QCOMPARE(boxes, 1);
    QCOMPARE(seenTitle, title);
    QCOMPARE(seenText, text);
    QCOMPARE(captions, QStringList{caption});
    QCOMPARE(icon, QMessageBox::Warning);
    QCOMPARE(parent, static_cast<QWidget*>(&dialog));
    QVERIFY(flags.testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!flags.testFlag(Qt::WindowContextHelpButtonHint));

    QVERIFY(dialog.isVisible());
    QVERIFY(dialog.retry());
    QVERIFY(!QFile::exists(m_panel->path(QStringLiteral("/var/run/reboot-requested"))));
    dialog.close();
}

void tst_appexit::rebootEndsTheProcess()
{
    // A successful simulated reboot ends the process, so it happens in a child
    // that inherits this test's panel.
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QLatin1String(kRebootChildArgument)});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(testenv::readFile(m_panel->path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
}

int main(int argc, char* argv[])
{
    if (argc == 2 && std::strcmp(argv[1], kRebootChildArgument) == 0)
        return rebootChild(argc, argv);
    QApplication app(argc, argv);
    tst_appexit test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_appexit.moc"
