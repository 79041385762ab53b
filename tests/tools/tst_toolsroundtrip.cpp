// The integrator's round trip: opxpanel makes a panel, opxpack makes a stick
// from a plain project directory, and the stick's own executable downloads the
// project in direct mode. Each row is one whole download (with the ten-second
// countdown before the simulated reboot), so the table stays short and each row
// asserts everything its download shows.
#include "testenv.h"

#include "tools/kit/runtime.h"

#include <QProcess>
#include <QtTest>

namespace {

// Regular files below `dir`, relative to it, sorted.
QStringList filesBelow(const QString& dir)
{
    QStringList files;
    for (const QString& entry : testenv::entriesWithSizes(dir)) {
        if (!entry.endsWith(" -1"))
            files << entry.section(' ', 0, -2);
    }
    files.sort();
    return files;
}

// A project as the design software leaves it: binary and text files, a
// subdirectory, names with blanks, Chinese and INI-special characters, an
// empty file, a font and two files for the user area.
bool writeGeneratedProject(const QString& dir)
{
    QByteArray binary;
    for (int i = 0; i < 100000; ++i)
        binary.append(char((i * 7 + i / 256) & 0xff));
    const QMap<QString, QByteArray> files = {
        {"context.dat", "[context]\nproject=generated\n"}, {"main.bin", binary},
        {"pages/p1.scr", "page one\n"},                    {"画面 二.scr", "page two\n"},
        {"odd, name; \"x\".bin", "odd\n"},                 {"empty.dat", ""},
        {"my.ttf", "project font\n"},                      {"DownLoadFile/docs/manual.txt", "manual\n"},
        {"DownLoadFile/x.csv", "a,b\n1,2\n"},
    };
    bool ok = true;
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        ok = testenv::writeFile(dir + "/" + it.key(), it.value()) && ok;
    return ok;
}

} // namespace

class tst_ToolsRoundTrip : public QObject
{
    Q_OBJECT

private slots:
    void packageAcceptsToolsOutput_data();
    void packageAcceptsToolsOutput();
};

void tst_ToolsRoundTrip::packageAcceptsToolsOutput_data()
{
    QTest::addColumn<bool>("sample");          // examples/sample, else a generated project
    QTest::addColumn<QStringList>("packArgs"); // {W} the work directory
    QTest::addColumn<QStringList>("panelArgs");
    QTest::addColumn<QStringList>("placed");   // "relative path=panel path" where the default does not hold
    QTest::addColumn<bool>("userAreaCleared");
    QTest::addColumn<bool>("recipeCleared");

    QTest::newRow("sample project, auto variant, OPX7 panel")
        << true << QStringList{} << QStringList{} << QStringList{} << false << false;
    QTest::newRow("v5 on an OPX5 panel, scrambled, with a runtime copy")
        << false
        << QStringList{"--platform", "5", "--scramble", "--runtime", "{W}/runtime", "--dest",
                       "*.ttf=/usr/kavo_app/font", "--dest", "my.*=/never"}
        << QStringList{"--arch", "5"} << QStringList{"my.ttf=/usr/kavo_app/font/my.ttf"} << false << false;
    // OPX_RT_PAGES is set for the package in packageAcceptsToolsOutput().
    QTest::newRow("no variant, runtime copy, data cleared, $ destination")
        << false
        << QStringList{"--variant", "none", "--runtime", "{W}/runtime", "--clear", "recipe,userdir", "--dest",
                       "pages/*=$OPX_RT_PAGES"}
        << QStringList{"--password", "1234", "--language", "1"}
        << QStringList{"pages/p1.scr=/usr/kavo_app/pages/pages/p1.scr"} << true << true;
    QTest::newRow("v7 for another product, hardware conditions")
        << false
        << QStringList{"--variant", "v7", "--product", "KavoStu", "--cpu-core", "1", "--hw-platform", "5,10",
                       "--disk-capacity", "1", "--set-version", "7.4.0", "--min-run-version", "7.3.0"}
        << QStringList{"--product", "KavoStu", "--runtime-version", "7.4.2", "--min-set-version", "7.0.0"}
        << QStringList{} << false << false;
}

