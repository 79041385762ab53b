// opxpack, the stick builder: what it refuses (and that it then writes
// nothing), where it lays the project out for each panel family, and whether
// the package's own readers accept what it wrote.
#include "recordingdownload.h"
#include "testenv.h"

#include "download/qsettingsfactory.h"
#include "tools/kit/runtime.h"
#include "tools/opxpack/packtool.h"
#include "tools/opxpack/stickbuilder.h"

#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct Run
{
    int code = -1;
    QString out;
    QString err;
};

// The project every test starts from, relative to the work directory.
const QMap<QString, QByteArray> kProject = {
    {QStringLiteral("project/context.dat"), QByteArray("context\n")},
    {QStringLiteral("project/main.bin"), QByteArray("the project\n")},
    {QStringLiteral("project/pages/start.scr"), QByteArray("start page\n")},
    {QStringLiteral("project/DownLoadFile/manual.txt"), QByteArray("manual\n")},
};

const QStringList kBase = {"--project", "{W}/project", "--out", "{W}/stick", "--executable", "{EXE}"};

} // namespace

class tst_Opxpack : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void refusesAndWritesNothing_data();
    void refusesAndWritesNothing();
    void largestFileStillFits();
    void layout_data();
    void layout();
    void packageReadsOptions();
    void replacesOnlyWithForce();
    void notesNameThatDirectModeMisreads();
    void toolFindsBuildTreeExecutables();

private:
    QString work(const QString& relative) const { return m_work->path() + QLatin1Char('/') + relative; }
    QStringList expand(QStringList arguments) const
    {
        for (QString& argument : arguments)
            argument.replace("{W}", m_work->path()).replace("{EXE}", m_executable).replace("{HELPER}", m_helper);
        return arguments;
    }
    Run pack(const QStringList& arguments)
    {
        Run run;
        QTextStream out(&run.out);
        QTextStream err(&run.err);
        run.code = opxpack::run(QStringList("opxpack") + expand(arguments), work("bin"), out, err);
        return run;
    }

    std::unique_ptr<QTemporaryDir> m_work;
    QString m_executable;
    QString m_helper;
};

void tst_Opxpack::init()
{
    m_work = std::make_unique<QTemporaryDir>();
    QVERIFY(m_work->isValid());
    m_executable = qEnvironmentVariable("OPX_EXECUTABLE");
    m_helper = qEnvironmentVariable("OPX_HELPER");
    QVERIFY(QFileInfo(m_executable).isFile() && QFileInfo(m_helper).isFile());
    for (auto it = kProject.cbegin(); it != kProject.cend(); ++it)
        QVERIFY(testenv::writeFile(work(it.key()), it.value()));
    QVERIFY(kit::writeRuntime(work("runtime"), kit::RuntimeSpec(), false));
    QVERIFY(QDir().mkpath(work("bin"))); // the tool's own directory, without executables
}

