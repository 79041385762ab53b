// The runtime updater's logic on simulated panels and sticks: the hand-over
// arguments, which runtime copy it takes for the panel, what it installs, and
// that a faulty copy leaves the panel as it was.
#include "download/projectdownload.h"
#include "helper/runtimeupdater.h"
#include "testenv.h"
#include "tools/kit/armelf.h"
#include "tools/kit/panel.h"
#include "tools/kit/runtime.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kProject = QStringLiteral("proj");
const QString kProduct = QStringLiteral("KavoPro");

kit::RuntimeSpec installedRuntime()
{
    kit::RuntimeSpec spec;
    spec.version = QStringLiteral("7.1.0");
    spec.files = {
        {QStringLiteral("bin/kavo_app"), QByteArray("runtime 7.1.0\n")},
        {QStringLiteral("lib/libkavo.so"), QByteArray("library 7.1.0\n")},
        {QStringLiteral("config/logger.ini"), QByteArray("[log]\nlevel=1\n")},
    };
    return spec;
}

// The package's copy: every file changed, one new, a version with a build word.
kit::RuntimeSpec packageRuntime(const QString& version = QStringLiteral("7.2.1 build3"))
{
    kit::RuntimeSpec spec;
    spec.version = version;
    spec.files = {
        {QStringLiteral("bin/kavo_app"), QByteArray("runtime ") + version.toUtf8() + '\n'},
        {QStringLiteral("lib/libkavo.so"), QByteArray("library ") + version.toUtf8() + '\n'},
        {QStringLiteral("config/logger.ini"), QByteArray("[log]\nlevel=2\n")},
        {QStringLiteral("share/new.dat"), QByteArray("a file the old runtime did not have\n")},
    };
    return spec;
}

// Every file under `dir` by relative path.
QMap<QString, QByteArray> snapshot(const QString& dir)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(QDir(dir).relativeFilePath(path), testenv::readFile(path));
    }
    return files;
}

// The package's own installed-runtime check, as the resumed download runs it.
class IntegrityProbe : public ProjectDownload
{
public:
    IntegrityProbe()
        : ProjectDownload(QString(), QStringLiteral("0000"))
    {
    }

protected:
    void setTextEditContent(const QString&) override {}
    void resetUpgrageUI(const QString&) override {}
    void setBntEnable(bool, bool, bool) override {}
    bool askYesNo(QuestionIcon, const QString&, const QString&) override { return false; }
};

// A simulated panel with the 7.1.0 runtime and a stick beside it.
class Scene
{
public:
    explicit Scene(int cpuArch = 10)
    {
        kit::PanelSpec spec;
        spec.cpuArch = cpuArch;
        spec.runtime = installedRuntime();
        m_ready = m_stick.isValid() && m_panel.isValid() && kit::makePanel(m_panel.root(), spec);
    }

    bool isReady() const { return m_ready; }
    QString panel(const QString& absolute) const { return m_panel.path(absolute); }
    QString runtime() const { return panel(QStringLiteral("/usr/kavo_app")); }
    QString stickRoot() const { return m_stick.path(); }
    // The runtime copy of the project for `layout` ("v7/", "v5/" or "").
    QString copyDir(const QString& layout = QStringLiteral("v7/")) const
    {
        return stickRoot() + QLatin1Char('/') + kProject + QLatin1Char('/') + kProduct + QLatin1Char('/') + layout
               + QStringLiteral("kavo_app");
    }
    runtimeupdater::Arguments arguments() const
    {
        return runtimeupdater::Arguments{stickRoot() + QLatin1Char('/'), kProject, kProduct, QStringLiteral("0001")};
    }

private:
    testenv::TempPanel m_panel;
    QTemporaryDir m_stick;
    bool m_ready = false;
};

QString installedVersion(const QString& runtimeDir)
{
    QSettings settings(runtimeDir + QStringLiteral("/update.ini"), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    return settings.value(QStringLiteral("/PREPARE/version")).toString();
}

QByteArray md5Line(const QByteArray& content, const QString& name)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex() + "  " + name.toUtf8() + '\n';
}

