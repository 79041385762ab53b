// Stopping the panel's runtime application (kavo_process::backToDovik) and the
// wait dialog app_exit_failed_dlg, against a simulated panel whose runtime is a
// child process of the test named by ROOT/var/run/kavo_app.pid.
#include "frontend/app_exit_failed_dlg.h"
#include "frontend/kavo_process.h"
#include "text/multilingualmanager.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QTimer>
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

QString taggedText(int id)
{
    return QStringLiteral("#%1").arg(id);
}

// A label's text or a button's caption.
QString textOf(QWidget* dialog, const char* name)
{
    QWidget* widget = dialog->findChild<QWidget*>(QLatin1String(name));
    return widget != nullptr ? widget->property("text").toString() : QStringLiteral("<missing>");
}

void clickButton(QWidget* dialog, const char* name)
{
    if (auto* button = dialog->findChild<QPushButton*>(QLatin1String(name)))
        button->click();
}

// What a wait dialog showed when it appeared.
struct Sighting
{
    qint64 atMs = 0;
    QStringList texts; // title, label, label_2, force and reboot captions
    bool pollMode = true;
    QWidget* parent = nullptr;
};

// Notes every wait dialog as it is shown and then hands it to `answer` from
// the dialog's own event loop, together with its round (0 for the first).
class DialogWatcher : public QObject
{
public:
    using Answer = std::function<void(app_exit_failed_dlg*, int)>;

    explicit DialogWatcher(Answer answer = [](app_exit_failed_dlg* d, int) { clickButton(d, "forceExecBtn"); })
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
        sightings.append({m_clock.elapsed(),
                          {dialog->windowTitle(), textOf(dialog, "label"), textOf(dialog, "label_2"),
                           textOf(dialog, "forceExecBtn"), textOf(dialog, "rebootBtn")},
                          dialog->pollMode(),
                          dialog->parentWidget()});
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

    void stopsWithoutDialog_data();
    void stopsWithoutDialog();
    void neverStopsThenForced();
    void dialogClosesWhenTheRuntimeStops();
    void closingAsksAgain_data();
    void closingAsksAgain();
    void rebootFailureIsReported();
    void rebootEndsTheProcess();

private:
    // Starts `script` under sh as the panel's runtime application.
    bool startRuntime(const QString& script);
    bool stoppedByRequest()
    {
        return m_runtime->waitForFinished(5000) && m_runtime->exitStatus() == QProcess::CrashExit
               && m_runtime->exitCode() == SIGTERM;
    }

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
    if (m_runtime && m_runtime->state() != QProcess::NotRunning) {
        m_runtime->kill();
        m_runtime->waitForFinished(5000);
    }
    m_runtime.reset();
    qunsetenv("KAVO_SIM_REFUSE_STOP");
    qunsetenv("KAVO_SIM_REBOOT_ERRNO");
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
    return m_runtime->readLine().trimmed() == "ready"
           && testenv::writeFile(m_panel->path(QStringLiteral("/var/run/kavo_app.pid")),
                                 QByteArray::number(m_runtime->processId()) + '\n');
}

void tst_appexit::stopsWithoutDialog_data()
{
    QTest::addColumn<QString>("script"); // empty: no pid file
    QTest::addColumn<bool>("refuse");    // the process service refuses a stop request
    QTest::addColumn<int>("fromMs");
    QTest::addColumn<int>("toMs");

    // Already stopped: a request that should not have been sent, refused,
    // would bring up the dialog.
    QTest::newRow("no pid file") << QString() << false << 0 << 1000;
    QTest::newRow("pid of a finished process, stop refused") << "echo ready" << true << 0 << 1000;
    QTest::newRow("stops on request") << kObedientRuntime << false << 100 << 3000;
    QTest::newRow("stops after three seconds") << kSlowRuntime << false << 2500 << 6000;
}

void tst_appexit::stopsWithoutDialog()
{
    QFETCH(QString, script);
    QFETCH(bool, refuse);
    QFETCH(int, fromMs);
    QFETCH(int, toMs);
    if (!script.isEmpty())
        QVERIFY(startRuntime(script));
    if (refuse) {
        QVERIFY(m_runtime->waitForFinished(5000));
        qputenv("KAVO_SIM_REFUSE_STOP", "1");
    }

    DialogWatcher watcher;
    QVERIFY(kavo_process::backToDovik(0, nullptr));
    const qint64 elapsed = watcher.elapsed();
    QVERIFY2(elapsed >= fromMs && elapsed <= toMs, qPrintable(QString::number(elapsed)));
    QCOMPARE(watcher.sightings.size(), 0);
    if (m_runtime) {
        // Only the obedient runtime ends by the stop request's SIGTERM.
        QVERIFY(m_runtime->state() == QProcess::NotRunning || m_runtime->waitForFinished(5000));
        QCOMPARE(m_runtime->exitStatus() == QProcess::CrashExit && m_runtime->exitCode() == SIGTERM,
                 script == kObedientRuntime);
    }
}

