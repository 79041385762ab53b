// The runtime updater program as the download starts it: on a stick whose
// package executable is a stand-in that records how it was started again,
// while a stand-in of the run that handed over still goes on towards its
// reboot. Each run has a PID namespace of its own, so that the updater's stop
// of running packages reaches only the stand-ins of this test.
#include "testenv.h"
#include "tools/kit/panel.h"
#include "tools/kit/runtime.h"
#include "tools/kit/stick.h"

#include <QtTest>

class tst_helper : public QObject
{
    Q_OBJECT

private slots:
    void restartsPackage_data();
    void restartsPackage();
};

void tst_helper::restartsPackage_data()
{
    QTest::addColumn<int>("cpuArch");           // of the panel; the stick carries a v7 copy only
    QTest::addColumn<bool>("damaged");
    QTest::addColumn<QStringList>("arguments"); // ${ROOT} stands for the package root with its "/"
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("record");    // after the working directory; empty: not started
    QTest::addColumn<QString>("version");       // of the installed runtime afterwards
    QTest::addColumn<bool>("ignoresTerm");      // the run that handed over ignores SIGTERM

    const QStringList handOver{"-project ${ROOT} proj", "-product KavoPro", "-lanID 0001"};
    const QStringList updated{"-project 0 proj", "-lanID 0001"};
    const QStringList failed{"-project 1 proj", "-lanID 0001"};
    QTest::newRow("good copy") << 10 << false << handOver << 0 << updated << "7.2.1" << false;
    QTest::newRow("run ignoring SIGTERM") << 10 << false << handOver << 0 << updated << "7.2.1" << true;
    QTest::newRow("damaged copy") << 10 << true << handOver << 0 << failed << "7.1.0" << false;
    QTest::newRow("ARMv5 panel, v7 copy only") << 5 << false << handOver << 0 << failed << "7.1.0" << false;
    QTest::newRow("product missing") << 10 << false << QStringList{"-project ${ROOT} proj", "-lanID 0002"} << 0
                                     << QStringList{"-project 1 proj", "-lanID 0002"} << "7.1.0" << false;
    QTest::newRow("project missing") << 10 << false << QStringList{"-product KavoPro", "-lanID 0001"} << 2
                                     << QStringList() << "7.1.0" << false;
    QTest::newRow("package missing") << 10 << false << handOver << 1 << QStringList() << "7.2.1" << false;
}

