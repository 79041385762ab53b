// The runtime updater's logic on simulated panels and sticks: the hand-over
// arguments, which runtime copy it takes for the panel, what it installs, and
// that a faulty copy leaves the panel as it was.
#include "helper/runtimeupdater.h"
#include "recordingdownload.h"
#include "testenv.h"
#include "tools/kit/armelf.h"
#include "tools/kit/panel.h"
#include "tools/kit/runtime.h"

#include <QtTest>

namespace {

kit::RuntimeSpec installedRuntime()
{
    kit::RuntimeSpec spec;
    spec.version = QStringLiteral("7.1.0");
    spec.files = {{"bin/kavo_app", "runtime 7.1.0\n"}, {"lib/libkavo.so", "library 7.1.0\n"},
                  {"config/logger.ini", "[log]\nlevel=1\n"}};
    return spec;
}

// The package's copy: every file changed, one new, a version with a build word.
kit::RuntimeSpec packageRuntime(const QString& version = QStringLiteral("7.2.1 build3"))
{
    kit::RuntimeSpec spec;
    spec.version = version;
    spec.files = {{"bin/kavo_app", "runtime " + version.toUtf8() + '\n'},
                  {"lib/libkavo.so", "library " + version.toUtf8() + '\n'},
                  {"config/logger.ini", "[log]\nlevel=2\n"},
                  {"share/new.dat", "a file the old runtime did not have\n"}};
    return spec;
}

// Every file under `dir` by relative path.
QMap<QString, QByteArray> snapshot(const QString& dir)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(path.mid(dir.size() + 1), testenv::readFile(path));
    }
    return files;
}

// A simulated panel with the 7.1.0 runtime and a stick beside it.
struct Scene
{
    explicit Scene(int cpuArch = 10)
    {
        kit::PanelSpec spec;
        spec.cpuArch = cpuArch;
        spec.runtime = installedRuntime();
        ready = stick.isValid() && panel.isValid() && kit::makePanel(panel.root(), spec);
    }
    QString runtime() const { return panel.path(QStringLiteral("/usr/kavo_app")); }
    QString version() const { return kit::readRuntimeDescription(runtime() + "/update.ini").version; }
    // The runtime copy of the project for `layout` ("v7/", "v5/" or "").
    QString copyDir(const QString& layout = QStringLiteral("v7/")) const
    {
        return stick.path() + "/proj/KavoPro/" + layout + "kavo_app";
    }
    runtimeupdater::Arguments arguments() const { return {stick.path() + '/', "proj", "KavoPro", "0001"}; }

    testenv::TempPanel panel;
    QTemporaryDir stick;
    bool ready = false;
};

QByteArray md5Line(const QByteArray& content, const QString& name)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex() + "  " + name.toUtf8() + '\n';
}

bool appendTo(const QString& path, const QByteArray& line)
{
    QFile file(path);
    return file.open(QIODevice::Append) && file.write(line) == line.size();
}

} // namespace

class tst_updater : public QObject
{
    Q_OBJECT

private slots:
    void parsesHandOver_data();
    void parsesHandOver();
    void replacesInstalledRuntime();
    void refusesFaultyCopy_data();
    void refusesFaultyCopy();
    void takesCopyOfPanelVariant_data();
    void takesCopyOfPanelVariant();
};

// Missing products and projects, and a root with spaces, are also run through
// the program in tst_helper.
void tst_updater::parsesHandOver_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("parsed"); // root, project, product, language
    QTest::addColumn<bool>("complete");

    QTest::newRow("as the download hands over")
        << QStringList{"-project /mnt/usb/ proj", "-product KavoPro", "-lanID 0001"}
        << QStringList{"/mnt/usb/", "proj", "KavoPro", "0001"} << true;
    QTest::newRow("order and extra arguments do not matter")
        << QStringList{"-qws", "-lanID 0003", "-product KavoStu", "-project / p"}
        << QStringList{"/", "p", "KavoStu", "0003"} << true;
    QTest::newRow("option names inside the root")
        << QStringList{"-project /mnt/-lanID-product/ proj", "-product KavoPro", "-lanID 0001"}
        << QStringList{"/mnt/-lanID-product/", "proj", "KavoPro", "0001"} << true;
    QTest::newRow("value as the next argument")
        << QStringList{"-project", "/mnt/usb/ proj", "-product", "KavoPro", "-lanID", "0001"}
        << QStringList{"/mnt/usb/", "proj", "KavoPro", "0001"} << true;
    QTest::newRow("language without value") << QStringList{"-project /mnt/usb/ proj", "-product KavoPro", "-lanID"}
                                            << QStringList{"/mnt/usb/", "proj", "KavoPro", ""} << false;
    QTest::newRow("project without root") << QStringList{"-project proj", "-product KavoPro", "-lanID 0001"}
                                          << QStringList{"", "proj", "KavoPro", "0001"} << false;
}

