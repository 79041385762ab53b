// opxpanel, the maker of simulated panels: what it refuses (and that it then
// writes nothing), and that the panel it makes says what was asked, read the
// way the package reads it.
#include "testenv.h"

#include "platform/kavo_api.h"
#include "tools/kit/runtime.h"
#include "tools/opxpanel/paneltool.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QScopeGuard>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <zlib.h>

namespace {

struct Run
{
    int code = -1;
    QString out;
    QString err;
};

// The project inside a "KAVOZIPE" container: the zlib stream after the
// 16-byte header, inflated.
QByteArray unpack(const QByteArray& container)
{
    QByteArray project(1 << 20, '\0');
    uLongf size = uLongf(project.size());
    const QByteArray stream = container.mid(16);
    if (uncompress(reinterpret_cast<Bytef*>(project.data()), &size, reinterpret_cast<const Bytef*>(stream.constData()),
                   uLong(stream.size()))
        != Z_OK)
        return QByteArray();
    project.resize(int(size));
    return project;
}

int md5sumCheck(const QString& dir, const QString& list)
{
    QProcess md5sum;
    md5sum.setWorkingDirectory(dir);
    md5sum.start(QStringLiteral("md5sum"), {QStringLiteral("-c"), list});
    return md5sum.waitForFinished() ? md5sum.exitCode() : -1;
}

} // namespace

class tst_Opxpanel : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void refusesAndWritesNothing_data();
    void refusesAndWritesNothing();
    void panelSaysWhatWasAsked();
    void installsRuntimeDirectory();
    void forceMakesThePanelAnew();
    void runningStandIn();

private:
    QString work(const QString& relative) const { return m_work->path() + QLatin1Char('/') + relative; }
    Run make(QStringList arguments);

    std::unique_ptr<QTemporaryDir> m_work;
};

void tst_Opxpanel::init()
{
    m_work = std::make_unique<QTemporaryDir>();
    QVERIFY(m_work->isValid());
}

Run tst_Opxpanel::make(QStringList arguments)
{
    for (QString& argument : arguments)
        argument.replace(QLatin1String("{W}"), m_work->path());
    Run run;
    QTextStream out(&run.out);
    QTextStream err(&run.err);
    run.code = opxpanel::run(QStringList{QStringLiteral("opxpanel")} + arguments, out, err);
    return run;
}

void tst_Opxpanel::refusesAndWritesNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message"); // the first line on stderr, {W} the work directory

    QTest::newRow("no --root") << QStringList{"--arch", "5"} << 2 << "opxpanel: no panel root given (--root DIR)";
    QTest::newRow("unknown option") << QStringList{"--root", "{W}/panel", "--archh", "5"} << 2
                                    << "opxpanel: Unknown option 'archh'.";
    QTest::newRow("architecture in words") << QStringList{"--root", "{W}/panel", "--arch", "armv7"} << 2
                                           << "opxpanel: --arch: 'armv7' is not an architecture number such as 10 or 5";
    QTest::newRow("runtime version without a version")
        << QStringList{"--root", "{W}/panel", "--runtime-version", "build 7.2.1"} << 2
        << "opxpanel: --runtime-version: 'build 7.2.1' does not begin with a version such as 7.2.1";
    QTest::newRow("two-part minimum") << QStringList{"--root", "{W}/panel", "--min-set-version", "7.0"} << 2
                                      << "opxpanel: --min-set-version: '7.0' is not a version such as 7.0.0";
    QTest::newRow("runtime directory and product")
        << QStringList{"--root", "{W}/panel", "--runtime", "{W}/rt", "--product", "KavoStu"} << 2
        << "opxpanel: --runtime brings its own update.ini; --product cannot be combined with it";
    QTest::newRow("password with a symbol") << QStringList{"--root", "{W}/panel", "--password", "abc!"} << 2
                                            << "opxpanel: --password: the panel's keyboard types only 1 to 20 digits "
                                               "and letters";
    QTest::newRow("password of 21 characters")
        << QStringList{"--root", "{W}/panel", "--password", "123456789012345678901"} << 2
        << "opxpanel: --password: the panel's keyboard types only 1 to 20 digits and letters";
    QTest::newRow("language in words") << QStringList{"--root", "{W}/panel", "--language", "en"} << 2
                                       << "opxpanel: --language: 'en' is not a language number";
    QTest::newRow("root not empty") << QStringList{"--root", "{W}/busy"} << 1
                                    << "opxpanel: {W}/busy is not empty; --force lays a new panel over it";
    QTest::newRow("root is a file") << QStringList{"--root", "{W}/busy/file"} << 1
                                    << "opxpanel: {W}/busy/file exists and is not a directory";
    QTest::newRow("the machine's root") << QStringList{"--root", "/", "--force"} << 1
                                        << "opxpanel: the machine's own root cannot be a simulated panel";
    QTest::newRow("runtime without update.ini") << QStringList{"--root", "{W}/panel", "--runtime", "{W}/busy"} << 1
                                                << "opxpanel: runtime directory {W}/busy has no update.ini";
    QTest::newRow("backup missing") << QStringList{"--root", "{W}/panel", "--backup", "{W}/none.bin"} << 1
                                    << "opxpanel: backup project {W}/none.bin cannot be read";
}

