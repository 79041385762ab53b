// The whole download through the executable in direct mode ("-s NAME" "-p DIR"):
// one table of packages and panels, each with the exact result report it must
// leave and the panel's files afterwards.
#include "testenv.h"

#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

#include <sys/stat.h>

namespace {

// The panel's files and directories by path relative to the panel root;
// directories end in "/" and map to an empty text.
using Tree = QMap<QString, QByteArray>;

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

QStringList texts(std::initializer_list<int> ids)
{
    QStringList lines;
    for (int id : ids)
        lines << msg(id);
    return lines;
}

// What the report shows up to the announcement of a step, on a run that
// passes everything before it.
const QList<int> kToHardware = {2011, 2021, 2112};
const QList<int> kToRuntime = kToHardware + QList<int>{2114, 2117, 2118};
const QList<int> kToSeries = kToRuntime + QList<int>{2022};
const QList<int> kToVersions = kToSeries + QList<int>{2028, 2035};
const QList<int> kToDisk = kToVersions + QList<int>{2039, 2044};
// From the disk space check passed to the copy verified.
const QList<int> kToCopy = {2050, 2051, 2053};
const QList<int> kCopied = {2056, 2058};

QStringList texts(const QList<int>& ids)
{
    QStringList lines;
    for (int id : ids)
        lines << msg(id);
    return lines;
}

QStringList packageFailure(int id)
{
    return texts({2011, id, 2020});
}

QStringList finished()
{
    return {msg(2059) + QLatin1Char('\n')};
}

// Panel-side content as a stick carries it and the panel already holds it.
const QByteArray kKeptFont("a project font that is already in place\n");

struct Scenario
{
    kit::PanelSpec panel;
    kit::ProjectSpec project;
    bool withHelper = false;                      // the runtime updater on the stick
    QStringList env;                              // extra environment of the run
    QStringList mounts;                           // pairs of tmpfs options and panel paths
    std::function<void(const QString& panelRoot, const QString& stickRoot)> arrange;
    bool pullStick = false;                       // the project leaves the stick once the copy starts
    bool success = false;
    QStringList lines;                            // the report after its marker
    std::function<void(Tree&)> changes;           // the panel afterwards, from the panel before
    QStringList ignored;                          // panel paths whose fate depends on timing
    QStringList untouched;                        // panel files that keep their inode and time stamp
};

} // namespace

Q_DECLARE_METATYPE(Scenario)

namespace {

Tree snapshot(const QString& root)
{
    Tree tree;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = path.mid(root.size() + 1);
        // Clear copies and the reboot record are the program's scratch space.
        if (relative.startsWith(QLatin1String("tmp")) || relative.startsWith(QLatin1String("var")))
            continue;
        if (it.fileInfo().isDir())
            tree.insert(relative + QLatin1Char('/'), QByteArray(""));
        else
            tree.insert(relative, testenv::readFile(path));
    }
    return tree;
}

void removeBelow(Tree& tree, const QString& dir)
{
    for (auto it = tree.begin(); it != tree.end();) {
        if (it.key().startsWith(dir) && it.key() != dir)
            it = tree.erase(it);
        else
            ++it;
    }
}

void put(Tree& tree, const QString& path, const QByteArray& content)
{
    for (int slash = path.indexOf(QLatin1Char('/')); slash >= 0; slash = path.indexOf(QLatin1Char('/'), slash + 1))
        tree.insert(path.left(slash + 1), QByteArray(""));
    tree.insert(path, content);
}

// The panel's project area holding exactly the project's files for it.
void projectReplaced(Tree& tree, const kit::ProjectSpec& project)
{
    removeBelow(tree, QStringLiteral("usr/kavo_app/project/"));
    for (const kit::PackageFile& file : project.files) {
        if (file.desPath == QLatin1String("/usr/kavo_app/project"))
            put(tree, QStringLiteral("usr/kavo_app/project/") + file.name, file.content);
    }
}

// Every entry of `a` that differs from `b`, for a readable failure.
QString difference(const Tree& actual, const Tree& expected)
{
    QStringList lines;
    for (auto it = actual.cbegin(); it != actual.cend(); ++it) {
        if (!expected.contains(it.key()))
            lines << QStringLiteral("unexpected ") + it.key();
        else if (expected.value(it.key()) != it.value())
            lines << QStringLiteral("changed ") + it.key();
    }
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        if (!actual.contains(it.key()))
            lines << QStringLiteral("missing ") + it.key();
    }
    return lines.join(QLatin1Char('\n'));
}

