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
    const QString copied = root + "/tmp/qwsserver";
    // It spans several copy blocks and records its arguments on the panel.
    const QByteArray script = "#!/bin/sh\n# " + QByteArray(10000, 'x')
                              + "\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/qwsserver.args\"\n";
    if (serverOnStick) {
        QVERIFY(testenv::writeFile(stick.packageDir() + "/qws/qwsserver", script));
        QVERIFY(QFile::setPermissions(stick.packageDir() + "/qws/qwsserver", QFileDevice::ReadOwner | QFileDevice::ExeOwner));
    }
    QVERIFY(QDir().mkpath(root + "/tmp/qtembedded-0"));
    const QByteArray socketPath = QFile::encodeName(root + "/tmp/qtembedded-0/QtEmbedded-0");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, socketPath.constData(), sizeof address.sun_path);
    if (serverAnswers)
        QVERIFY(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 4) == 0);

    QElapsedTimer clock;
    clock.start();
    const testenv::RunResult run = testenv::runPackage(stick, root, {"-s proj", "-p " + out.path()});
    close(fd);
    unlink(socketPath.constData());
    // The fallback starts on the first failed connect, not after 20 seconds.
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains("connect more than 20 seconds") != serverAnswers, run.out.constData());
    QCOMPARE(run.out.contains("cmd exec failed..."), serverOnStick && !serverAnswers && !started);
    QCOMPARE(testenv::readFile(copied), serverOnStick && !serverAnswers ? script : QByteArray());
    QCOMPARE(QFileInfo(copied).isExecutable(), started);
    if (started) {
        QTRY_VERIFY_WITH_TIMEOUT(testenv::readFile(root + "/tmp/qwsserver.args").endsWith('\n'), 10000);
        QCOMPARE(testenv::readFile(root + "/tmp/qwsserver.args"), QByteArray("-qws\n"));
    } else {
        QTest::qWait(500);
        QVERIFY(!QFile::exists(root + "/tmp/qwsserver.args"));
    }
}

QTEST_GUILESS_MAIN(tst_executable)
#include "tst_executable.moc"
