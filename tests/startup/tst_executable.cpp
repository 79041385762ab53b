// The executable starts the display server from the stick when none answers.
// Its downloads, and its stop of other running copies, are tst_download_e2e's.
#include "testenv.h"

#include <QElapsedTimer>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class tst_executable : public QObject
{
    Q_OBJECT

private slots:
    void displayServer_data();
    void displayServer();
};

void tst_executable::displayServer_data()
{
    QTest::addColumn<bool>("serverAnswers");
    QTest::addColumn<bool>("serverOnStick");
    QTest::addColumn<QString>("panelDirName");
    QTest::addColumn<bool>("started");
    QTest::newRow("server answers") << true << true << "panel" << false;
    QTest::newRow("server started from the stick") << false << true << "panel" << true;
    QTest::newRow("no server on the stick") << false << false << "panel" << false;
    // "chmod +x" splits the path at the blank and fails.
    QTest::newRow("chmod fails") << false << true << "panel root" << false;
}

void tst_executable::displayServer()
{
    QFETCH(bool, serverAnswers);
    QFETCH(bool, serverOnStick);
    QFETCH(QString, panelDirName);
    QFETCH(bool, started);
    QTemporaryDir base;
    testenv::TempStick stick;
    testenv::OptionSafeDir out;
    QVERIFY(base.isValid() && stick.isValid() && out.isValid());
    const QString root = base.path() + "/" + panelDirName;
    // It spans several copy blocks and records its arguments on the panel.
    const QByteArray script = "#!/bin/sh\n# " + QByteArray(10000, 'x')
                              + "\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/qwsserver.args\"\n";
    const QString server = stick.packageDir() + "/qws/qwsserver";
    QVERIFY(!serverOnStick || (testenv::writeFile(server, script) && QFile::setPermissions(server, QFile::ReadOwner | QFile::ExeOwner)));
    QVERIFY(QDir().mkpath(root + "/tmp/qtembedded-0"));
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, QFile::encodeName(root + "/tmp/qtembedded-0/QtEmbedded-0").constData(), sizeof address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    QVERIFY(!serverAnswers || (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 4) == 0));

    QElapsedTimer clock;
    clock.start();
    const testenv::RunResult run = testenv::runPackage(stick, root, {"-s proj", "-p " + out.path()});
    close(fd);
    // The fallback starts on the first failed connect, not after 20 seconds.
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(run.finished && run.exitCode == 0);
    QCOMPARE(run.out.contains("connect more than 20 seconds"), !serverAnswers);
    QCOMPARE(run.out.contains("cmd exec failed..."), serverOnStick && !serverAnswers && !started);
    QCOMPARE(testenv::readFile(root + "/tmp/qwsserver"), serverOnStick && !serverAnswers ? script : QByteArray());
    QCOMPARE(QFileInfo(root + "/tmp/qwsserver").isExecutable(), started);
    const QString arguments = root + "/tmp/qwsserver.args";
    if (started)
        QTRY_COMPARE_WITH_TIMEOUT(testenv::readFile(arguments), QByteArray("-qws\n"), 10000);
    else
        QTest::qWait(500);
    QCOMPARE(QFile::exists(arguments), started);
}

QTEST_GUILESS_MAIN(tst_executable)
#include "tst_executable.moc"
