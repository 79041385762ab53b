// The whole download through the executable in direct mode: report and panel afterwards.
#include "testenv.h"

#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QtTest>

#include <csignal>
#include <cstring>
#include <functional>

#include <sys/statfs.h>
#include <sys/sysinfo.h>

namespace {

using testenv::texts;

// Panel entries by path relative to the panel root; directories end in "/"
// and hold an empty text.
using Tree = QMap<QString, QByteArray>;

struct Scenario
{
    kit::PanelSpec panel;
    kit::ProjectSpec project;
    QStringList env;          // extra environment of the run, see preparePackageRun()
    QStringList mount;        // tmpfs options and the panel path it is mounted over
    Tree edits; // "stick/..." or panel; null removes, "/" makes a directory, "link:", "copy:"
    bool pullStick = false;   // the project leaves the stick once the copy starts
    bool otherCopy = false;   // another copy of the package runs: it is stopped
    QStringList lines;        // the report after its marker, the success line last on success
    Tree changes; // against before: text put, null removed, "DIR/*" emptied
    QStringList untouched;    // panel files that keep their time stamp
    int exitCode = 0;
    // After "-s proj"; ${OUT} holds an earlier, longer report, ${EXE} the executable's directory.
    QStringList args = {"-p ${OUT}"};
    QString report = "${OUT}/pro_update_result.log";
    bool rebootWorks = false; // else a successful download's reboot fails, so the run ends as a process does
};

// The report up to the announcement of a step, on a run that passes all before.
const QList<int> kToHardware = {2011, 2021, 2112};
const QList<int> kToRuntime = kToHardware + QList<int>{2114, 2117, 2118};
const QList<int> kToSeries = kToRuntime + QList<int>{2022};
const QList<int> kToVersions = kToSeries + QList<int>{2028, 2035};
const QList<int> kToDisk = kToVersions + QList<int>{2039, 2044};
const QList<int> kToCopy = {2050, 2051, 2053};
const QList<int> kCopied = {2056, 2058};
const QString kProjectArea = QStringLiteral("/usr/kavo_app/project");
const QByteArray kKeptFont("a project font that is already in place\n");
const QByteArray kZeroLed("lead18008"); // its CRC-32 is 0000E859

// The size of the file system the temporary panels are made on, in whole MiB.
quint64 dataMiB()
{
    struct statfs64 fs = {};
    statfs64(QFile::encodeName(QDir::tempPath()).constData(), &fs);
    return quint64(fs.f_frsize) * quint64(fs.f_blocks) >> 20;
}

QStringList packageFailure(int id)
{
    return texts({2011, id, 2020});
}

QStringList downloaded(const QList<int>& ids)
{
    return texts(ids) << msg(2059) + QLatin1Char('\n');
}

// The project area holding exactly its files ("everywhere": every absolute destination).
Tree replaced(const kit::ProjectSpec& project, bool everywhere = false)
{
    Tree changes{{QStringLiteral("usr/kavo_app/project/*"), QByteArray()}};
    for (const kit::PackageFile& file : project.files) {
        if (file.desPath == kProjectArea || (everywhere && file.desPath.startsWith('/')))
            changes.insert(file.desPath.mid(1) + '/' + (file.name.startsWith("DownLoadFile") ? file.name.mid(13) : file.name),
                           file.content);
    }
    return changes;
}

void row(const char* tag, const QStringList& lines, const std::function<void(Scenario&)>& setup = {})
{
    Scenario s;
    s.lines = lines;
    if (setup)
        setup(s);
    // A download that succeeds leaves exactly the project's files in its area.
    if (lines.contains(msg(2059) + '\n')) {
        if (!s.rebootWorks) {
            s.env << "KAVO_SIM_REBOOT_ERRNO=5";
            s.lines << msg(1010).arg(strerror(5));
            s.exitCode = 1;
        }
        Tree changes = replaced(s.project, true);
        changes.insert(s.changes);
        s.changes = changes;
    }
    QTest::newRow(tag) << s;
}

// The package's process as every run here makes it, not started yet: offscreen on `panel`, from the
// stick's directory, its line per copied file dropped. Each of `env` sets "NAME=value" or unsets "NAME".
void preparePackageRun(QProcess& process, const QString& stick, const QString& panel, const QStringList& env)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("KAVO_PANEL_ROOT", panel);
    environment.insert("QT_QPA_PLATFORM", "offscreen");
    for (const QString& entry : env) {
        if (entry.contains(QLatin1Char('=')))
            environment.insert(entry.section('=', 0, 0), entry.section('=', 1));
        else
            environment.remove(entry);
    }
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(stick);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
}

