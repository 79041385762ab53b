// The download in process where the operator has a say: runtime questions, presses, hand-over.
#include "download/dlgdownload.h"
#include "platform/kavo_api.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QApplication>
#include <QPushButton>
#include <QtTest>

#include <memory>

namespace {

using testenv::texts;

// The pane up to the end of the installed runtime's check.
const QList<int> kToRuntimeChecked = {2011, 2021, 2112, 2114, 2117, 2118};

const QString kCopy = QStringLiteral("/proj/KavoPro/v7/kavo_app");

// "damaged", "installed VERSION|PRODUCT", "copy VERSION|PRODUCT" (scrambled), "rm PATH",
// "write PATH|TEXT", "mv PATH|PATH" (on the stick; /tmp the panel's).
void edit(const QString& step, const QString& stick, const QString& panel)
{
    const QString verb = step.section(' ', 0, 0);
    const QStringList args = step.section(' ', 1).split('|');
    const QByteArray version = args.value(0).toUtf8();
    const QByteArray description =
        "[PREPARE]\nversion=" + version + "\nminsetversion=7.0.0\nproduct=" + args.value(1, "KavoPro").toUtf8() + "\n";
    const QString dir = panel + "/usr/kavo_app/";
    if (verb == "damaged") {
        QVERIFY(testenv::writeFile(dir + "bin/kavo_app", "damaged application\n"));
    } else if (verb == "installed") {
        QVERIFY(testenv::writeFile(dir + "update.ini", description));
        const QString list = dir + "version." + version.split(' ').value(0);
        QVERIFY(QFile::exists(list) || QFile::copy(dir + "version.7.2.1", list));
    } else if (verb == "copy") {
        QVERIFY(kit::writeScrambled(stick + kCopy + "/update.ini", ";;;#\n" + description));
    } else if (verb == "rm") {
        QVERIFY(QFile::remove(stick + args[0]));
    } else if (verb == "write") {
        QVERIFY(testenv::writeFile((args[0].startsWith("/tmp/") ? panel : stick) + args[0], args[1].toUtf8()));
    } else {
        QVERIFY(QDir().mkpath(QFileInfo(stick + args[1]).path()) && QDir().rename(stick + args[0], stick + args[1]));
    }
}

} // namespace

class tst_sequence : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void runtimeQuestions_data();
    void runtimeQuestions();

private:
    QString m_previousDir = QDir::currentPath();
    QTemporaryDir m_scratch;
};

void tst_sequence::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    // A countdown left running must never end the test process in a reboot.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    // A runtime updater that records its arguments, one a line, on the panel.
    QVERIFY(testenv::writeFile(m_scratch.path() + "/updater.sh",
                               "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/updater.args\"\n"));
}

