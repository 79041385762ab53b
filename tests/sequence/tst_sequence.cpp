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
#include <QTextEdit>
#include <QtTest>

#include <memory>

namespace {

using testenv::texts;

// The pane up to the end of the installed runtime's check.
const QList<int> kToRuntimeChecked = {2011, 2021, 2112, 2114, 2117, 2118};
QStringList downloaded()
{
    return texts({2022, 2028, 2035, 2039, 2044, 2050, 2051, 2053, 2056, 2058}) << msg(2059) + '\n';
}

QString paneText(const dlgDownLoad& dialog)
{
    return dialog.findChild<QTextEdit*>(QStringLiteral("textEdit"))->toPlainText();
}

// The panel's files and their contents, for "nothing has changed".
QMap<QString, QByteArray> panelFiles(const QString& root)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = it.next().mid(root.size());
        if (!relative.startsWith(QLatin1String("/tmp/")))
            files.insert(relative, testenv::readFile(it.filePath()));
    }
    return files;
}

const QString kCopy = QStringLiteral("/proj/KavoPro/v7/kavo_app");

// "damaged", "installed VERSION|PRODUCT", "copy VERSION|PRODUCT" (scrambled), "rm PATH",
// "write PATH|TEXT", "mv PATH|PATH" (on the stick; /tmp the panel's).
void edit(const QString& step, const QString& stick, const QString& panel)
{
    const QString verb = step.section(' ', 0, 0);
    const QStringList args = step.section(' ', 1).split('|');
    const QByteArray version = args.value(0).toUtf8();
    const QByteArray product = args.value(1, "KavoPro").toUtf8();
    const QString dir = panel + "/usr/kavo_app/";
    if (verb == "damaged") {
        QVERIFY(testenv::writeFile(dir + "bin/kavo_app", "damaged application\n"));
    } else if (verb == "installed") {
        QVERIFY(testenv::writeFile(dir + "update.ini", "[PREPARE]\nversion=" + version + "\nminsetversion=7.0.0\nproduct=" + product + "\n"));
        const QString list = dir + "version." + version.split(' ').value(0);
        QVERIFY(QFile::exists(list) || QFile::copy(dir + "version.7.2.1", list));
    } else if (verb == "copy") {
        QVERIFY(kit::writeScrambled(stick + kCopy + "/update.ini",
                                    ";;;#\n[PREPARE]\nversion=" + version + "\nminsetversion=7.0.0\nproduct=" + product + "\n"));
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
    void scrambledDescriptionsInTurn();

private:
    std::unique_ptr<dlgDownLoad> prepare(const kit::ProjectSpec& project);

    QString m_previousDir = QDir::currentPath();
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    QTemporaryDir m_scratch;
};

void tst_sequence::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    // A countdown left running must never end the test process in a reboot.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    // A runtime updater that records its arguments, one a line, on the panel.
    QVERIFY(testenv::writeFile(m_scratch.path() + "/updater.sh",
                               "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/updater.part\"\n"
                               "mv \"$KAVO_PANEL_ROOT/tmp/updater.part\" \"$KAVO_PANEL_ROOT/tmp/updater.args\"\n"));
}

void tst_sequence::cleanup()
{
    QDir::setCurrent(m_previousDir);
    m_stick.reset();
    m_panel.reset();
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

std::unique_ptr<dlgDownLoad> tst_sequence::prepare(const kit::ProjectSpec& project)
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    kit::PackageSpec package;
    package.helper = m_scratch.path() + "/updater.sh";
    if (!m_panel->isValid() || !m_stick->isValid() || !kit::makePanel(m_panel->root(), kit::PanelSpec())
        || !kit::writePackage(m_stick->path(), package) || !kit::writeProject(m_stick->path(), project))
        return nullptr;
    auto dialog = std::make_unique<dlgDownLoad>(QString(Kavo_GetDirectory(3)), QStringLiteral("0003"));
    dialog->setPackageRoot(m_stick->path());
    dialog->setProjectName(project.name);
    return dialog;
}

