// The runtime updater program as the download starts it: on a stick whose
// package executable is a stand-in that records how it was started again.
#include "testenv.h"
#include "tools/kit/panel.h"
#include "tools/kit/runtime.h"
#include "tools/kit/stick.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// Records its working directory and arguments, one a line, in the directory
// it was started in; renamed into place so that a reader never sees half.
const QByteArray kStandIn = QByteArrayLiteral("#!/bin/sh\n"
                                              "{ pwd -P; for a in \"$@\"; do printf '%s\\n' \"$a\"; done; }"
                                              " > record.part && mv record.part record.txt\n");

QByteArray waitForFile(const QString& path, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!QFileInfo::exists(path) && timer.elapsed() < timeoutMs)
        QTest::qWait(50);
    return testenv::readFile(path);
}

} // namespace

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
    QTest::addColumn<QStringList>("record");    // after the working directory
    QTest::addColumn<QString>("version");       // of the installed runtime afterwards

    const QStringList handOver{"-project ${ROOT} proj", "-product KavoPro", "-lanID 0001"};
    QTest::newRow("good copy") << false << handOver << 0 << QStringList{"-project 0 proj", "-lanID 0001"}
                               << "7.2.1";
    QTest::newRow("damaged copy") << true << handOver << 0 << QStringList{"-project 1 proj", "-lanID 0001"}
                                  << "7.1.0";
    QTest::newRow("product missing") << false << QStringList{"-project ${ROOT} proj", "-lanID 0002"} << 0
                                     << QStringList{"-project 1 proj", "-lanID 0002"} << "7.1.0";
    QTest::newRow("project missing") << false << QStringList{"-product KavoPro", "-lanID 0001"} << 2
                                     << QStringList() << "7.1.0";
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
    const QString panel = dir.path() + QStringLiteral("/panel");
    // A stick mounted under a name with a space, as removable media often are.
    const QString stick = dir.path() + QStringLiteral("/usb stick");

    kit::PanelSpec panelSpec;
    panelSpec.runtime.version = QStringLiteral("7.1.0");
    QVERIFY(kit::makePanel(panel, panelSpec));
    kit::PackageSpec package;
    package.helper = qEnvironmentVariable("OPX_HELPER");
    QVERIFY(!package.helper.isEmpty());
    QVERIFY(kit::writePackage(stick, package));
    const QString standIn = stick + QStringLiteral("/opxupdateu/opxupdateu_proj.bin");
    if (QTest::currentDataTag() != QLatin1String("package missing")) {
        QVERIFY(kit::writeFile(standIn, kStandIn));
        QVERIFY(QFile::setPermissions(standIn,
                                      QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    }
    kit::ProjectSpec project;
    project.withRuntime = true;
    project.runtime.files.insert(QStringLiteral("bin/kavo_app"), QByteArray("kavo runtime 7.2.1\n"));
    QVERIFY(kit::writeProject(stick, project));
    if (damaged)
        QVERIFY(kit::writeFile(stick + QStringLiteral("/proj/KavoPro/v7/kavo_app/bin/kavo_app"), "damaged\n"));

    QProcess helper;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel);
    helper.setProcessEnvironment(env);
    // The download starts the updater from the package root.
    helper.setWorkingDirectory(stick);
    helper.start(stick + QStringLiteral("/opxupdateu/helper/opxupdateu_helper.bin"),
                 arguments.replaceInStrings(QStringLiteral("${ROOT}"), stick + QLatin1Char('/')));
    QVERIFY(helper.waitForFinished(30000));
    const QByteArray diagnostics = helper.readAllStandardError();
    QCOMPARE(helper.exitStatus(), QProcess::NormalExit);
    QVERIFY2(helper.exitCode() == exitCode, diagnostics.constData());

    const QString recordFile = stick + QStringLiteral("/record.txt");
    if (record.isEmpty()) {
        QVERIFY2(diagnostics.contains(exitCode == 2 ? "usage: opxupdateu_helper.bin" : "cannot start"),
                 diagnostics.constData());
        QTest::qWait(500);
        QVERIFY(!QFileInfo::exists(recordFile));
    } else {
        const QStringList lines = QString::fromUtf8(waitForFile(recordFile, 10000)).split(QLatin1Char('\n'));
        QCOMPARE(lines, QStringList{QDir(stick).canonicalPath()} + record + QStringList{QString()});
    }

    QSettings installed(panel + QStringLiteral("/usr/kavo_app/update.ini"), QSettings::IniFormat);
    QCOMPARE(installed.value(QStringLiteral("/PREPARE/version")).toString(), version);
    QCOMPARE(testenv::readFile(panel + QStringLiteral("/usr/kavo_app/bin/kavo_app")),
             QByteArray(version == QLatin1String("7.2.1") ? "kavo runtime 7.2.1\n" : "kavo runtime application\n"));
}

QTEST_GUILESS_MAIN(tst_helper)
#include "tst_helper.moc"
