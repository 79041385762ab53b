// opxpack, the stick builder: what it refuses (and that it then writes
// nothing), where it lays the project out for each panel family, and whether
// the package's own readers accept what it wrote.
#include "recordingdownload.h"
#include "testenv.h"

#include "download/projectdownload.h"
#include "download/qsettingsfactory.h"
#include "tools/kit/runtime.h"
#include "tools/opxpack/packtool.h"
#include "tools/opxpack/stickbuilder.h"

#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <zlib.h>

namespace {

QByteArray crcText(const QByteArray& data)
{
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(data.constData()), uInt(data.size()));
    return QByteArray::number(quint64(crc), 16).toUpper();
}

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

enum Fixture {
    Plain,
    EmptyProject,
    NoContext,
    HugeFile,
    OwnProjectIni,
    LookAlikeUserTree,
    VariantLookAlike,
    ProjectOnStick,
    StickIsFile,
    NoToolsBeside,
};

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
    void packageReadsDescription();
    void replacesOnlyWithForce();
    void notesNameThatDirectModeMisreads();
    void toolFindsBuildTreeExecutables();

private:
    QString work(const QString& relative = QString()) const
    {
        return relative.isEmpty() ? m_work->path() : m_work->path() + QLatin1Char('/') + relative;
    }
    QStringList expand(const QStringList& arguments) const;
    Run pack(const QStringList& arguments, const QString& applicationDir = QString());

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
    QVERIFY(QFileInfo(m_executable).isFile());
    QVERIFY(QFileInfo(m_helper).isFile());
    for (auto it = kProject.cbegin(); it != kProject.cend(); ++it)
        QVERIFY(testenv::writeFile(work(it.key()), it.value()));
    QVERIFY(kit::writeRuntime(work("runtime"), kit::RuntimeSpec(), false));
    QVERIFY(QDir().mkpath(work("bin")));
}

QStringList tst_Opxpack::expand(const QStringList& arguments) const
{
    QStringList expanded;
    for (QString argument : arguments)
        expanded << argument.replace(QLatin1String("{W}"), work())
                        .replace(QLatin1String("{EXE}"), m_executable)
                        .replace(QLatin1String("{HELPER}"), m_helper);
    return expanded;
}

Run tst_Opxpack::pack(const QStringList& arguments, const QString& applicationDir)
{
    Run run;
    QTextStream out(&run.out);
    QTextStream err(&run.err);
    run.code = opxpack::run(QStringList{QStringLiteral("opxpack")} + expand(arguments),
                            applicationDir.isEmpty() ? work("bin") : applicationDir, out, err);
    return run;
}