struct FileStamp
{
    ino_t inode = 0;
    qint64 mtimeNs = 0;
    bool operator==(const FileStamp& other) const { return inode == other.inode && mtimeNs == other.mtimeNs; }
};

FileStamp stampOf(const QString& path)
{
    struct stat info;
    if (stat(QFile::encodeName(path).constData(), &info) != 0)
        return FileStamp();
    return FileStamp{info.st_ino, qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
}

kit::PackageFile file(const QString& name, const QByteArray& content, const QString& desPath)
{
    return kit::PackageFile{name, content, desPath};
}

const QString kProjectArea = QStringLiteral("/usr/kavo_app/project");

} // namespace

class tst_download_e2e : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void download_data();
    void download();

private:
    bool m_canMount = false;
};

void tst_download_e2e::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));

    QProcess probe;
    probe.start(QStringLiteral("unshare"), {QStringLiteral("-m"), QStringLiteral("sh"), QStringLiteral("-c"),
                                            QStringLiteral("mount -t tmpfs -o size=1m tmpfs /mnt")});
    m_canMount = probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
}

void tst_download_e2e::download_data()
{
    QTest::addColumn<Scenario>("scenario");

    {
        // $ destinations, user files, a project font already in place, a font
        // the new project does not bring, and two data areas of which one
        // cannot be cleared.
        Scenario s;
        s.success = true;
        s.project.variant = QStringLiteral("v7");
        s.project.clearRecipe = true;
        s.project.clearHistory = true;
        s.project.files = {
            file("context.dat", "project context\n", kProjectArea),
            file("project.bin", "the new project\n", kProjectArea),
            file("myfont.ttf", kKeptFont, "/usr/kavo_app/font"),
            file("DownLoadFile/manual.txt", "user manual\n", "/data/userfile"),
            file("a.cfg", "below the variable's directory\n", "$OPX_E2E_DEST/sub"),
            file("b.cfg", "in the variable's directory\n", "$OPX_E2E_DEST"),
        };
        s.panel.fonts.insert(QStringLiteral("myfont.ttf"), kKeptFont);
        s.panel.fonts.insert(QStringLiteral("oldfont.ttf"), "a font only the old project used\n");
        s.env = QStringList{"OPX_E2E_DEST=/usr/kavo_app/extra", "KAVO_SIM_DELSAVEDATA_FAIL=1"};
        s.arrange = [](const QString& panelRoot, const QString&) {
            testenv::writeFile(panelRoot + "/usr/kavo_app/kavo_download_flag", "interrupted\n");
        };
        s.lines = texts(kToDisk + kToCopy + kCopied + QList<int>{2069, 2071, 2072, 2073}) + finished();
        const kit::ProjectSpec project = s.project;
        s.changes = [project](Tree& tree) {
            projectReplaced(tree, project);
            tree.remove("usr/kavo_app/font/oldfont.ttf");
            put(tree, "data/userfile/manual.txt", "user manual\n");
            put(tree, "usr/kavo_app/extra/sub/a.cfg", "below the variable's directory\n");
            put(tree, "usr/kavo_app/extra/b.cfg", "in the variable's directory\n");
            tree.remove("data/history/history.dat");
            tree.remove("usr/kavo_app/kavo_download_flag");
        };
        s.untouched = QStringList{"/usr/kavo_app/font/myfont.ttf", "/usr/kavo_app/font/simsun.ttf"};
        QTest::newRow("v7 variant, $ destinations, kept font, recipe not cleared") << s;
    }
    {
        Scenario s;
        s.success = true;
        s.panel.cpuArch = 5;
        s.project.platform = QStringLiteral("5");
        s.project.platformName = QStringLiteral("OPX5");
        s.project.variant = QStringLiteral("v5");
        s.project.scrambledIni = true;
        s.project.clearAlarm = true;
        s.project.clearInitValue = true;
        s.lines = texts(kToDisk + kToCopy + kCopied + QList<int>{2075, 2076, 2078, 2079}) + finished();
        const kit::ProjectSpec project = s.project;
        s.changes = [project](Tree& tree) {
            projectReplaced(tree, project);
            tree.remove("data/alarm/alarm.dat");
            tree.remove("data/initvalue/init.dat");
        };
        QTest::newRow("v5 variant, scrambled description") << s;
    }
    {
        // The runtime copy beside the project is not offered in direct mode.
        Scenario s;
        s.success = true;
        s.project.withRuntime = true;
        s.withHelper = true;
        s.project.clearUserDir = true;
        s.project.files << file("DownLoadFile/new.txt", "a new user file\n", "/data/userfile");
        s.lines = texts(kToDisk + QList<int>{2046, 2047} + kToCopy + kCopied) + finished();
        const kit::ProjectSpec project = s.project;
        s.changes = [project](Tree& tree) {
            projectReplaced(tree, project);
            removeBelow(tree, "data/userfile/");
            put(tree, "data/userfile/new.txt", "a new user file\n");
        };
        QTest::newRow("no variant directory, user area cleared") << s;
    }

    // Failures before anything on the panel changes.
    {
        Scenario s;
        s.arrange = [](const QString& panelRoot, const QString&) { QFile::remove(panelRoot + "/lib/libc.so.6"); };
        s.lines = packageFailure(2012);
        QTest::newRow("no C library") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString& panelRoot, const QString&) {
            testenv::writeFile(panelRoot + "/lib/libc.so.6", "not an ELF file\n");
        };
        s.lines = packageFailure(2013);
        QTest::newRow("C library of no known platform") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) {
            QFile::remove(stickRoot + "/proj/version.ini");
        };
        s.lines = packageFailure(2014);
        QTest::newRow("version.ini missing") << s;
    }
    {
        Scenario s;
        s.project.variant = QStringLiteral("v7");
        s.arrange = [](const QString&, const QString& stickRoot) {
            QFile::remove(stickRoot + "/proj/v7/project.ini");
        };
        s.lines = packageFailure(2014);
        QTest::newRow("project.ini missing in the variant") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) {
            QByteArray ini = testenv::readFile(stickRoot + "/proj/project.ini");
            ini.replace("VERSION=", "VERSIONS=");
            testenv::writeFile(stickRoot + "/proj/project.ini", ini);
        };
        s.lines = packageFailure(2120);
        QTest::newRow("description without a global key") << s;
    }
    {
        Scenario s;
        s.project.platform = QStringLiteral("5");
        s.project.platformName = QStringLiteral("OPX5");
        s.lines = texts({2011}) << QStringLiteral("平台不兼容，OPX5的工程只能运行在OPX5的屏上！") << msg(2020);
        QTest::newRow("project for another platform") << s;
    }
    {
        Scenario s;
        s.project.files.clear();
        s.lines = packageFailure(2016);
        QTest::newRow("no files") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) { QFile::remove(stickRoot + "/proj/project.bin"); };
        s.lines = packageFailure(2018);
        QTest::newRow("package file missing") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) {
            testenv::writeFile(stickRoot + "/proj/project.bin", "THE NEW PROJECT\n");
        };
        s.lines = packageFailure(2019);
        QTest::newRow("package file changed, same size") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) {
            testenv::writeFile(stickRoot + "/proj/project.bin", "the new project, longer\n");
        };
        s.lines = packageFailure(2019);
        QTest::newRow("package file of another size") << s;
    }
    {
        Scenario s;
        s.arrange = [](const QString&, const QString& stickRoot) {
            testenv::writeFile(stickRoot + "/proj/version.ini",
                               "[version]\nproduct=\nsetversion=7.2.1\nminrunversion=7.0.0\n");
        };
        s.lines = packageFailure(2023);
        QTest::newRow("empty product") << s;
    }

    const auto hardware = [](int code) {
        return texts(kToHardware) << QStringLiteral("下位机硬件条件检验不通过，错误码：%1，KavoPro 版本工程无法在此屏上运行！")
                                         .arg(code);
    };
    {
        Scenario s;
        s.project.diskCapacity = QStringLiteral("1");
        s.arrange = [](const QString& panelRoot, const QString&) {
            QDir(panelRoot + "/data").removeRecursively();
        };
        s.lines = hardware(0);
        QTest::newRow("hardware: data partition unknown") << s;
    }
    {
        Scenario s;
        s.project.diskCapacity = QStringLiteral("99999999");
        s.lines = hardware(-1);
        QTest::newRow("hardware: disk too small") << s;
    }
    {
        Scenario s;
        s.project.hardwarePlatforms = QStringList{"5", "7"};
        s.lines = hardware(-2);
        QTest::newRow("hardware: platform not listed") << s;
    }
    {
        Scenario s;
        s.project.cpuCore = QStringLiteral("4096");
        s.lines = hardware(-3);
        QTest::newRow("hardware: too few cores") << s;
    }
    {
        // An unattended download never offers the runtime update.
        Scenario s;
        s.project.withRuntime = true;
        s.withHelper = true;
        s.project.runtime.version = QStringLiteral("7.3.0");
        s.arrange = [](const QString& panelRoot, const QString&) {
            testenv::writeFile(panelRoot + "/usr/kavo_app/bin/kavo_app", "damaged runtime application\n");
        };
        s.lines = texts(kToRuntime) << msg(2115);
        QTest::newRow("installed runtime damaged") << s;
    }
    {
        Scenario s;
        s.panel.runtime.product = QStringLiteral("KavoStu");
        s.lines = texts(kToSeries)
                  << QStringLiteral("当前下位机运行环境为 KavoStu，不能升级 KavoPro 的工程！请升级 KavoPro 的运行环境后重试！");
        QTest::newRow("runtime of another series") << s;
    }
    {
        Scenario s;
        s.panel.runtime.product = QStringLiteral("kavopro");
        s.project.setVersion = QString();
        s.lines = texts(kToVersions) << msg(2036);
        QTest::newRow("series in other case passes, design version missing") << s;
    }
    {
        Scenario s;
        s.panel.runtime.version = QStringLiteral("7.3.0");
        s.panel.runtime.minSetVersion = QStringLiteral("7.2.0");
        s.project.setVersion = QStringLiteral("7.1.9");
        s.project.minRunVersion = QStringLiteral("7.0.0");
        s.lines = texts(kToVersions) << QStringLiteral("组态环境版本不匹配，请升级组态环境至7.3.0版本！");
        QTest::newRow("design environment too old") << s;
    }
    {
        Scenario s;
        s.panel.runtime.version = QStringLiteral("7.2.0");
        s.panel.runtime.minSetVersion = QStringLiteral("7.0.0");
        s.project.setVersion = QStringLiteral("7.4.0");
        s.project.minRunVersion = QStringLiteral("7.3.0");
        s.lines = texts(kToVersions) << QStringLiteral("运行环境版本不匹配，请升级运行环境至7.4.0版本！");
        QTest::newRow("runtime environment too old") << s;
    }
    {
        Scenario s;
        s.mounts = QStringList{"size=8m", kProjectArea};
        s.project.files << file("large.bin", QByteArray(10 << 20, 'p'), kProjectArea);
        s.lines = texts(kToDisk) << msg(2045);
        QTest::newRow("project area too small") << s;
    }
    {
        Scenario s;
        s.mounts = QStringList{"size=8m", "/data/userfile"};
        s.project.files << file("DownLoadFile/large.bin", QByteArray(7 << 20, 'u'), "/data/userfile");
        s.lines = texts(kToDisk) << msg(2049);
        QTest::newRow("user area too small") << s;
    }
    {
        Scenario s;
        s.project.clearUserDir = true;
        s.env = QStringList{"KAVO_SIM_DELETEDIR_FAIL=1"};
        s.lines = texts(kToDisk + QList<int>{2046, 2048, 2049});
        QTest::newRow("user area cannot be cleared") << s;
    }

    // Failures once the old project is being replaced.
    {
        // A directory that is a mount point cannot be removed.
        Scenario s;
        s.mounts = QStringList{"size=1m", kProjectArea + "/locked"};
        s.arrange = [](const QString& panelRoot, const QString&) {
            QDir().mkpath(panelRoot + kProjectArea + "/locked");
        };
        s.lines = texts(kToDisk + QList<int>{2050, 2051, 2052});
        QTest::newRow("old project cannot be deleted") << s;
    }
    {
        // A directory stands where the last file is to go.
        Scenario s;
        s.project.files << file("blocked.bin", "cannot be written\n", "/usr/kavo_app/extra");
        s.arrange = [](const QString& panelRoot, const QString&) {
            QDir().mkpath(panelRoot + "/usr/kavo_app/extra/blocked.bin");
        };
        s.lines = texts(kToDisk + kToCopy + QList<int>{2056, 2017, 2057});
        const kit::ProjectSpec project = s.project;
        s.changes = [project](Tree& tree) { projectReplaced(tree, project); };
        QTest::newRow("copy cannot be written") << s;
    }
    {
        Scenario s;
        s.pullStick = true;
        s.project.files.prepend(file("large.bin", QByteArray(48 << 20, 'l'), kProjectArea));
        s.lines = texts(kToDisk + kToCopy + QList<int>{2054, 2055});
        s.changes = [](Tree& tree) { removeBelow(tree, QStringLiteral("usr/kavo_app/project/")); };
        // Whether the first file was opened before the stick went is timing.
        s.ignored = QStringList{"usr/kavo_app/project/large.bin"};
        QTest::newRow("stick pulled during the copy") << s;
    }
}

