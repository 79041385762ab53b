// Relocation of panel-side paths under KAVO_PANEL_ROOT: absolute panel paths
// move under the root; relative (stick-side) paths and /proc stay as they are.
#include "platform/platform.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// Sets KAVO_PANEL_ROOT (a null value unsets it) for one scope.
struct RootVariable
{
    explicit RootVariable(const QByteArray& value)
    {
        value.isNull() ? qunsetenv("KAVO_PANEL_ROOT") : qputenv("KAVO_PANEL_ROOT", value);
    }
    ~RootVariable() { had ? qputenv("KAVO_PANEL_ROOT", previous) : qunsetenv("KAVO_PANEL_ROOT"); }
    const bool had = qEnvironmentVariableIsSet("KAVO_PANEL_ROOT");
    const QByteArray previous = qgetenv("KAVO_PANEL_ROOT");
};

} // namespace

class tst_PanelPath : public QObject
{
    Q_OBJECT

private slots:
    void relocation_data();
    void relocation();
    void confinement_data();
    void confinement();
    void relativeRootKeepsItsPlace();
    void prepareCreatesWrittenDirectories();
};

void tst_PanelPath::relocation_data()
{
    QTest::addColumn<QByteArray>("root"); // null: unset
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("expectedRoot");

    const QString r = QStringLiteral("/tmp/panel-root");
    const QByteArray rb = r.toUtf8();
    const QString ini = QStringLiteral("/usr/kavo_app/update.ini");
    QTest::newRow("unset root") << QByteArray() << ini << ini << QString();
    QTest::newRow("empty root") << QByteArray("") << ini << ini << QString();
    QTest::newRow("root is /") << QByteArray("/") << "/lib/libc.so.6" << "/lib/libc.so.6" << QString();
    QTest::newRow("absolute") << rb << ini << r + ini << r;
    QTest::newRow("root with trailing /") << rb + "/" << "/lib" << r + "/lib" << r;
    QTest::newRow("trailing / kept") << rb << "/usr/kavo_app/project/" << r + "/usr/kavo_app/project/" << r;
    QTest::newRow("file system root") << rb << "/" << r + "/" << r;
    QTest::newRow("doubled separators kept") << rb << "//tmp//update.ini" << r + "//tmp//update.ini" << r;
    QTest::newRow("relative path") << rb << "language/0000.lan" << "language/0000.lan" << r;
    QTest::newRow("empty text") << rb << "" << "" << r;
    QTest::newRow("/proc") << rb << "/proc" << "/proc" << r;
    QTest::newRow("/proc/self/exe") << rb << "/proc/self/exe" << "/proc/self/exe" << r;
    QTest::newRow("//proc/1/cmdline") << rb << "//proc/1/cmdline" << "//proc/1/cmdline" << r;
    QTest::newRow("/procfoo relocated") << rb << "/procfoo" << r + "/procfoo" << r;
    QTest::newRow("/usr/proc relocated") << rb << "/usr/proc" << r + "/usr/proc" << r;
    // ".." never climbs out of a simulated panel; the refused form is below a
    // device file, where nothing can be created or opened.
    const QString refused = QStringLiteral("/dev/null/outside-panel-root");
    QTest::newRow(".. out of the root") << rb << "/usr/kavo_app/project/../../../../../tmp/evil" << refused << r;
    QTest::newRow("/.. at the top") << rb << "/../x" << refused << r;
    QTest::newRow(".. out, trailing / kept") << rb << "//tmp/./../../" << refused + "/" << r;
    QTest::newRow(".. out through /proc") << rb << "/proc/../../etc/passwd" << refused << r;
    QTest::newRow("UTF-8 root and path") << QByteArray("/tmp/面板") << "/data/用户" << "/tmp/面板/data/用户" << "/tmp/面板";
}

void tst_PanelPath::relocation()
{
    QFETCH(QByteArray, root);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    QFETCH(QString, expectedRoot);
    RootVariable variable(root);
    QCOMPARE(platform::panelRoot(), expectedRoot);
    QCOMPARE(platform::panelPath(path), expected);
    QCOMPARE(QString::fromStdString(platform::panelPath(path.toUtf8().constData())), expected);
}

// A package file's name is joined to its relocated destination: the whole
// path stays inside the panel root.
void tst_PanelPath::confinement_data()
{
    QTest::addColumn<QByteArray>("root"); // null: unset
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");

    const QString r = QStringLiteral("/tmp/panel-root");
    const QByteArray rb = r.toUtf8();
    const QString refused = QStringLiteral("/dev/null/outside-panel-root");
    QTest::newRow("inside") << rb << r + "/d/x/y.dat" << r + "/d/x/y.dat";
    QTest::newRow(".. inside") << rb << r + "/d/x/../y.dat" << r + "/d/x/../y.dat";
    QTest::newRow("name climbs out") << rb << r + "/d/x/../../../esc.dat" << refused;
    QTest::newRow("beside the root") << rb << r + "-other/d/y.dat" << refused;
    QTest::newRow("on the panel itself") << QByteArray() << "/d/../../esc.dat" << "/d/../../esc.dat";
}

void tst_PanelPath::confinement()
{
    QFETCH(QByteArray, root);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    RootVariable variable(root);
    QCOMPARE(platform::confinedPanelPath(path), expected);
}

// The package changes its working directory after start; a relative root
// names the place it named at its first use.
void tst_PanelPath::relativeRootKeepsItsPlace()
{
    QTemporaryDir first;
    QTemporaryDir second;
    const QString start = QDir::currentPath();
    QVERIFY(QDir::setCurrent(first.path()));
    RootVariable variable("sim-panel-relative");
    const QString root = QDir::currentPath() + "/sim-panel-relative";
    const QString expected = root + "/usr/kavo_app";
    QCOMPARE(platform::panelPath(QStringLiteral("/usr/kavo_app")), expected);
    QVERIFY(QDir::setCurrent(second.path()));
    QCOMPARE(platform::panelPath(QStringLiteral("/usr/kavo_app")), expected);
    QCOMPARE(QString::fromStdString(platform::panelPath("/usr/kavo_app")), expected);
    QCOMPARE(platform::panelRoot(), root);
    QVERIFY(QDir::setCurrent(start));
    QCOMPARE(platform::panelPath(static_cast<const char*>(nullptr)), std::string());
}

void tst_PanelPath::prepareCreatesWrittenDirectories()
{
    QTemporaryDir dir;
    const QString root = dir.path() + "/panel";
    {
        RootVariable variable(QFile::encodeName(root));
        platform::preparePanelRoot();
    }
    QVERIFY(QFileInfo(root + "/tmp").isDir());
    QVERIFY(QFileInfo(root + "/var/run").isDir());
}

QTEST_GUILESS_MAIN(tst_PanelPath)
#include "tst_panelpath.moc"