void tst_Opxpack::refusesAndWritesNothing_data()
{
    QTest::addColumn<int>("fixture");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message"); // the first line on stderr, {W} the work directory

    const QStringList base = {"--project", "{W}/project", "--out", "{W}/stick", "--executable", "{EXE}"};
    auto usage = [&](const char* row, const QStringList& extra, const QString& message) {
        QTest::newRow(row) << int(Plain) << base + extra << 2 << message;
    };
    auto refused = [&](const char* row, Fixture fixture, const QStringList& extra, const QString& message) {
        QTest::newRow(row) << int(fixture) << base + extra << 1 << message;
    };

    QTest::newRow("no --project") << int(Plain) << QStringList{"--out", "{W}/stick"} << 2
                                  << "opxpack: no project directory given (--project DIR)";
    QTest::newRow("no --out") << int(Plain) << QStringList{"--project", "{W}/project"} << 2
                              << "opxpack: no stick given (--out STICK)";
    usage("unknown option", {"--bogus"}, "opxpack: Unknown option 'bogus'.");
    usage("stray argument", {"extra"}, "opxpack: unexpected argument 'extra'");
    usage("two-part version", {"--set-version", "7.2"},
          "opxpack: --set-version: '7.2' is not a version such as 7.2.1 (digits and dots, at least three parts)");
    usage("version with letters", {"--min-run-version", "7.a.1"},
          "opxpack: --min-run-version: '7.a.1' is not a version such as 7.2.1 (digits and dots, at least three "
          "parts)");
    usage("unknown clear word", {"--clear", "recipe,bogus"},
          "opxpack: --clear: unknown data area 'bogus' (recipe, history, alarm, initvalue, userdir)");
    usage("unknown variant", {"--variant", "v6"}, "opxpack: --variant: 'v6' is not one of auto, none, v5, v7");
    usage("variant of the other family", {"--variant", "v5"},
          "opxpack: --variant v5 does not fit platform 10: a panel of that platform never looks into v5/");
    usage("platform not a number", {"--platform", "x10"},
          "opxpack: --platform: 'x10' is not a platform code (a number such as 10 or 5)");
    usage("destination without =", {"--dest", "*.bin"}, "opxpack: --dest: '*.bin' is not GLOB=PANELDIR");
    usage("relative destination", {"--dest", "*.bin=usr/x"},
          "opxpack: --dest: 'usr/x' is not a panel directory (absolute, or $VARIABLE)");
    usage("name with a slash", {"--name", "a/b"}, "opxpack: --name: 'a/b' cannot name a project directory");
    usage("name of the package directory", {"--name", "opxupdateu"},
          "opxpack: --name: 'opxupdateu' cannot name a project directory");
    usage("product with a blank", {"--product", "Kavo Pro"},
          "opxpack: --product: 'Kavo Pro' is not a product name (letters, digits, '.', '_', '-')");
    usage("capacity with a unit", {"--disk-capacity", "1G"}, "opxpack: --disk-capacity: '1G' is not a number of MiB");
    usage("cores in words", {"--cpu-core=two"}, "opxpack: --cpu-core: 'two' is not a number of cores");
    usage("platform list with a word", {"--hw-platform", "10,x"},
          "opxpack: --hw-platform: 'x' is not a platform code");

    QTest::newRow("project missing") << int(Plain)
                                     << QStringList{"--project", "{W}/nothing", "--out", "{W}/stick", "--executable",
                                                    "{EXE}"}
                                     << 1 << "opxpack: project directory {W}/nothing does not exist";
    QTest::newRow("project is a file") << int(Plain)
                                       << QStringList{"--project", "{W}/project/main.bin", "--out", "{W}/stick",
                                                      "--executable", "{EXE}"}
                                       << 1 << "opxpack: {W}/project/main.bin is not a directory";
    refused("project empty", EmptyProject, {}, "opxpack: project directory {W}/project holds no files");
    refused("no context.dat", NoContext, {},
            "opxpack: project directory {W}/project has no context.dat; the package offers only directories that "
            "hold one");
    refused("file of 4 GiB", HugeFile, {},
            "opxpack: {W}/project/huge.bin is larger than 4 GiB - 1 bytes, more than a package file can be");
    refused("own project.ini", OwnProjectIni, {},
            "opxpack: {W}/project/project.ini: the package writes its own project.ini; remove it from the project");
    refused("DownLoadFile look-alike", LookAlikeUserTree, {},
            "opxpack: {W}/project/DownLoadFile.txt: the package would take it for part of the DownLoadFile tree; "
            "rename it");
    refused("v7 directory without a variant", VariantLookAlike, {"--variant", "none"},
            "opxpack: {W}/project/v7/page.scr: without a variant directory the package would take v7/ for one; "
            "rename it or use --variant");
    refused("runtime missing", Plain, {"--runtime", "{W}/none", "--helper", "{HELPER}"},
            "opxpack: runtime directory {W}/none does not exist");
    refused("runtime without update.ini", Plain, {"--runtime", "{W}/project", "--helper", "{HELPER}"},
            "opxpack: runtime directory {W}/project has no update.ini");
    refused("runtime of another product", Plain,
            {"--runtime", "{W}/runtime", "--helper", "{HELPER}", "--product", "KavoStu"},
            "opxpack: the runtime in {W}/runtime is for KavoPro, the project for KavoStu (--product)");
    refused("executable missing", Plain, {"--executable", "{W}/none"},
            "opxpack: package executable {W}/none not found");
    QTest::newRow("no executable beside the tool")
        << int(NoToolsBeside) << QStringList{"--project", "{W}/project", "--out", "{W}/stick"} << 1
        << "opxpack: no opxupdateu_proj.bin found beside opxpack in {W}/bin; name one with --executable";
    refused("no updater for the runtime", NoToolsBeside, {"--runtime", "{W}/runtime"},
            "opxpack: no opxupdateu_helper.bin found beside opxpack in {W}/bin; a stick that carries a runtime "
            "needs one: name it with --helper");
    refused("project already on the stick", ProjectOnStick, {},
            "opxpack: {W}/stick/project already exists; --force replaces it");
    refused("stick is a file", StickIsFile, {}, "opxpack: stick {W}/stick exists and is not a directory");
    QTest::newRow("stick inside the project")
        << int(Plain) << QStringList{"--project", "{W}/project", "--out", "{W}/project/stick", "--executable", "{EXE}"}
        << 1 << "opxpack: stick {W}/project/stick lies inside project directory {W}/project";
    QTest::newRow("project inside the one it replaces")
        << int(ProjectOnStick)
        << QStringList{"--project", "{W}/stick/project", "--out", "{W}/stick", "--force", "--executable", "{EXE}"}
        << 1
        << "opxpack: project directory {W}/stick/project lies inside {W}/stick/project, which the stick's project "
           "would replace";
}

