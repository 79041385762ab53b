// opxpanel, the maker of simulated panels: what it refuses (and that it then
// writes nothing), and that the panel it makes says what was asked, read the
// way the package reads it.
#include "testenv.h"

#include "platform/kavo_api.h"
#include "tools/opxpanel/paneltool.h"
#include "upload/projectupload.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QScopeGuard>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

int md5sumCheck(const QString& dir, const QString& list)
{
    QProcess md5sum;
    md5sum.setWorkingDirectory(dir);
    md5sum.start("md5sum", {"-c", list});
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
    // Runs the tool in process; the exit code, with stdout and stderr.
    int make(QStringList arguments, QString* out = nullptr, QString* err = nullptr)
    {
        for (QString& argument : arguments)
            argument.replace("{W}", m_work->path());
        QString outText;
        QString errText;
        QTextStream outStream(out != nullptr ? out : &outText);
        QTextStream errStream(err != nullptr ? err : &errText);
        return opxpanel::run(QStringList("opxpanel") + arguments, outStream, errStream);
    }

    std::unique_ptr<QTemporaryDir> m_work;
};

void tst_Opxpanel::init()
{
    m_work = std::make_unique<QTemporaryDir>();
    QVERIFY(m_work->isValid());
}

void tst_Opxpanel::refusesAndWritesNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message"); // the first line on stderr, {W} the work directory

    auto row = [](const char* name, const QStringList& arguments, int code, const QString& message) {
        QTest::newRow(name) << arguments << code << "opxpanel: " + message;
    };
    const QStringList panel = {"--root", "{W}/panel"};
    row("no --root", {"--arch", "5"}, 2, "no panel root given (--root DIR)");
    row("architecture in words", panel + QStringList{"--arch", "armv7"}, 2,
        "--arch: 'armv7' is not an architecture number such as 10 or 5");
    row("runtime version without a version", panel + QStringList{"--runtime-version", "build 7.2.1"}, 2,
        "--runtime-version: 'build 7.2.1' does not begin with a version such as 7.2.1");
    row("runtime directory and product", panel + QStringList{"--runtime", "{W}/rt", "--product", "KavoStu"}, 2,
        "--runtime brings its own update.ini; --product cannot be combined with it");
    row("password of 21 characters", panel + QStringList{"--password", "123456789012345678901"}, 2,
        "--password: the panel's keyboard types only 1 to 20 digits and letters");
    row("root not empty", {"--root", "{W}/busy"}, 1, "{W}/busy is not empty; --force lays a new panel over it");
    row("the machine's root", {"--root", "/", "--force"}, 1,
        "the machine's own root cannot be a simulated panel");
    row("runtime without update.ini", panel + QStringList{"--runtime", "{W}/busy"}, 1,
        "runtime directory {W}/busy has no update.ini");
    row("backup missing", panel + QStringList{"--backup", "{W}/none.bin"}, 1,
        "backup project {W}/none.bin cannot be read");
}

void tst_Opxpanel::refusesAndWritesNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QString, message);

    QVERIFY(testenv::writeFile(work("busy/file"), "something\n"));
    const QStringList before = testenv::entriesWithSizes(m_work->path());
    QString out;
    QString err;
    QCOMPARE(make(arguments, &out, &err), code);
    QCOMPARE(err.section('\n', 0, 0), message.replace("{W}", m_work->path()));
    QVERIFY(out.isEmpty());
    QCOMPARE(testenv::entriesWithSizes(m_work->path()), before);
}

void tst_Opxpanel::panelSaysWhatWasAsked()
{
    QByteArray backup;
    for (int i = 0; i < 20000; ++i)
        backup += "line " + QByteArray::number(i) + " of the panel's project\n";
    QVERIFY(testenv::writeFile(work("backup.kpj"), backup));

    QString out;
    QString err;
    QCOMPARE(make({"--root", "{W}/panel", "--arch", "5", "--runtime-version", "7.3.0 build2", "--min-set-version",
                   "7.1.0", "--product", "KavoStu", "--password", "Abc123", "--suffix", "kpj", "--language", "2",
                   "--backup", "{W}/backup.kpj", "--print"},
                  &out, &err),
             0);
    QVERIFY2(err.isEmpty(), qPrintable(err));
    const QString app = work("panel/usr/kavo_app");

    // The C library stand-in carries the chosen Tag_CPU_arch.
    QCOMPARE(Kavo_GetPlatform_Arch(QFile::encodeName(work("panel/lib/libc.so.6")).constData()), 5);
    QSettings update(app + "/update.ini", QSettings::IniFormat);
    update.setIniCodec("UTF-8");
    QCOMPARE(update.value("PREPARE/version").toString(), QString("7.3.0 build2"));
    QCOMPARE(update.value("PREPARE/minsetversion").toString(), QString("7.1.0"));
    QCOMPARE(update.value("PREPARE/product").toString(), QString("KavoStu"));
    QCOMPARE(md5sumCheck(app, "version.7.3.0"), 0);

    const QSettings password(app + "/config/kavo_app_conf.ini", QSettings::IniFormat);
    QCOMPARE(password.value("SECURITY/license").toByteArray(),
             QCryptographicHash::hash("Abc123", QCryptographicHash::Md5).toHex());
    const QSettings language(app + "/project/lan_setup.ini", QSettings::IniFormat);
    QCOMPARE(language.value("current_language/type").toInt(), 2);

    // The packed project, as the package's upload unpacks it under the name
    // that project_setup.ini gives.
    QCOMPARE(projectupload::targetFileName("KavoBackupProject", app + "/project"), QString("KavoBackupProject.kpj"));
    QVERIFY(projectupload::unpackProject(app + "/project/#BKCompreProj.bin", work("unpacked"), {}));
    QCOMPARE(testenv::readFile(work("unpacked")), backup);

    // --print lists what was made.
    const QStringList listing = out.split('\n', Qt::SkipEmptyParts);
    QVERIFY(listing.contains("data/userfile/"));
    QVERIFY(listing.contains(QString("lib/libc.so.6 (%1 bytes)").arg(QFileInfo(work("panel/lib/libc.so.6")).size())));
    QCOMPARE(listing.size(), testenv::entriesWithSizes(work("panel")).size());
}

