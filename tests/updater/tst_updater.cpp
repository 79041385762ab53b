// The runtime updater as the download starts it, one hand-over a row, with stand-ins for the package started
// again and for the run that handed over; then the whole loop: dialog, real updater, real package resumed, reboot.
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

QMap<QString, QByteArray> snapshot(const QString& dir)
{
    QMap<QString, QByteArray> files;
    for (const QString& name : kit::regularFiles(dir))
        files.insert(name, testenv::readFile(dir + '/' + name));
    return files;
}

// The package's copy of a layout: every file changed, one new, a version with a build word.
kit::RuntimeSpec packageRuntime(const QString& version)
{
    kit::RuntimeSpec spec;
    spec.version = version + " build3";
    spec.files = {{"bin/kavo_app", "runtime " + version.toUtf8()}, {"lib/libkavo.so", "library " + version.toUtf8()},
                  {"config/logger.ini", "[log]\nlevel=2\n"}, {"share/new.dat", "a file the old runtime did not have\n"}};
    return spec;
}

// Stops the sequence as the dialog hides, as the updater's SIGTERM does on the panel.
struct StopOnHide : QObject
{
    bool hidden = false;
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Hide)
            hidden = static_cast<dlgDownLoad*>(watched)->m_stop = true;
        return false;
    }
};

} // namespace

class tst_updater : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void handOver_data();
    void handOver();
    void updatesRuntimeThenDownloads();
};

// The updater stops package runs: only those of this test's own PID namespace.
void tst_updater::initTestCase()
{
    if (QCoreApplication::applicationPid() != 1)
        QSKIP("not in a PID namespace of its own: the updater would stop package runs this test did not start");
}

void tst_updater::handOver_data()
{
    QTest::addColumn<int>("cpuArch");           // of the panel; -1: no C library to tell it
    QTest::addColumn<QString>("fault");         // done to the copies on the stick (KavoPro/...)
    QTest::addColumn<QStringList>("arguments"); // {ROOT} the package root with its "/"
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("record");    // the restart's arguments; empty: not started
    QTest::addColumn<QString>("installed");     // the runtime version afterwards
    QTest::addColumn<QString>("diagnostic");    // on standard error

    const QStringList handOver{"-project {ROOT} proj", "-product KavoPro", "-lanID 0001"};
    const QStringList updated{"-project 0 proj", "-lanID 0001"};
    const QStringList failed{"-project 1 proj", "-lanID 0001"};
    auto row = [&](const char* name, int arch, const QString& fault, const QStringList& record,
                   const QString& installed, const QString& diagnostic, const QStringList& arguments = {}, int exitCode = 0) {
        QTest::newRow(name) << arch << fault << (arguments.isEmpty() ? handOver : arguments) << exitCode << record << installed << diagnostic;
    };
    row("ARMv7 panel takes v7", 10, "", updated, "7.2.7", "runtime updated");
    row("other panel takes the plain layout", 7, "", updated, "7.2.0", "runtime updated");
    row("ARMv5 panel without v5", 5, "without v5/", failed, "7.1.0", "no runtime copy of KavoPro in");
    row("no C library", -1, "", failed, "7.1.0", "cannot tell the panel's platform");
    // The faulty file sorts last; refused names have real files with the right MD5.
    row("file differs", 10, "differs", failed, "7.1.0", "share/new.dat differs from its MD5 list");
    row("file missing", 10, "without v7/kavo_app/share/new.dat", failed, "7.1.0", "copy lacks share/new.dat");
    row("name leaves the copy", 10, "name ../outside.dat", failed, "7.1.0", "leaving the runtime directory");
    row("absolute name", 10, "name {ROOT}outside.dat", failed, "7.1.0", "names the absolute name /");
    row("name in the project", 10, "name project/project.bin", failed, "7.1.0", "inside the panel's project directory");
    row("md5 list missing", 10, "without v7/kavo_app/version.7.2.7", failed, "7.1.0", "cannot read the MD5 list");
    row("malformed list line", 10, "malformed", failed, "7.1.0", "line 5 of");
    row("description not scrambled", 10, "plain", failed, "7.1.0", "is not a scrambled runtime description");
    row("run ignoring SIGTERM", 10, "ignoring-term", updated, "7.2.7", "within 5000 ms of SIGTERM; killing it");
    row("arguments in another order, values apart", 10, "", {"-project 0 proj", "-lanID 0003"}, "7.2.7",
        "runtime updated", {"-qws", "-lanID", "0003", "-product KavoPro", "-project", "{ROOT} proj"});
    row("root from the updater's place", 10, "", updated, "7.2.7", "no package root given",
        {"-project proj", "-product KavoPro", "-lanID 0001"});
    row("product missing", 10, "", {"-project 1 proj", "-lanID 0002"}, "7.1.0", "incomplete arguments",
        {"-project {ROOT} proj", "-lanID 0002"});
    row("project missing", 10, "", {}, "7.1.0", "usage: opxupdateu_helper.bin", {"-product KavoPro", "-lanID 0001"}, 2);
    row("package missing", 10, "nopackage", {}, "7.2.7", "cannot start", handOver, 1);
}