void tst_appexit::neverStopsThenForced()
{
    QVERIFY(startRuntime(kStubbornRuntime));

    QWidget owner;
    DialogWatcher watcher;
    QVERIFY(kavo_process::backToDovik(7, &owner));

    QCOMPARE(watcher.sightings.size(), 1);
    const Sighting& seen = watcher.sightings.first();
    // Ten seconds of silent waiting before the operator is asked.
    QVERIFY2(seen.atMs >= 9900 && seen.atMs <= 16000, qPrintable(QString::number(seen.atMs)));
    QCOMPARE(seen.texts, QStringList({QStringLiteral("警告"), QStringLiteral("正在退出到系统设置界面，请稍候..."),
                                      QStringLiteral("若长时间无退出可强制执行或继续等待"),
                                      QStringLiteral("强制执行"), QStringLiteral("重启OPX")}));
    QVERIFY(!seen.pollMode);
    QCOMPARE(seen.parent, &owner);
    // Forced on: the runtime is still there.
    QCOMPARE(m_runtime->state(), QProcess::Running);
}

void tst_appexit::dialogClosesWhenTheRuntimeStops()
{
    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REFUSE_STOP", "1");

    // Ends the runtime while the dialog waits: the dialog sees it within
    // 100 ms (timers may fire up to 5 % early) and asks nothing more.
    QProcess* runtime = m_runtime.get();
    DialogWatcher watcher([runtime](app_exit_failed_dlg* dialog, int round) {
        if (round > 0)
            clickButton(dialog, "forceExecBtn");
        else
            QTimer::singleShot(1250, dialog, [runtime] { runtime->kill(); });
    });
    QVERIFY(kavo_process::backToDovik(0, nullptr));

    QCOMPARE(watcher.sightings.size(), 1);
    const qint64 open = watcher.elapsed() - watcher.sightings.first().atMs;
    QVERIFY2(open >= 1250 && open <= 1800, qPrintable(QString::number(open)));
    QCOMPARE(m_runtime->state(), QProcess::NotRunning);
}

void tst_appexit::closingAsksAgain_data()
{
    QTest::addColumn<bool>("escape");
    QTest::addColumn<bool>("refuseAgain");

    // KAVO_SIM_REFUSE_STOP makes the process service refuse the stop request.
    QTest::newRow("refused, window closed, then the request goes through") << false << false;
    QTest::newRow("refused, escape, refused again: the dialog comes back") << true << true;
}

void tst_appexit::closingAsksAgain()
{
    QFETCH(bool, escape);
    QFETCH(bool, refuseAgain);

    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REFUSE_STOP", "1");
    kavo_process::setMulLanguage(taggedText);

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
    QCOMPARE(watcher.sightings.size(), refuseAgain ? 2 : 1);
    // A refused request brings the dialog up at once.
    const Sighting& first = watcher.sightings.first();
    QVERIFY2(first.atMs < 2000, qPrintable(QString::number(first.atMs)));
    QCOMPARE(first.texts, QStringList({"#1000", "#1008", "#1016", "#1017", "#1018"}));
    QVERIFY(!first.pollMode);

    // Only a new stop request can have ended the runtime.
    if (refuseAgain)
        QCOMPARE(m_runtime->state(), QProcess::Running);
    else
        QVERIFY(stoppedByRequest());
}

void tst_appexit::rebootFailureIsReported()
{
    // A running runtime keeps the dialog waiting for as long as the test takes.
    QVERIFY(startRuntime(kObedientRuntime));
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    app_exit_failed_dlg dialog(nullptr, [](int id) {
        return id == 1010 ? QStringLiteral("no restart: %1") : taggedText(id);
    });
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    testenv::BoxAnswerer boxes;
    clickButton(&dialog, "rebootBtn");

    QCOMPARE(boxes.seen().size(), 1);
    const testenv::SeenBox& box = boxes.seen().first();
    QCOMPARE(box.title, QStringLiteral("#1000"));
    QCOMPARE(box.text, QStringLiteral("no restart: Operation not permitted"));
    QCOMPARE(box.buttons, QStringList{QStringLiteral("#1003")});
    QCOMPARE(box.icon, QMessageBox::Warning);
    QCOMPARE(box.parent, &dialog);
    // The operator may still force or wait.
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
