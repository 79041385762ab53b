// The runtime-update decision: when the package's runtime copy is offered, what
// the operator is asked, and what the update-runtime flag says afterwards.
#include "download/projectdownload.h"
#include "testenv.h"
#include "text/multilingualmanager.h"
#include "tools/kit/runtime.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// Answers yes/no questions from a script and records every channel, in order:
// "ask:Information|title|text", "ask:Question|title|text", "text:...", "fail:...".
class Recorder : public ProjectDownload
{
public:
    Recorder()
        : ProjectDownload(QString(), QStringLiteral("0000"))
    {
    }

    QString answers; // one letter per question: 'Y' yes, anything else no
    QStringList events;

protected:
    void setTextEditContent(const QString& text) override { events << QStringLiteral("text:") + text; }
    void resetUpgrageUI(const QString& text) override { events << QStringLiteral("fail:") + text; }
    void setBntEnable(bool, bool, bool) override { events << QStringLiteral("buttons"); }
    bool askYesNo(QuestionIcon icon, const QString& title, const QString& text) override
    {
        events << QStringLiteral("ask:%1|%2|%3")
                      .arg(icon == QuestionIcon::Question ? QStringLiteral("Question") : QStringLiteral("Information"),
                           title, text);
        const QChar answer = answers.isEmpty() ? QLatin1Char('N') : answers.at(0);
        answers.remove(0, 1);
        return answer == QLatin1Char('Y');
    }
};

QString text(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

// Expected events are written with message ids: "ask:Question|2034|2033|7.2.1|7.3.0"
// (icon, title id, text id, arguments) or "fail:2026".
QStringList expand(const QStringList& expected)
{
    QStringList events;
    for (const QString& line : expected) {
        const int colon = line.indexOf(QLatin1Char(':'));
        const QString kind = line.left(colon);
        QStringList parts = line.mid(colon + 1).split(QLatin1Char('|'));
        QString prefix = kind + QLatin1Char(':');
        if (kind == QLatin1String("ask")) {
            const QString icon = parts.takeFirst();
            const QString title = text(parts.takeFirst().toInt());
            prefix += icon + QLatin1Char('|') + title + QLatin1Char('|');
        }
        QString message = text(parts.takeFirst().toInt());
        if (parts.size() == 1)
            message = message.arg(parts.at(0));
        else if (parts.size() == 2)
            message = message.arg(parts.at(0), parts.at(1));
        events << prefix + message;
    }
    return events;
}

const QByteArray kMissing("<missing>");

// A clear update.ini text as a package's runtime carries it: the "#" in the
// fourth byte is the mark the scrambled form must show once unscrambled.
QByteArray updateIni(const QByteArray& version)
{
    return ";;;# runtime\n[PREPARE]\nversion=" + version + "\nproduct=KavoPro\n";
}

enum Updater { NoUpdater = 0, ProductBinOnly = 1, HelperOnly = 2, BothUpdaterFiles = 3 };

} // namespace

class tst_RuntimeUpdate : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void kavoAppExit_data();
    void kavoAppExit();
    void isUpdateAppCheck_data();
    void isUpdateAppCheck();
    void clearCopyOnPanel();

private:
    void writeUpdater(int which);

    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<Recorder> m_download;
};

void tst_RuntimeUpdate::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QVERIFY(!text(2108).isEmpty());
    m_oldCwd = QDir::currentPath();
}

void tst_RuntimeUpdate::init()
{
    // A fresh panel per row: every row's clear copy and installed description
    // then live at paths of their own.
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<Recorder>();
    m_download->m_projectName = "proj";
    m_download->m_variantName = "v7/";
}

void tst_RuntimeUpdate::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_RuntimeUpdate::writeUpdater(int which)
{
    if (which & ProductBinOnly)
        QVERIFY(testenv::writeFile("proj/" + m_download->m_packageProduct + "/opxupdateu.bin", "updater"));
    if (which & HelperOnly)
        QVERIFY(testenv::writeFile("opxupdateu/helper/opxupdateu_helper.bin", "helper"));
}