void tst_updater::handOver()
{
    QFETCH(int, cpuArch);
    QFETCH(QString, fault);
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, record);
    QFETCH(QString, installed);
    QFETCH(QString, diagnostic);

    QTemporaryDir dir;
    const QString panel = dir.path() + "/panel";
    // A stick mounted under a name with blanks and option names, as removable media may be.
    const QString stick = dir.path() + "/usb stick -lanID-product";
    const QString app = panel + "/usr/kavo_app";
    kit::PanelSpec panelSpec;
    panelSpec.cpuArch = qMax(cpuArch, 5);
    panelSpec.runtime.version = "7.1.0";
    QVERIFY(kit::makePanel(panel, panelSpec)
            && kit::writePackage(stick, {QString(), qEnvironmentVariable("OPX_HELPER")}));
    QVERIFY(cpuArch >= 0 || QFile::remove(panel + "/lib/libc.so.6"));
    const QString kavoPro = stick + "/proj/KavoPro/", copy = kavoPro + "v7/kavo_app";
    const QMap<QString, QString> versions{{"v7/", "7.2.7"}, {"v5/", "7.2.5"}, {"", "7.2.0"}};
    for (const QString& layout : versions.keys())
        QVERIFY(fault == "without " + layout
                || kit::writeRuntime(kavoPro + layout + "kavo_app", packageRuntime(versions.value(layout)), true));
    const QString name = fault.mid(5).replace("{ROOT}", stick + '/');
    QFile list(copy + "/version.7.2.7");
    if (fault.startsWith("name ")) // a refused name for a file that is there, with its MD5
        QVERIFY(kit::writeFile(name.startsWith('/') ? name : copy + '/' + name, "x") && list.open(QIODevice::Append) && list.write(QCryptographicHash::hash("x", QCryptographicHash::Md5).toHex() + "  " + name.toUtf8() + '\n'));
    QVERIFY(fault != "differs" || kit::writeFile(copy + "/share/new.dat", "damaged on the stick\n"));
    QVERIFY(!fault.startsWith("without v7/kavo_app/") || QFile::remove(kavoPro + fault.mid(8)));
    QVERIFY(fault != "malformed" || (list.open(QIODevice::Append) && list.write("0123456789abcdef not a checksum line\n")));
    QVERIFY(fault != "plain" || kit::writeFile(copy + "/update.ini", kit::updateIniText(packageRuntime("7.2.7"))));
    list.close();
    // Started again, it records its directory and arguments; as the run that handed
    // over it reboots after 8 s, or on SIGTERM keeps the description it saw and ends.
    const QString executable = stick + "/opxupdateu/opxupdateu_proj.bin";
    QVERIFY(fault == "nopackage" ? !QFile::exists(executable) : kit::writeFile(executable,
            "#!/bin/sh\ncase \"$1\" in handing-over*)\n"
            "  trap 'cp \"$KAVO_PANEL_ROOT/usr/kavo_app/update.ini\" stopped.ini; [ \"$1\" = handing-over ] && { kill $!; exit 1; }' TERM\n"
            "  sleep 8 & touch running; until wait; do :; done\n"
            "  echo reboot >> \"$KAVO_PANEL_ROOT/var/run/reboot-requested\"; exit 0;;\nesac\n"
            "{ pwd -P; for a in \"$@\"; do printf '%s\\n' \"$a\"; done; } > record.part && mv record.part record.txt\n"));
    QVERIFY(QFile::setPermissions(executable, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner) || fault == "nopackage");

    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel));
    const auto restore = qScopeGuard([] { qunsetenv("KAVO_PANEL_ROOT"); });
    QProcess handingOver; // its command line names the package's executable, as a running package's does
    handingOver.setWorkingDirectory(stick);
    if (!record.isEmpty()) {
        handingOver.start("bash", {"-c", "exec -a \"$PWD/opxupdateu/opxupdateu_proj.bin\" sh opxupdateu/opxupdateu_proj.bin handing-over"
                                             + QString(fault == "ignoring-term" ? "-ignoring-term" : "")});
        QTRY_VERIFY(QFileInfo::exists(stick + "/running"));
    }
    const QMap<QString, QByteArray> before = snapshot(app);
    QProcess helper;
    helper.setWorkingDirectory(stick); // as the download starts it
    helper.start(stick + "/opxupdateu/helper/opxupdateu_helper.bin", arguments.replaceInStrings("{ROOT}", stick + '/'));
    QVERIFY(helper.waitForFinished(30000));
    const QString diagnostics = helper.readAllStandardError();
    QVERIFY2(helper.exitStatus() == QProcess::NormalExit && diagnostics.contains(diagnostic), qPrintable(diagnostics));
    QTEST(helper.exitCode(), "exitCode");

    if (record.isEmpty()) {
        QTest::qWait(500);
        QVERIFY(!QFileInfo::exists(stick + "/record.txt"));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(stick + "/record.txt"), 10000);
        QCOMPARE(QString(testenv::readFile(stick + "/record.txt")).split('\n'), QStringList{QDir(stick).canonicalPath()} + record + QStringList{""});
        // The run that handed over was stopped before the runtime was touched and never rebooted the panel.
        QCOMPARE(kit::readRuntimeDescription(stick + "/stopped.ini").version, QStringLiteral("7.1.0"));
        QVERIFY(!QFileInfo::exists(panel + "/var/run/reboot-requested"));
        QVERIFY(fault != "ignoring-term" || diagnostics.indexOf("killing it") < diagnostics.indexOf("runtime updated"));
    }
    // Exactly the copy's files, description and list are new; a refused copy changes nothing.
    QMap<QString, QByteArray> expected = before;
    const kit::RuntimeSpec spec = packageRuntime(installed);
    if (installed != "7.1.0") {
        expected.insert(spec.files);
        expected.insert("update.ini", kit::updateIniText(spec));
        expected.insert("version." + installed, kit::md5List(spec.files));
    }
    QCOMPARE(snapshot(app), expected);
}

