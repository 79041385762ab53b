// The download sequence in process, where the operator has a say: the runtime
// update questions and what each answer leads to, the hand-over to the runtime
// updater, the stop button during the copy, and scrambled descriptions read
// one after the other.
#include "download/dlgdownload.h"

#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QApplication>
#include <QDir>
#include <QDirIterator>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

QStringList texts(const QList<int>& ids)
{
    QStringList lines;
    for (int id : ids)
        lines << msg(id);
    return lines;
}

// The pane up to the end of the installed runtime's check.
const QList<int> kToRuntimeChecked = {2011, 2021, 2112, 2114, 2117, 2118};
// From the series check to the end of a successful download.
const QList<int> kProjectDownloaded = {2022, 2028, 2035, 2039, 2044, 2050, 2051, 2053, 2056, 2058};

QStringList downloaded()
{
    return texts(kProjectDownloaded) << msg(2059) + QLatin1Char('\n');
}

QString paneText(const dlgDownLoad& dialog)
{
    return dialog.findChild<QTextEdit*>(QStringLiteral("textEdit"))->toPlainText();
}

// The panel's files, for "nothing has changed".
QMap<QString, QByteArray> panelFiles(const QString& root)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = path.mid(root.size());
        if (!relative.startsWith(QLatin1String("/tmp/")))
            files.insert(relative, testenv::readFile(path));
    }
    return files;
}

// A runtime updater that records its arguments, one per line, on the panel.
const QByteArray kUpdaterScript = "#!/bin/sh\n"
                                  "printf '%s\\n' \"$@\" > \"$KAVO_PANEL_ROOT/tmp/updater.part\"\n"
                                  "mv \"$KAVO_PANEL_ROOT/tmp/updater.part\" \"$KAVO_PANEL_ROOT/tmp/updater.args\"\n";

} // namespace

class tst_sequence : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void runtimeQuestions_data();
    void runtimeQuestions();
    void stopDuringCopy();
    void scrambledDescriptionsInTurn();

private:
    // A ready panel, a stick with the recording updater, and `project` on it.
    bool prepare(const kit::PanelSpec& panelSpec, const kit::ProjectSpec& project);
    std::unique_ptr<dlgDownLoad> dialogFor(const QString& project);

    QString m_previousDir;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    QTemporaryDir m_scratch;
};

void tst_sequence::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    // A countdown left running must never end the test process in a reboot.
    qputenv("KAVO_SIM_REBOOT_ERRNO", "1");
    QVERIFY(m_scratch.isValid());
    QVERIFY(testenv::writeFile(m_scratch.path() + "/updater.sh", kUpdaterScript));
}

void tst_sequence::init()
{
    m_previousDir = QDir::currentPath();
}

void tst_sequence::cleanup()
{
    QDir::setCurrent(m_previousDir);
    m_stick.reset();
    m_panel.reset();
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

bool tst_sequence::prepare(const kit::PanelSpec& panelSpec, const kit::ProjectSpec& project)
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    kit::PackageSpec package;
    package.helper = m_scratch.path() + "/updater.sh";
    return m_panel->isValid() && m_stick->isValid() && kit::makePanel(m_panel->root(), panelSpec)
           && kit::writePackage(m_stick->path(), package) && kit::writeProject(m_stick->path(), project);
}

std::unique_ptr<dlgDownLoad> tst_sequence::dialogFor(const QString& project)
{
    auto dialog = std::make_unique<dlgDownLoad>(QString(Kavo_GetDirectory(3)), QStringLiteral("0003"));
    dialog->setPackageRoot(m_stick->path());
    dialog->setProjectName(project);
    return dialog;
}

void tst_sequence::runtimeQuestions_data()
{
    QTest::addColumn<bool>("installedDamaged");
    QTest::addColumn<QString>("runtimeCopy"); // how the package's runtime copy is made
    QTest::addColumn<QList<int>>("answers");
    QTest::addColumn<QStringList>("boxes");   // "title|text" of each box the operator saw
    QTest::addColumn<QStringList>("tail");    // the pane after the installed runtime's check
    QTest::addColumn<bool>("handedOver");     // the updater was started and the dialog closed

    const int yes = QMessageBox::Yes;
    const int no = QMessageBox::No;
    const QString damaged = msg(2034) + '|' + msg(2116);
    const QString newer = msg(2034) + '|' + msg(2033).arg("7.2.1", "7.3.0");

    QTest::newRow("damaged runtime, no update") << true << "sound" << QList<int>{no} << QStringList{damaged}
                                                << texts({2115}) << false;
    QTest::newRow("damaged runtime, damaged copy")
        << true << "damaged" << QList<int>{yes} << QStringList{damaged}
        << QStringList{msg(2068).arg("lib/libkavo.so: FAILED"), msg(2040)} << false;
    QTest::newRow("damaged runtime, copy of empty product")
        << true << "empty product" << QList<int>{yes} << QStringList{damaged} << texts({2041}) << false;
    QTest::newRow("damaged runtime, copy of a series in other case")
        << true << "kavopro" << QList<int>{yes} << QStringList{damaged} << texts({2042}) << false;
    QTest::newRow("damaged runtime, updated") << true << "sound" << QList<int>{yes} << QStringList{damaged}
                                              << downloaded() << true;
    QTest::newRow("newer runtime, updated") << false << "sound" << QList<int>{yes} << QStringList{newer}
                                            << downloaded() << true;
    QTest::newRow("newer runtime, project only") << false << "sound" << QList<int>{no} << QStringList{newer}
                                                 << downloaded() << false;
    QTest::newRow("unreadable runtime copy, project only")
        << false << "unscrambled" << QList<int>{yes} << QStringList{msg(2030) + '|' + msg(2031)} << downloaded()
        << false;
    QTest::newRow("unreadable runtime copy, cancelled")
        << false << "unscrambled" << QList<int>{no} << QStringList{msg(2030) + '|' + msg(2031)} << texts({2026})
        << false;
}