void tst_Opxpack::refusesAndWritesNothing()
{
    QFETCH(int, fixture);
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QString, message);

    switch (Fixture(fixture)) {
    case EmptyProject:
        QVERIFY(QDir(work("project")).removeRecursively());
        QVERIFY(QDir().mkpath(work("project/pages")));
        break;
    case NoContext:
        QVERIFY(QFile::remove(work("project/context.dat")));
        break;
    case HugeFile: {
        QFile huge(work("project/huge.bin"));
        QVERIFY(huge.open(QIODevice::WriteOnly));
        QVERIFY(huge.resize(Q_INT64_C(0x100000000))); // sparse: nothing is read before the refusal
        break;
    }
    case OwnProjectIni:
        QVERIFY(testenv::writeFile(work("project/project.ini"), "[GLOBAL]\n"));
        break;
    case LookAlikeUserTree:
        QVERIFY(testenv::writeFile(work("project/DownLoadFile.txt"), "x"));
        break;
    case VariantLookAlike:
        QVERIFY(testenv::writeFile(work("project/v7/page.scr"), "x"));
        break;
    case ProjectOnStick:
        for (auto it = kProject.cbegin(); it != kProject.cend(); ++it)
            QVERIFY(testenv::writeFile(work("stick/" + it.key()), it.value()));
        break;
    case StickIsFile:
        QVERIFY(testenv::writeFile(work("stick"), "not a stick"));
        break;
    case Plain:
    case NoToolsBeside:
        break;
    }

    const QStringList before = testenv::entriesWithSizes(work());
    const Run run = pack(arguments);
    QCOMPARE(run.code, code);
    QCOMPARE(run.err.section(QLatin1Char('\n'), 0, 0), QString(message).replace(QLatin1String("{W}"), work()));
    QVERIFY(run.out.isEmpty());
    QCOMPARE(testenv::entriesWithSizes(work()), before);
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
    QTest::newRow("none, platform 10") << QStringList{"--variant", "none"} << "proj/" << "proj/KavoPro/v7/kavo_app"
                                       << "OPX7";
    QTest::newRow("v7, platform 10") << QStringList{"--variant", "v7", "--platform-name", "Panel 7"} << "proj/v7/"
                                     << "proj/KavoPro/v7/kavo_app" << "Panel 7";
    QTest::newRow("v5, platform 5, another product")
        << QStringList{"--variant", "v5", "--platform", "5", "--product", "KavoStu"} << "proj/v5/"
        << "proj/KavoStu/v5/kavo_app" << "OPX5";
}

