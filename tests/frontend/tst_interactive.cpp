// The interactive session through the real executable on an X server of the
// test's own, driven by clicks as an operator works the panel: start note,
// password, runtime stop, main window, an upload dialog left with Escape, the
// download dialog, the download, the reboot countdown and the reboot.
//
// The executable's widgets have no native windows, so the X server knows only
// where each dialog is. Where a button lies inside its dialog is taken from the
// same dialog built here offscreen, with the size table and the application
// font the executable chooses for a screen of the same width.
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
#include <functional>

namespace {

// A small panel's screen: the executable and the dialogs measured here take
// the same row of the size table.
constexpr int kWidth = 1024;
constexpr int kCountdownSeconds = 10;
const QByteArray kPassword("2468");

// True once `condition` holds within 20 s, the longest any one step may take.
bool waitUntil(const std::function<bool()>& condition)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() >= 20000)
            return false;
        QTest::qWait(50);
    }
    return true;
}

// xdotool on the display `display`, the space-separated `arguments`; its output.
QByteArray xdotool(const QString& display, const QString& arguments, bool* ok = nullptr)
{
    QProcess tool;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    tool.setProcessEnvironment(env);
    tool.start(QStringLiteral("xdotool"), arguments.split(QLatin1Char(' ')));
    const bool done = tool.waitForFinished(10000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    if (ok != nullptr)
        *ok = done;
    return tool.readAllStandardOutput();
}

// The mapped windows titled exactly `title`, by X window id.
QMap<QByteArray, QRect> windows(const QString& display, const QString& title)
{
    QMap<QByteArray, QRect> found;
    for (const QByteArray& id : xdotool(display, QStringLiteral("search --onlyvisible --name .")).simplified().split(' ')) {
        QList<QByteArray> lines =
            xdotool(display, QStringLiteral("getwindowname %1 getwindowgeometry --shell %1").arg(QLatin1String(id)))
                .split('\n');
        if (id.isEmpty() || lines.size() < 5 || QString::fromUtf8(lines.takeFirst()) != title)
            continue;
        QMap<QByteArray, int> values;
        for (const QByteArray& line : lines)
            values.insert(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1).toInt());
        found.insert(id, QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT")));
    }
    return found;
}

QPoint centreOf(const QWidget& window, const QString& child)
{
    const auto* widget = window.findChild<QWidget*>(child);
    return widget->mapTo(&window, widget->rect().center());
}

// Shows `window` here and returns its size.
QSize shown(QWidget& window)
{
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        qFatal("%s not shown", window.metaObject()->className());
    return window.size();
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
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    for (const char* tool : {"Xvfb", "xdotool"})
        if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
            QSKIP("Xvfb or xdotool is not installed (tools/install-deps.sh installs them)");
    // The download dialog's style sheet names a property the parser does not
    // know; its complaint for every measured dialog would bury the log.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    QVERIFY(testenv::loadBuiltinTexts());
    QApplication::setQuitOnLastWindowClosed(false);
    ScreenSetting::setDeviceWidthOverride(kWidth);
    selectWinSize(kWidth);
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(12);
    QApplication::setFont(font);

    testenv::TempPanel panel;
    QTemporaryDir stick;
    kit::PanelSpec panelSpec;
    panelSpec.passwordDigest = QString::fromLatin1(QCryptographicHash::hash(kPassword, QCryptographicHash::Md5).toHex());
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    const kit::ProjectSpec project;
    QVERIFY(kit::makePanel(panel.root(), panelSpec) && kit::writePackage(stick.path(), package)
            && kit::writeProject(stick.path(), project));
    // The stick has its "opxbackup", as every stick after an upload does: the
    // main window works in it, and the download still finds the projects.
    QVERIFY(QFileInfo(stick.path() + QStringLiteral("/opxbackup")).isDir());

    // The same dialogs as the executable shows them, measured in the package
    // root as the executable started there works.
    const QString startDir = QDir::currentPath();
    QVERIFY(QDir::setCurrent(stick.path()));
    dlgUpNote note(stick.path() + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
    const QSize noteSize = shown(note);
    const QPoint yes = centreOf(note, QStringLiteral("upBtnOk"));
    note.close();
    PwdEntryDialog password(nullptr, msg);
    const QSize passwordSize = shown(password);
    QList<QPoint> keys;
    for (const char key : kPassword)
        keys << centreOf(password, QStringLiteral("keyBtn") + QLatin1Char(key));
    password.close();
    UDiskUpWin main(QStringLiteral("0000"));
    const QSize mainSize = shown(main);
    const QPoint download = centreOf(main, QStringLiteral("btnProUpToNew"));
    const QPoint upload = centreOf(main, QStringLiteral("btnUpToUdisk"));
    main.close();
    dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0000"));
    dialog.setPackageRoot(stick.path());
    const QSize downloadSize = shown(dialog);
    auto* list = dialog.findChild<QListView*>(QStringLiteral("listView"));
    QCOMPARE(list->model()->rowCount(), 1);
    const QPoint firstProject = list->viewport()->mapTo(&dialog, list->visualRect(list->model()->index(0, 0)).center());
    const QPoint start = centreOf(dialog, QStringLiteral("btnStart"));
    dialog.close();
    QVERIFY(QDir::setCurrent(startDir));

    // The X server writes its display number once it takes connections.
    QProcess server;
    server.start(QStringLiteral("Xvfb"),
                 QStringLiteral("-displayfd 1 -screen 0 %1x768x24 -dpi 96 -nolisten tcp").arg(kWidth).split(' '));
    QVERIFY(server.waitForStarted());
    QVERIFY(waitUntil([&] { return server.canReadLine() || server.state() != QProcess::Running; }));
    const QString display = QLatin1Char(':') + QString::fromLatin1(server.readLine().trimmed());
    const auto terminate = qScopeGuard([&server] {
        server.terminate();
        server.waitForFinished(5000);
    });

    // The panel's runtime application: any process that lives until it is
    // told to stop.
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

    // The one window titled `title` once it is there; its state and output
    // when it does not come.
    QByteArray output;
    QString failure;
    const auto window = [&](const QString& title) {
        QMap<QByteArray, QRect> found;
        if (!waitUntil([&] { return (found = windows(display, title)).size() == 1 || executable.state() != QProcess::Running; })
            || found.size() != 1) {
            output += executable.readAll();
            failure = QStringLiteral("no window %1 (executable %2, output: %3)")
                          .arg(title, executable.state() == QProcess::Running ? QStringLiteral("running") : QStringLiteral("ended"),
                               QString::fromLocal8Bit(output));
            return QRect();
        }
        return found.first();
    };
    const auto gone = [&](const QString& title) { return waitUntil([&] { return windows(display, title).isEmpty(); }); };
    const auto click = [&](const QRect& in, const QPoint& at) {
        bool ok = false;
        xdotool(display, QStringLiteral("mousemove --sync %1 %2 click 1").arg(in.x() + at.x()).arg(in.y() + at.y()), &ok);
        return ok;
    };

    const QRect noteWindow = window(msg(2000) + QLatin1Char(' ') + package.version);
    QVERIFY2(!noteWindow.isNull(), qPrintable(failure));
    QCOMPARE(noteWindow.size(), noteSize);
    QVERIFY(windows(display, msg(1011)).isEmpty());
    QVERIFY(click(noteWindow, yes));

    // The password guards the runtime stop; its last key stops the runtime,
    // then the main window opens.
    const QRect passwordWindow = window(msg(1011));
    QVERIFY2(!passwordWindow.isNull(), qPrintable(failure));
    QCOMPARE(passwordWindow.size(), passwordSize);
    QVERIFY(gone(msg(2000) + QLatin1Char(' ') + package.version));
    QCOMPARE(runtime.state(), QProcess::Running);
    for (const QPoint& key : keys)
        QVERIFY(click(passwordWindow, key));
    const QRect mainWindow = window(msg(2000));
    QVERIFY2(!mainWindow.isNull(), qPrintable(failure));
    QCOMPARE(mainWindow.size(), mainSize);
    QVERIFY(windows(display, msg(1011)).isEmpty());
    QVERIFY(waitUntil([&runtime] { return runtime.state() == QProcess::NotRunning; }));
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
    QCOMPARE(runtime.exitCode(), int(SIGTERM));
    // Every window's backdrop covers the whole screen, also without a window
    // manager to carry out its full-screen state.
    const QList<QRect> backdrops = windows(display, QStringLiteral("MainWindow")).values();
    QVERIFY(!backdrops.isEmpty());
    for (const QRect& backdrop : backdrops)
        QCOMPARE(backdrop, QRect(0, 0, kWidth, 768));

    // The upload dialog, left with Escape, gives the main window back. Without
    // a window manager only the program gives a window the keyboard, so the
    // dialog is given the focus first, as a manager would on a touch.
    QVERIFY(click(mainWindow, upload));
    QVERIFY2(!window(msg(2104)).isNull(), qPrintable(failure));
    const QByteArray uploadId = windows(display, msg(2104)).firstKey();
    bool escaped = false;
    xdotool(display, QStringLiteral("windowfocus --sync %1 key --delay 0 --window %1 Escape").arg(QLatin1String(uploadId)),
            &escaped);
    QVERIFY(escaped);
    QVERIFY(gone(msg(2104)));

    QVERIFY(click(mainWindow, download));
    const QRect downloadWindow = window(project.name);
    QVERIFY2(!downloadWindow.isNull(), qPrintable(failure));
    QCOMPARE(downloadWindow.size(), downloadSize);
    QVERIFY(gone(msg(2000)));
    QVERIFY(click(downloadWindow, firstProject) && click(downloadWindow, start));
    QElapsedTimer clock;
    clock.start();

    // The project's files reach the panel, and the countdown keeps the dialog
    // up until the reboot.
    const QString projectArea = panel.path(QStringLiteral("/usr/kavo_app/project"));
    const auto projectOnPanel = [&] {
        QStringList names;
        bool same = true;
        for (const kit::PackageFile& file : project.files) {
            names << file.name;
            same = same && testenv::readFile(projectArea + QLatin1Char('/') + file.name) == file.content;
        }
        return same && QDir(projectArea).entryList(QDir::Files | QDir::Hidden, QDir::Name) == names;
    };
    QVERIFY(waitUntil(projectOnPanel));
    // The end of the run gives the dialog its project's name back.
    QVERIFY2(!window(project.name).isNull(), qPrintable(failure));
    QCOMPARE(executable.state(), QProcess::Running);
    QVERIFY(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))).isNull());
    QVERIFY(executable.waitForFinished((kCountdownSeconds + 20) * 1000));
    QCOMPARE(executable.exitStatus(), QProcess::NormalExit);
    QCOMPARE(executable.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
    QVERIFY2(clock.elapsed() >= kCountdownSeconds * 1000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(projectOnPanel());
}

QTEST_MAIN(tst_interactive)
#include "tst_interactive.moc"
