// Relocation of panel-side paths under KAVO_PANEL_ROOT.
#include "platform/platform.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// Sets or unsets KAVO_PANEL_ROOT for one scope.
class RootVariable
{
public:
    RootVariable(bool set, const QByteArray& value)
        : m_had(qEnvironmentVariableIsSet("KAVO_PANEL_ROOT"))
        , m_previous(qgetenv("KAVO_PANEL_ROOT"))
    {
        if (set)
            qputenv("KAVO_PANEL_ROOT", value);
        else
            qunsetenv("KAVO_PANEL_ROOT");
    }
    ~RootVariable()
    {
        if (m_had)
            qputenv("KAVO_PANEL_ROOT", m_previous);
        else
            qunsetenv("KAVO_PANEL_ROOT");
    }

private:
    bool m_had;
    QByteArray m_previous;
};

} // namespace

class tst_PanelPath : public QObject
{
    Q_OBJECT

private slots:
    void relocation_data();
    void relocation();
    void relativeRootKeepsItsPlace();
    void prepareCreatesWrittenDirectories();
};

void tst_PanelPath::relocation_data()
{
    QTest::addColumn<bool>("rootSet");
    QTest::addColumn<QByteArray>("root");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("expectedRoot");

    const QString r = QStringLiteral("/tmp/panel-root");
    const QByteArray rb = r.toUtf8();
    QTest::newRow("unset root") << false << QByteArray() << "/usr/kavo_app/update.ini" << "/usr/kavo_app/update.ini" << QString();
    QTest::newRow("empty root") << true << QByteArray() << "/usr/kavo_app/update.ini" << "/usr/kavo_app/update.ini" << QString();
    QTest::newRow("root is /") << true << QByteArray("/") << "/lib/libc.so.6" << "/lib/libc.so.6" << QString();
    QTest::newRow("absolute") << true << rb << "/usr/kavo_app/update.ini" << r + "/usr/kavo_app/update.ini" << r;
    QTest::newRow("tmp file") << true << rb << "/tmp/kavo_app_conf.lck" << r + "/tmp/kavo_app_conf.lck" << r;
    QTest::newRow("trailing / kept") << true << rb << "/usr/kavo_app/project/" << r + "/usr/kavo_app/project/" << r;
    QTest::newRow("file system root") << true << rb << "/" << r + "/" << r;
    QTest::newRow("doubled separators kept") << true << rb << "//tmp//update.ini" << r + "//tmp//update.ini" << r;
    QTest::newRow("root with trailing /") << true << rb + "/" << "/lib" << r + "/lib" << r;
    QTest::newRow("relative path") << true << rb << "language/0000.lan" << "language/0000.lan" << r;
    QTest::newRow("dot path") << true << rb << "./KavoBackupProject.bin" << "./KavoBackupProject.bin" << r;
    QTest::newRow("empty text") << true << rb << "" << "" << r;
    QTest::newRow("/proc") << true << rb << "/proc" << "/proc" << r;
    QTest::newRow("/proc/") << true << rb << "/proc/" << "/proc/" << r;
    QTest::newRow("/proc/self/exe") << true << rb << "/proc/self/exe" << "/proc/self/exe" << r;
    QTest::newRow("//proc/1/cmdline") << true << rb << "//proc/1/cmdline" << "//proc/1/cmdline" << r;
    QTest::newRow("/procfoo relocated") << true << rb << "/procfoo" << r + "/procfoo" << r;
    QTest::newRow("/proc.d relocated") << true << rb << "/proc.d/x" << r + "/proc.d/x" << r;
    QTest::newRow("/usr/proc relocated") << true << rb << "/usr/proc" << r + "/usr/proc" << r;
    QTest::newRow("UTF-8 root and path") << true << QByteArray("/tmp/面板") << "/data/用户" << "/tmp/面板/data/用户"
                                         << "/tmp/面板";
    QTest::newRow("relative root") << true << QByteArray("rel-panel") << "/data" << QDir::currentPath() + "/rel-panel/data"
                                   << QDir::currentPath() + "/rel-panel";
}

void tst_PanelPath::relocation()
{
    QFETCH(bool, rootSet);
    QFETCH(QByteArray, root);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    QFETCH(QString, expectedRoot);
    RootVariable variable(rootSet, root);

    QCOMPARE(platform::panelRoot(), expectedRoot);
    QCOMPARE(platform::panelPath(path), expected);
    QCOMPARE(QString::fromStdString(platform::panelPath(path.toUtf8().constData())), expected);
}

// The package changes its working directory after start; a relative root
// names the place it named at its first use.
void tst_PanelPath::relativeRootKeepsItsPlace()
{
    QTemporaryDir first;
    QTemporaryDir second;
    const QString start = QDir::currentPath();
    QVERIFY(QDir::setCurrent(first.path()));
    RootVariable variable(true, "sim-panel-relative");
    const QString expected = QDir::currentPath() + "/sim-panel-relative/usr/kavo_app";
    QCOMPARE(platform::panelPath(QStringLiteral("/usr/kavo_app")), expected);
    QVERIFY(QDir::setCurrent(second.path()));
    QCOMPARE(platform::panelPath(QStringLiteral("/usr/kavo_app")), expected);
    QCOMPARE(QString::fromStdString(platform::panelPath("/usr/kavo_app")), expected);
    QVERIFY(QDir::setCurrent(start));
    QCOMPARE(platform::panelPath(static_cast<const char*>(nullptr)), std::string());
}

void tst_PanelPath::prepareCreatesWrittenDirectories()
{
    QTemporaryDir dir;
    const QString root = dir.path() + "/panel";
    {
        RootVariable variable(true, QFile::encodeName(root));
        platform::preparePanelRoot();
    }
    QVERIFY(QFileInfo(root + "/tmp").isDir());
    QVERIFY(QFileInfo(root + "/var/run").isDir());
}

QTEST_GUILESS_MAIN(tst_PanelPath)
#include "tst_panelpath.moc"
