// The runtime-update decision: when the package's runtime copy is offered, what
// the operator is asked, and what the update-runtime flag says afterwards.
#include "recordingdownload.h"
#include "testenv.h"
#include "tools/kit/runtime.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// Answers the questions from a script, one letter each ('Y' yes, anything
// else no), and records which box asked: "ask:Information|title|text" or
// "ask:Question|title|text".
class Answering : public RecordingDownload
{
public:
    QString answers;

protected:
    bool askYesNo(QuestionIcon icon, const QString& title, const QString& text) override
    {
        events << QStringLiteral("ask:%1|%2|%3")
                      .arg(icon == QuestionIcon::Question ? QStringLiteral("Question") : QStringLiteral("Information"),
                           title, text);
        const bool yes = answers.startsWith(QLatin1Char('Y'));
        answers.remove(0, 1);
        return yes;
    }
};

QString question(const QString& text)
{
    return QStringLiteral("ask:Question|") + msg(2034) + QLatin1Char('|') + text;
}

const QByteArray kMissing("<missing>");

// A clear update.ini text as a package's runtime carries it: the "#" in the
// fourth byte is the mark the scrambled form must show once unscrambled.
QByteArray updateIni(const QByteArray& version)
{
    return ";;;# runtime\n[PREPARE]\nversion=" + version + "\nproduct=KavoPro\n";
}

enum Updater { ProductBinOnly = 1, HelperOnly = 2, BothUpdaterFiles = 3 };

} // namespace

class tst_RuntimeUpdate : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void kavoAppExit();
    void isUpdateAppCheck_data();
    void isUpdateAppCheck();

private:
    void writeUpdater(int which)
    {
        if (which & ProductBinOnly)
            QVERIFY(testenv::writeFile("proj/" + m_download->m_packageProduct + "/opxupdateu.bin", "updater"));
        if (which & HelperOnly)
            QVERIFY(testenv::writeFile("opxupdateu/helper/opxupdateu_helper.bin", "helper"));
    }

    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<Answering> m_download;
};

void tst_RuntimeUpdate::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    QVERIFY(!msg(2108).isEmpty());
    m_oldCwd = QDir::currentPath();
}

void tst_RuntimeUpdate::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<Answering>();
    m_download->m_projectName = "proj";
    m_download->m_packageProduct = "KavoPro";
}

void tst_RuntimeUpdate::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_RuntimeUpdate::kavoAppExit()
{
    // The package can update the runtime only with both the updater of its own
    // product and the helper.
    m_download->m_packageProduct = "KavoStu";
    writeUpdater(HelperOnly);
    QVERIFY(testenv::writeFile("proj/KavoPro/opxupdateu.bin", "another product's updater"));
    QVERIFY(!m_download->kavoAppExit());
    // Without an updater there is nothing to decide: nothing is read, asked or changed.
    m_download->m_updateApp = true;
    QVERIFY(m_download->isUpdateAppCheck());
    QVERIFY(m_download->m_updateApp);
    QVERIFY(QFile::remove("opxupdateu/helper/opxupdateu_helper.bin"));
    writeUpdater(ProductBinOnly);
    QVERIFY(!m_download->kavoAppExit());
    writeUpdater(HelperOnly);
    QVERIFY(m_download->kavoAppExit());
    QVERIFY(m_download->events.isEmpty());
}

