// Stopping the panel's runtime application (kavo_process::backToDovik) and the
// wait dialog, against a simulated panel whose runtime is a child process of
// the test named by ROOT/var/run/kavo_app.pid.
#include "frontend/app_exit_failed_dlg.h"
#include "frontend/kavo_process.h"
#include "text/multilingualmanager.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QPushButton>
#include <QtTest>

#include <csignal>
#include <cstring>
#include <memory>

namespace {

// Runtime stand-ins. Each says "ready" once it is set up, so that a stop
// request can never arrive before the shell has decided to ignore it.
const QString kObedient = QStringLiteral("echo ready; exec sleep 60");
const QString kSlow = QStringLiteral("trap '' TERM; echo ready; sleep 3");
const QString kStubborn = QStringLiteral("trap '' TERM; echo ready; while :; do sleep 1; done");

QString tagged(int id)
{
    return QStringLiteral("#%1").arg(id);
}

// Title, both labels and both captions.
QStringList textsOf(const QDialog& dialog)
{
    QStringList texts{dialog.windowTitle()};
    for (const char* name : {"label", "label_2", "forceExecBtn", "rebootBtn"})
        texts << dialog.findChild<QWidget*>(QLatin1String(name))->property("text").toString();
    return texts;
}

} // namespace

class tst_appexit : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void stop_data();
    void stop();
    void rebootFailureIsReported();
    void rebootEndsTheProcess();

private:
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QProcess> m_runtime;
};

void tst_appexit::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_runtime = std::make_unique<QProcess>();
}

void tst_appexit::cleanup()
{
    m_runtime->kill();
    m_runtime->waitForFinished(5000);
    qunsetenv("KAVO_SIM_REFUSE_STOP");
    qunsetenv("KAVO_SIM_REBOOT_ERRNO");
    m_panel.reset();
}

void tst_appexit::stop_data()
{
    QTest::addColumn<QString>("runtime");    // its script; empty: no pid file
    QTest::addColumn<bool>("refuse");        // the process service refuses stop requests
    QTest::addColumn<bool>("texts");         // a text table (ids shown) rather than the built-in texts
    QTest::addColumn<QStringList>("presses"); // on each wait dialog in turn
    QTest::addColumn<int>("fromMs");         // when the first dialog shows; without one, when the stop returns
    QTest::addColumn<int>("toMs");
    QTest::addColumn<QString>("end");        // of the runtime: "running", "requested" (SIGTERM), "other"

    const QStringList none;
    // Already stopped: a request that should not have been sent, refused,
    // would bring up the dialog.
    QTest::newRow("no pid file") << QString() << false << false << none << 0 << 1000 << "other";
    QTest::newRow("pid of a finished process, stop refused") << "echo ready" << true << false << none << 0 << 1000
                                                             << "other";
    QTest::newRow("stops on request") << kObedient << false << false << none << 100 << 3000 << "requested";
    QTest::newRow("stops after three seconds") << kSlow << false << false << none << 2500 << 6000 << "other";
    // Ten seconds of silent waiting before the operator is asked.
    QTest::newRow("never stops, forced") << kStubborn << false << false << QStringList{"force"} << 9900 << 16000
                                         << "running";
    // A refused request brings the dialog up at once; it sees the runtime end
    // within 100 ms.
    QTest::newRow("refused, the runtime ends while the dialog waits")
        << kObedient << true << true << QStringList{"kill"} << 0 << 2000 << "other";
    QTest::newRow("refused, closed, then the request goes through")
        << kObedient << true << true << QStringList{"close"} << 0 << 2000 << "requested";
    QTest::newRow("refused, Escape, refused again: the dialog comes back")
        << kObedient << true << true << QStringList{"Escape", "force"} << 0 << 2000 << "running";
}

