// The download sequence in process, where the operator has a say: the runtime
// update questions and what each answer leads to, the hand-over to the runtime
// updater, the stop, start and restart buttons while the sequence runs, and scrambled descriptions read
// one after the other.
#include "download/dlgdownload.h"
#include "platform/kavo_api.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include "boxanswerer.h"
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
// From the series check to the end of a successful download.
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

} // namespace

class tst_sequence : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void runtimeQuestions_data();
    void runtimeQuestions();
    void stopMidway_data();
    void stopMidway();
    void scrambledDescriptionsInTurn();

private:
    // A ready panel, a stick with the recording updater, `project` on it, and
    // the dialog for it.
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
    QTest::addColumn<bool>("installedDamaged");
    QTest::addColumn<QString>("runtimeCopy"); // how the package's runtime copy is made
    QTest::addColumn<bool>("yes");            // the operator's answer
    QTest::addColumn<QString>("box");         // "title|text" of the one box the operator sees
    QTest::addColumn<QStringList>("tail");    // the pane after the installed runtime's check
    QTest::addColumn<bool>("handedOver");     // the updater was started and the dialog closed

    const bool yes = true;
    const bool no = false;
    const QString damaged = msg(2034) + '|' + msg(2116);
    const QString newer = msg(2034) + '|' + msg(2033).arg("7.2.1", "7.3.0");
    const QString unreadable = msg(2030) + '|' + msg(2031);
    QTest::newRow("damaged runtime, no update") << true << "sound" << no << damaged << texts({2115}) << false;
    QTest::newRow("damaged runtime, damaged copy")
        << true << "damaged" << yes << damaged << QStringList{msg(2068).arg("lib/libkavo.so: FAILED"), msg(2040)}
        << false;
    QTest::newRow("damaged runtime, copy of empty product")
        << true << "empty product" << yes << damaged << texts({2041}) << false;
    QTest::newRow("damaged runtime, copy of a series in other case")
        << true << "kavopro" << yes << damaged << texts({2042}) << false;
    QTest::newRow("damaged runtime, updated") << true << "sound" << yes << damaged << downloaded() << true;
    QTest::newRow("newer runtime, updated") << false << "sound" << yes << newer << downloaded() << true;
    QTest::newRow("newer runtime, project only") << false << "sound" << no << newer << downloaded() << false;
    QTest::newRow("unreadable runtime copy, project only")
        << false << "unscrambled" << yes << unreadable << downloaded() << false;
    QTest::newRow("unreadable runtime copy, cancelled")
        << false << "unscrambled" << no << unreadable << texts({2026}) << false;
}

void tst_sequence::runtimeQuestions()
{
    QFETCH(bool, installedDamaged);
    QFETCH(QString, runtimeCopy);
    QFETCH(bool, yes);
    QFETCH(QString, box);
    QFETCH(QStringList, tail);
    QFETCH(bool, handedOver);

    kit::ProjectSpec project;
    project.variant = QStringLiteral("v7");
    project.withRuntime = true;
    project.runtime.version = QStringLiteral("7.3.0");
    if (runtimeCopy == QLatin1String("kavopro"))
        project.runtime.product = QStringLiteral("kavopro");
    std::unique_ptr<dlgDownLoad> dialog = prepare(project);
    QVERIFY(dialog);

    const QString copy = m_stick->path() + "/proj/KavoPro/v7/kavo_app";
    if (runtimeCopy == QLatin1String("damaged"))
        QVERIFY(testenv::writeFile(copy + "/lib/libkavo.so", "another library\n"));
    else if (runtimeCopy == QLatin1String("empty product"))
        QVERIFY(kit::writeScrambled(copy + "/update.ini",
                                    ";;;#\n[PREPARE]\nversion=7.3.0\nminsetversion=7.0.0\nproduct=\n"));
    else if (runtimeCopy == QLatin1String("unscrambled"))
        QVERIFY(testenv::writeFile(copy + "/update.ini", kit::updateIniText(project.runtime)));
    if (installedDamaged)
        QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/bin/kavo_app"), "damaged application\n"));
    const QMap<QString, QByteArray> before = panelFiles(m_panel->root());

    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
    {
        testenv::BoxAnswerer answerer({yes ? QMessageBox::Yes : QMessageBox::No}, QMessageBox::No);
        dialog->clickedStartBt();
        QCOMPARE(answerer.seen().size(), 1);
        const testenv::SeenBox& seen = answerer.seen().first();
        QCOMPARE(seen.title + '|' + seen.text, box);
        QCOMPARE(seen.buttons, (QStringList{msg(1004), msg(1005)}));
        if (seen.title == msg(2034))
            QCOMPARE(seen.icon, QMessageBox::Question);
    }

    QCOMPARE(paneText(*dialog), (texts(kToRuntimeChecked) + tail).join('\n'));
    if (tail.last() == msg(2059) + '\n') {
        QCOMPARE(testenv::readFile(m_panel->path("/usr/kavo_app/project/project.bin")), QByteArray("the new project\n"));
        QVERIFY(dialog->isCountingDown());
    } else {
        QCOMPARE(panelFiles(m_panel->root()), before);
        QVERIFY(!dialog->isCountingDown());
    }
    QCOMPARE(dialog->isVisible(), !handedOver);
    dialog.reset();

    const QString recorded = m_panel->path("/tmp/updater.args");
    if (handedOver) {
        QTRY_VERIFY(QFile::exists(recorded));
        QCOMPARE(QString::fromUtf8(testenv::readFile(recorded)),
                 QStringLiteral("-project %1/ proj\n-product KavoPro\n-lanID 0003\n").arg(m_stick->path()));
    } else {
        QTest::qWait(100);
        QVERIFY(!QFile::exists(recorded));
    }
}