Tree snapshot(const QString& root)
{
    Tree tree;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = it.next().mid(root.size() + 1);
        // Clear copies and the reboot record are the program's scratch space.
        if (!relative.startsWith(QLatin1String("tmp")) && !relative.startsWith(QLatin1String("var")))
            tree.insert(relative + (it.fileInfo().isDir() ? "/" : ""), testenv::readFile(it.filePath()));
    }
    return tree;
}

Tree applied(Tree tree, const Tree& changes)
{
    for (auto change = changes.cbegin(); change != changes.cend(); ++change) {
        const QString& path = change.key();
        if (path.endsWith(QLatin1String("/*"))) {
            const QString dir = path.chopped(1);
            for (auto it = tree.begin(); it != tree.end();)
                it = it.key().startsWith(dir) && it.key() != dir ? tree.erase(it) : std::next(it);
        } else if (change.value().isNull()) {
            tree.remove(path);
        } else {
            for (int slash = path.indexOf(QLatin1Char('/')); slash >= 0; slash = path.indexOf('/', slash + 1))
                tree.insert(path.left(slash + 1), QByteArray(""));
            tree.insert(path, change.value());
        }
    }
    return tree;
}

} // namespace

Q_DECLARE_METATYPE(Scenario)

class tst_download_e2e : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void download_data();
    void download();
    void childEnvironment_data();
    void childEnvironment();

private:
    bool m_canMount = false;
};

void tst_download_e2e::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    QVERIFY(testenv::loadBuiltinTexts());
    QProcess probe;
    probe.start("unshare", {"-m", "sh", "-c", "mount -t tmpfs -o size=1m tmpfs /mnt"});
    m_canMount = probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
}

