// The interactive session through the real executable, on an X server of the
// test's own and driven by mouse clicks as an operator works the panel: start
// note, password, runtime stop, main window, download dialog, the download, the
// reboot countdown and the simulated reboot; on the way, an upload dialog left
// with Escape.
//
// The executable's widgets have no native windows, so the X server knows only
// where each dialog is. Where a button lies inside its dialog is taken from the
// same dialog built here on the offscreen screen, with the size table and the
// application font the executable chooses for a screen of the same width.
#include "download/dlgdownload.h"
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "platform/kavo_api.h"
#include "testenv.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QListView>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <functional>

namespace {

// A small panel's screen, so that the executable and the dialogs measured
// here take the same row of the size table.
constexpr int kScreenWidth = 1024;
// The longest any one step of the session may take to show on screen.
constexpr int kStageMs = 20000;
// The countdown between a successful download and the reboot, in seconds.
constexpr int kCountdownSeconds = 10;
const QByteArray kPassword("2468");

// True once `condition` holds within `timeoutMs`; events are processed
// meanwhile, so that child processes are seen to end.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = kStageMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() >= timeoutMs)
            return false;
        QTest::qWait(50);
    }
    return true;
}

// An Xvfb server of the test's own, and xdotool working on it.
class XDisplay
{
public:
    ~XDisplay()
    {
        m_server.terminate();
        if (!m_server.waitForFinished(5000))
            m_server.kill();
        m_server.waitForFinished(5000);
    }

    // The server writes its display number to stdout once it takes connections.
    bool start()
    {
        m_server.setStandardErrorFile(QProcess::nullDevice());
        m_server.start(QStringLiteral("Xvfb"),
                       QStringLiteral("-displayfd 1 -screen 0 %1x768x24 -dpi 96 -nolisten tcp -ardelay 60000").arg(kScreenWidth).split(' '));
        QByteArray output;
        waitUntil([&] {
            m_server.waitForReadyRead(100);
            output += m_server.readAllStandardOutput();
            return output.contains('\n') || m_server.state() != QProcess::Running;
        }, 10000);
        bool ok = false;
        m_name = QStringLiteral(":%1").arg(output.trimmed().toInt(&ok));
        return ok;
    }

    QString name() const { return m_name; }

    // Runs xdotool with the space-separated `arguments`; true when it
    // succeeded, its output in `out` when given.
    bool xdotool(const QString& arguments, QByteArray* out = nullptr) const
    {
        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), m_name);
        tool.setProcessEnvironment(env);
        tool.setStandardErrorFile(QProcess::nullDevice());
        tool.start(QStringLiteral("xdotool"), arguments.split(QLatin1Char(' ')));
        if (!tool.waitForFinished(10000)) {
            tool.kill();
            tool.waitForFinished(5000);
            return false;
        }
        if (out != nullptr)
            *out = tool.readAllStandardOutput();
        return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    }

    // The geometries of the mapped windows titled exactly `title`.
    QList<QRect> windows(const QString& title) const
    {
        QList<QRect> found;
        QByteArray ids;
        xdotool(QStringLiteral("search --onlyvisible --name ."), &ids);
        for (const QByteArray& id : ids.simplified().split(' ')) {
            QByteArray answer;
            if (id.isEmpty()
                || !xdotool(QStringLiteral("getwindowname %1 getwindowgeometry --shell %1").arg(QLatin1String(id)),
                            &answer))
                continue;
            QList<QByteArray> lines = answer.split('\n');
            if (QString::fromUtf8(lines.takeFirst()) != title)
                continue;
            QMap<QByteArray, int> values;
            for (const QByteArray& line : lines)
                values.insert(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1).toInt());
            found << QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT"));
        }
        return found;
    }

    // The window titled `title` once exactly one is mapped; a null rectangle
    // when none came in time or `goOn` says there is no point waiting.
    QRect waitForWindow(const QString& title, const std::function<bool()>& goOn) const
    {
        QRect window;
        waitUntil([&] {
            const QList<QRect> found = windows(title);
            window = found.size() == 1 ? found.first() : QRect();
            return !window.isNull() || !goOn();
        });
        return window;
    }

    bool isShown(const QString& title) const { return !windows(title).isEmpty(); }
    bool waitUntilGone(const QString& title) const
    {
        return waitUntil([&] { return !isShown(title); });
    }

    bool click(const QPoint& point) const
    {
        return xdotool(QStringLiteral("mousemove --sync %1 %2 click 1").arg(point.x()).arg(point.y()));
    }

    // Presses the key `name` in the window titled `title`, given the input
    // focus first as a window manager would on a touch. The server's key
    // repeat is put off (-ardelay above): on a loaded machine the release can
    // come late, and a repeated key would reach whichever window is next.
    bool key(const QString& title, const QString& name) const
    {
        QByteArray ids;
        xdotool(QStringLiteral("search --onlyvisible --name .*"), &ids);
        for (const QByteArray& id : ids.simplified().split(' ')) {
            QByteArray answer;
            if (!id.isEmpty() && xdotool(QStringLiteral("getwindowname %1").arg(QLatin1String(id)), &answer)
                && QString::fromUtf8(answer.trimmed()) == title)
                return xdotool(QStringLiteral("windowfocus --sync %1 key --window %1 %2").arg(QLatin1String(id), name));
        }
        return false;
    }