void tst_Opxpack::layout()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, prefix);
    QFETCH(QString, runtimeDir);
    QFETCH(QString, platformName);

    const QString product = runtimeDir.section(QLatin1Char('/'), 1, 1);
    kit::RuntimeSpec runtime;
    runtime.product = product;
    runtime.files.insert(QStringLiteral("share/a b.txt"), QByteArray("a name with a blank\n"));
    QVERIFY(kit::writeRuntime(work("rt"), runtime, false));

    const Run run = pack(QStringList{"--project", "{W}/project", "--name", "proj", "--out", "{W}/stick",
                                     "--executable", "{EXE}", "--runtime", "{W}/rt", "--helper", "{HELPER}"}
                         + arguments);
    QVERIFY2(run.code == 0, qPrintable(run.err));
    QCOMPARE(run.out.section(QLatin1Char('\n'), 0, 0),
             QStringLiteral("packed 4 files (1 for the user file area) into %1").arg(work("stick/proj")));

    const QString stick = work("stick") + QLatin1Char('/');
    for (auto it = kProject.cbegin(); it != kProject.cend(); ++it)
        QCOMPARE(testenv::readFile(stick + prefix + it.key().mid(8)), it.value());
    QSettings ini(stick + prefix + "project.ini", QSettings::IniFormat);
    ini.setIniCodec("UTF-8");
    QCOMPARE(ini.value("GLOBAL/OPXName").toString(), platformName);
    QCOMPARE(testenv::readFile(stick + "opxupdateu/opxupdateu_proj.bin"), testenv::readFile(m_executable));
    QCOMPARE(testenv::readFile(stick + "opxupdateu/helper/opxupdateu_helper.bin"), testenv::readFile(m_helper));
    QVERIFY(QFileInfo(stick + "opxupdateu/opxupdateu_proj.bin").isExecutable());
    QVERIFY(QFileInfo(stick + "proj/" + product + "/opxupdateu.bin").isFile());

    // The runtime copy: its files, the scrambled description with the mark the
    // package demands, and a list that md5sum accepts.
    const QString copy = stick + runtimeDir;
    QCOMPARE(testenv::readFile(copy + "/share/a b.txt"), QByteArray("a name with a blank\n"));
    const QString plain = work("update.plain.ini");
    QVERIFY(QSettingsFactory::decryptFile(copy + "/update.ini", plain, CRYPT_WITH_MARK));
    QCOMPARE(kit::readRuntimeDescription(plain).product, product);
    QProcess md5sum;
    md5sum.setWorkingDirectory(copy);
    md5sum.start(QStringLiteral("md5sum"), {QStringLiteral("-c"), QStringLiteral("version.7.2.1")});
    QVERIFY(md5sum.waitForFinished());
    QCOMPARE(md5sum.exitCode(), 0);
    const QByteArray checked = md5sum.readAllStandardOutput();
    QCOMPARE(checked.count('\n'), runtime.files.size());
    QVERIFY(!checked.contains("update.ini"));
    QVERIFY(testenv::entriesWithSizes(stick).filter(QStringLiteral(".opxpack")).isEmpty());
}