void tst_Opxpanel::refusesAndWritesNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QString, message);

    QVERIFY(testenv::writeFile(work("busy/file"), "something\n"));
    const QStringList before = testenv::entriesWithSizes(m_work->path());
    const Run run = make(arguments);
    QCOMPARE(run.code, code);
    QCOMPARE(run.err.section(QLatin1Char('\n'), 0, 0), message.replace(QLatin1String("{W}"), m_work->path()));
    QVERIFY(run.out.isEmpty());
    QCOMPARE(testenv::entriesWithSizes(m_work->path()), before);
}

void tst_Opxpanel::panelSaysWhatWasAsked()
{
    QByteArray backup;
    for (int i = 0; i < 20000; ++i)
        backup += "line " + QByteArray::number(i) + " of the panel's project\n";
    QVERIFY(testenv::writeFile(work("backup.kpj"), backup));

    const Run run = make({"--root", "{W}/panel", "--arch", "5", "--runtime-version", "7.3.0 build2",
                          "--min-set-version", "7.1.0", "--product", "KavoStu", "--password", "Abc123",
                          "--suffix", "kpj", "--language", "2", "--backup", "{W}/backup.kpj", "--print"});
    QVERIFY2(run.code == 0, qPrintable(run.err));
    const QString root = work("panel");

    QCOMPARE(Kavo_GetPlatform_Arch(QFile::encodeName(root + "/lib/libc.so.6").constData()), 5);
    QSettings update(root + "/usr/kavo_app/update.ini", QSettings::IniFormat);
    update.setIniCodec("UTF-8");
    QCOMPARE(update.value("PREPARE/version").toString(), QStringLiteral("7.3.0 build2"));
    QCOMPARE(update.value("PREPARE/minsetversion").toString(), QStringLiteral("7.1.0"));
    QCOMPARE(update.value("PREPARE/product").toString(), QStringLiteral("KavoStu"));
    QCOMPARE(md5sumCheck(root + "/usr/kavo_app", "version.7.3.0"), 0);

    const QSettings password(root + "/usr/kavo_app/config/kavo_app_conf.ini", QSettings::IniFormat);
    QCOMPARE(password.value("SECURITY/license").toByteArray(),
             QCryptographicHash::hash("Abc123", QCryptographicHash::Md5).toHex());
    const QSettings setup(root + "/usr/kavo_app/project/project_setup.ini", QSettings::IniFormat);
    QCOMPARE(setup.value("PROJECTINFO/SUFFIX_NAME").toString(), QStringLiteral("kpj"));
    const QSettings language(root + "/usr/kavo_app/project/lan_setup.ini", QSettings::IniFormat);
    QCOMPARE(language.value("current_language/type").toInt(), 2);

    const QByteArray container = testenv::readFile(root + "/usr/kavo_app/project/#BKCompreProj.bin");
    QVERIFY(container.startsWith("KAVOZIPE"));
    QCOMPARE(container.mid(8, 4), container.mid(12, 4));
    QCOMPARE(unpack(container), backup);

    const QStringList listing = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY(listing.contains(QStringLiteral("data/userfile/")));
    QVERIFY(listing.contains(QStringLiteral("lib/libc.so.6 (%1 bytes)").arg(QFileInfo(root + "/lib/libc.so.6").size())));
    QVERIFY(listing.contains(QStringLiteral("usr/kavo_app/project/#BKCompreProj.bin (%1 bytes)").arg(container.size())));
    QCOMPARE(listing.size(), testenv::entriesWithSizes(root).size());
}