void tst_updater::updatesRuntimeThenDownloads()
{
    QVERIFY(testenv::loadBuiltinTexts());
    testenv::TempPanel panel;
    QTemporaryDir stick;
    kit::PanelSpec panelSpec;
    panelSpec.runtime.version = QStringLiteral("7.1.0");
    kit::ProjectSpec project;
    project.withRuntime = true;
    QVERIFY(kit::makePanel(panel.root(), panelSpec) && kit::writeProject(stick.path(), project)
            && kit::writePackage(stick.path(), {qEnvironmentVariable("OPX_EXECUTABLE"), qEnvironmentVariable("OPX_HELPER")}));
    {
        dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0001"));
        dialog.setPackageRoot(stick.path());
        dialog.setProjectName(project.name);
        dialog.show();
        StopOnHide stopper;
        dialog.installEventFilter(&stopper);
        testenv::BoxAnswerer answerer({}, QMessageBox::Yes);
        dialog.clickedStartBt();
        QVERIFY(answerer.seen().size() == 1 && answerer.seen().first().title + answerer.seen().first().text == msg(2034) + msg(2033).arg("7.1.0", "7.2.1"));
        QVERIFY2(stopper.hidden, "the dialog did not close after handing over to the updater");
        // Stopped before the disk space check: this run changed nothing on the panel.
        const QString pane = dialog.findChild<QTextEdit*>(QStringLiteral("textEdit"))->toPlainText();
        QVERIFY2(pane.contains(msg(2022)) && !pane.contains(msg(2044)), qPrintable(pane));
    }

    QTRY_COMPARE_WITH_TIMEOUT(testenv::readFile(panel.path("/var/run/reboot-requested")), QByteArray("reboot\n"),
                              60000);
    QCOMPARE(kit::readRuntimeDescription(panel.path("/usr/kavo_app/update.ini")).version, QStringLiteral("7.2.1"));
    QStringList expected;
    for (const kit::PackageFile& file : project.files)
        expected << file.name + ' ' + QString::number(file.content.size());
    QCOMPARE(testenv::entriesWithSizes(panel.path("/usr/kavo_app/project")), expected);
}

QTEST_MAIN(tst_updater)
#include "tst_updater.moc"