void tst_Opxpack::packageReadsDescription()
{
    const QMap<QString, QByteArray> extra = {
        {QStringLiteral("project/odd, name; \"x\".bin"), QByteArray("odd name\n")},
        {QStringLiteral("project/工程 画面.scr"), QByteArray("a Chinese name\n")},
        {QStringLiteral("project/empty.dat"), QByteArray()},
        {QStringLiteral("project/fonts/my.ttf"), QByteArray("font\n")},
        {QStringLiteral("project/DownLoadFile/docs/a.pdf"), QByteArray("pdf\n")},
        {QStringLiteral("project/DownLoadFile/logs/l.txt"), QByteArray("log\n")},
    };
    for (auto it = extra.cbegin(); it != extra.cend(); ++it)
        QVERIFY(testenv::writeFile(work(it.key()), it.value()));
    qputenv("OPXPACK_TEST_DEST", "/opt/dest");

    const Run run = pack({"--project", "{W}/project", "--out", "{W}/stick", "--executable", "{EXE}", "--scramble",
                          "--dest", "fonts/*=/usr/kavo_app/font/", "--dest", "DownLoadFile/logs/*=$OPXPACK_TEST_DEST",
                          "--dest", "*.ttf=/never", "--clear", "recipe,alarm", "--clear", "userdir",
                          "--disk-capacity", "64", "--hw-platform", "10, 11", "--cpu-core", "1", "--set-version",
                          "7.3.0", "--min-run-version", "7.1.0", "--version", "V2.0.0.1", "--language-id", "3"});
    QVERIFY2(run.code == 0, qPrintable(run.err));

    // The package's own reader, on the stick as the download sequence sees it.
    testenv::TempPanel panel;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work("stick")));
    RecordingDownload download;
    download.m_projectName = QStringLiteral("project");
    download.m_platformCode = QStringLiteral("10");
    download.m_variantDir = QStringLiteral("v7/");
    QSettings scrambled(download.packagePrefix() + "project.ini", QSettings::IniFormat);
    QVERIFY(!download.projectIniNodeExist(&scrambled));
    const QString plain = work("project.plain.ini");
    QVERIFY(QSettingsFactory::decryptFile(download.packagePrefix() + "project.ini", plain, CRYPT_NO_MARK));
    const bool parsed = download.parseIniFile(plain);
    const bool checked = parsed && download.checkFileCRC(BEFORE_DOWNLOAD);
    QDir::setCurrent(previous);
    QVERIFY(parsed);
    QVERIFY(checked);
    QCOMPARE(download.events, QStringList());

    QMap<QString, QString> destinations;
    for (const FILE_INFO& file : download.m_fileList) {
        const QByteArray content = testenv::readFile(work("project/" + file.fileName));
        QCOMPARE(file.crc, QString::fromLatin1(crcText(content)));
        QCOMPARE(qint64(file.size), qint64(content.size()));
        destinations.insert(file.fileName, file.desPath.mid(panel.root().size()));
    }
    const QString project = QStringLiteral("/usr/kavo_app/project/");
    const QMap<QString, QString> expected = {
        {"context.dat", project},
        {"main.bin", project},
        {"pages/start.scr", project},
        {"odd, name; \"x\".bin", project},
        {"工程 画面.scr", project},
        {"empty.dat", project},
        {"fonts/my.ttf", "/usr/kavo_app/font/"},
        {"DownLoadFile/manual.txt", "/data/userfile/"},
        {"DownLoadFile/docs/a.pdf", "/data/userfile/"},
        {"DownLoadFile/logs/l.txt", "/opt/dest/"},
    };
    QCOMPARE(destinations, expected);
    QVERIFY(download.m_clearRecipe && download.m_clearAlarm && download.m_clearUserDir);
    QVERIFY(!download.m_clearHistory && !download.m_clearInitValue);
    QCOMPARE(download.m_diskCapacity, QStringLiteral("64"));
    QCOMPARE(download.m_platformList, (QStringList{"10", "11"}));
    QCOMPARE(download.m_cpuCore, QStringLiteral("1"));
    QCOMPARE(download.m_packageProduct, QStringLiteral("KavoPro"));

    const QSettings version(work("stick/project/v7/version.ini"), QSettings::IniFormat);
    QCOMPARE(version.value("version/setversion").toString(), QStringLiteral("7.3.0"));
    QCOMPARE(version.value("version/minrunversion").toString(), QStringLiteral("7.1.0"));
    const QString note = work("note.plain.ini");
    QVERIFY(QSettingsFactory::decryptFile(work("stick/opxupdateu/config/proUpdate.ini"), note, CRYPT_WITH_MARK));
    QSettings noteIni(note, QSettings::IniFormat);
    noteIni.setIniCodec("UTF-8");
    QCOMPARE(noteIni.value("prepare/version").toString(), QStringLiteral("V2.0.0.1"));
    QCOMPARE(noteIni.value("language_conf/id").toString(), QStringLiteral("0000"));
    const QSettings toolSet(work("stick/opxupdateu/config/proUpdateSet.ini"), QSettings::IniFormat);
    QCOMPARE(toolSet.value("tool_language/type").toInt(), 3);
    QVERIFY(QFileInfo(work("stick/opxupdateu/language")).isDir());
    QVERIFY(!QFileInfo::exists(work("stick/opxupdateu/helper")));
}