void tst_sequence::runtimeQuestions_data()
{
    QTest::addColumn<QStringList>("edits"); // see edit()
    QTest::addColumn<bool>("yes");          // the operator's answer
    // Buttons pressed in one go once the pane ends in message WHEN, or once the
    // first file has begun ("copy"), as "WHEN:BUTTON,BUTTON"; the project then
    // begins with a large file, and clears the user file area for "copy" and 2046.
    QTest::addColumn<QString>("presses");
    QTest::addColumn<QString>("box");       // "title|text" of the one box the operator sees; empty: none
    QTest::addColumn<QStringList>("tail");  // the pane after the installed runtime's check
    QTest::addColumn<bool>("handedOver");   // the updater was started and the dialog closed

    const QString damaged = msg(2034) + '|' + msg(2116);
    const QString newer = msg(2034) + '|' + msg(2033).arg("7.2.1", "7.3.0");
    const QString unreadable = msg(2030) + '|' + msg(2031);
    const QStringList done = downloaded();
    const auto row = [](const char* tag, const QStringList& edits, bool yes, const char* presses = "") -> QTestData& {
        return QTest::newRow(tag) << edits << yes << QString(presses);
    };
    // A stop ends the run where it is; restart and start pressed meanwhile start nothing.
    const QStringList toDisk = texts({2022, 2028, 2035, 2039, 2044});
    row("stop during the disk check", {"copy 7.2.1"}, true, "2044:btnStop") << "" << toDisk + texts({2060}) << false;
    row("stop as the user file area is to be cleared", {"copy 7.2.1"}, true, "2046:btnStop")
        << "" << toDisk + texts({2046, 2060}) << false;
    row("stop as the old project is to go", {"copy 7.2.1"}, true, "2050:btnStop") << "" << toDisk + texts({2050, 2060}) << false;
    row("restart, stop, restart, start during the copy", {"copy 7.2.1"}, true, "copy:btnRestart,btnStop,btnRestart,btnStart")
        << "" << toDisk + texts({2046, 2047, 2050, 2051, 2053, 2060, 2055}) << false;
    row("damaged runtime, no update", {"damaged"}, false) << damaged << texts({2115}) << false;
    // Without both the series' updater and the helper nothing can be updated.
    row("damaged runtime, no updater of the series", {"damaged", "rm /proj/KavoPro/opxupdateu.bin"}, true)
        << "" << texts({2115}) << false;
    // No text of a description runs as a command.
    const QString named = "7.3.0'$(touch${IFS}pwned)'";
    row("damaged runtime, damaged copy", {"damaged", "write " + kCopy + "/lib/libkavo.so|another\n", "copy " + named,
                                          "mv " + kCopy + "/version.7.3.0|" + kCopy + "/version." + named}, true)
        << damaged << QStringList{msg(2068).arg("lib/libkavo.so: FAILED"), msg(2040)} << false;
    // The copy's first failure is reported, logger.ini too.
    row("damaged runtime, copy's logger.ini changed", {"damaged", "write " + kCopy + "/config/logger.ini|changed\n"}, true)
        << damaged << QStringList{msg(2068).arg("config/logger.ini: FAILED"), msg(2040)} << false;
    row("damaged runtime, copy without its list", {"damaged", "rm " + kCopy + "/version.7.3.0"}, true)
        << damaged << QStringList{msg(2066).arg("version.7.3.0"), msg(2040)} << false;
    row("damaged runtime, copy's description unscrambled",
        {"damaged", "write " + kCopy + "/update.ini|;;;#\n[PREPARE]\nversion=7.3.0\n"}, true)
        << damaged << texts({2065, 2040}) << false;
    row("damaged runtime, copy of empty product", {"damaged", "copy 7.3.0|"}, true) << damaged << texts({2041}) << false;
    row("damaged runtime, copy of a series in other case", {"damaged", "copy 7.3.0|kavopro"}, true)
        << damaged << texts({2042}) << false;
    row("damaged runtime, updated", {"damaged", "write /tmp/pkgProductCheck.ini|a stale copy\n"}, true) << damaged << done << true;
    row("newer runtime, updated", {}, true) << newer << done << true;
    row("newer runtime, project only", {}, false) << newer << done << false;
    row("newer runtime, no helper", {"rm /opxupdateu/helper/opxupdateu_helper.bin"}, true) << "" << done << false;
    // Versions compare as text, the first word of each.
    row("equal versions", {"installed 7.3.0"}, true) << "" << done << false;
    row("7.10.0 is older than 7.9.0 as text", {"installed 7.9.0", "copy 7.10.0"}, true) << "" << done << false;
    row("versions with further words", {"installed 7.2.1 build3", "copy   7.3.0   build5 "}, true)
        << newer << done << true;
    row("installed runtime without a version, series in other case", {"installed |kavopro"}, false)
        << msg(2034) + '|' + msg(2032).arg("7.3.0") << texts({2022, 2028, 2035, 2036}) << false;
    // Another series on the panel is always asked, whatever the versions.
    row("panel of another series", {"installed 7.9.0|KavoStu"}, false)
        << msg(2034) + '|' + msg(2108).arg("KavoStu", "KavoPro 7.3.0")
        << (texts({2022}) << msg(2109).arg("KavoStu", "KavoPro", "KavoPro")) << false;
    row("unscrambled runtime copy, project only", {"write " + kCopy + "/update.ini|[PREPARE]\nversion=7.3.0\n"}, true)
        << unreadable << done << false;
    row("runtime copy of another variant, cancelled", {"mv " + kCopy + "|/proj/KavoPro/v5/kavo_app"}, false)
        << unreadable << texts({2026}) << false;
    row("blank runtime copy version, cancelled", {"copy    "}, false) << unreadable << texts({2026}) << false;
}