void tst_RuntimeUpdate::kavoAppExit_data()
{
    QTest::addColumn<int>("updater");
    QTest::addColumn<bool>("expected");

    QTest::newRow("neither file") << int(NoUpdater) << false;
    QTest::newRow("product updater only") << int(ProductBinOnly) << false;
    QTest::newRow("helper only") << int(HelperOnly) << false;
    QTest::newRow("both") << int(BothUpdaterFiles) << true;
}

void tst_RuntimeUpdate::kavoAppExit()
{
    QFETCH(int, updater);
    QFETCH(bool, expected);

    m_download->m_packageProduct = "KavoStu";
    writeUpdater(updater);
    // The updater of another product does not count.
    QVERIFY(testenv::writeFile("proj/KavoPro/opxupdateu.bin", "updater"));

    QCOMPARE(m_download->kavoAppExit(), expected);
    QVERIFY(m_download->events.isEmpty());
}

void tst_RuntimeUpdate::isUpdateAppCheck_data()
{
    QTest::addColumn<int>("updater");
    QTest::addColumn<QString>("panelProduct");
    QTest::addColumn<QString>("packageProduct");
    QTest::addColumn<QString>("variantName");
    QTest::addColumn<QString>("packageDir");    // where the package's update.ini lies, under proj/<product>/
    QTest::addColumn<QByteArray>("packageIni"); // clear text, scrambled when written; kMissing: none
    QTest::addColumn<QByteArray>("installedIni");
    QTest::addColumn<QString>("answers");
    QTest::addColumn<bool>("flagBefore");
    QTest::addColumn<bool>("result");
    QTest::addColumn<bool>("flagAfter");
    QTest::addColumn<QStringList>("events");

    const int both = BothUpdaterFiles;
    const QByteArray v730 = updateIni("7.3.0");
    const QByteArray v721 = updateIni("7.2.1");

    // No updater on the stick: nothing is read, asked or changed.
    QTest::newRow("no product updater") << int(HelperOnly) << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app"
                                        << v730 << v721 << "Y" << true << true << true << QStringList();
    QTest::newRow("no helper") << int(ProductBinOnly) << "KavoStu" << "KavoPro" << "v7/" << "v7/kavo_app" << v730
                               << v721 << "Y" << true << true << true << QStringList();

    // The package's runtime cannot be read: go on without it, or cancel.
    const QStringList unreadable{"ask:Information|2030|2031"};
    QTest::newRow("package description missing, yes")
        << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << kMissing << v721 << "Y" << true << true
        << false << unreadable;
    QTest::newRow("package description missing, no")
        << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << kMissing << v721 << "N" << true << false
        << true << (unreadable + QStringList{"fail:2026"});
    QTest::newRow("description for another variant")
        << both << "KavoPro" << "KavoPro" << "v5/" << "v7/kavo_app" << v730 << v721 << "Y" << true << true << false
        << unreadable;
    QTest::newRow("mark missing") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app"
                                  << QByteArray("[PREPARE]\nversion=7.3.0\n") << v721 << "Y" << true << true << false
                                  << unreadable;
    QTest::newRow("empty version") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << updateIni("")
                                   << v721 << "Y" << true << true << false << unreadable;
    QTest::newRow("blank version") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << updateIni("   ")
                                   << v721 << "N" << false << false << false << (unreadable + QStringList{"fail:2026"});

    // Another series on the panel: always asked, whatever the versions.
    QTest::newRow("products differ, yes")
        << both << "KavoStu" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << updateIni("7.9.0") << "Y" << false
        << true << true << QStringList{"ask:Question|2034|2108|KavoStu|KavoPro 7.3.0"};
    QTest::newRow("products differ, no")
        << both << "KavoStu" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << v721 << "N" << true << true << false
        << QStringList{"ask:Question|2034|2108|KavoStu|KavoPro 7.3.0"};

    // The same series: asked only when the package's runtime is newer, as text.
    QTest::newRow("installed missing, case differs")
        << both << "kavopro" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << kMissing << "Y" << false << true
        << true << QStringList{"ask:Question|2034|2032|7.3.0"};
    QTest::newRow("installed older, yes") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << v721
                                          << "Y" << false << true << true
                                          << QStringList{"ask:Question|2034|2033|7.2.1|7.3.0"};
    QTest::newRow("installed older, no") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << v721
                                         << "N" << true << true << false
                                         << QStringList{"ask:Question|2034|2033|7.2.1|7.3.0"};
    QTest::newRow("equal versions") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << v730 << v730
                                    << "Y" << true << true << false << QStringList();
    QTest::newRow("installed newer") << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << v721 << v730
                                     << "Y" << true << true << false << QStringList();
    QTest::newRow("7.10.0 is older than 7.9.0 as text")
        << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << updateIni("7.10.0") << updateIni("7.9.0")
        << "Y" << true << true << false << QStringList();
    QTest::newRow("versions with further words")
        << both << "KavoPro" << "KavoPro" << "v7/" << "v7/kavo_app" << updateIni("  7.3.0   build5 ")
        << updateIni("7.2.1 build3") << "Y" << false << true << true
        << QStringList{"ask:Question|2034|2033|7.2.1|7.3.0"};
    QTest::newRow("no variant") << both << "KavoPro" << "KavoPro" << "" << "kavo_app" << v730 << v721 << "Y" << false
                                << true << true << QStringList{"ask:Question|2034|2033|7.2.1|7.3.0"};
}

