// The whole runtime update loop: the download dialog hands over to the real
// updater on the stick, the updater replaces the panel's runtime and starts
// the real package again in resume mode, and that one downloads the project
// and reboots the panel.
#include "download/dlgdownload.h"
#include "platform/kavo_api.h"
#include "tools/kit/panel.h"
#include "tools/kit/runtime.h"
#include "tools/kit/stick.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QTextEdit>
#include <QtTest>

namespace {

// Sets the dialog's stop flag the moment the dialog hides. On the panel the
// updater stops this run with SIGTERM; in the test the sequence, which goes on
// after the hand-over, is stopped by its own flag.
class StopOnHide : public QObject
{
public:
    explicit StopOnHide(dlgDownLoad& dialog) { dialog.installEventFilter(this); }
    bool hidden = false;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Hide) {
            hidden = true;
            static_cast<dlgDownLoad*>(watched)->m_stop = true;
        }
        return false;
    }
};

} // namespace

class tst_update_loop : public QObject
{
    Q_OBJECT

private slots:
    void updatesRuntimeThenDownloads();
};

void tst_update_loop::updatesRuntimeThenDownloads()
{
    if (QCoreApplication::applicationPid() != 1)
        QSKIP("not in a PID namespace of its own: the updater would stop package runs this test did not start");
    QVERIFY(testenv::loadBuiltinTexts());
    testenv::TempPanel panel;
    QTemporaryDir stick;
    const QString previousDir = QDir::currentPath();
    kit::PanelSpec panelSpec;
    panelSpec.runtime.version = QStringLiteral("7.1.0");
    const kit::PackageSpec package{qEnvironmentVariable("OPX_EXECUTABLE"), qEnvironmentVariable("OPX_HELPER")};
    kit::ProjectSpec project;
    project.withRuntime = true;
    project.runtime.files.insert("bin/kavo_app", "kavo runtime application 7.2.1\n");
    QVERIFY(kit::makePanel(panel.root(), panelSpec) && kit::writePackage(stick.path(), package) && kit::writeProject(stick.path(), project));
    {
        dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0001"));
        dialog.setPackageRoot(stick.path());
        dialog.setProjectName(project.name);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dialog));
        StopOnHide stopper(dialog);
        testenv::BoxAnswerer answerer({}, QMessageBox::Yes);
        dialog.clickedStartBt();
        QCOMPARE(answerer.seen().size(), 1);
        QCOMPARE(answerer.seen().first().title + answerer.seen().first().text, msg(2034) + msg(2033).arg("7.1.0", "7.2.1"));
        QVERIFY2(stopper.hidden, "the dialog did not close after handing over to the updater");
        // Stopped before the disk space check: this run changed nothing on the panel.
        const QString pane = dialog.findChild<QTextEdit*>(QStringLiteral("textEdit"))->toPlainText();
        QVERIFY2(pane.contains(msg(2022)) && !pane.contains(msg(2044)), qPrintable(pane));
    }
    QDir::setCurrent(previousDir);

    // The resumed package downloads, counts ten seconds down and reboots.
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(panel.path("/var/run/reboot-requested")), 60000);
    QCOMPARE(testenv::readFile(panel.path("/var/run/reboot-requested")), QByteArray("reboot\n"));
    QCOMPARE(kit::readRuntimeDescription(panel.path("/usr/kavo_app/update.ini")).version, QStringLiteral("7.2.1"));
    QCOMPARE(testenv::readFile(panel.path("/usr/kavo_app/bin/kavo_app")), QByteArray("kavo runtime application 7.2.1\n"));
    // The old project is gone; the area holds exactly the package's files.
    QStringList expected;
    for (const kit::PackageFile& file : project.files)
        expected << file.name + ' ' + QString::number(file.content.size());
    QCOMPARE(testenv::entriesWithSizes(panel.path("/usr/kavo_app/project")), expected);
}

QTEST_MAIN(tst_update_loop)
#include "tst_update_loop.moc"