private:
    QProcess m_server;
    QString m_name;
};

// The dialogs' sizes and where the operator touches, relative to the top left
// corner of each dialog.
struct Layout
{
    QSize note, password, mainWindow, downloadDialog;
    QPoint yes, download, upload, firstProject, start;
    QMap<char, QPoint> keys;
};

QPoint centreOf(const QWidget& window, const QString& child)
{
    const auto* widget = window.findChild<QWidget*>(child);
    if (widget == nullptr)
        qFatal("%s has no %s", window.metaObject()->className(), qPrintable(child));
    return widget->mapTo(&window, widget->rect().center());
}

// The same dialogs as the executable shows them, built on the stick `stickRoot`
// and the panel of KAVO_PANEL_ROOT, shown here to be measured.
Layout measure(const QString& stickRoot)
{
    // The main window and the download dialog work in the package root, as
    // the executable started there does.
    if (!QDir::setCurrent(stickRoot))
        qFatal("cannot enter the stick");
    const auto shown = [](QWidget& window) {
        window.show();
        if (!QTest::qWaitForWindowExposed(&window))
            qFatal("%s not shown", window.metaObject()->className());
        return window.size();
    };
    Layout layout;
    dlgUpNote note(stickRoot + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
    layout.note = shown(note);
    layout.yes = centreOf(note, QStringLiteral("upBtnOk"));
    note.close();

    PwdEntryDialog password(nullptr, msg);
    layout.password = shown(password);
    for (const char key : kPassword)
        layout.keys.insert(key, centreOf(password, QStringLiteral("keyBtn") + QLatin1Char(key)));
    password.close();

    UDiskUpWin mainWindow(QStringLiteral("0000"));
    layout.mainWindow = shown(mainWindow);
    layout.download = centreOf(mainWindow, QStringLiteral("btnProUpToNew"));
    layout.upload = centreOf(mainWindow, QStringLiteral("btnUpToUdisk"));
    mainWindow.close();

    dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0000"));
    dialog.setPackageRoot(stickRoot);
    layout.downloadDialog = shown(dialog);
    auto* list = dialog.findChild<QListView*>(QStringLiteral("listView"));
    if (list == nullptr || list->model()->rowCount() != 1)
        qFatal("the measured download dialog does not list the one project");
    layout.firstProject = list->viewport()->mapTo(&dialog, list->visualRect(list->model()->index(0, 0)).center());
    layout.start = centreOf(dialog, QStringLiteral("btnStart"));
    dialog.close();
    return layout;
}

} // namespace