void tst_Opxpack::refusesAndWritesNothing_data()
{
    QTest::addColumn<QStringList>("setup"); // "-PATH" removed, "+PATH" a directory, "PATH" a file, "PATH@4G" sparse
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message"); // the first line on stderr, {W} the work directory

    auto usage = [](const char* row, const QStringList& arguments, const QString& message) {
        QTest::newRow(row) << QStringList() << arguments << 2 << "opxpack: " + message;
    };
    auto refused = [](const char* row, const QStringList& setup, const QStringList& arguments, const QString& message) {
        QTest::newRow(row) << setup << arguments << 1 << "opxpack: " + message;
    };
    const QStringList none;

    usage("no --project", {"--out", "{W}/stick"}, "no project directory given (--project DIR)");
    usage("no --out", {"--project", "{W}/project"}, "no stick given (--out STICK)");
    usage("unknown option", kBase + QStringList{"--bogus"}, "Unknown option 'bogus'.");
    usage("two-part version", kBase + QStringList{"--set-version", "7.2"},
          "--set-version: '7.2' is not a version such as 7.2.1 (digits and dots, at least three parts)");
    usage("unknown clear word", kBase + QStringList{"--clear", "recipe,bogus"},
          "--clear: unknown data area 'bogus' (recipe, history, alarm, initvalue, userdir)");
    usage("variant of the other family", kBase + QStringList{"--variant", "v5"},
          "--variant v5 does not fit platform 10: a panel of that platform never looks into v5/");
    usage("platform not a number", kBase + QStringList{"--platform", "x10"},
          "--platform: 'x10' is not a platform code (a number such as 10 or 5)");
    usage("relative destination", kBase + QStringList{"--dest", "*.bin=usr/x"},
          "--dest: 'usr/x' is not a panel directory (absolute, or $VARIABLE)");
    usage("name of the package directory", kBase + QStringList{"--name", "opxupdateu"},
          "--name: 'opxupdateu' cannot name a project directory");
    usage("product with a blank", kBase + QStringList{"--product", "Kavo Pro"},
          "--product: 'Kavo Pro' is not a product name (letters, digits, '.', '_', '-')");
    usage("capacity with a unit", kBase + QStringList{"--disk-capacity", "1G"},
          "--disk-capacity: '1G' is not a number of MiB");

    refused("project missing", none, {"--project", "{W}/nothing", "--out", "{W}/stick", "--executable", "{EXE}"},
            "project directory {W}/nothing does not exist");
    refused("project empty", {"-project", "+project/pages"}, kBase, "project directory {W}/project holds no files");
    refused("no context.dat", {"-project/context.dat"}, kBase,
            "project directory {W}/project has no context.dat; the package offers only directories that hold one");
    refused("file of 4 GiB", {"project/huge.bin@4G"}, kBase,
            "{W}/project/huge.bin is larger than 4 GiB - 1 bytes, more than a package file can be");
    refused("own project.ini", {"project/project.ini"}, kBase,
            "{W}/project/project.ini: the package writes its own project.ini; remove it from the project");
    refused("DownLoadFile look-alike", {"project/DownLoadFile.txt"}, kBase,
            "{W}/project/DownLoadFile.txt: the package would take it for part of the DownLoadFile tree; rename it");
    refused("v7 directory without a variant", {"project/v7/page.scr"}, kBase + QStringList{"--variant", "none"},
            "{W}/project/v7/page.scr: without a variant directory the package would take v7/ for one; rename it or "
            "use --variant");
    refused("runtime without update.ini", none, kBase + QStringList{"--runtime", "{W}/project", "--helper", "{HELPER}"},
            "runtime directory {W}/project has no update.ini");
    refused("runtime of another product", none,
            kBase + QStringList{"--runtime", "{W}/runtime", "--helper", "{HELPER}", "--product", "KavoStu"},
            "the runtime in {W}/runtime is for KavoPro, the project for KavoStu (--product)");
    refused("no executable beside the tool", none, {"--project", "{W}/project", "--out", "{W}/stick"},
            "no opxupdateu_proj.bin found beside opxpack in {W}/bin; name one with --executable");
    refused("no updater for the runtime", none, kBase + QStringList{"--runtime", "{W}/runtime"},
            "no opxupdateu_helper.bin found beside opxpack in {W}/bin; a stick that carries a runtime needs one: "
            "name it with --helper");
    refused("project already on the stick", {"stick/project/context.dat"}, kBase,
            "{W}/stick/project already exists; --force replaces it");
    refused("stick is a file", {"stick"}, kBase, "stick {W}/stick exists and is not a directory");
    refused("stick inside the project", none,
            {"--project", "{W}/project", "--out", "{W}/project/stick", "--executable", "{EXE}"},
            "stick {W}/project/stick lies inside project directory {W}/project");
    // --force must not delete the very project it is asked to pack.
    refused("project inside the one it replaces", {"stick/project/context.dat"},
            {"--project", "{W}/stick/project", "--out", "{W}/stick", "--force", "--executable", "{EXE}"},
            "project directory {W}/stick/project lies inside {W}/stick/project, which the stick's project would "
            "replace");
}