void tst_updater::parsesHandOver()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, parsed);
    QFETCH(bool, complete);
    const runtimeupdater::Arguments result = runtimeupdater::parseArguments(arguments);
    QCOMPARE((QStringList{result.rootSlash, result.project, result.product, result.lanId}), parsed);
    QCOMPARE(result.complete(), complete);
}

void tst_updater::replacesInstalledRuntime()
{
    Scene scene;
    QVERIFY(scene.ready);
    const kit::RuntimeSpec spec = packageRuntime();
    QVERIFY(kit::writeRuntime(scene.copyDir(), spec, true));
    const QMap<QString, QByteArray> before = snapshot(scene.runtime());
    QVERIFY(before.contains("project/project.bin"));

    QString error;
    QVERIFY2(runtimeupdater::updateRuntime(scene.arguments(), error), qPrintable(error));

    // Exactly the copy's files, its description and its list are new; the
    // project, the fonts and the old list stay; nothing is left half-written.
    QMap<QString, QByteArray> expected = before;
    for (auto it = spec.files.cbegin(); it != spec.files.cend(); ++it)
        expected.insert(it.key(), it.value());
    expected.insert("update.ini", kit::updateIniText(spec));
    expected.insert("version.7.2.1", kit::md5List(spec.files));
    QCOMPARE(snapshot(scene.runtime()), expected);
    QCOMPARE(scene.version(), QStringLiteral("7.2.1 build3"));
    QCOMPARE(expected.value("version.7.1.0"), kit::md5List(installedRuntime().files));

    // The resumed download checks the installed runtime with md5sum: it must pass.
    RecordingDownload probe;
    QVERIFY(probe.checkAppIntegrity(INSTALLED_APP, qPrintable(scene.runtime())));
    QCOMPARE(probe.m_panelProduct, QStringLiteral("KavoPro"));
}

void tst_updater::refusesFaultyCopy_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("error");

    // The faulty file sorts last in the list: a check made while copying would
    // already have replaced the others.
    QTest::newRow("file differs") << "differs" << "share/new.dat differs from its MD5 list";
    QTest::newRow("file missing") << "missing" << "the runtime copy lacks share/new.dat";
    QTest::newRow("name leaves the copy") << "parent" << "../outside.dat leaving the runtime directory";
    QTest::newRow("absolute name") << "absolute" << "names the absolute name /";
    QTest::newRow("name in the project") << "project" << "project/project.bin inside the panel's project directory";
    QTest::newRow("md5 list missing") << "nolist" << "cannot read the MD5 list";
    QTest::newRow("malformed list line") << "malformed" << "line 5 of";
    QTest::newRow("description not scrambled") << "plain" << "is not a scrambled runtime description";
    QTest::newRow("no copy for the product") << "nocopy" << "no runtime copy of KavoPro in";
}

