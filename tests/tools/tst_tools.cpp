// opxpack and opxpanel: what they refuse, writing nothing; and a panel and stick
// they make, downloaded by the stick's own executable in direct mode.
#include "testenv.h"

#include "tools/kit/runtime.h"
#include "tools/opxpack/packtool.h"
#include "tools/opxpanel/paneltool.h"

#include <QProcess>
#include <QtTest>

class tst_Tools : public QObject
{
    Q_OBJECT

private slots:
    void refusesAndWritesNothing_data();
    void refusesAndWritesNothing();
    void packageAcceptsToolsOutput_data();
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
    const QStringList panel{"opxpanel", "--root", "{W}/panel"};
    row("no --project", {"opxpack", "--out", "{W}/stick"}, 2, "no project directory given (--project DIR)");
    row("two-part version", pack + QStringList{"--set-version", "7.2"}, 2, "--set-version: '7.2' is not a version such as 7.2.1 (digits and dots, at least three parts)");
    row("variant of the other family", pack + QStringList{"--variant", "v5"}, 2, "--variant v5 does not fit platform 10: a panel of that platform never looks into v5/");
    row("relative destination", pack + QStringList{"--dest", "*.bin=usr/x"}, 2, "--dest: 'usr/x' is not a panel directory (absolute, or $VARIABLE)");
    row("product with a blank", pack + QStringList{"--product", "Kavo Pro"}, 2, "--product: 'Kavo Pro' is not a product name (letters, digits, '.', '_', '-')");
    row("no context.dat", QStringList(pack).replaceInStrings("/project", "/busy"), 1, "project directory {W}/busy has no context.dat; the package offers only directories that hold one");
    row("own project.ini", QStringList(pack).replaceInStrings("/project", "/own"), 1, "{W}/own/project.ini: the package writes its own project.ini; remove it from the project");
    row("runtime without update.ini", pack + QStringList{"--runtime", "{W}/busy", "--helper", "{HELPER}"}, 1, "runtime directory {W}/busy has no update.ini");
    row("no executable beside the tool", pack.mid(0, 5), 1, "no opxupdateu_proj.bin found beside opxpack in {W}/bin; name one with --executable");
    row("no updater for the runtime", pack + QStringList{"--runtime", "{W}/runtime"}, 1,
        "no opxupdateu_helper.bin found beside opxpack in {W}/bin; a stick that carries a runtime needs one: name it with --helper");
    row("stick inside the project", QStringList(pack).replaceInStrings("/stick", "/project/stick"), 1, "stick {W}/project/stick lies inside project directory {W}/project");
    row("no --root", {"opxpanel", "--arch", "5"}, 2, "no panel root given (--root DIR)");
    row("architecture in words", panel + QStringList{"--arch", "armv7"}, 2, "--arch: 'armv7' is not an architecture number such as 10 or 5");
    row("runtime directory and product", panel + QStringList{"--runtime", "{W}/runtime", "--product", "KavoStu"}, 2, "--runtime brings its own update.ini; --product cannot be combined with it");
    row("password of 21 characters", panel + QStringList{"--password", "123456789012345678901"}, 2, "--password: the panel's keyboard types only 1 to 20 digits and letters");
    row("root not empty", {"opxpanel", "--root", "{W}/busy"}, 1, "{W}/busy is not empty; --force lays a new panel over it");
    row("backup missing", panel + QStringList{"--backup", "{W}/none.bin"}, 1, "backup project {W}/none.bin cannot be read");
}

void tst_Tools::refusesAndWritesNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    QTemporaryDir work;
    const QString w = work.path();
    QVERIFY(testenv::writeFile(w + "/project/context.dat", "context\n") && testenv::writeFile(w + "/project/DownLoadFile/m.txt", "m\n"));
    QVERIFY(testenv::writeFile(w + "/own/context.dat", "context\n") && testenv::writeFile(w + "/own/project.ini", "x"));
    QVERIFY(testenv::writeFile(w + "/busy/file", "x") && QDir().mkpath(w + "/bin") && kit::writeRuntime(w + "/runtime", kit::RuntimeSpec(), false));
    arguments.replaceInStrings("{W}", w).replaceInStrings("{EXE}", qEnvironmentVariable("OPX_EXECUTABLE")).replaceInStrings("{HELPER}", qEnvironmentVariable("OPX_HELPER"));

    const QStringList before = testenv::entriesWithSizes(w);
    QString out, err;
    QTextStream outStream(&out), errStream(&err);
    const int code = arguments.first() == "opxpack" ? opxpack::run(arguments, w + "/bin", outStream, errStream) : opxpanel::run(arguments, outStream, errStream);
    QTEST(code, "code");
    QCOMPARE(err.section('\n', 0, 0), message.replace("{W}", w));
    QVERIFY(out.isEmpty());
    QCOMPARE(testenv::entriesWithSizes(w), before);
}