void tst_Opxpack::refusesAndWritesNothing()
{
    QFETCH(QStringList, setup);
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QString, message);

    for (const QString& step : setup) {
        if (step.startsWith('-')) {
            QVERIFY(QFile::remove(work(step.mid(1))) || QDir(work(step.mid(1))).removeRecursively());
        } else if (step.startsWith('+')) {
            QVERIFY(QDir().mkpath(work(step.mid(1))));
        } else if (step.endsWith("@4G")) {
            QFile huge(work(step.chopped(3)));
            QVERIFY(huge.open(QIODevice::WriteOnly));
            QVERIFY(huge.resize(Q_INT64_C(0x100000000))); // sparse: nothing is read before the refusal
        } else {
            QVERIFY(testenv::writeFile(work(step), "x"));
        }
    }

    const QStringList before = testenv::entriesWithSizes(m_work->path());
    const Run run = pack(arguments);
    QCOMPARE(run.code, code);
    QCOMPARE(run.err.section('\n', 0, 0), message.replace("{W}", m_work->path()));
    QVERIFY(run.out.isEmpty());
    QCOMPARE(testenv::entriesWithSizes(m_work->path()), before);
}

void tst_Opxpack::largestFileStillFits()
{
    QFile large(work("project/large.bin"));
    QVERIFY(large.open(QIODevice::WriteOnly));
    QVERIFY(large.resize(Q_INT64_C(0xFFFFFFFF)));
    large.close();

    opxpack::PackOptions options;
    options.projectDir = work("project");
    options.stickRoot = work("stick");
    options.executable = m_executable;
    opxpack::StickBuilder builder(options, work("bin"));
    QVERIFY2(builder.check(), qPrintable(builder.error()));
    QCOMPARE(builder.project().files.size(), kProject.size() + 1);
}

void tst_Opxpack::layout_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("prefix");     // where the project files lie, relative to the stick
    QTest::addColumn<QString>("runtimeDir"); // the runtime copy, relative to the stick
    QTest::addColumn<QString>("platformName");

    QTest::newRow("auto, platform 10") << QStringList{} << "proj/v7/" << "proj/KavoPro/v7/kavo_app" << "OPX7";
    QTest::newRow("auto, platform 5") << QStringList{"--platform", "5"} << "proj/v5/" << "proj/KavoPro/v5/kavo_app"
                                      << "OPX5";
    QTest::newRow("auto, platform 12") << QStringList{"--platform", "12"} << "proj/" << "proj/KavoPro/kavo_app"
                                       << "OPX12";
    // The runtime copy follows the panel family even without a project variant.
    QTest::newRow("none, platform 10") << QStringList{"--variant", "none"} << "proj/" << "proj/KavoPro/v7/kavo_app"
                                       << "OPX7";
    QTest::newRow("v5, another product, own name")
        << QStringList{"--variant", "v5", "--platform", "5", "--product", "KavoStu", "--platform-name", "Panel 5"}
        << "proj/v5/" << "proj/KavoStu/v5/kavo_app" << "Panel 5";
}