bool appendTo(const QString& path, const QByteArray& data)
{
    QFile file(path);
    return file.open(QIODevice::Append) && file.write(data) == data.size();
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

void tst_updater::parsesHandOver_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("root");
    QTest::addColumn<QString>("project");
    QTest::addColumn<QString>("product");
    QTest::addColumn<QString>("lanId");
    QTest::addColumn<bool>("complete");

    QTest::newRow("as the download hands over")
        << QStringList{"-project /mnt/usb/ proj", "-product KavoPro", "-lanID 0001"} << "/mnt/usb/" << "proj"
        << "KavoPro" << "0001" << true;
    QTest::newRow("root with spaces")
        << QStringList{"-project /media/usb stick/ my proj", "-product KavoPro", "-lanID 0001"}
        << "/media/usb stick/" << "my proj" << "KavoPro" << "0001" << true;
    QTest::newRow("order and extra arguments do not matter")
        << QStringList{"-qws", "-lanID 0003", "-product KavoStu", "-project / p"} << "/" << "p" << "KavoStu"
        << "0003" << true;
    QTest::newRow("option names inside the root")
        << QStringList{"-project /mnt/-lanID-product/ proj", "-product KavoPro", "-lanID 0001"}
        << "/mnt/-lanID-product/" << "proj" << "KavoPro" << "0001" << true;
    QTest::newRow("value as the next argument")
        << QStringList{"-project", "/mnt/usb/ proj", "-product", "KavoPro", "-lanID", "0001"} << "/mnt/usb/"
        << "proj" << "KavoPro" << "0001" << true;
    QTest::newRow("product missing") << QStringList{"-project /mnt/usb/ proj", "-lanID 0001"} << "/mnt/usb/"
                                     << "proj" << "" << "0001" << false;
    QTest::newRow("language without value")
        << QStringList{"-project /mnt/usb/ proj", "-product KavoPro", "-lanID"} << "/mnt/usb/" << "proj"
        << "KavoPro" << "" << false;
    QTest::newRow("project without root") << QStringList{"-project proj", "-product KavoPro", "-lanID 0001"} << ""
                                          << "proj" << "KavoPro" << "0001" << false;
    QTest::newRow("no project") << QStringList{"-product KavoPro", "-lanID 0001"} << "" << "" << "KavoPro"
                                << "0001" << false;
}

void tst_updater::parsesHandOver()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, root);
    QFETCH(QString, project);
    QFETCH(QString, product);
    QFETCH(QString, lanId);
    QFETCH(bool, complete);
    const runtimeupdater::Arguments parsed = runtimeupdater::parseArguments(arguments);
    QCOMPARE(parsed.rootSlash, root);
    QCOMPARE(parsed.project, project);
    QCOMPARE(parsed.product, product);
    QCOMPARE(parsed.lanId, lanId);
    QCOMPARE(parsed.complete(), complete);
}

