// opxpack and opxpanel: what they refuse, writing nothing; and a panel and stick
// they make, downloaded by the stick's own executable in direct mode.
#include "testenv.h"

#include "tools/kit/runtime.h"
#include "tools/opxpack/packtool.h"
#include "tools/opxpanel/paneltool.h"

#include <QtTest>

class tst_Tools : public QObject
{
    Q_OBJECT

private slots:
    void refusesAndWritesNothing_data();
    void refusesAndWritesNothing();
    void packageAcceptsToolsOutput();
};

void tst_Tools::refusesAndWritesNothing_data()
{
    QTest::addColumn<QStringList>("arguments"); // the tool's name first; {W} the work directory
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");       // the first line on standard error
    auto row = [](const char* name, const QStringList& arguments, int code, const QString& message) {
        QTest::newRow(name) << arguments << code << arguments.first() + ": " + message;
    };
    const QStringList pack{"opxpack", "--project", "{W}/project", "--out", "{W}/stick", "--executable", "{EXE}"};
    row("no --project", {"opxpack", "--out", "{W}/stick"}, 2, "no project directory given (--project DIR)");
    row("no context.dat", QStringList(pack).replaceInStrings("/project", "/busy"), 1, "project directory {W}/busy has no context.dat; the package offers only directories that hold one");
    row("no updater for the runtime", pack + QStringList{"--runtime", "{W}/runtime"}, 1,
        "no opxupdateu_helper.bin found beside opxpack in {W}/bin; a stick that carries a runtime needs one: name it with --helper");
    row("no --root", {"opxpanel", "--arch", "5"}, 2, "no panel root given (--root DIR)");
    row("root not empty", {"opxpanel", "--root", "{W}/busy"}, 1, "{W}/busy is not empty; --force lays a new panel over it");
}

void tst_Tools::refusesAndWritesNothing()
{
    QFETCH(QStringList, arguments);
    QTemporaryDir work;
    const QString w = work.path();
    QVERIFY(testenv::writeFile(w + "/project/context.dat", "context\n") && testenv::writeFile(w + "/project/DownLoadFile/m.txt", "m\n"));
    QVERIFY(testenv::writeFile(w + "/busy/file", "x") && QDir().mkpath(w + "/bin") && kit::writeRuntime(w + "/runtime", kit::RuntimeSpec(), false));
    arguments.replaceInStrings("{W}", w).replaceInStrings("{EXE}", qEnvironmentVariable("OPX_EXECUTABLE"));

    const QStringList before = testenv::entriesWithSizes(w);
    QString out, err;
    QTextStream outStream(&out), errStream(&err);
    const int code = arguments.first() == "opxpack" ? opxpack::run(arguments, w + "/bin", outStream, errStream) : opxpanel::run(arguments, outStream, errStream);
    QTEST(code, "code");
    QTEST(err.section('\n', 0, 0).replace(w, "{W}"), "message");
    QVERIFY2(out.isEmpty() && testenv::entriesWithSizes(w) == before, qPrintable(out));
}

// An OPX5 panel and a stick for it: scrambled, a runtime copy, destinations, data cleared, hardware conditions.
void tst_Tools::packageAcceptsToolsOutput()
{
    testenv::OptionSafeDir work;
    const QString w = work.path(), project = w + "/project", panel = w + "/panel", stick = w + "/stick";
    const QByteArray binary = testenv::readFile(qEnvironmentVariable("OPX_EXECUTABLE")).left(100000);
    // As the design software leaves one: names with blanks, Chinese and INI-special characters.
    const QMap<QString, QByteArray> files = {{"context.dat", "[context]\n"}, {"main.bin", binary}, {"pages/p1.scr", "page one\n"},
                                             {"画面 二.scr", "page two\n"}, {"odd, name; \"x\".bin", "odd\n"}, {"empty.dat", ""},
                                             {"my.ttf", "font\n"}, {"DownLoadFile/docs/manual.txt", "manual\n"}, {"DownLoadFile/x.csv", "a,b\n"}};
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        QVERIFY(testenv::writeFile(project + "/" + it.key(), it.value()));
    QVERIFY(kit::writeRuntime(w + "/runtime", kit::RuntimeSpec(), false));
    QProcess tool; // a loaded machine can take longer than its default half minute
    for (const QStringList& run :
         {QStringList{"OPXPANEL", "--root", panel, "--arch", "5", "--password", "1234", "--language", "1",
                      "--runtime-version", "7.4.2", "--min-set-version", "7.0.0"},
          QStringList{"OPXPACK", "--project", project, "--name", "line 2", "--out", stick, "--platform", "5",
                      "--scramble", "--runtime", w + "/runtime", "--dest", "*.ttf=/usr/kavo_app/font", "--dest",
                      "my.*=/never", "--dest", "pages/*=$OPX_RT_PAGES", "--clear", "recipe,userdir", "--cpu-core", "1",
                      "--hw-platform", "5,10", "--disk-capacity", "1", "--set-version", "7.4.0", "--min-run-version",
                      "7.3.0"}}) {
        tool.start(qEnvironmentVariable(qPrintable(run.first())), run.mid(1));
        QVERIFY2(tool.waitForFinished(120000) && tool.exitCode() == 0, tool.readAllStandardError().constData());
    }

    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel)); // the last test: nothing runs after it
    qputenv("OPX_RT_PAGES", "/usr/kavo_app/pages");
    tool.setWorkingDirectory(stick);
    tool.start(stick + "/opxupdateu/opxupdateu_proj.bin", {"-s line 2", "-p " + w + "/out"});
    QVERIFY(tool.waitForFinished(60000));
    const QString report = testenv::readFile(w + "/out/pro_update_result.log");
    QVERIFY2(report.startsWith("[成功]\n") && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0, qPrintable(report));
    QCOMPARE(testenv::readFile(panel + "/var/run/reboot-requested"), QByteArray("reboot\n"));

    // Every input file at its place, byte for byte; nothing else of the old panel in the areas.
    const QMap<QString, QString> placed{{"my.ttf", "/usr/kavo_app/font/my.ttf"},
                                        {"pages/p1.scr", "/usr/kavo_app/pages/pages/p1.scr"}};
    QStringList inProjectArea, inUserArea;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        QString target = placed.value(it.key());
        if (target.isEmpty() && it.key().startsWith("DownLoadFile/"))
            inUserArea << it.key().mid(13), target = "/data/userfile/" + it.key().mid(13);
        else if (target.isEmpty())
            inProjectArea << it.key(), target = "/usr/kavo_app/project/" + it.key();
        QCOMPARE(testenv::readFile(panel + target), it.value());
    }
    QCOMPARE(kit::regularFiles(panel + "/usr/kavo_app/project"), inProjectArea);
    QCOMPARE(kit::regularFiles(panel + "/data/userfile"), inUserArea);
    QCOMPARE(kit::regularFiles(panel + "/data/recipe"), QStringList());
    QCOMPARE(kit::regularFiles(panel + "/data/history"), QStringList{"history.dat"});
}

QTEST_GUILESS_MAIN(tst_Tools)
#include "tst_tools.moc"