void tst_sequence::runtimeQuestions()
{
    QFETCH(QStringList, edits);
    QFETCH(bool, yes);
    QFETCH(QString, presses);
    QFETCH(QString, box);
    QFETCH(QStringList, tail);
    QFETCH(bool, handedOver);
    kit::ProjectSpec project;
    project.variant = "v7";
    project.withRuntime = true;
    project.runtime.version = "7.3.0";
    const bool duringCopy = presses.startsWith("copy");
    project.clearUserDir = duringCopy || presses.startsWith("2046");
    if (!presses.isEmpty())
        project.files.prepend(kit::PackageFile{"large.bin", QByteArray(16 << 20, 'x'), "/usr/kavo_app/project"});
    std::unique_ptr<dlgDownLoad> dialog = prepare(project);
    QVERIFY(dialog);
    for (const QString& step : edits)
        edit(step, m_stick->path(), m_panel->root());
    const QMap<QString, QByteArray> before = panelFiles(m_panel->root());
    const QString large = m_panel->path("/usr/kavo_app/project/large.bin");
    bool pressed = false;
    QTimer press;
    connect(&press, &QTimer::timeout, [&] {
        if (pressed || !(duringCopy ? QFileInfo(large).size() > 0 : paneText(*dialog).endsWith(msg(presses.section(':', 0, 0).toInt()))))
            return;
        pressed = true;
        for (const QString& name : presses.section(':', 1).split(','))
            QMetaObject::invokeMethod(dialog->findChild<QPushButton*>(name), "clicked");
    });
    if (!presses.isEmpty())
        press.start(0);

    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
    {
        testenv::BoxAnswerer answerer({yes ? QMessageBox::Yes : QMessageBox::No}, QMessageBox::No);
        dialog->clickedStartBt();
        press.stop();
        QCOMPARE(pressed, !presses.isEmpty());
        QCOMPARE(answerer.seen().size(), box.isEmpty() ? 0 : 1);
        for (const testenv::SeenBox& seen : answerer.seen()) {
            QCOMPARE(seen.title + '|' + seen.text, box);
            QCOMPARE(seen.buttons, (QStringList{msg(1004), msg(1005)}));
            QCOMPARE(seen.icon, seen.title == msg(2034) ? QMessageBox::Question : QMessageBox::Information);
            QVERIFY(seen.flags & Qt::WindowStaysOnTopHint);
        }
    }
    QCOMPARE(paneText(*dialog), (texts(kToRuntimeChecked) + tail).join('\n'));
    const bool done = tail.last() == msg(2059) + '\n';
    if (done) {
        QCOMPARE(testenv::readFile(m_panel->path("/usr/kavo_app/project/project.bin")), QByteArray("the new project\n"));
    } else if (duringCopy) {
        // The copy ended inside the first file: nothing after it was written.
        QVERIFY(!QFile::exists(m_panel->path("/usr/kavo_app/project/context.dat")));
        QVERIFY(QFileInfo(large).size() < (16 << 20));
    } else {
        QCOMPARE(panelFiles(m_panel->root()), before);
    }
    if (pressed)
        QCOMPARE(testenv::enabledButtons(*dialog, {"btnStart", "btnStop"}), QStringLiteral("10"));
    QCOMPARE(dialog->isCountingDown(), done);
    QCOMPARE(dialog->isVisible(), !handedOver);
    QVERIFY(!QFile::exists(m_stick->path() + kCopy + "/pwned"));
    dialog->close();
    QVERIFY(!dialog->isCountingDown());
    dialog.reset();

    const QString recorded = m_panel->path("/tmp/updater.args");
    if (!handedOver) {
        QTest::qWait(100);
        QVERIFY(!QFile::exists(recorded));
        return;
    }
    QTRY_VERIFY(QFile::exists(recorded));
    QCOMPARE(QString::fromUtf8(testenv::readFile(recorded)),
             QStringLiteral("-project %1/ proj\n-product KavoPro\n-lanID 0003\n").arg(m_stick->path()));
}

void tst_sequence::scrambledDescriptionsInTurn()
{
    // Same-sized clear copies at the same panel path, unscrambled within one millisecond.
    kit::ProjectSpec first;
    first.name = QStringLiteral("first");
    first.platform = QStringLiteral("5");
    first.platformName = QStringLiteral("OPXA");
    first.scrambledIni = true;
    kit::ProjectSpec second = first;
    second.name = QStringLiteral("second");
    second.platformName = QStringLiteral("OPXB");
    std::unique_ptr<dlgDownLoad> dialog = prepare(first);
    QVERIFY(dialog && kit::writeProject(m_stick->path(), second));

    for (int round = 0; round < 100; ++round) {
        const kit::ProjectSpec& project = round % 2 == 0 ? first : second;
        dialog->setProjectName(project.name);
        dialog->findChild<QTextEdit*>(QStringLiteral("textEdit"))->clear();
        dialog->clickedStartBt();
        QCOMPARE(paneText(*dialog), QStringList({msg(2011), msg(2015).arg(project.platformName), msg(2020)}).join('\n'));
    }
    // A package failure leaves nothing to reboot for: the restart button quits.
    QCOMPARE(dialog->findChild<QPushButton*>(QStringLiteral("btnRestart"))->text(), msg(2010));
}

QTEST_MAIN(tst_sequence)
#include "tst_sequence.moc"