void tst_appexit::stop()
{
    QFETCH(QString, runtime);
    QFETCH(bool, refuse);
    QFETCH(bool, texts);
    QFETCH(QStringList, presses);
    QFETCH(int, fromMs);
    QFETCH(int, toMs);
    QFETCH(QString, end);

    if (!runtime.isEmpty()) {
        m_runtime->start(QStringLiteral("sh"), {QStringLiteral("-c"), runtime});
        QVERIFY(m_runtime->waitForReadyRead(5000) && m_runtime->readLine() == "ready\n");
        QVERIFY(testenv::writeFile(m_panel->path(QStringLiteral("/var/run/kavo_app.pid")),
                                   QByteArray::number(m_runtime->processId()) + '\n'));
    }
    if (runtime == QLatin1String("echo ready"))
        QVERIFY(m_runtime->waitForFinished(5000));
    if (refuse)
        qputenv("KAVO_SIM_REFUSE_STOP", "1");
    kavo_process::setMulLanguage(texts ? tagged : nullptr);
    QWidget owner;
    QElapsedTimer clock;
    clock.start();
    QList<qint64> shownAt;
    // Notes every wait dialog as it shows and presses on it from its own loop.
    testenv::ShowWatcher watcher([&](QWidget* widget) {
        auto* dialog = qobject_cast<app_exit_failed_dlg*>(widget);
        if (dialog == nullptr)
            return;
        const QString press = presses.value(shownAt.size());
        shownAt << clock.elapsed();
        QCOMPARE(textsOf(*dialog), texts ? QStringList({"#1000", "#1008", "#1016", "#1017", "#1018"})
                                         : QStringList({"警告", "正在退出到系统设置界面，请稍候...",
                                                        "若长时间无退出可强制执行或继续等待", "强制执行", "重启OPX"}));
        QVERIFY(!dialog->pollMode());
        QCOMPARE(dialog->parentWidget(), &owner);
        QTimer::singleShot(0, dialog, [this, dialog, press] {
            if (press == QLatin1String("force"))
                dialog->findChild<QPushButton*>(QStringLiteral("forceExecBtn"))->click();
            else if (press == QLatin1String("kill"))
                QTimer::singleShot(1250, dialog, [this] { m_runtime->kill(); });
            else if (press == QLatin1String("Escape"))
                QTest::keyClick(dialog, Qt::Key_Escape);
            else if (press == QLatin1String("close")) {
                qunsetenv("KAVO_SIM_REFUSE_STOP");
                dialog->close();
            }
        });
    });
    QVERIFY(kavo_process::backToDovik(7, &owner));

    QCOMPARE(shownAt.size(), presses.size());
    const qint64 at = shownAt.isEmpty() ? clock.elapsed() : shownAt.first();
    QVERIFY2(at >= fromMs && at <= toMs, qPrintable(QString::number(at)));
    if (presses.value(0) == QLatin1String("kill")) {
        const qint64 open = clock.elapsed() - shownAt.first();
        QVERIFY2(open >= 1250 && open <= 1800, qPrintable(QString::number(open)));
    }
    if (end == QLatin1String("running"))
        QCOMPARE(m_runtime->state(), QProcess::Running);
    else if (!runtime.isEmpty())
        QVERIFY(m_runtime->state() == QProcess::NotRunning || m_runtime->waitForFinished(5000));
    // Only a stop request ends the runtime by SIGTERM.
    QCOMPARE(m_runtime->exitStatus() == QProcess::CrashExit && m_runtime->exitCode() == SIGTERM,
             end == QLatin1String("requested"));
}

void tst_appexit::rebootFailureIsReported()
{
    // A running runtime keeps the dialog waiting for as long as the test takes.
    m_runtime->start(QStringLiteral("sleep"), {QStringLiteral("60")});
    QVERIFY(m_runtime->waitForStarted() && testenv::writeFile(m_panel->path(QStringLiteral("/var/run/kavo_app.pid")),
                                                             QByteArray::number(m_runtime->processId()) + '\n'));
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    app_exit_failed_dlg dialog(nullptr, [](int id) { return id == 1010 ? QStringLiteral("no restart: %1") : tagged(id); });
    QCOMPARE(textsOf(dialog), QStringList({"#1000", "#1015", "#1016", "#1017", "#1018"}));
    QVERIFY(dialog.pollMode());
    dialog.show();
    testenv::BoxAnswerer boxes;
    dialog.findChild<QPushButton*>(QStringLiteral("rebootBtn"))->click();

    QCOMPARE(boxes.seen().size(), 1);
    const testenv::SeenBox& box = boxes.seen().first();
    QCOMPARE(QStringList({box.title, box.text, box.buttons.join(QLatin1Char(','))}),
             QStringList({"#1000", "no restart: Operation not permitted", "#1003"}));
    QCOMPARE(box.icon, QMessageBox::Warning);
    QCOMPARE(box.parent, &dialog);
    // The operator may still force or wait.
    QVERIFY(dialog.isVisible() && dialog.retry());
    QVERIFY(!QFile::exists(m_panel->path(QStringLiteral("/var/run/reboot-requested"))));
    dialog.close();
}

void tst_appexit::rebootEndsTheProcess()
{
    // A successful simulated reboot ends the process: a child that inherits
    // this test's panel presses the button.
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--reboot")});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(testenv::readFile(m_panel->path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
}

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc == 2 && std::strcmp(argv[1], "--reboot") == 0) {
        app_exit_failed_dlg dialog(nullptr, {});
        dialog.show();
        // 3: the reboot returned.
        dialog.findChild<QPushButton*>(QStringLiteral("rebootBtn"))->click();
        return 3;
    }
    tst_appexit test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_appexit.moc"