void tst_sequence::runtimeQuestions()
{
    QFETCH(bool, installedDamaged);
    QFETCH(QString, runtimeCopy);
    QFETCH(QList<int>, answers);
    QFETCH(QStringList, boxes);
    QFETCH(QStringList, tail);
    QFETCH(bool, handedOver);

    kit::ProjectSpec project;
    project.variant = QStringLiteral("v7");
    project.withRuntime = true;
    project.runtime.version = QStringLiteral("7.3.0");
    if (runtimeCopy == QLatin1String("kavopro"))
        project.runtime.product = QStringLiteral("kavopro");
    QVERIFY(prepare(kit::PanelSpec(), project));

    const QString copy = m_stick->path() + "/proj/KavoPro/v7/kavo_app";
    if (runtimeCopy == QLatin1String("damaged")) {
        QVERIFY(testenv::writeFile(copy + "/lib/libkavo.so", "another library\n"));
    } else if (runtimeCopy == QLatin1String("empty product")) {
        QVERIFY(kit::writeScrambled(copy + "/update.ini",
                                    ";;;#\n[PREPARE]\nversion=7.3.0\nminsetversion=7.0.0\nproduct=\n"));
    } else if (runtimeCopy == QLatin1String("unscrambled")) {
        QVERIFY(testenv::writeFile(copy + "/update.ini", kit::updateIniText(project.runtime)));
    }
    if (installedDamaged)
        QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/bin/kavo_app"), "damaged application\n"));
    const QMap<QString, QByteArray> before = panelFiles(m_panel->root());

    std::unique_ptr<dlgDownLoad> dialog = dialogFor(QStringLiteral("proj"));
    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
    {
        QList<QMessageBox::StandardButton> buttons;
        for (int answer : answers)
            buttons << QMessageBox::StandardButton(answer);
        testenv::BoxAnswerer answerer(buttons, QMessageBox::No);
        dialog->clickedStartBt();
        QStringList seen;
        for (const testenv::SeenBox& box : answerer.seen())
            seen << box.title + QLatin1Char('|') + box.text;
        QCOMPARE(seen, boxes);
        for (const testenv::SeenBox& box : answerer.seen())
            QCOMPARE(box.buttons, (QStringList{msg(1004), msg(1005)}));
        if (!seen.isEmpty() && seen.first().startsWith(msg(2034)))
            QCOMPARE(answerer.seen().first().icon, QMessageBox::Question);
    }

    QCOMPARE(paneText(*dialog), (texts(kToRuntimeChecked) + tail).join('\n'));
    const bool downloadedProject = tail.last() == msg(2059) + '\n';
    if (downloadedProject) {
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

void tst_sequence::stopDuringCopy()
{
    kit::ProjectSpec project;
    project.files.prepend(kit::PackageFile{"large.bin", QByteArray(16 << 20, 'x'), "/usr/kavo_app/project"});
    QVERIFY(prepare(kit::PanelSpec(), project));

    std::unique_ptr<dlgDownLoad> dialog = dialogFor(QStringLiteral("proj"));
    auto* stop = dialog->findChild<QPushButton*>(QStringLiteral("btnStop"));
    QTimer press;
    connect(&press, &QTimer::timeout, [&] {
        if (paneText(*dialog).endsWith(msg(2053)) && stop->isEnabled()) {
            press.stop();
            stop->click();
        }
    });
    press.start(1);
    dialog->clickedStartBt();

    const QStringList lines = texts(kToRuntimeChecked) + texts({2022, 2028, 2035, 2039, 2044, 2050, 2051, 2053, 2060, 2055});
    QCOMPARE(paneText(*dialog), lines.join('\n'));
    QCOMPARE(dialog->windowTitle(), QStringLiteral("proj"));
    QVERIFY(dialog->findChild<QPushButton*>(QStringLiteral("btnStart"))->isEnabled());
    QVERIFY(!stop->isEnabled());
    // The copy ended inside the first file: nothing after it was written.
    QVERIFY(!QFile::exists(m_panel->path("/usr/kavo_app/project/context.dat")));
    QVERIFY(QFileInfo(m_panel->path("/usr/kavo_app/project/large.bin")).size() < (16 << 20));
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
    QVERIFY(prepare(kit::PanelSpec(), first));
    QVERIFY(kit::writeProject(m_stick->path(), second));

    std::unique_ptr<dlgDownLoad> dialog = dialogFor(QStringLiteral("first"));
    for (int round = 0; round < 100; ++round) {
        const QString name = round % 2 == 0 ? QStringLiteral("OPXA") : QStringLiteral("OPXB");
        dialog->setProjectName(round % 2 == 0 ? first.name : second.name);
        dialog->findChild<QTextEdit*>(QStringLiteral("textEdit"))->clear();
        dialog->clickedStartBt();
        QCOMPARE(paneText(*dialog), QStringList({msg(2011), msg(2015).arg(name), msg(2020)}).join('\n'));
    }
}

QTEST_MAIN(tst_sequence)
#include "tst_sequence.moc"