void tst_Opxpanel::installsRuntimeDirectory()
{
    const QString source = work("rt");
    QVERIFY(testenv::writeFile(source + "/update.ini", "[PREPARE]\nversion=8.0.1\nminsetversion=8.0.0\n"));
    QVERIFY(testenv::writeFile(source + "/bin/kavo_app", "runtime 8\n"));
    QVERIFY(testenv::writeFile(source + "/lib/sub/libx.so", "library\n"));
    QVERIFY(testenv::writeFile(source + "/version.8.0.1", "an outdated list\n"));

    QCOMPARE(make({"--root", "{W}/panel", "--runtime", "{W}/rt"}), 0);
    const QString app = work("panel/usr/kavo_app");
    QCOMPARE(testenv::readFile(app + "/update.ini"), testenv::readFile(source + "/update.ini"));
    QCOMPARE(testenv::readFile(app + "/bin/kavo_app"), QByteArray("runtime 8\n"));
    QCOMPARE(testenv::readFile(app + "/lib/sub/libx.so"), QByteArray("library\n"));
    QVERIFY(!QFileInfo::exists(app + "/lib/libkavo.so")); // the default runtime is not installed
    // A fresh list of the runtime's files, not the outdated one.
    QCOMPARE(testenv::readFile(app + "/version.8.0.1").count('\n'), 2);
    QCOMPARE(md5sumCheck(app, "version.8.0.1"), 0);
}

void tst_Opxpanel::forceMakesThePanelAnew()
{
    QCOMPARE(make({"--root", "{W}/panel"}), 0);
    QVERIFY(testenv::writeFile(work("panel/usr/kavo_app/project/old.bin"), "old project\n"));
    QVERIFY(testenv::writeFile(work("panel/data/recipe/extra.dat"), "old recipe\n"));
    QVERIFY(testenv::writeFile(work("panel/notes.txt"), "the integrator's notes\n"));

    QCOMPARE(make({"--root", "{W}/panel", "--force"}), 0);
    QVERIFY(!QFileInfo::exists(work("panel/usr/kavo_app/project/old.bin")));
    QVERIFY(!QFileInfo::exists(work("panel/data/recipe/extra.dat")));
    QVERIFY(QFileInfo(work("panel/data/recipe/recipe.dat")).isFile());
    QCOMPARE(testenv::readFile(work("panel/notes.txt")), QByteArray("the integrator's notes\n"));
}

void tst_Opxpanel::runningStandIn()
{
    // The real tool, as built: the stand-in runtime must outlive it.
    QProcess tool;
    tool.start(qEnvironmentVariable("OPXPANEL"), {"--root", work("panel"), "--running"});
    QVERIFY(tool.waitForFinished());
    QCOMPARE(tool.exitCode(), 0);
    const QByteArray printed = tool.readAllStandardOutput();
    bool ok = false;
    const pid_t pid = pid_t(printed.trimmed().toLongLong(&ok));
    QVERIFY2(ok && pid > 1, printed.constData());
    const auto stop = qScopeGuard([pid] { ::kill(pid, SIGTERM); });
    QCOMPARE(testenv::readFile(work("panel/var/run/kavo_app.pid")), printed);
    QCOMPARE(::kill(pid, 0), 0);
    const QList<QByteArray> command = testenv::readFile(QString("/proc/%1/cmdline").arg(pid)).split('\0');
    QCOMPARE(command.size(), 3);
    QCOMPARE(QFileInfo(QFile::decodeName(command.at(0))).fileName(), QString("sleep"));
    QCOMPARE(command.at(1), QByteArray("infinity"));
}

QTEST_GUILESS_MAIN(tst_Opxpanel)
#include "tst_opxpanel.moc"