void tst_updater::replacesInstalledRuntime()
{
    Scene scene;
    QVERIFY(scene.isReady());
    const kit::RuntimeSpec spec = packageRuntime();
    QVERIFY(kit::writeRuntime(scene.copyDir(), spec, true));
    const QMap<QString, QByteArray> project = snapshot(scene.panel(QStringLiteral("/usr/kavo_app/project")));
    const QMap<QString, QByteArray> fonts = snapshot(scene.panel(QStringLiteral("/usr/kavo_app/font")));
    QVERIFY(!project.isEmpty());

    QString error;
    QVERIFY2(runtimeupdater::updateRuntime(scene.arguments(), error), qPrintable(error));

    const QMap<QString, QByteArray> installed = snapshot(scene.runtime());
    for (auto it = spec.files.cbegin(); it != spec.files.cend(); ++it)
        QCOMPARE(installed.value(it.key()), it.value());
    QCOMPARE(installed.value(QStringLiteral("update.ini")), kit::updateIniText(spec));
    QCOMPARE(installedVersion(scene.runtime()), QStringLiteral("7.2.1 build3"));
    QCOMPARE(installed.value(QStringLiteral("version.7.2.1")), kit::md5List(spec.files));
    // Nothing else is the updater's: the project, the fonts, the old list stay.
    QCOMPARE(snapshot(scene.panel(QStringLiteral("/usr/kavo_app/project"))), project);
    QCOMPARE(snapshot(scene.panel(QStringLiteral("/usr/kavo_app/font"))), fonts);
    QCOMPARE(installed.value(QStringLiteral("version.7.1.0")), kit::md5List(installedRuntime().files));
    for (const QString& name : installed.keys())
        QVERIFY2(!name.endsWith(QLatin1String(".opxnew")), qPrintable(name));

    // The resumed download checks the installed runtime with md5sum: it must pass.
    IntegrityProbe probe;
    QVERIFY(probe.checkAppIntegrity(INSTALLED_APP, qPrintable(scene.runtime())));
    QCOMPARE(probe.m_panelProduct, kProduct);
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
    QVERIFY(scene.isReady());
    const kit::RuntimeSpec spec = packageRuntime();
    const QString copy = scene.copyDir();
    QVERIFY(kit::writeRuntime(copy, spec, true));
    const QString list = copy + QStringLiteral("/version.7.2.1");

    // Names that must be refused point at real files with the right MD5, so
    // that only the name rule can refuse them.
    const QByteArray outside("outside the runtime copy\n");
    if (fault == QLatin1String("differs")) {
        QVERIFY(kit::writeFile(copy + QStringLiteral("/share/new.dat"), "damaged on the stick\n"));
    } else if (fault == QLatin1String("missing")) {
        QVERIFY(QFile::remove(copy + QStringLiteral("/share/new.dat")));
    } else if (fault == QLatin1String("parent")) {
        QVERIFY(kit::writeFile(copy + QStringLiteral("/../outside.dat"), outside));
        QVERIFY(appendTo(list, md5Line(outside, QStringLiteral("../outside.dat"))));
    } else if (fault == QLatin1String("absolute")) {
        const QString path = scene.stickRoot() + QStringLiteral("/outside.dat");
        QVERIFY(kit::writeFile(path, outside));
        QVERIFY(appendTo(list, md5Line(outside, path)));
    } else if (fault == QLatin1String("project")) {
        QVERIFY(kit::writeFile(copy + QStringLiteral("/project/project.bin"), outside));
        QVERIFY(appendTo(list, md5Line(outside, QStringLiteral("project/project.bin"))));
    } else if (fault == QLatin1String("nolist")) {
        QVERIFY(QFile::remove(list));
    } else if (fault == QLatin1String("malformed")) {
        QVERIFY(appendTo(list, "0123456789abcdef not a checksum line\n"));
    } else if (fault == QLatin1String("plain")) {
        QVERIFY(kit::writeFile(copy + QStringLiteral("/update.ini"), kit::updateIniText(spec)));
    } else if (fault == QLatin1String("nocopy")) {
        QVERIFY(QDir(copy).removeRecursively());
    }
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
    QTest::addColumn<QString>("taken");

    const QStringList all{"v7/", "v5/", ""};
    QTest::newRow("ARMv7 panel") << 10 << "libc.so.6" << all << "v7/";
    QTest::newRow("ARMv5 panel") << 5 << "libc.so.6" << all << "v5/";
    QTest::newRow("other panel") << 7 << "libc.so.6" << all << "";
    QTest::newRow("C library under another name") << 5 << "libc-2.31.so" << all << "v5/";
    QTest::newRow("ARMv7 panel, only the plain layout") << 10 << "libc.so.6" << QStringList{""} << "";
    QTest::newRow("other panel, only v5") << 7 << "libc.so.6" << QStringList{"v5/"} << "v5/";
    QTest::newRow("ARMv5 panel, v7 and plain") << 5 << "libc.so.6" << QStringList{"v7/", ""} << "v7/";
}

void tst_updater::takesCopyOfPanelVariant()
{
    QFETCH(int, cpuArch);
    QFETCH(QString, libc);
    QFETCH(QStringList, layouts);
    QFETCH(QString, taken);
    Scene scene(cpuArch);
    QVERIFY(scene.isReady());
    if (libc != QLatin1String("libc.so.6")) {
        QVERIFY(QFile::remove(scene.panel(QStringLiteral("/lib/libc.so.6"))));
        QVERIFY(kit::writeArmElf(scene.panel(QStringLiteral("/lib/")) + libc, cpuArch));
    }
    // Each layout carries its own version, which tells which one was installed.
    const QMap<QString, QString> versions{{"v7/", "7.2.7"}, {"v5/", "7.2.5"}, {"", "7.2.0"}};
    for (const QString& layout : layouts)
        QVERIFY(kit::writeRuntime(scene.copyDir(layout), packageRuntime(versions.value(layout)), true));

    QCOMPARE(runtimeupdater::variantName(runtimeupdater::panelPlatformCode()),
             cpuArch == 10 ? QStringLiteral("v7/") : cpuArch == 5 ? QStringLiteral("v5/") : QString());
    QString error;
    QVERIFY2(runtimeupdater::updateRuntime(scene.arguments(), error), qPrintable(error));
    QCOMPARE(installedVersion(scene.runtime()), versions.value(taken));
}

QTEST_GUILESS_MAIN(tst_updater)
#include "tst_updater.moc"