void tst_RuntimeUpdate::isUpdateAppCheck()
{
    QFETCH(int, updater);
    QFETCH(QString, panelProduct);
    QFETCH(QString, packageProduct);
    QFETCH(QString, variantName);
    QFETCH(QString, packageDir);
    QFETCH(QByteArray, packageIni);
    QFETCH(QByteArray, installedIni);
    QFETCH(QString, answers);
    QFETCH(bool, flagBefore);
    QFETCH(bool, result);
    QFETCH(bool, flagAfter);
    QFETCH(QStringList, events);

    m_download->m_panelProduct = panelProduct;
    m_download->m_packageProduct = packageProduct;
    m_download->m_variantName = variantName;
    m_download->m_updateApp = flagBefore;
    m_download->answers = answers;
    writeUpdater(updater);
    if (packageIni != kMissing)
        QVERIFY(kit::writeScrambled("proj/" + packageProduct + "/" + packageDir + "/update.ini", packageIni));
    const QString installed = m_panel->path("/usr/kavo_app/update.ini");
    QFile::remove(installed);
    if (installedIni != kMissing)
        QVERIFY(testenv::writeFile(installed, installedIni));

    QCOMPARE(m_download->isUpdateAppCheck(), result);
    QCOMPARE(m_download->events, expand(events));
    QCOMPARE(m_download->m_updateApp, flagAfter);
}

void tst_RuntimeUpdate::clearCopyOnPanel()
{
    writeUpdater(BothUpdaterFiles);
    const QByteArray clear = updateIni("7.3.0");
    QVERIFY(kit::writeScrambled("proj/KavoPro/v7/kavo_app/update.ini", clear));
    QVERIFY(testenv::writeFile(m_panel->path("/usr/kavo_app/update.ini"), clear));

    QVERIFY(m_download->isUpdateAppCheck());
    QVERIFY(m_download->events.isEmpty());
    // The clear copy stays in the panel's /tmp after the call.
    QCOMPARE(testenv::readFile(m_panel->path("/tmp/update.ini")), clear);
}

QTEST_GUILESS_MAIN(tst_RuntimeUpdate)
#include "tst_runtimeupdate.moc"
