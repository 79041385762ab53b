// The interactive session through the real executable on an X server of its
// own, clicked through as an operator would: start note, password, runtime
// stop, main window, an upload dialog left with Escape, the download and the
// reboot countdown. The X server knows only where each dialog is: where a
// button lies in it is measured on the same dialog built here offscreen.
#include "download/dlgdownload.h"
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "platform/kavo_api.h"
#include "testenv.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QListView>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QtTest>

#include <csignal>

namespace {

// Runs xdotool on `display`: its output with a space appended (so that success
// is never null), or null when it failed.
QByteArray xdotool(const QString& display, const QString& arguments)
{
    QProcess tool;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    tool.setProcessEnvironment(env);
    tool.start(QStringLiteral("xdotool"), arguments.split(QLatin1Char(' ')));
    const bool ok = tool.waitForFinished(10000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    return ok ? tool.readAllStandardOutput() + ' ' : QByteArray();
}

// The mapped windows titled exactly `title`: X window id -> geometry.
QMap<QByteArray, QRect> windows(const QString& display, const QString& title)
{
    QMap<QByteArray, QRect> found;
    for (const QByteArray& id : xdotool(display, QStringLiteral("search --onlyvisible --name .")).simplified().split(' ')) {
        QList<QByteArray> lines = xdotool(display, "getwindowname " + id + " getwindowgeometry --shell " + id).split('\n');
        if (QString::fromUtf8(lines.takeFirst()) != title)
            continue;
        QMap<QByteArray, int> values;
        for (const QByteArray& line : lines)
            values.insert(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1).toInt());
        found.insert(id, QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT")));
    }
    return found;
}

QPoint centreOf(QWidget& window, const QString& child)
{
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        qFatal("%s not shown", window.metaObject()->className());
    const auto* widget = window.findChild<QWidget*>(child);
    return widget->mapTo(&window, widget->rect().center());
}

} // namespace

class tst_interactive : public QObject
{
    Q_OBJECT

private slots:
    void downloadByHand();
};

void tst_interactive::downloadByHand()
{
    for (const char* tool : {"Xvfb", "xdotool"})
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            QSKIP("Xvfb or xdotool is not installed (tools/install-deps.sh installs them)");
    // The download dialog's style sheet names a property unknown to the parser.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    QVERIFY(testenv::loadBuiltinTexts());
    ScreenSetting::setDeviceWidthOverride(1024);
    selectWinSize(1024);
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(12);
    QApplication::setFont(font);
    testenv::TempPanel panel;
    QTemporaryDir stick;
    kit::PanelSpec panelSpec;
    panelSpec.passwordDigest = QString::fromLatin1(QCryptographicHash::hash("2468", QCryptographicHash::Md5).toHex());
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    const kit::ProjectSpec project;
    QVERIFY(kit::makePanel(panel.root(), panelSpec) && kit::writePackage(stick.path(), package)
            && kit::writeProject(stick.path(), project));
    // The stick has its "opxbackup", as every stick after an upload does: the
    // main window works in it, and the download still finds the projects.
    QVERIFY(QFileInfo(stick.path() + QStringLiteral("/opxbackup")).isDir());

    // Measured in the package root, where the executable starts.
    const QString startDir = QDir::currentPath();
    QVERIFY(QDir::setCurrent(stick.path()));
    QMap<QString, QPoint> at; // where to touch, by button
    dlgUpNote note(stick.path() + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
    at["yes"] = centreOf(note, QStringLiteral("upBtnOk"));
    PwdEntryDialog password(nullptr, msg);
    for (const char key : QByteArray("2468"))
        at[QString(QLatin1Char(key))] = centreOf(password, QStringLiteral("keyBtn") + QLatin1Char(key));
    UDiskUpWin main(QStringLiteral("0000"));
    at["download"] = centreOf(main, QStringLiteral("btnProUpToNew"));
    at["upload"] = centreOf(main, QStringLiteral("btnUpToUdisk"));
    dlgDownLoad download(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0000"));
    download.setPackageRoot(stick.path());
    at["start"] = centreOf(download, QStringLiteral("btnStart"));
    auto* list = download.findChild<QListView*>(QStringLiteral("listView"));
    QCOMPARE(list->model()->rowCount(), 1);
    at["project"] = list->viewport()->mapTo(&download, list->visualRect(list->model()->index(0, 0)).center());
    for (QWidget* window : QList<QWidget*>{&note, &password, &main, &download})
        window->close();
    QVERIFY(QDir::setCurrent(startDir));

    // The X server writes its display number once it takes connections. Its
    // key repeat is put off: on a loaded machine the release of a key can come
    // late, and a repeated key would reach whichever window is next.
    // A server that does not answer a client (seen once in a loaded CI run)
    // is replaced, up to three times, before the session starts.
    QProcess server;
    QString display;
    for (int attempt = 0; attempt < 3 && display.isEmpty(); ++attempt) {
        if (server.state() != QProcess::NotRunning) {
            server.kill();
            server.waitForFinished(5000);
        }
        server.start(QStringLiteral("Xvfb"),
                     QStringLiteral("-displayfd 1 -screen 0 1024x768x24 -dpi 96 -nolisten tcp -ardelay 60000").split(' '));
        QVERIFY(server.waitForStarted());
        if (!QTest::qWaitFor([&] { return server.canReadLine() || server.state() != QProcess::Running; }, 10000))
            continue;
        const QString candidate = QLatin1Char(':') + QString::fromLatin1(server.readLine().trimmed());
        if (QTest::qWaitFor([&] { return !xdotool(candidate, QStringLiteral("getdisplaygeometry")).isNull(); }, 10000))
            display = candidate;
    }
    QVERIFY2(!display.isEmpty(), server.readAllStandardError().constData());
    const auto stopServer = qScopeGuard([&server] {
        server.terminate();
        server.waitForFinished(5000);
    });
    // The panel's runtime: any process that lives until it is told to stop.
    QProcess runtime;
    runtime.start(QStringLiteral("sleep"), {QStringLiteral("600")});
    QVERIFY(runtime.waitForStarted() && testenv::writeFile(panel.path(QStringLiteral("/var/run/kavo_app.pid")),
                                                           QByteArray::number(runtime.processId()) + '\n'));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel.root());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("DISPLAY"), display);
    QProcess executable;
    executable.setProcessEnvironment(env);
    executable.setWorkingDirectory(stick.path());
    executable.setProcessChannelMode(QProcess::MergedChannels);
    executable.start(stick.path() + QStringLiteral("/opxupdateu/opxupdateu_proj.bin"), QStringList());
    QVERIFY(executable.waitForStarted());
    const auto explain = qScopeGuard([&executable] {
        if (QTest::currentTestFailed())
            qWarning("executable %s, output:\n%s", executable.state() ? "running" : "ended", executable.readAll().constData());
    });

    // The one window titled `title`, within 20 s, once it stays where it is:
    // a dialog may be mapped before it is moved to the centre.
    const auto window = [&](const QString& title) {
        QList<QRect> seen{QRect()};
        const bool settled = QTest::qWaitFor([&] {
            seen << windows(display, title).values().value(0);
            return seen.size() > 2 && !seen.last().isNull() && seen.last() == seen.at(seen.size() - 2)
                   && windows(display, title).size() == 1;
        }, 20000);
        return settled ? seen.last() : QRect();
    };
    const auto gone = [&](const QString& title) {
        return QTest::qWaitFor([&] { return windows(display, title).isEmpty(); }, 20000);
    };
    const auto click = [&](const QRect& in, const QString& button) {
        const QPoint point = in.topLeft() + at.value(button);
        return !xdotool(display, QStringLiteral("mousemove --sync %1 %2 click 1").arg(point.x()).arg(point.y())).isNull();
    };

    const QString noteTitle = msg(2000) + QLatin1Char(' ') + package.version;
    const QRect noteWindow = window(noteTitle);
    QVERIFY(!noteWindow.isNull() && windows(display, msg(1011)).isEmpty());
    QVERIFY(click(noteWindow, "yes"));
    // The password guards the runtime stop; its last key stops the runtime,
    // then the main window opens.
    const QRect passwordWindow = window(msg(1011));
    QVERIFY(!passwordWindow.isNull() && gone(noteTitle));
    QCOMPARE(runtime.state(), QProcess::Running);
    for (const char* key : {"2", "4", "6", "8"})
        QVERIFY(click(passwordWindow, key));
    const QRect mainWindow = window(msg(2000));
    QVERIFY(!mainWindow.isNull() && windows(display, msg(1011)).isEmpty());
    QVERIFY(runtime.state() == QProcess::NotRunning || runtime.waitForFinished(20000));
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
    QCOMPARE(runtime.exitCode(), int(SIGTERM));
    // Every window's backdrop covers the whole screen, also without a window
    // manager to carry out its full-screen state.
    const QList<QRect> backdrops = windows(display, QStringLiteral("MainWindow")).values();
    QVERIFY(!backdrops.isEmpty());
    for (const QRect& backdrop : backdrops)
        QCOMPARE(backdrop, QRect(0, 0, 1024, 768));

    // The upload dialog, left with Escape, gives the main window back. With no
    // window manager to do it on a touch, the dialog is given the focus first.
    QVERIFY(click(mainWindow, "upload") && !window(msg(2104)).isNull());
    const QByteArray upload = windows(display, msg(2104)).firstKey();
    QVERIFY(!xdotool(display, "windowfocus --sync " + upload + " key --window " + upload + " Escape").isNull());
    QVERIFY(gone(msg(2104)));
    QVERIFY(click(mainWindow, "download"));
    const QRect downloadWindow = window(project.name);
    QVERIFY(!downloadWindow.isNull() && gone(msg(2000)));
    QVERIFY(click(downloadWindow, "project") && click(downloadWindow, "start"));
    QElapsedTimer clock;
    clock.start();

    // The project's files reach the panel, and the countdown keeps the dialog
    // up until the reboot.
    const auto projectOnPanel = [&] {
        bool same = true;
        for (const kit::PackageFile& file : project.files)
            same = same && testenv::readFile(panel.path("/usr/kavo_app/project/") + file.name) == file.content;
        return same;
    };
    QVERIFY(QTest::qWaitFor(projectOnPanel, 20000));
    // The end of the run gives the dialog its project's name back.
    QVERIFY(!window(project.name).isNull());
    QCOMPARE(executable.state(), QProcess::Running);
    QVERIFY(!QFile::exists(panel.path(QStringLiteral("/var/run/reboot-requested"))));
    QVERIFY(executable.waitForFinished(30000));
    QCOMPARE(executable.exitStatus(), QProcess::NormalExit);
    QCOMPARE(executable.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
    QVERIFY2(clock.elapsed() >= 10000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(projectOnPanel());
}

QTEST_MAIN(tst_interactive)
#include "tst_interactive.moc"