void tst_Tools::packageAcceptsToolsOutput_data()
{
    QTest::addColumn<bool>("sample");          // examples/sample, else a generated project
    QTest::addColumn<QStringList>("packArgs"); // {W} the work directory
    QTest::addColumn<QStringList>("panelArgs");
    QTest::addColumn<QStringList>("placed");   // "relative path=panel path" where the default does not hold
    QTest::addColumn<bool>("cleared");         // the recipes and the user file area

    QTest::newRow("sample project, auto variant, OPX7 panel") << true << QStringList{} << QStringList{} << QStringList{} << false;
    QTest::newRow("v5 on an OPX5 panel: scrambled, runtime copy, destinations, data cleared, hardware conditions")
        << false << QStringList{"--platform", "5", "--scramble", "--runtime", "{W}/runtime", "--dest", "*.ttf=/usr/kavo_app/font", "--dest", "my.*=/never",
                                "--dest", "pages/*=$OPX_RT_PAGES", "--clear", "recipe,userdir", "--cpu-core", "1", "--hw-platform", "5,10",
                                "--disk-capacity", "1", "--set-version", "7.4.0", "--min-run-version", "7.3.0"}
        << QStringList{"--arch", "5", "--password", "1234", "--language", "1", "--runtime-version", "7.4.2", "--min-set-version", "7.0.0"}
        << QStringList{"my.ttf=/usr/kavo_app/font/my.ttf", "pages/p1.scr=/usr/kavo_app/pages/pages/p1.scr"} << true;
}

void tst_Tools::packageAcceptsToolsOutput()
{
    QFETCH(bool, sample);
    QFETCH(QStringList, packArgs);
    QFETCH(QStringList, panelArgs);
    QFETCH(QStringList, placed);
    QFETCH(bool, cleared);
    testenv::OptionSafeDir work;
    const QString project = sample ? qEnvironmentVariable("OPX_SOURCE_DIR") + "/examples/sample" : work.path() + "/generated";
    // As the design software leaves one: names with blanks, Chinese and INI-special characters.
    QByteArray binary;
    for (int i = 0; i < 100000; ++i)
        binary.append(char((i * 7 + i / 256) & 0xff));
    const QMap<QString, QByteArray> files = {{"context.dat", "[context]\n"}, {"main.bin", binary}, {"pages/p1.scr", "page one\n"},
                                             {"画面 二.scr", "page two\n"}, {"odd, name; \"x\".bin", "odd\n"}, {"empty.dat", ""},
                                             {"my.ttf", "font\n"}, {"DownLoadFile/docs/manual.txt", "manual\n"}, {"DownLoadFile/x.csv", "a,b\n"}};
    for (auto it = files.cbegin(); !sample && it != files.cend(); ++it)
        QVERIFY(testenv::writeFile(project + "/" + it.key(), it.value()));
    QVERIFY(kit::writeRuntime(work.path() + "/runtime", kit::RuntimeSpec(), false));
    const QString panel = work.path() + "/panel";
    const QString stick = work.path() + "/stick";
    QProcess tool;
    for (const QStringList& run : {QStringList{"OPXPANEL", "--root", panel} + panelArgs,
                                   QStringList{"OPXPACK", "--project", project, "--name", "line 2", "--out", stick} + packArgs.replaceInStrings("{W}", work.path())}) {
        tool.start(qEnvironmentVariable(qPrintable(run.first())), run.mid(1));
        // A loaded machine (the sanitizer build beside another build) can take
        // longer than QProcess's default half minute.
        QVERIFY2(tool.waitForFinished(120000) && tool.exitCode() == 0, tool.readAllStandardError().constData());
    }

    QProcess package;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KAVO_PANEL_ROOT", panel);
    env.insert("OPX_RT_PAGES", "/usr/kavo_app/pages");
    package.setProcessEnvironment(env);
    package.setWorkingDirectory(stick);
    package.start(stick + "/opxupdateu/opxupdateu_proj.bin", {"-s line 2", "-p " + work.path() + "/out"});
    QVERIFY(package.waitForFinished(60000));
    const QString report = testenv::readFile(work.path() + "/out/pro_update_result.log");
    QVERIFY2(report.startsWith("[成功]\n") && package.exitStatus() == QProcess::NormalExit && package.exitCode() == 0, qPrintable(report));
    QCOMPARE(testenv::readFile(panel + "/var/run/reboot-requested"), QByteArray("reboot\n"));

    // Every input file at its place, byte for byte; nothing else of the old panel in the areas.
    QStringList inProjectArea, inUserArea = cleared ? QStringList() : QStringList{"user.txt"};
    for (const QString& file : kit::regularFiles(project)) {
        QString target = placed.filter(QRegularExpression("^" + QRegularExpression::escape(file) + "=")).join("").section('=', 1);
        if (target.isEmpty() && file.startsWith("DownLoadFile/"))
            inUserArea << file.mid(13), target = "/data/userfile/" + file.mid(13);
        else if (target.isEmpty())
            inProjectArea << file, target = "/usr/kavo_app/project/" + file;
        QCOMPARE(testenv::readFile(panel + target), testenv::readFile(project + "/" + file));
    }
    inProjectArea.sort();
    inUserArea.sort();
    QCOMPARE(kit::regularFiles(panel + "/usr/kavo_app/project"), inProjectArea);
    QCOMPARE(kit::regularFiles(panel + "/data/userfile"), inUserArea);
    QCOMPARE(kit::regularFiles(panel + "/data/recipe"), cleared ? QStringList() : QStringList{"recipe.dat"});
    QCOMPARE(kit::regularFiles(panel + "/data/history"), QStringList{"history.dat"});
}

QTEST_GUILESS_MAIN(tst_Tools)
#include "tst_tools.moc"