void tst_Opxpack::replacesOnlyWithForce()
{
    const QStringList first = {"--project", "{W}/project", "--out", "{W}/stick", "--executable", "{EXE}"};
    QCOMPARE(pack(first).code, 0);
    QVERIFY(testenv::writeFile(work("other/context.dat"), "other context\n"));
    QCOMPARE(pack({"--project", "{W}/other", "--out", "{W}/stick", "--executable", "{EXE}", "--version", "V3"}).code,
             0);
    QVERIFY(QFileInfo(work("stick/project/v7/main.bin")).isFile());
    QVERIFY(QFileInfo(work("stick/other/v7/context.dat")).isFile());

    // A second pack of the same project is refused and changes nothing.
    QVERIFY(QFile::remove(work("project/main.bin")));
    QVERIFY(testenv::writeFile(work("project/new.bin"), "new\n"));
    const QStringList before = testenv::entriesWithSizes(work("stick"));
    const Run refused = pack(first);
    QCOMPARE(refused.code, 1);
    QCOMPARE(testenv::entriesWithSizes(work("stick")), before);

    // With --force the project is the new one, file for file, and nothing of
    // the staging is left on the stick; the other project stays.
    const Run replaced = pack(first + QStringList{"--force", "--variant", "none"});
    QVERIFY2(replaced.code == 0, qPrintable(replaced.err));
    const QStringList stick = testenv::entriesWithSizes(work("stick"));
    QStringList project;
    for (const QString& entry : stick.filter(QRegularExpression(QStringLiteral("^project/"))))
        project << entry.section(QLatin1Char(' '), 0, 0);
    QCOMPARE(project, (QStringList{"project/DownLoadFile", "project/DownLoadFile/manual.txt", "project/context.dat",
                                   "project/new.bin", "project/pages", "project/pages/start.scr",
                                   "project/project.ini", "project/version.ini"}));
    QVERIFY(QFileInfo(work("stick/other/v7/context.dat")).isFile());
    QVERIFY(stick.filter(QRegularExpression(QStringLiteral("^\\."))).isEmpty());
}

void tst_Opxpack::notesNameThatDirectModeMisreads()
{
    const Run misread = pack({"--project", "{W}/project", "--name", "line-project", "--out", "{W}/stick",
                              "--executable", "{EXE}"});
    QCOMPARE(misread.code, 0);
    QCOMPARE(misread.err, QStringLiteral("opxpack: note: the package's direct mode (\"-s line-project\") would read "
                                         "\"-project\" in the name as its resume option; choose another --name to "
                                         "download it unattended\n"));
    const Run plain = pack({"--project", "{W}/project", "--name", "line-p", "--out", "{W}/stick", "--executable",
                            "{EXE}"});
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

    tool.start(qEnvironmentVariable("OPXPACK"), {QStringLiteral("--variant"), QStringLiteral("v9")});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 2);
    QCOMPARE(tool.readAllStandardError(), QByteArray("opxpack: no project directory given (--project DIR)\n"
                                                     "Run opxpack --help for the options.\n"));
    tool.start(qEnvironmentVariable("OPXPACK"), {QStringLiteral("--help")});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 0);
    QVERIFY(tool.readAllStandardOutput().contains("--dest <GLOB=PANELDIR>"));
}

QTEST_GUILESS_MAIN(tst_Opxpack)
#include "tst_opxpack.moc"
