// The runtime updater program as the download starts it: on a stick whose
// package executable is a stand-in that records how it was started again.
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
    QTest::addColumn<bool>("damaged");
    QTest::addColumn<QStringList>("arguments"); // ${ROOT} stands for the package root with its "/"
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("record");    // after the working directory; empty: not started
    QTest::addColumn<QString>("version");       // of the installed runtime afterwards

    const QStringList handOver{"-project ${ROOT} proj", "-product KavoPro", "-lanID 0001"};
    QTest::newRow("good copy") << false << handOver << 0 << QStringList{"-project 0 proj", "-lanID 0001"} << "7.2.1";
    QTest::newRow("damaged copy") << true << handOver << 0 << QStringList{"-project 1 proj", "-lanID 0001"} << "7.1.0";
    QTest::newRow("product missing") << false << QStringList{"-project ${ROOT} proj", "-lanID 0002"} << 0
                                     << QStringList{"-project 1 proj", "-lanID 0002"} << "7.1.0";
    QTest::newRow("project missing") << false << QStringList{"-product KavoPro", "-lanID 0001"} << 2 << QStringList()
                                     << "7.1.0";
    QTest::newRow("package missing") << false << handOver << 1 << QStringList() << "7.2.1";
}

void tst_helper::restartsPackage()
{
    QFETCH(bool, damaged);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QStringList, record);
    QFETCH(QString, version);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString panel = dir.path() + "/panel";
    // A stick mounted under a name with a space, as removable media often are.
    const QString stick = dir.path() + "/usb stick";
    kit::PanelSpec panelSpec;
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
        // Records its working directory and arguments, one a line, renamed into
        // place so that a reader never sees half.
        const QString standIn = stick + "/opxupdateu/opxupdateu_proj.bin";
        QVERIFY(kit::writeFile(standIn, "#!/bin/sh\n{ pwd -P; for a in \"$@\"; do printf '%s\\n' \"$a\"; done; }"
                                        " > record.part && mv record.part record.txt\n"));
        QVERIFY(QFile::setPermissions(standIn, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }

    QProcess helper;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KAVO_PANEL_ROOT", panel);
    helper.setProcessEnvironment(env);
    helper.setWorkingDirectory(stick); // as the download starts it
    helper.start(stick + "/opxupdateu/helper/opxupdateu_helper.bin", arguments.replaceInStrings("${ROOT}", stick + '/'));
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
    QCOMPARE(kit::readRuntimeDescription(panel + "/usr/kavo_app/update.ini").version, version);
    QCOMPARE(testenv::readFile(panel + "/usr/kavo_app/bin/kavo_app"),
             QByteArray(version == "7.2.1" ? "kavo runtime 7.2.1\n" : "kavo runtime application\n"));
}

QTEST_GUILESS_MAIN(tst_helper)
#include "tst_helper.moc"