void tst_Opxpack::layout()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, prefix);
    QFETCH(QString, runtimeDir);
    QFETCH(QString, platformName);

    const QString product = runtimeDir.section('/', 1, 1);
    kit::RuntimeSpec runtime;
    runtime.product = product;
    runtime.files.insert("share/a b.txt", "a name with a blank\n");
    QVERIFY(kit::writeRuntime(work("rt"), runtime, false));

    const Run run = pack(kBase + QStringList{"--name", "proj", "--runtime", "{W}/rt", "--helper", "{HELPER}"}
                         + arguments);
    QVERIFY2(run.code == 0, qPrintable(run.err));
    QCOMPARE(run.out.section('\n', 0, 0), "packed 4 files (1 for the user file area) into " + work("stick/proj"));

    const QString stick = work("stick/");
    for (auto it = kProject.cbegin(); it != kProject.cend(); ++it)
        QCOMPARE(testenv::readFile(stick + prefix + it.key().mid(8)), it.value());
    QSettings ini(stick + prefix + "project.ini", QSettings::IniFormat);
    ini.setIniCodec("UTF-8");
    QCOMPARE(ini.value("GLOBAL/OPXName").toString(), platformName);
    QCOMPARE(testenv::readFile(stick + "opxupdateu/opxupdateu_proj.bin"), testenv::readFile(m_executable));
    QVERIFY(QFileInfo(stick + "opxupdateu/opxupdateu_proj.bin").isExecutable());
    QCOMPARE(testenv::readFile(stick + "opxupdateu/helper/opxupdateu_helper.bin"), testenv::readFile(m_helper));
    QVERIFY(QFileInfo(stick + "proj/" + product + "/opxupdateu.bin").isFile());

    // The runtime copy: its files, the scrambled description with the mark the
    // package demands, and a list that md5sum accepts.
    const QString copy = stick + runtimeDir;
    QCOMPARE(testenv::readFile(copy + "/share/a b.txt"), QByteArray("a name with a blank\n"));
    QVERIFY(QSettingsFactory::decryptFile(copy + "/update.ini", work("update.plain.ini"), CRYPT_WITH_MARK));
    QCOMPARE(kit::readRuntimeDescription(work("update.plain.ini")).product, product);
    QProcess md5sum;
    md5sum.setWorkingDirectory(copy);
    md5sum.start("md5sum", {"-c", "version.7.2.1"});
    QVERIFY(md5sum.waitForFinished());
    QCOMPARE(md5sum.exitCode(), 0);
    const QByteArray checked = md5sum.readAllStandardOutput();
    QCOMPARE(checked.count('\n'), runtime.files.size());
    QVERIFY(!checked.contains("update.ini"));
    QVERIFY(testenv::entriesWithSizes(stick).filter(".opxpack").isEmpty());
}

void tst_Opxpack::packageReadsOptions()
{
    // Names, destinations and scrambling go through the package end to end in
    // tst_toolsroundtrip; here the options that a download may pass unnoticed.
    const Run run = pack(kBase + QStringList{"--clear", "alarm,initvalue", "--clear", "history", "--disk-capacity",
                                             "64", "--hw-platform", "10, 11", "--cpu-core", "3", "--product",
                                             "KavoStu", "--set-version", "7.3.0", "--min-run-version", "7.1.0",
                                             "--version", "V2.0.0.1", "--language-id", "3"});
    QVERIFY2(run.code == 0, qPrintable(run.err));

    testenv::TempPanel panel;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work("stick")));
    RecordingDownload download;
    download.m_projectName = "project";
    download.m_platformCode = "10";
    download.m_variantDir = "v7/";
    const bool parsed = download.parseIniFile(download.packagePrefix() + "project.ini");
    QDir::setCurrent(previous);
    QVERIFY(parsed);
    QCOMPARE(download.events, QStringList());
    QVERIFY(download.m_clearHistory && download.m_clearAlarm && download.m_clearInitValue);
    QVERIFY(!download.m_clearRecipe && !download.m_clearUserDir);
    QCOMPARE(download.m_diskCapacity, QString("64"));
    QCOMPARE(download.m_platformList, (QStringList{"10", "11"}));
    QCOMPARE(download.m_cpuCore, QString("3"));
    QCOMPARE(download.m_packageProduct, QString("KavoStu"));

    const QSettings version(work("stick/project/v7/version.ini"), QSettings::IniFormat);
    QCOMPARE(version.value("version/setversion").toString(), QString("7.3.0"));
    QCOMPARE(version.value("version/minrunversion").toString(), QString("7.1.0"));
    const QString note = work("note.plain.ini");
    QVERIFY(QSettingsFactory::decryptFile(work("stick/opxupdateu/config/proUpdate.ini"), note, CRYPT_WITH_MARK));
    const QSettings noteIni(note, QSettings::IniFormat);
    QCOMPARE(noteIni.value("prepare/version").toString(), QString("V2.0.0.1"));
    QCOMPARE(noteIni.value("language_conf/id").toString(), QString("0000"));
    const QSettings toolSet(work("stick/opxupdateu/config/proUpdateSet.ini"), QSettings::IniFormat);
    QCOMPARE(toolSet.value("tool_language/type").toInt(), 3);
    QVERIFY(QFileInfo(work("stick/opxupdateu/language")).isDir());
    QVERIFY(!QFileInfo::exists(work("stick/opxupdateu/helper"))); // no runtime, no updater
}