void tst_RuntimeUpdate::isUpdateAppCheck_data()
{
    // The package (product KavoPro, with both updater files) carries its
    // runtime description scrambled in proj/KavoPro/v7/kavo_app/, or in
    // proj/KavoPro/kavo_app/ when the panel has no variant name.
    QTest::addColumn<QString>("variantName");
    QTest::addColumn<QString>("panelProduct");
    QTest::addColumn<QByteArray>("packageIni"); // clear text; kMissing: none
    QTest::addColumn<QByteArray>("installedIni");
    QTest::addColumn<QString>("answers");
    QTest::addColumn<bool>("result");
    QTest::addColumn<bool>("flagAfter"); // a decision always changes the flag, a cancel never
    QTest::addColumn<QStringList>("events");

    auto row = [](const char* name, const char* variant, const char* panelProduct, const QByteArray& packageIni,
                  const QByteArray& installedIni, const char* answers) -> QTestData& {
        return QTest::newRow(name) << QString(variant) << QString(panelProduct) << packageIni << installedIni
                                   << QString(answers);
    };
    const QByteArray v730 = updateIni("7.3.0");
    const QByteArray v721 = updateIni("7.2.1");
    const QStringList asked{question(msg(2033).arg("7.2.1", "7.3.0"))};
    const QStringList quiet;

    // The package's runtime cannot be read: the information box offers to go
    // on without it; no cancels the download.
    const QStringList unreadable{"ask:Information|" + msg(2030) + "|" + msg(2031)};
    const QStringList cancelled = unreadable + QStringList("fail: " + msg(2026));
    row("package description missing, yes", "v7/", "KavoPro", kMissing, v721, "Y") << true << false << unreadable;
    row("package description missing, no", "v7/", "KavoPro", kMissing, v721, "N") << false << true << cancelled;
    row("description for another variant", "v5/", "KavoPro", v730, v721, "Y") << true << false << unreadable;
    row("mark missing", "v7/", "KavoPro", "[PREPARE]\nversion=7.3.0\n", v721, "Y") << true << false << unreadable;
    row("blank version, no", "v7/", "KavoPro", updateIni("   "), v721, "N") << false << false << cancelled;

    // Another series on the panel: always asked, whatever the versions.
    row("products differ", "v7/", "KavoStu", v730, updateIni("7.9.0"), "Y")
        << true << true << QStringList{question(msg(2108).arg("KavoStu", "KavoPro 7.3.0"))};

    // The same series: the question box only when the package's runtime is
    // newer, compared as text; the answer sets the flag.
    row("installed missing, case differs", "v7/", "kavopro", v730, kMissing, "Y")
        << true << true << QStringList{question(msg(2032).arg("7.3.0"))};
    row("installed older, yes", "v7/", "KavoPro", v730, v721, "Y") << true << true << asked;
    row("installed older, no", "v7/", "KavoPro", v730, v721, "N") << true << false << asked;
    row("equal versions", "v7/", "KavoPro", v730, v730, "Y") << true << false << quiet;
    row("7.10.0 is older than 7.9.0 as text", "v7/", "KavoPro", updateIni("7.10.0"), updateIni("7.9.0"), "Y")
        << true << false << quiet;
    row("versions with further words", "v7/", "KavoPro", updateIni("  7.3.0   build5 "), updateIni("7.2.1 build3"),
        "Y") << true << true << asked;
    row("no variant", "", "KavoPro", v730, v721, "Y") << true << true << asked;
}

void tst_RuntimeUpdate::isUpdateAppCheck()
{
    QFETCH(QString, variantName);
    QFETCH(QString, panelProduct);
    QFETCH(QByteArray, packageIni);
    QFETCH(QByteArray, installedIni);
    QFETCH(QString, answers);
    QFETCH(bool, result);
    QFETCH(bool, flagAfter);
    QFETCH(QStringList, events);

    m_download->m_panelProduct = panelProduct;
    m_download->m_variantName = variantName;
    m_download->m_updateApp = result ? !flagAfter : flagAfter;
    m_download->answers = answers;
    writeUpdater(BothUpdaterFiles);
    if (packageIni != kMissing)
        QVERIFY(kit::writeScrambled(variantName.isEmpty() ? "proj/KavoPro/kavo_app/update.ini"
                                                          : "proj/KavoPro/v7/kavo_app/update.ini",
                                    packageIni));
    const QString installed = m_panel->path("/usr/kavo_app/update.ini");
    QFile::remove(installed);
    if (installedIni != kMissing)
        QVERIFY(testenv::writeFile(installed, installedIni));

    QCOMPARE(m_download->isUpdateAppCheck(), result);
    QCOMPARE(m_download->events, events);
    QCOMPARE(m_download->m_updateApp, flagAfter);
    // A description that was read leaves no clear copy in the panel's /tmp.
    if (!events.value(0).startsWith("ask:Information"))
        QVERIFY(!QFile::exists(m_panel->path("/tmp/update.ini")));
}

QTEST_GUILESS_MAIN(tst_RuntimeUpdate)
#include "tst_runtimeupdate.moc"