void tst_sequence::cleanup()
{
    QDir::setCurrent(m_previousDir);
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

void tst_sequence::runtimeQuestions_data()
{
    QTest::addColumn<QStringList>("edits"); // see edit()
    QTest::addColumn<bool>("yes");          // the operator's answer
    // Buttons pressed in one go once the pane ends in message WHEN, or once the first file has begun
    // ("copy"), as "WHEN:BUTTON,BUTTON"; the project then begins with a large file.
    QTest::addColumn<QString>("presses");
    QTest::addColumn<QString>("box");       // "title|text" of the one box the operator sees; empty: none
    QTest::addColumn<QStringList>("tail");  // the pane after the installed runtime's check

    const QString damaged = msg(2034) + '|' + msg(2116);
    const QString newer = msg(2034) + '|' + msg(2033).arg("7.2.1", "7.3.0");
    const QString unreadable = msg(2030) + '|' + msg(2031);
    const QStringList done = texts({2022, 2028, 2035, 2039, 2044, 2050, 2051, 2053, 2056, 2058}) << msg(2059) + '\n';
    const auto row = [](const char* tag, const QStringList& edits, bool yes, const char* presses = "") -> QTestData& {
        return QTest::newRow(tag) << edits << yes << QString(presses);
    };
    // A stop ends the run where it is; restart and start pressed meanwhile start nothing.
    const QStringList toDisk = texts({2022, 2028, 2035, 2039, 2044});
    row("stop during the disk check", {}, true, "2044:btnStop") << "" << toDisk + texts({2060});
    row("stop as the user file area is to be cleared", {}, true, "2046:btnStop") << "" << toDisk + texts({2046, 2060});
    row("stop as the old project is to go", {}, true, "2050:btnStop") << "" << toDisk + texts({2050, 2060});
    row("restart, stop, restart, start during the copy", {}, true, "copy:btnRestart,btnStop,btnRestart,btnStart")
        << "" << toDisk + texts({2046, 2047, 2050, 2051, 2053, 2060, 2055});
    row("damaged runtime, no update", {"damaged"}, false) << damaged << texts({2115});
    // Without both the series' updater and the helper nothing can be updated.
    row("damaged runtime, no helper", {"damaged", "rm /opxupdateu/helper/opxupdateu_helper.bin"}, true)
        << "" << texts({2115});
    // The copy's first failure is reported, logger.ini too; no text of a description runs as a command.
    const QString named = "7.3.0'$(touch${IFS}pwned)'";
    row("damaged runtime, damaged copy",
        {"damaged", "write " + kCopy + "/lib/libkavo.so|another\n", "write " + kCopy + "/config/logger.ini|changed\n",
         "copy " + named, "mv " + kCopy + "/version.7.3.0|" + kCopy + "/version." + named}, true)
        << damaged << QStringList{msg(2068).arg("config/logger.ini: FAILED"), msg(2040)};
    row("damaged runtime, copy without its list", {"damaged", "rm " + kCopy + "/version.7.3.0"}, true)
        << damaged << QStringList{msg(2066).arg("version.7.3.0"), msg(2040)};
    const QString clearCopy = "write " + kCopy + "/update.ini|;;;#\n[PREPARE]\nversion=7.3.0\n";
    row("damaged runtime, copy unscrambled", {"damaged", clearCopy}, true) << damaged << texts({2065, 2040});
    row("damaged runtime, copy of empty product", {"damaged", "copy 7.3.0|"}, true) << damaged << texts({2041});
    row("damaged runtime, copy's series in other case", {"damaged", "copy 7.3.0|kavopro"}, true)
        << damaged << texts({2042});
    row("damaged runtime, updated", {"damaged", "write /tmp/pkgProductCheck.ini|a stale copy\n"}, true)
        << damaged << done;
    row("newer runtime, project only", {}, false) << newer << done;
    // Versions compare as text, the first word of each.
    row("equal versions", {"installed 7.3.0"}, true) << "" << done;
    row("7.10.0 is older than 7.9.0 as text", {"installed 7.9.0", "copy 7.10.0"}, true) << "" << done;
    row("versions with further words", {"installed 7.2.1 build3", "copy   7.3.0   build5 "}, true) << newer << done;
    row("installed runtime without a version, series in other case", {"installed |kavopro"}, false)
        << msg(2034) + '|' + msg(2032).arg("7.3.0") << texts({2022, 2028, 2035, 2036});
    // Another series on the panel is always asked, whatever the versions.
    row("panel of another series", {"installed 7.9.0|KavoStu"}, false)
        << msg(2034) + '|' + msg(2108).arg("KavoStu", "KavoPro 7.3.0")
        << (texts({2022}) << msg(2109).arg("KavoStu", "KavoPro", "KavoPro"));
    row("unscrambled runtime copy, project only", {"write " + kCopy + "/update.ini|[PREPARE]\nversion=7.3.0\n"}, true)
        << unreadable << done;
    row("runtime copy of another variant, cancelled", {"mv " + kCopy + "|/proj/KavoPro/v5/kavo_app"}, false)
        << unreadable << texts({2026});
}

void tst_sequence::runtimeQuestions()
{
    QFETCH(QStringList, edits);
    QFETCH(bool, yes);
    QFETCH(QString, presses);
    QFETCH(QString, box);
    QFETCH(QStringList, tail);
    kit::ProjectSpec project;
    project.variant = "v7";
    project.withRuntime = true;
    // Where buttons are pressed the package carries the installed runtime, so nothing is asked; the
    // user file area is cleared for "copy" and 2046.
    project.runtime.version = presses.isEmpty() ? "7.3.0" : "7.2.1";
    const bool duringCopy = presses.startsWith("copy");
    project.clearUserDir = duringCopy || presses.startsWith("2046");
    if (!presses.isEmpty())
        project.files.prepend(kit::PackageFile{"large.bin", QByteArray(16 << 20, 'x'), "/usr/kavo_app/project"});
    testenv::TempPanel panel;
    QTemporaryDir stick;
    kit::PackageSpec package;
    package.helper = m_scratch.path() + "/updater.sh";
    QVERIFY(panel.isValid() && stick.isValid() && kit::makePanel(panel.root(), kit::PanelSpec())
            && kit::writePackage(stick.path(), package) && kit::writeProject(stick.path(), project));
    for (const QString& step : edits)
        edit(step, stick.path(), panel.root());
    dlgDownLoad dialog(QString(Kavo_GetDirectory(3)), QStringLiteral("0003"));
    dialog.setPackageRoot(stick.path());
    const QString large = panel.path("/usr/kavo_app/project/large.bin");
    bool pressed = false;
    QTimer press;
    connect(&press, &QTimer::timeout, [&] {
        const int when = presses.section(':', 0, 0).toInt();
        if (pressed || !(duringCopy ? QFileInfo(large).size() > 0 : testenv::paneLines(dialog).last() == msg(when)))
            return;
        pressed = true;
        for (const QString& name : presses.section(':', 1).split(','))
            QMetaObject::invokeMethod(dialog.findChild<QPushButton*>(name), "clicked");
    });
    if (!presses.isEmpty())
        press.start(0);

    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    testenv::BoxAnswerer answerer({yes ? QMessageBox::Yes : QMessageBox::No}, QMessageBox::No);
    dialog.clickedStartBt();
    press.stop();
    QCOMPARE(answerer.seen().size(), box.isEmpty() ? 0 : 1);
    for (const testenv::SeenBox& seen : answerer.seen()) {
        QCOMPARE(seen.title + '|' + seen.text, box);
        QCOMPARE(seen.buttons, (QStringList{msg(1004), msg(1005)}));
        QCOMPARE(seen.icon, seen.title == msg(2034) ? QMessageBox::Question : QMessageBox::Information);
        QVERIFY(seen.flags & Qt::WindowStaysOnTopHint);
    }
    QCOMPARE(testenv::paneLines(dialog).join('\n'), (texts(kToRuntimeChecked) + tail).join('\n'));
    const bool done = tail.last() == msg(2059) + '\n';
    // The updater takes over once the operator has accepted an update and the project is in place.
    const bool handedOver = done && yes && box.startsWith(msg(2034) + '|');
    QCOMPARE(testenv::readFile(panel.path("/usr/kavo_app/project/project.bin")) == "the new project\n", done);
    // A stop during the copy ends it inside the first file.
    QVERIFY(!duringCopy || QFileInfo(large).size() < (16 << 20));
    if (pressed)
        QCOMPARE(testenv::enabledButtons(dialog, {"btnStart", "btnStop"}), QStringLiteral("10"));
    QCOMPARE(dialog.isCountingDown(), done);
    QCOMPARE(dialog.isVisible(), !handedOver);
    QVERIFY(!QFile::exists(stick.path() + kCopy + "/pwned"));
    dialog.close();
    QVERIFY(!dialog.isCountingDown());

    const QString args = QStringLiteral("-project %1/ proj\n-product KavoPro\n-lanID 0003\n").arg(stick.path());
    QTest::qWait(100); // time for an updater that is not to start
    QTRY_COMPARE(QString::fromUtf8(testenv::readFile(panel.path("/tmp/updater.args"))), handedOver ? args : QString());
}

QTEST_MAIN(tst_sequence)
#include "tst_sequence.moc"