void tst_download_e2e::download_data()
{
    QTest::addColumn<Scenario>("scenario");
    using kit::PackageFile;

    row("v7 variant, lower-case CRC, $ destinations, fonts, recipe not cleared",
        downloaded(kToDisk + kToCopy + kCopied + QList<int>{2069, 2071, 2072, 2073}), [](Scenario& s) {
            s.project.variant = "v7";
            s.project.clearRecipe = true;
            s.project.clearHistory = true;
            s.project.files = {
                {"context.dat", "project context\n", kProjectArea},
                {"check.bin", "123456789", kProjectArea},
                {"project.bin", "the new project\n", kProjectArea},
                {"myfont.ttf", kKeptFont, "/usr/kavo_app/font"},
                {"changed.ttf", "the new project's version of a font\n", "/usr/kavo_app/font"},
                {"DownLoadFile/x/manual.txt", "user manual\n", "/data/userfile"},
                {"DownLoadFile/oldfont.ttf", "a user file named like a font\n", "/data/userfile"},
                {"a.cfg", "below the variable's directory\n", "$OPX_E2E_DEST/sub"},
                {"b.cfg", "in the variable's directory\n", "$OPX_E2E_DEST"},
            };
            // Only fonts the project brings stay, by exact name; the panel's own stay.
            s.panel.fonts.insert({{"myfont.ttf", kKeptFont}, {"MyFont.TTF", "x\n"}, {".hidden.ttf", "x\n"},
                                  {"changed.ttf", "an old font\n"}, {"oldfont.ttf", "old\n"}});
            s.env = QStringList{"OPX_E2E_DEST=/usr/kavo_app/extra", "KAVO_SIM_DELSAVEDATA_FAIL=1"};
            s.edits.insert({{"usr/kavo_app/kavo_download_flag", "interrupted\n"},
                            {"usr/kavo_app/font/sub/inner.ttf", "in a subdirectory\n"},
                            {"usr/kavo_app/project/recipes", "link:../../../data/recipe"},
                            {"stick/proj/v7/project.ini",
                             kit::projectIniText(s.project).replace("CRC=CBF43926", "CRC=cbf43926")}});
            s.changes.insert({{"usr/kavo_app/font/oldfont.ttf", {}},
                              {"usr/kavo_app/font/MyFont.TTF", {}},
                              {"usr/kavo_app/font/.hidden.ttf", {}},
                              {"usr/kavo_app/extra/sub/a.cfg", "below the variable's directory\n"},
                              {"usr/kavo_app/extra/b.cfg", "in the variable's directory\n"},
                              {"data/history/history.dat", {}},
                              {"usr/kavo_app/kavo_download_flag", {}}});
            s.untouched = QStringList{"/usr/kavo_app/font/myfont.ttf", "/usr/kavo_app/font/simsun.ttf"};
        });
    row("v5 variant, scrambled description",
        downloaded(kToDisk + kToCopy + kCopied + QList<int>{2075, 2076, 2078, 2079}), [](Scenario& s) {
            s.panel.cpuArch = 5;
            s.project.platform = "5";
            s.project.platformName = "OPX5";
            s.project.variant = "v5";
            s.project.scrambledIni = true;
            s.project.clearAlarm = true;
            s.project.clearInitValue = true;
            s.rebootWorks = true;
            // Version parts compare as numbers.
            s.panel.runtime = {"7.11.0", "7.9.9"};
            s.project.setVersion = "7.10.0";
            s.project.minRunVersion = "7.11.0";
            // Exactly the data partition's size in MiB and this machine's cores.
            s.project.diskCapacity = QString::number(dataMiB());
            s.project.cpuCore = QString::number(get_nprocs());
            s.changes.insert({{"data/alarm/alarm.dat", {}}, {"data/initvalue/init.dat", {}}});
        });
    // No runtime copy offered in direct mode; "DownLoadFile" plus any one character is cut.
    // No runtime copy offered in direct mode; "DownLoadFile" plus any one character is cut.
    // CRC without leading zeros or empty; logger.ini may differ; no version text runs.
    row("no variant directory, user area cleared, checksums",
        downloaded(kToDisk + QList<int>{2046, 2047} + kToCopy + kCopied), [](Scenario& s) {
            s.project.withRuntime = true;
            s.project.clearUserDir = true;
            s.project.minRunVersion = "7.5.0"; // the same version fits, whatever the minimums
            s.project.files << PackageFile{"lead.bin", kZeroLed, kProjectArea} << PackageFile{"check.bin", "123456789", kProjectArea}
                            << PackageFile{"DownLoadFile/new.txt", "a new user file\n", "/data/userfile"}
                            << PackageFile{"big.bin", QByteArray("7 bytes").repeated(734), kProjectArea}
                            << PackageFile{"empty.bin", "", kProjectArea}
                            << PackageFile{"DownLoadFileX.dat", "odd\n", "/data/userfile"};
            s.edits.insert("stick/proj/project.ini", kit::projectIniText(s.project).replace("CRC=CBF43926", "CRC="));
            s.edits.insert({{"usr/kavo_app/config/logger.ini", "changed\n"},
                            {"usr/kavo_app/version.7.2.1;touch${IFS}pwned", "copy:usr/kavo_app/version.7.2.1"},
                            {"usr/kavo_app/update.ini", "[PREPARE]\nversion=\"7.2.1;touch${IFS}pwned b3\"\n"
                                                        "minsetversion=7.0.0\nproduct=KavoPro\n"}});
            s.changes.insert("data/userfile/*", {});
        });
    // Failures before anything on the panel changes.
    row("no C library", packageFailure(2012), [](Scenario& s) { s.edits.insert("lib/libc.so.6", {}); });
    row("C library of no known platform", packageFailure(2013),
        [](Scenario& s) { s.edits.insert("lib/libc.so.6", "not an ELF file\n"); });
    row("version.ini missing", packageFailure(2014), [](Scenario& s) { s.edits.insert("stick/proj/version.ini", {}); });
    row("description without a global key", packageFailure(2120), [](Scenario& s) {
        s.edits.insert("stick/proj/project.ini", kit::projectIniText(s.project).replace("VERSION=", "VERSIONS="));
    });
    row("project for another platform, its name trimmed",
        texts({2011}) << QStringLiteral("平台不兼容，触摸屏五的工程只能运行在触摸屏五的屏上！") << msg(2020), [](Scenario& s) {
            s.project.platform = "5";
            s.project.platformName = "  触摸屏五  ";
        });
    row("negative file count", packageFailure(2016), [](Scenario& s) {
        s.edits.insert("stick/proj/project.ini", kit::projectIniText(s.project).replace("FILENUM=2\n", "FILENUM=-3\n"));
    });
    row("zero-padded checksum", packageFailure(2019), [](Scenario& s) {
        s.project.files << PackageFile{"lead.bin", kZeroLed, kProjectArea};
        s.edits.insert("stick/proj/project.ini", kit::projectIniText(s.project).replace("CRC=E859", "CRC=0000E859"));
    });
    row("package file missing", packageFailure(2018), [](Scenario& s) { s.edits.insert("stick/proj/project.bin", {}); });
    row("package file of another size", packageFailure(2019),
        [](Scenario& s) { s.edits.insert("stick/proj/project.bin", "the new project, longer\n"); });
    row("empty product", packageFailure(2023), [](Scenario& s) {
        s.edits.insert("stick/proj/version.ini", "[version]\nproduct=\nsetversion=7.2.1\nminrunversion=7.0.0\n");
    });

    const auto hardware = [](int code, const char* product = "KavoPro") {
        return texts(kToHardware)
               << QStringLiteral("下位机硬件条件检验不通过，错误码：%1，%2 版本工程无法在此屏上运行！").arg(code).arg(product);
    };
    row("hardware: data partition unknown", hardware(0), [](Scenario& s) {
        s.project.diskCapacity = "1";
        s.edits.insert("data", {});
    });
    // Numbers read as strtol reads them: a unit after the digits ends the number.
    row("hardware: one MiB more than the data partition, with a unit", hardware(-1),
        [](Scenario& s) { s.project.diskCapacity = QString::number(dataMiB() + 1) + "MB"; });
    row("hardware: platform not listed", hardware(-2), [](Scenario& s) { s.project.hardwarePlatforms = QStringList{"5", "7"}; });
    row("hardware: one core more than there are", hardware(-3),
        [](Scenario& s) { s.project.cpuCore = QString::number(get_nprocs() + 1) + " cores"; });
    // Its series asks for four cores where the project names none.
    if (get_nprocs() < 4)
        row("hardware: KavoStu needs four cores", hardware(-3, "KavoStu"), [](Scenario& s) {
            s.panel.runtime.product = "KavoStu";
            s.project.product = "KavoStu";
        });
    row("hardware: empty platform list", downloaded(kToDisk + kToCopy + kCopied), [](Scenario& s) {
        s.project.hardwarePlatforms = QStringList{QString()};
        s.panel.runtime.version = "7.3.0";
        s.project.setVersion = "7.2.0";
        s.project.minRunVersion = "7.5.0";
    });
    row("description: file count far beyond its groups", downloaded(kToDisk + kToCopy + kCopied), [](Scenario& s) {
        s.panel.runtime = {"7.2.0", "7.9.0"};
        s.project.setVersion = "7.4.0";
        s.project.minRunVersion = "7.1.0";
        s.edits.insert("stick/proj/project.ini",
                       kit::projectIniText(s.project).replace("FILENUM=2\n", "FILENUM=2147483647\n")
                           + "[FILE03]\nNAME=a\n[FILE0]\nNAME=b\n[FILE4x]\nNAME=c\n[file5]\nNAME=d\n");
    });
    // md5sum's "... did NOT match" summary is no "OK".
    row("installed runtime damaged", texts(kToRuntime) << msg(2115), [](Scenario& s) {
        s.project.withRuntime = true;
        s.project.runtime.version = "7.3.0";
        s.panel.runtime.files.insert("lib/libOPX.so", "a runtime library\n");
        s.edits.insert("usr/kavo_app/lib/libOPX.so", "damaged\n");
    });
    row("installed runtime of an empty series", texts(kToRuntime) << msg(2115), [](Scenario& s) {
        s.edits.insert("usr/kavo_app/update.ini", "[PREPARE]\nversion=7.2.1\nminsetversion=7.0.0\nproduct=\n");
    });
    row("installed runtime without its list", texts(kToRuntime) << msg(2115),
        [](Scenario& s) { s.edits.insert("usr/kavo_app/version.7.2.1", {}); });
    row("runtime of another series",
        texts(kToSeries)
            << QStringLiteral("当前下位机运行环境为 KavoStu，不能升级 KavoPro 的工程！请升级 KavoPro 的运行环境后重试！"),
        [](Scenario& s) { s.panel.runtime.product = "KavoStu"; });
    row("series in other case passes, design version missing", texts(kToVersions) << msg(2036), [](Scenario& s) {
        s.panel.runtime.product = "kavopro";
        s.project.setVersion = QString();
    });
    row("minrunversion missing", texts(kToVersions) << msg(2036), [](Scenario& s) { s.project.minRunVersion = QString(); });
    row("minsetversion missing", texts(kToVersions) << msg(2036), [](Scenario& s) { s.panel.runtime.minSetVersion = QString(); });
    row("design environment too old",
        texts(kToVersions) << QStringLiteral("组态环境版本不匹配，请升级组态环境至7.3.0版本！"), [](Scenario& s) {
            s.panel.runtime.version = "7.3.0";
            s.panel.runtime.minSetVersion = "7.2.0";
            s.project.setVersion = "7.1.9";
        });
    row("runtime environment too old",
        texts(kToVersions) << QStringLiteral("运行环境版本不匹配，请升级运行环境至7.4.0版本！"), [](Scenario& s) {
            s.panel.runtime.version = "7.2.0";
            s.project.setVersion = "7.4.0";
            s.project.minRunVersion = "7.3.0";
        });
    row("project area too small", texts(kToDisk) << msg(2045), [](Scenario& s) {
        s.mount = QStringList{"size=8m", kProjectArea};
        s.project.files << PackageFile{"large.bin", QByteArray(10 << 20, 'p'), kProjectArea};
    });
    row("user area cannot be cleared", texts(kToDisk + QList<int>{2046, 2048, 2049}), [](Scenario& s) {
        s.project.clearUserDir = true;
        s.env = QStringList{"KAVO_SIM_DELETEDIR_FAIL=1"};
    });

    // Failures once the old project is being replaced.
    // A directory that is a mount point cannot be removed.
    row("old project cannot be deleted", texts(kToDisk + QList<int>{2050, 2051, 2052}), [](Scenario& s) {
        s.mount = QStringList{"size=1m", kProjectArea + "/locked"};
        s.edits.insert("usr/kavo_app/project/locked/", {});
    });
    // A directory stands where the last file is to go.
    row("copy cannot be written", texts(kToDisk + kToCopy + QList<int>{2056, 2017, 2057}), [](Scenario& s) {
        s.project.files << PackageFile{"blocked.bin", "cannot be written\n", "/usr/kavo_app/extra"};
        s.edits.insert("usr/kavo_app/extra/blocked.bin/", {});
        s.changes = replaced(s.project);
    });
    // Four levels up from the project area is the directory that holds the panel root.
    row("destination outside the panel root", texts(kToDisk + kToCopy + QList<int>{2056, 2017, 2057}), [](Scenario& s) {
        s.project.files << PackageFile{"escaped.bin", "outside the panel\n", kProjectArea + "/../../../../escaped"};
        s.changes = replaced(s.project);
    });
    // A project not on the stick, its report in a directory still to be made.
    row("report in a new nested directory, another copy running", packageFailure(2014), [](Scenario& s) {
        s.edits.insert("stick/proj", {});
        s.otherCopy = true;
        s.args = QStringList{"-p ${OUT}/a/b"};
        s.report = "${OUT}/a/b/pro_update_result.log";
    });
    row("without -p the report goes beside the executable", packageFailure(2014), [](Scenario& s) {
        s.edits.insert("stick/proj", {});
        s.args.clear();
        s.report = "${EXE}/pro_update_result.log";
    });
    row("stick pulled during the copy", texts(kToDisk + kToCopy + QList<int>{2054, 2055}), [](Scenario& s) {
        s.pullStick = true;
        s.project.files.prepend(PackageFile{"large.bin", QByteArray(48 << 20, 'l'), kProjectArea});
        s.changes.insert("usr/kavo_app/project/*", {});
    });
}