class tst_interactive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { QDir::setCurrent(m_startDir); }
    void downloadByHand();

private:
    QString m_startDir;
};

void tst_interactive::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
        QSKIP("Xvfb is not installed (tools/install-deps.sh installs it)");
    if (QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty())
        QSKIP("xdotool is not installed (tools/install-deps.sh installs it)");

    // The download dialog's style sheet names a property the parser does not
    // know; its complaint for every measured dialog would bury the log.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    QVERIFY(testenv::loadBuiltinTexts());
    QApplication::setQuitOnLastWindowClosed(false);
    ScreenSetting::setDeviceWidthOverride(kScreenWidth);
    selectWinSize(kScreenWidth);
    // The application font the executable sets for a screen of this width.
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(12);
    QApplication::setFont(font);
    m_startDir = QDir::currentPath();
}

void tst_interactive::downloadByHand()
{
    testenv::TempPanel panel;
    QTemporaryDir stick;
    QVERIFY(panel.isValid() && stick.isValid());
    kit::PanelSpec panelSpec;
    panelSpec.passwordDigest = QString::fromLatin1(QCryptographicHash::hash(kPassword, QCryptographicHash::Md5).toHex());
    QVERIFY(kit::makePanel(panel.root(), panelSpec));
    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    // The stick has its "opxbackup" as every stick after an upload does.
    QVERIFY(kit::writePackage(stick.path(), package));
    QVERIFY(QFileInfo(stick.path() + QStringLiteral("/opxbackup")).isDir());
    const kit::ProjectSpec project;
    QVERIFY(kit::writeProject(stick.path(), project));

    const Layout layout = measure(stick.path());
    QVERIFY(QDir::setCurrent(m_startDir));
    XDisplay display;
    QVERIFY2(display.start(), "Xvfb did not come up");

    // The panel's runtime application: any process that lives until it is
    // told to stop.
    QProcess runtime;
    runtime.start(QStringLiteral("sleep"), {QStringLiteral("600")});
    QVERIFY(runtime.waitForStarted());
    QVERIFY(testenv::writeFile(panel.path(QStringLiteral("/var/run/kavo_app.pid")),
                               QByteArray::number(runtime.processId()) + '\n'));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel.root());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("DISPLAY"), display.name());
    QProcess executable;
    executable.setProcessEnvironment(env);
    executable.setWorkingDirectory(stick.path());
    executable.setProcessChannelMode(QProcess::MergedChannels);
    executable.start(stick.path() + QStringLiteral("/opxupdateu/opxupdateu_proj.bin"), QStringList());
    QVERIFY(executable.waitForStarted());

    // A failure's message, with the executable's state and output.
    QByteArray output;
    const auto stage = [&](const char* what) {
        output += executable.readAll();
        const QString state = executable.state() == QProcess::Running
                                  ? QStringLiteral("running")
                                  : QStringLiteral("ended with %1").arg(executable.exitCode());
        return QStringLiteral("%1 (executable %2, output: %3)")
            .arg(QLatin1String(what), state, QString::fromLocal8Bit(output));
    };
    const auto running = [&executable] { return executable.state() == QProcess::Running; };
    const QString noteTitle = msg(2000) + QLatin1Char(' ') + package.version;
    const QString passwordTitle = msg(1011);
    const QString mainTitle = msg(2000);

    const QRect note = display.waitForWindow(noteTitle, running);
    QVERIFY2(!note.isNull(), qPrintable(stage("start note not shown")));
    QCOMPARE(note.size(), layout.note);
    QVERIFY2(!display.isShown(passwordTitle), qPrintable(stage("password asked before the note was answered")));
    QVERIFY(display.click(note.topLeft() + layout.yes));

    // The password guards the runtime stop.
    const QRect password = display.waitForWindow(passwordTitle, running);
    QVERIFY2(!password.isNull(), qPrintable(stage("password dialog not shown after Yes")));
    QCOMPARE(password.size(), layout.password);
    QVERIFY2(display.waitUntilGone(noteTitle), qPrintable(stage("start note still shown beside the password")));
    QCOMPARE(runtime.state(), QProcess::Running);
    for (const char key : kPassword)
        QVERIFY(display.click(password.topLeft() + layout.keys.value(key)));

    // The password's last key stops the runtime, then the main window opens.
    const QRect mainWindow = display.waitForWindow(mainTitle, running);
    QVERIFY2(!mainWindow.isNull(), qPrintable(stage("main window not shown after the password")));
    QCOMPARE(mainWindow.size(), layout.mainWindow);
    QVERIFY2(!display.isShown(passwordTitle), qPrintable(stage("password dialog still shown")));
    QVERIFY2(waitUntil([&runtime] { return runtime.state() == QProcess::NotRunning; }), "runtime not stopped");
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
    QCOMPARE(runtime.exitCode(), int(SIGTERM));
    // Every window's backdrop covers the whole screen, also without a window
    // manager to carry out its full-screen state.
    const QList<QRect> backdrops = display.windows(QStringLiteral("MainWindow"));
    QVERIFY(!backdrops.isEmpty());
    for (const QRect& backdrop : backdrops)
        QCOMPARE(backdrop, QRect(0, 0, kScreenWidth, 768));

    // The upload dialog, left with Escape, gives the main window back.
    QVERIFY(display.click(mainWindow.topLeft() + layout.upload));
    const QRect upload = display.waitForWindow(msg(2104), running);
    QVERIFY2(!upload.isNull(), qPrintable(stage("upload dialog not shown")));
    QVERIFY(display.key(msg(2104), QStringLiteral("Escape")));
    QVERIFY2(display.waitUntilGone(msg(2104)), qPrintable(stage("upload dialog not closed by Escape")));

    QVERIFY(display.click(mainWindow.topLeft() + layout.download));
    const QRect download = display.waitForWindow(project.name, running);
    QVERIFY2(!download.isNull(), qPrintable(stage("download dialog not shown")));
    QCOMPARE(download.size(), layout.downloadDialog);
    QVERIFY2(display.waitUntilGone(mainTitle), qPrintable(stage("main window still shown beside the download")));

    QVERIFY(display.click(download.topLeft() + layout.firstProject));
    QVERIFY(display.click(download.topLeft() + layout.start));
    QElapsedTimer clock;
    clock.start();

    // The project's files reach the panel, and the countdown keeps the dialog
    // up until the reboot.
    const QString projectArea = panel.path(QStringLiteral("/usr/kavo_app/project"));
    QStringList names;
    for (const kit::PackageFile& file : project.files)
        names << file.name;
    const auto projectOnPanel = [&] {
        bool same = QDir(projectArea).entryList(QDir::Files | QDir::Hidden, QDir::Name) == names;
        for (const kit::PackageFile& file : project.files)
            same = same && testenv::readFile(projectArea + QLatin1Char('/') + file.name) == file.content;
        return same;
    };
    QVERIFY2(waitUntil(projectOnPanel), qPrintable(stage("project not downloaded")));
    // The end of the run gives the dialog its project's name back.
    QVERIFY2(!display.waitForWindow(project.name, running).isNull(), qPrintable(stage("download dialog gone after the download")));
    QVERIFY2(running(), qPrintable(stage("no countdown after the download")));
    QVERIFY(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))).isNull());

    QVERIFY2(executable.waitForFinished((kCountdownSeconds + 20) * 1000), qPrintable(stage("no reboot")));
    QCOMPARE(executable.exitStatus(), QProcess::NormalExit);
    QCOMPARE(executable.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
    QVERIFY2(clock.elapsed() >= kCountdownSeconds * 1000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(projectOnPanel());
}

QTEST_MAIN(tst_interactive)
#include "tst_interactive.moc"