void tst_ToolsRoundTrip::packageAcceptsToolsOutput()
{
    QFETCH(bool, sample);
    QFETCH(QStringList, packArgs);
    QFETCH(QStringList, panelArgs);
    QFETCH(QStringList, placed);
    QFETCH(bool, userAreaCleared);
    QFETCH(bool, recipeCleared);

    testenv::OptionSafeDir work;
    QVERIFY(work.isValid());
    const QString project = sample ? qEnvironmentVariable("OPX_SOURCE_DIR") + "/examples/sample"
                                   : work.path() + "/generated";
    if (!sample)
        QVERIFY(writeGeneratedProject(project));
    QVERIFY(kit::writeRuntime(work.path() + "/runtime", kit::RuntimeSpec(), false));
    for (QString& argument : packArgs)
        argument.replace(QLatin1String("{W}"), work.path());
    const QString panel = work.path() + "/panel";
    const QString stick = work.path() + "/stick";

    QProcess tool;
    tool.start(qEnvironmentVariable("OPXPANEL"), QStringList{"--root", panel} + panelArgs);
    QVERIFY(tool.waitForFinished());
    QVERIFY2(tool.exitCode() == 0, tool.readAllStandardError().constData());
    tool.start(qEnvironmentVariable("OPXPACK"),
               QStringList{"--project", project, "--name", "line 2", "--out", stick} + packArgs);
    QVERIFY(tool.waitForFinished());
    QVERIFY2(tool.exitCode() == 0, tool.readAllStandardError().constData());

    QProcess package;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("OPX_RT_PAGES"), QStringLiteral("/usr/kavo_app/pages"));
    package.setProcessEnvironment(env);
    package.setWorkingDirectory(stick);
    package.start(stick + "/opxupdateu/opxupdateu_proj.bin",
                  {QStringLiteral("-s line 2"), QStringLiteral("-p ") + work.path() + "/out"});
    QVERIFY(package.waitForFinished(60000));
    const QString report = QString::fromUtf8(testenv::readFile(work.path() + "/out/pro_update_result.log"));
    QVERIFY2(report.startsWith(QStringLiteral("[成功]\n")), qPrintable(report));
    QCOMPARE(package.exitStatus(), QProcess::NormalExit);
    QCOMPARE(package.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel + "/var/run/reboot-requested"), QByteArray("reboot\n"));

    // Every input file at its place on the panel, byte for byte; the project
    // area and the user area hold nothing else of the old panel.
    QMap<QString, QString> where;
    for (const QString& entry : placed)
        where.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
    QStringList inProjectArea;
    QStringList inUserArea = userAreaCleared ? QStringList() : QStringList{QStringLiteral("user.txt")};
    for (const QString& file : filesBelow(project)) {
        QString target = where.value(file);
        if (target.isEmpty() && file.startsWith(QLatin1String("DownLoadFile/"))) {
            target = "/data/userfile/" + file.mid(13);
            inUserArea << file.mid(13);
        } else if (target.isEmpty()) {
            target = "/usr/kavo_app/project/" + file;
            inProjectArea << file;
        }
        QCOMPARE(testenv::readFile(panel + target), testenv::readFile(project + "/" + file));
    }
    inProjectArea.sort();
    inUserArea.sort();
    QCOMPARE(filesBelow(panel + "/usr/kavo_app/project"), inProjectArea);
    QCOMPARE(filesBelow(panel + "/data/userfile"), inUserArea);
    QCOMPARE(filesBelow(panel + "/data/recipe"),
             recipeCleared ? QStringList() : QStringList{QStringLiteral("recipe.dat")});
    QCOMPARE(filesBelow(panel + "/data/history"), QStringList{QStringLiteral("history.dat")});
}

QTEST_GUILESS_MAIN(tst_ToolsRoundTrip)
#include "tst_toolsroundtrip.moc"