void tst_download_e2e::download()
{
    QFETCH(Scenario, scenario);
    if (!scenario.mount.isEmpty() && !m_canMount)
        QSKIP("no private mount namespace here (unshare -m and mount -t tmpfs need CAP_SYS_ADMIN)");

    QTemporaryDir panelDir;
    QTemporaryDir stickDir;
    testenv::OptionSafeDir outDir;
    QVERIFY(panelDir.isValid() && stickDir.isValid() && outDir.isValid());
    // The panel root lies one level down, so that a write outside it shows.
    const QString panel = panelDir.path() + "/panel";
    const QString stick = stickDir.path();
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    // An updater is at hand, so only the direct mode keeps the runtime update from being offered.
    package.helper = scenario.project.withRuntime ? QStringLiteral("/bin/true") : QString();
    QVERIFY(kit::makePanel(panel, scenario.panel) && kit::writePackage(stick, package)
            && kit::writeProject(stick, scenario.project));
    for (auto edit = scenario.edits.cbegin(); edit != scenario.edits.cend(); ++edit) {
        const bool onStick = edit.key().startsWith(QLatin1String("stick/"));
        const QString path = (onStick ? stick + edit.key().mid(5) : panel + '/' + edit.key());
        if (path.endsWith(QLatin1Char('/')))
            QVERIFY(QDir().mkpath(path));
        else if (edit.value().startsWith("link:"))
            QVERIFY(QFile::link(edit.value().mid(5), path));
        else if (edit.value().startsWith("copy:"))
            QVERIFY(QFile::copy(panel + '/' + edit.value().mid(5), path));
        else if (edit.value().isNull())
            QVERIFY(QFileInfo(path).isDir() ? QDir(path).removeRecursively() : QFile::remove(path));
        else
            QVERIFY(testenv::writeFile(path, edit.value()));
    }
    const Tree before = snapshot(panel);
    // A file written again gets a new time stamp, even with the same content.
    QList<QDateTime> stampsBefore;
    for (const QString& path : scenario.untouched)
        stampsBefore << QFileInfo(panel + path).lastModified();

    QProcess process;
    preparePackageRun(process, stick, panel, scenario.env);
    QString program = stick + "/opxupdateu/opxupdateu_proj.bin";
    QStringList arguments{"-s proj"};
    for (const QString& arg : scenario.args + QStringList{scenario.report})
        arguments << QString(arg).replace("${OUT}", outDir.path()).replace("${EXE}", stick + "/opxupdateu");
    const QString report = arguments.takeLast();
    QVERIFY(testenv::writeFile(outDir.path() + "/pro_update_result.log", QByteArray(5000, 'O')));
    if (!scenario.mount.isEmpty()) {
        // A private tmpfs over a panel directory, for this run only.
        arguments = QStringList{"-m", "sh", "-c", "mount -t tmpfs -o \"$1\" tmpfs \"$2\" || exit 99; shift 2; exec \"$@\"",
                                "sh", scenario.mount.at(0), panel + scenario.mount.at(1), program}
                    + arguments;
        program = "unshare";
    }
    QProcess copy;
    if (scenario.otherCopy) {
        QVERIFY(QFile::copy("/bin/sleep", outDir.path() + "/opxupdateu_proj.bin"));
        copy.start(outDir.path() + "/opxupdateu_proj.bin", {"600"});
        QTRY_VERIFY(testenv::readFile(QStringLiteral("/proc/%1/cmdline").arg(copy.processId())).startsWith(outDir.path().toUtf8()));
    }
    process.start(program, arguments);
    QVERIFY(process.waitForStarted());

    QElapsedTimer clock;
    clock.start();
    if (scenario.pullStick) {
        while (process.state() == QProcess::Running && !testenv::readFile(report).contains((msg(2053) + '\n').toUtf8()))
            process.waitForFinished(5);
        QVERIFY(QDir(stick + '/' + scenario.project.name).removeRecursively());
    }
    QVERIFY2(process.waitForFinished(60000), "the run did not end");
    const qint64 elapsed = clock.elapsed();
    const bool success = scenario.lines.contains(msg(2059) + '\n');
    const bool rebooted = success && scenario.exitCode == 0;
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), scenario.exitCode);
    QVERIFY(!scenario.otherCopy || (copy.waitForFinished(10000) && copy.exitCode() == SIGTERM));
    QCOMPARE(QString::fromUtf8(testenv::readFile(report)),
             msg(success ? 2106 : 2107) + scenario.lines.join('\n') + '\n');

    QCOMPARE(testenv::readFile(panel + "/var/run/reboot-requested"), QByteArray(rebooted ? "reboot\n" : ""));
    QVERIFY2(!success || elapsed >= 10000, qPrintable(QString::number(elapsed)));

    const Tree expected = applied(before, scenario.changes);
    Tree actual = snapshot(panel);
    if (scenario.pullStick) // whether the first file was opened before the stick went is timing
        actual.remove("usr/kavo_app/project/large.bin");
    QCOMPARE(actual.keys(), expected.keys());
    for (const QString& path : expected.keys())
        QVERIFY2(actual.value(path) == expected.value(path), qPrintable(path));
    for (int i = 0; i < scenario.untouched.size(); ++i)
        QVERIFY2(QFileInfo(panel + scenario.untouched.at(i)).lastModified() == stampsBefore.at(i),
                 qPrintable(scenario.untouched.at(i)));
    // Nothing beside the panel root, and no clear copy of a scrambled file in its /tmp.
    QCOMPARE(QDir(panelDir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList{"panel"});
    QCOMPARE(QDir(panel + "/tmp").entryList({"*.ini*"}, QDir::Files | QDir::Hidden | QDir::System), QStringList());
}