void tst_helper::restartsPackage()
{
    if (testenv::pidNamespaceOptions().isEmpty())
        QSKIP("no PID namespace here: the updater would stop package runs this test did not start");
    QFETCH(int, cpuArch);
    QFETCH(bool, damaged);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QStringList, record);
    QFETCH(QString, version);
    QFETCH(bool, ignoresTerm);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString panel = dir.path() + "/panel";
    // A stick mounted under a name with a space, as removable media often are.
    const QString stick = dir.path() + "/usb stick";
    kit::PanelSpec panelSpec;
    panelSpec.cpuArch = cpuArch;
    panelSpec.runtime.version = QStringLiteral("7.1.0");
    kit::PackageSpec package;
    package.helper = qEnvironmentVariable("OPX_HELPER");
    kit::ProjectSpec project;
    project.withRuntime = true;
    project.runtime.files.insert("bin/kavo_app", "kavo runtime 7.2.1\n");
    QVERIFY(!package.helper.isEmpty() && kit::makePanel(panel, panelSpec) && kit::writePackage(stick, package)
            && kit::writeProject(stick, project));
    if (damaged)
        QVERIFY(kit::writeFile(stick + "/proj/KavoPro/v7/kavo_app/bin/kavo_app", "damaged\n"));
    if (QTest::currentDataTag() != QByteArray("package missing")) {
        // Started again, it records its working directory and arguments, one a
        // line, renamed into place so that a reader never sees half. As the run
        // that handed over it goes on for eight seconds and reboots the panel;
        // on SIGTERM it keeps the installed runtime description it saw and
        // ends, unless it ignores the signal.
        const QString executable = stick + "/opxupdateu/opxupdateu_proj.bin";
        QVERIFY(kit::writeFile(executable, "#!/bin/sh\n"
                                           "case \"$1\" in handing-over*)\n"
                                           "  trap 'cp \"$KAVO_PANEL_ROOT/usr/kavo_app/update.ini\" stopped.ini\n"
                                           "        [ \"$1\" = handing-over ] && { kill $!; exit 1; }' TERM\n"
                                           "  sleep 8 & touch running; until wait; do :; done\n"
                                           "  echo reboot >> \"$KAVO_PANEL_ROOT/var/run/reboot-requested\"; exit 0;;\n"
                                           "esac\n"
                                           "{ pwd -P; for a in \"$@\"; do printf '%s\\n' \"$a\"; done; }"
                                           " > record.part && mv record.part record.txt\n"));
        QVERIFY(QFile::setPermissions(executable, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }
    // Wherever the package is started again, the run that handed over is
    // still running when the updater starts. Its command line names the
    // package's executable, as a running package's does.
    const bool handingOver = !record.isEmpty();
    const QString launcher = dir.path() + "/helper-in-namespace";
    QVERIFY(testenv::writeNamespaceLauncher(
        launcher, stick + "/opxupdateu/helper/opxupdateu_helper.bin",
        handingOver ? QStringLiteral("(exec -a \"$PWD/opxupdateu/opxupdateu_proj.bin\" sh opxupdateu/opxupdateu_proj.bin "
                                     "handing-over%1) &\n"
                                     "for i in {1..100}; do [ -e running ] && break; sleep 0.05; done")
                          .arg(ignoresTerm ? "-ignoring-term" : "")
                    : QString()));

    QProcess helper;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KAVO_PANEL_ROOT", panel);
    helper.setProcessEnvironment(env);
    helper.setWorkingDirectory(stick); // as the download starts it
    helper.start(launcher, arguments.replaceInStrings("${ROOT}", stick + '/'));
    QVERIFY(helper.waitForFinished(30000));
    const QByteArray diagnostics = helper.readAllStandardError();
    QCOMPARE(helper.exitStatus(), QProcess::NormalExit);
    QVERIFY2(helper.exitCode() == exitCode, diagnostics.constData());

    const QString recordFile = stick + "/record.txt";
    if (record.isEmpty()) {
        QVERIFY2(diagnostics.contains(exitCode == 2 ? "usage: opxupdateu_helper.bin" : "cannot start"),
                 diagnostics.constData());
        QTest::qWait(500);
        QVERIFY(!QFileInfo::exists(recordFile));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(recordFile), 10000);
        QCOMPARE(QString::fromUtf8(testenv::readFile(recordFile)).split('\n'),
                 QStringList{QDir(stick).canonicalPath()} + record + QStringList{QString()});
    }
    // The run that handed over was stopped before the runtime was touched and
    // never rebooted the panel.
    if (handingOver)
        QCOMPARE(kit::readRuntimeDescription(stick + "/stopped.ini").version, QStringLiteral("7.1.0"));
    // One that ignores SIGTERM is killed, said before the runtime is touched.
    const int killed = diagnostics.indexOf("did not end within 5000 ms of SIGTERM; killing it");
    QVERIFY2(ignoresTerm ? killed >= 0 && killed < diagnostics.indexOf("runtime updated") : killed < 0,
             diagnostics.constData());
    QVERIFY(!QFileInfo::exists(panel + "/var/run/reboot-requested"));
    QCOMPARE(kit::readRuntimeDescription(panel + "/usr/kavo_app/update.ini").version, version);
    QCOMPARE(testenv::readFile(panel + "/usr/kavo_app/bin/kavo_app"),
             QByteArray(version == "7.2.1" ? "kavo runtime 7.2.1\n" : "kavo runtime application\n"));
}

QTEST_GUILESS_MAIN(tst_helper)
#include "tst_helper.moc"