void tst_Opxpack::replacesOnlyWithForce()
{
    QCOMPARE(pack(kBase).code, 0);
    QVERIFY(testenv::writeFile(work("other/context.dat"), "other context\n"));
    QCOMPARE(pack({"--project", "{W}/other", "--out", "{W}/stick", "--executable", "{EXE}", "--version", "V3"}).code,
             0);

    // With --force the project is the new one, file for file, nothing of the
    // staging is left on the stick, and the other project stays.
    QVERIFY(QFile::remove(work("project/main.bin")));
    QVERIFY(testenv::writeFile(work("project/new.bin"), "new\n"));
    const Run replaced = pack(kBase + QStringList{"--force", "--variant", "none"});
    QVERIFY2(replaced.code == 0, qPrintable(replaced.err));
    const QStringList stick = testenv::entriesWithSizes(work("stick"));
    QStringList project;
    for (const QString& entry : stick.filter(QRegularExpression("^project/")))
        project << entry.section(' ', 0, 0);
    QCOMPARE(project, (QStringList{"project/DownLoadFile", "project/DownLoadFile/manual.txt", "project/context.dat",
                                   "project/new.bin", "project/pages", "project/pages/start.scr",
                                   "project/project.ini", "project/version.ini"}));
    QVERIFY(QFileInfo(work("stick/other/v7/context.dat")).isFile());
    QVERIFY(stick.filter(QRegularExpression("^\\.")).isEmpty());
}

void tst_Opxpack::notesNameThatDirectModeMisreads()
{
    const Run misread = pack(kBase + QStringList{"--name", "line-project"});
    QCOMPARE(misread.code, 0);
    QCOMPARE(misread.err, QString("opxpack: note: the package's direct mode (\"-s line-project\") would read "
                                  "\"-project\" in the name as its resume option; choose another --name to "
                                  "download it unattended\n"));
    const Run plain = pack(kBase + QStringList{"--name", "line-p"});
    QCOMPARE(plain.code, 0);
    QCOMPARE(plain.err, QString());
}

void tst_Opxpack::toolFindsBuildTreeExecutables()
{
    // The real tool, as built, without --executable and --helper: it takes the
    // package and the updater of its own build tree.
    QProcess tool;
    tool.start(qEnvironmentVariable("OPXPACK"),
               expand({"--project", "{W}/project", "--out", "{W}/stick", "--runtime", "{W}/runtime"}));
    QVERIFY(tool.waitForFinished());
    QVERIFY2(tool.exitCode() == 0, tool.readAllStandardError().constData());
    QCOMPARE(testenv::readFile(work("stick/opxupdateu/opxupdateu_proj.bin")), testenv::readFile(m_executable));
    QCOMPARE(testenv::readFile(work("stick/opxupdateu/helper/opxupdateu_helper.bin")), testenv::readFile(m_helper));
}

QTEST_GUILESS_MAIN(tst_Opxpack)
#include "tst_opxpack.moc"