// The event dispatcher the package picks for itself is nobody else's business: what it starts (md5sum
// here) runs with the environment the package was started with.
void tst_download_e2e::childEnvironment_data()
{
    QTest::addColumn<QString>("noGlib"); // QT_NO_GLIB at the start; null: not set
    QTest::newRow("not set") << QString();
    QTest::newRow("set by the caller") << QStringLiteral("1");
    QTest::newRow("set empty by the caller") << QStringLiteral("");
}

void tst_download_e2e::childEnvironment()
{
    QFETCH(QString, noGlib);
    QTemporaryDir panelDir;
    QTemporaryDir stickDir;
    QTemporaryDir binDir;
    testenv::OptionSafeDir outDir;
    QVERIFY(panelDir.isValid() && stickDir.isValid() && binDir.isValid() && outDir.isValid());
    const QString panel = panelDir.path() + "/panel";
    const QString stick = stickDir.path();
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    // The run ends at the version check, after md5sum and before any countdown.
    kit::ProjectSpec project;
    project.minRunVersion = QString();
    QVERIFY(kit::makePanel(panel, kit::PanelSpec()) && kit::writePackage(stick, package)
            && kit::writeProject(stick, project));
    const QString seen = binDir.path() + "/seen";
    const QString md5sum = binDir.path() + "/md5sum";
    QVERIFY(testenv::writeFile(md5sum, "#!/bin/sh\necho \"${QT_NO_GLIB+set:}${QT_NO_GLIB-not set}\" >> '" + seen.toUtf8()
                                           + "'\nexec /usr/bin/md5sum \"$@\"\n"));
    QVERIFY(QFile::setPermissions(md5sum, QFile::ReadOwner | QFile::ExeOwner));

    QProcess process;
    preparePackageRun(process, stick, panel,
                      {"PATH=" + binDir.path() + ':' + qEnvironmentVariable("PATH"),
                       noGlib.isNull() ? QStringLiteral("QT_NO_GLIB") : "QT_NO_GLIB=" + noGlib});
    process.start(stick + "/opxupdateu/opxupdateu_proj.bin", {"-s proj", "-p " + outDir.path()});
    QVERIFY2(process.waitForFinished(60000), "the run did not end");
    QVERIFY(testenv::readFile(outDir.path() + "/pro_update_result.log").contains((msg(2036) + '\n').toUtf8()));
    const QStringList values = QString::fromUtf8(testenv::readFile(seen)).split('\n', Qt::SkipEmptyParts);
    QVERIFY2(!values.isEmpty(), "md5sum was not run");
    for (const QString& value : values)
        QCOMPARE(value, noGlib.isNull() ? QStringLiteral("not set") : "set:" + noGlib);
}

QTEST_GUILESS_MAIN(tst_download_e2e)
#include "tst_download_e2e.moc"