void tst_sequence::stopMidway_data()
{
    QTest::addColumn<QString>("when");      // "disk check": at line 2044; "copy": once the first file has begun
    QTest::addColumn<QStringList>("presses"); // buttons pressed then, in one go
    QTest::addColumn<QStringList>("tail");    // the pane after the version check

    const QStringList toDisk = texts({2022, 2028, 2035, 2039, 2044});
    // Nothing has been deleted yet: the run ends where it is.
    QTest::newRow("stop during the disk check") << "disk check" << QStringList{"btnStop"} << toDisk + texts({2060});
    QTest::newRow("stop, then start during the disk check")
        << "disk check" << QStringList{"btnStop", "btnStart"} << toDisk + texts({2060});
    // The copy sees the stop within its block; neither the restart nor the
    // start pressed meanwhile may start anything.
    QTest::newRow("restart, stop, start during the copy")
        << "copy" << QStringList{"btnRestart", "btnStop", "btnRestart", "btnStart"}
        << toDisk + texts({2046, 2047, 2050, 2051, 2053, 2060, 2055});
}

void tst_sequence::stopMidway()
{
    QFETCH(QString, when);
    QFETCH(QStringList, presses);
    QFETCH(QStringList, tail);
    kit::ProjectSpec project;
    project.clearUserDir = true;
    project.files.prepend(kit::PackageFile{"large.bin", QByteArray(16 << 20, 'x'), "/usr/kavo_app/project"});
    std::unique_ptr<dlgDownLoad> dialog = prepare(project);
    QVERIFY(dialog);
    const QMap<QString, QByteArray> before = panelFiles(m_panel->root());
    const QString large = m_panel->path("/usr/kavo_app/project/large.bin");

    auto* stop = dialog->findChild<QPushButton*>(QStringLiteral("btnStop"));
    bool pressed = false;
    QTimer press;
    connect(&press, &QTimer::timeout, [&] {
        const bool now = when == QLatin1String("copy") ? QFileInfo(large).size() > 0
                                                       : paneText(*dialog).endsWith(msg(2044));
        if (!now || pressed)
            return;
        pressed = true;
        // click() works on disabled buttons too: what a button does when it
        // can be pressed is the sequence's business, not the button state's.
        for (const QString& name : presses)
            QMetaObject::invokeMethod(dialog->findChild<QPushButton*>(name), "clicked");
    });
    press.start(0);
    testenv::BoxAnswerer answerer;
    dialog->clickedStartBt();
    press.stop();

    QVERIFY(pressed);
    QCOMPARE(paneText(*dialog), (texts(kToRuntimeChecked) + tail).join('\n'));
    // No reboot was tried: it would have told its failure in a box.
    QCOMPARE(answerer.seen().size(), 0);
    QCOMPARE(dialog->windowTitle(), QStringLiteral("proj"));
    QVERIFY(dialog->findChild<QPushButton*>(QStringLiteral("btnStart"))->isEnabled());
    QVERIFY(!stop->isEnabled());
    if (when == QLatin1String("copy")) {
        // The copy ended inside the first file: nothing after it was written.
        QVERIFY(!QFile::exists(m_panel->path("/usr/kavo_app/project/context.dat")));
        QVERIFY(QFileInfo(large).size() < (16 << 20));
    } else {
        // Neither the user file area nor the old project was touched.
        QCOMPARE(panelFiles(m_panel->root()), before);
    }
}

void tst_sequence::scrambledDescriptionsInTurn()
{
    // Two projects whose clear descriptions have the same size and differ in
    // the platform name, which the platform mismatch message shows. Each run
    // writes its clear copy to the same panel path; a reader that trusted what
    // it read there before would show the other project's name whenever two
    // runs unscramble within the same millisecond, so many runs take turns.
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