void tst_updater::refusesFaultyCopy()
{
    QFETCH(QString, fault);
    QFETCH(QString, error);
    Scene scene;
    QVERIFY(scene.ready);
    const kit::RuntimeSpec spec = packageRuntime();
    const QString copy = scene.copyDir();
    QVERIFY(kit::writeRuntime(copy, spec, true));
    const QString list = copy + "/version.7.2.1";

    // Names that must be refused point at real files with the right MD5, so
    // that only the name rule can refuse them.
    const QByteArray outside("outside the runtime copy\n");
    const QString absolute = scene.stick.path() + "/outside.dat";
    if (fault == "differs")
        QVERIFY(kit::writeFile(copy + "/share/new.dat", "damaged on the stick\n"));
    else if (fault == "missing")
        QVERIFY(QFile::remove(copy + "/share/new.dat"));
    else if (fault == "parent")
        QVERIFY(kit::writeFile(copy + "/../outside.dat", outside) && appendTo(list, md5Line(outside, "../outside.dat")));
    else if (fault == "absolute")
        QVERIFY(kit::writeFile(absolute, outside) && appendTo(list, md5Line(outside, absolute)));
    else if (fault == "project")
        QVERIFY(kit::writeFile(copy + "/project/project.bin", outside)
                && appendTo(list, md5Line(outside, "project/project.bin")));
    else if (fault == "nolist")
        QVERIFY(QFile::remove(list));
    else if (fault == "malformed")
        QVERIFY(appendTo(list, "0123456789abcdef not a checksum line\n"));
    else if (fault == "plain")
        QVERIFY(kit::writeFile(copy + "/update.ini", kit::updateIniText(spec)));
    else if (fault == "nocopy")
        QVERIFY(QDir(copy).removeRecursively());
    const QMap<QString, QByteArray> before = snapshot(scene.runtime());

    QString message;
    QVERIFY(!runtimeupdater::updateRuntime(scene.arguments(), message));
    QVERIFY2(message.contains(error), qPrintable(message));
    QCOMPARE(snapshot(scene.runtime()), before);
}

void tst_updater::takesCopyOfPanelVariant_data()
{
    QTest::addColumn<int>("cpuArch");
    QTest::addColumn<QString>("libc");
    QTest::addColumn<QStringList>("layouts");
    QTest::addColumn<QString>("taken"); // "none": the update fails, the runtime stays

    const QStringList all{"v7/", "v5/", ""};
    QTest::newRow("ARMv7 panel") << 10 << "libc.so.6" << all << "v7/";
    QTest::newRow("ARMv5 panel") << 5 << "libc.so.6" << all << "v5/";
    QTest::newRow("other panel") << 7 << "libc.so.6" << all << "";
    QTest::newRow("C library under another name") << 5 << "libc-2.31.so" << all << "v5/";
    QTest::newRow("ARMv7 panel, only the plain layout") << 10 << "libc.so.6" << QStringList{""} << "none";
    QTest::newRow("other panel, only v5") << 7 << "libc.so.6" << QStringList{"v5/"} << "none";
    QTest::newRow("ARMv5 panel, v7 and plain") << 5 << "libc.so.6" << QStringList{"v7/", ""} << "none";
    QTest::newRow("no C library to tell the platform") << 10 << "libc.txt" << all << "none";
}

void tst_updater::takesCopyOfPanelVariant()
{
    QFETCH(int, cpuArch);
    QFETCH(QString, libc);
    QFETCH(QStringList, layouts);
    QFETCH(QString, taken);
    Scene scene(cpuArch);
    QVERIFY(scene.ready);
    if (libc != "libc.so.6") {
        QVERIFY(QFile::remove(scene.panel.path("/lib/libc.so.6")));
        QVERIFY(kit::writeArmElf(scene.panel.path("/lib/") + libc, cpuArch));
    }
    // Each layout carries its own version, which tells which one was installed.
    const QMap<QString, QString> versions{{"v7/", "7.2.7"}, {"v5/", "7.2.5"}, {"", "7.2.0"}};
    for (const QString& layout : layouts)
        QVERIFY(kit::writeRuntime(scene.copyDir(layout), packageRuntime(versions.value(layout)), true));

    QCOMPARE(runtimeupdater::panelPlatformCode(), libc.contains(".so") ? cpuArch : -1);
    QString error;
    QVERIFY2(runtimeupdater::updateRuntime(scene.arguments(), error) == (taken != "none"), qPrintable(error));
    QCOMPARE(scene.version(), versions.value(taken, installedRuntime().version));
}

QTEST_GUILESS_MAIN(tst_updater)
#include "tst_updater.moc"