void tst_Opxpanel::installsRuntimeDirectory()
{
    const QString source = work("rt");
    QVERIFY(testenv::writeFile(source + "/update.ini", "[PREPARE]\nversion=8.0.1\nminsetversion=8.0.0\n"));
    QVERIFY(testenv::writeFile(source + "/bin/kavo_app", "runtime 8\n"));
    QVERIFY(testenv::writeFile(source + "/lib/sub/libx.so", "library\n"));
    QVERIFY(testenv::writeFile(source + "/version.8.0.1", "an outdated list\n"));

    const Run run = make({"--root", "{W}/panel", "--runtime", "{W}/rt"});
    QVERIFY2(run.code == 0, qPrintable(run.err));
    const QString app = work("panel/usr/kavo_app");
    QCOMPARE(testenv::readFile(app + "/update.ini"), testenv::readFile(source + "/update.ini"));
    QCOMPARE(testenv::readFile(app + "/bin/kavo_app"), QByteArray("runtime 8\n"));
    QCOMPARE(testenv::readFile(app + "/lib/sub/libx.so"), QByteArray("library\n"));
    QVERIFY(!QFileInfo::exists(app + "/lib/libkavo.so")); // the default runtime is not installed
    const QByteArray list = testenv::readFile(app + "/version.8.0.1");
    QCOMPARE(list.count('\n'), 2);
    QVERIFY(list.contains("  bin/kavo_app\n") && list.contains("  lib/sub/libx.so\n"));
    QCOMPARE(md5sumCheck(app, "version.8.0.1"), 0);
}

void tst_Opxpanel::forceMakesThePanelAnew()
{
    QCOMPARE(make({"--root", "{W}/panel"}).code, 0);
    QVERIFY(testenv::writeFile(work("panel/usr/kavo_app/project/old.bin"), "old project\n"));
    QVERIFY(testenv::writeFile(work("panel/data/recipe/extra.dat"), "old recipe\n"));
    QVERIFY(testenv::writeFile(work("panel/notes.txt"), "the integrator's notes\n"));

    QCOMPARE(make({"--root", "{W}/panel"}).code, 1);
    const Run run = make({"--root", "{W}/panel", "--force"});
    QVERIFY2(run.code == 0, qPrintable(run.err));
    QVERIFY(!QFileInfo::exists(work("panel/usr/kavo_app/project/old.bin")));
    QVERIFY(!QFileInfo::exists(work("panel/data/recipe/extra.dat")));
    QVERIFY(QFileInfo(work("panel/data/recipe/recipe.dat")).isFile());
    QCOMPARE(testenv::readFile(work("panel/notes.txt")), QByteArray("the integrator's notes\n"));
}

void tst_Opxpanel::runningStandIn()
{
    // The real tool, as built: the stand-in must outlive it.
    QProcess tool;
    tool.start(qEnvironmentVariable("OPXPANEL"), {QStringLiteral("--root"), work("panel"), QStringLiteral("--running")});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 0);
    const QByteArray printed = tool.readAllStandardOutput();
    bool ok = false;
    const pid_t pid = pid_t(printed.trimmed().toLongLong(&ok));
    QVERIFY2(ok && pid > 1, printed.constData());
    const auto stop = qScopeGuard([pid] { ::kill(pid, SIGTERM); });
    QCOMPARE(testenv::readFile(work("panel/var/run/kavo_app.pid")), printed);
    QCOMPARE(::kill(pid, 0), 0);
    const QList<QByteArray> command = testenv::readFile(QStringLiteral("/proc/%1/cmdline").arg(pid)).split('\0');
    QCOMPARE(command.size(), 3);
    QCOMPARE(QFileInfo(QFile::decodeName(command.at(0))).fileName(), QStringLiteral("sleep"));
    QCOMPARE(command.at(1), QByteArray("infinity"));
}

QTEST_GUILESS_MAIN(tst_Opxpanel)
#include "tst_opxpanel.moc"