void tst_download_e2e::download()
{
    QFETCH(Scenario, scenario);
    if (!scenario.mounts.isEmpty() && !m_canMount)
        QSKIP("no private mount namespace here (unshare -m and mount -t tmpfs need CAP_SYS_ADMIN)");

    QTemporaryDir panelDir;
    QTemporaryDir stickDir;
    testenv::OptionSafeDir outDir;
    QVERIFY(panelDir.isValid() && stickDir.isValid() && outDir.isValid());
    const QString panel = panelDir.path();
    const QString stick = stickDir.path();

    QVERIFY(kit::makePanel(panel, scenario.panel));
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    if (scenario.withHelper)
        package.helper = QStringLiteral("/bin/true");
    QVERIFY(kit::writePackage(stick, package));
    QVERIFY(kit::writeProject(stick, scenario.project));
    if (scenario.arrange)
        scenario.arrange(panel, stick);

    const Tree before = snapshot(panel);
    QList<FileStamp> stampsBefore;
    for (const QString& path : scenario.untouched)
        stampsBefore << stampOf(panel + path);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    for (const QString& entry : scenario.env)
        env.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));

    const QString executable = stick + QStringLiteral("/opxupdateu/opxupdateu_proj.bin");
    const QStringList arguments = {QStringLiteral("-s ") + scenario.project.name,
                                   QStringLiteral("-p ") + outDir.path()};
    QProcess process;
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(stick);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // The copy prints a line per file; nobody reads them.
    process.setStandardOutputFile(QProcess::nullDevice());
    if (scenario.mounts.isEmpty()) {
        process.start(executable, arguments);
    } else {
        // Private tmpfs mounts over panel directories, for this run only.
        QStringList wrapped = {QStringLiteral("-m"), QStringLiteral("sh"), QStringLiteral("-c"),
                               QStringLiteral("while [ \"$1\" != -- ]; do mount -t tmpfs -o \"$1\" tmpfs \"$2\" "
                                              "|| exit 99; shift 2; done; shift; exec \"$@\""),
                               QStringLiteral("sh")};
        for (int i = 0; i + 1 < scenario.mounts.size(); i += 2)
            wrapped << scenario.mounts.at(i) << panel + scenario.mounts.at(i + 1);
        wrapped << QStringLiteral("--") << executable << arguments;
        process.start(QStringLiteral("unshare"), wrapped);
    }
    QVERIFY(process.waitForStarted());

    const QString report = outDir.path() + QStringLiteral("/pro_update_result.log");
    QElapsedTimer clock;
    clock.start();
    if (scenario.pullStick) {
        const QByteArray copying = (msg(2053) + QLatin1Char('\n')).toUtf8();
        while (process.state() == QProcess::Running && !testenv::readFile(report).contains(copying))
            process.waitForFinished(5);
        QVERIFY(QDir(stick + QLatin1Char('/') + scenario.project.name).removeRecursively());
    }
    QVERIFY2(process.waitForFinished(60000), "the run did not end");
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);

    const QString marker = msg(scenario.success ? 2106 : 2107);
    QString expected = marker;
    for (const QString& line : scenario.lines)
        expected += line + QLatin1Char('\n');
    QCOMPARE(QString::fromUtf8(testenv::readFile(report)), expected);

    // A successful download ends in the reboot after the ten-second countdown;
    // a failed one ends the process with no reboot.
    const QByteArray rebootRecord = testenv::readFile(panel + QStringLiteral("/var/run/reboot-requested"));
    if (scenario.success) {
        QCOMPARE(rebootRecord, QByteArray("reboot\n"));
        QVERIFY2(elapsed >= 10000, qPrintable(QString::number(elapsed)));
    } else {
        QVERIFY(rebootRecord.isNull());
    }

    Tree expectedPanel = before;
    if (scenario.changes)
        scenario.changes(expectedPanel);
    Tree actualPanel = snapshot(panel);
    for (const QString& path : scenario.ignored) {
        expectedPanel.remove(path);
        actualPanel.remove(path);
    }
    QVERIFY2(actualPanel == expectedPanel, qPrintable(difference(actualPanel, expectedPanel)));

    for (int i = 0; i < scenario.untouched.size(); ++i)
        QVERIFY2(stampOf(panel + scenario.untouched.at(i)) == stampsBefore.at(i), qPrintable(scenario.untouched.at(i)));
}

QTEST_GUILESS_MAIN(tst_download_e2e)
#include "tst_download_e2e.moc"
