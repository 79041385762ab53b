// The interactive session through the real executable, on an X server of the
// test's own and driven by mouse clicks and key presses as an operator works the
// panel: start note, password, runtime stop, main window, download dialog, the
// download, the reboot countdown and the simulated reboot.
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
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QListView>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <functional>

namespace {

// The screen of the X server: a small panel's, so the executable and the
// dialogs built here take the same row of the size table.
constexpr int kScreenWidth = 1024;
constexpr int kScreenHeight = 768;
// The longest any one step of the session may take to show on screen.
constexpr int kStageMs = 20000;
// The countdown between a successful download and the reboot, in seconds.
constexpr int kCountdownSeconds = 10;

const QByteArray kPassword("2468");
const QByteArray kWrongPassword("13");

QString text(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

// The download dialog's text pane carries a property that the style sheet
// parser does not know; its complaint for every measured dialog would bury the
// test log.
QtMessageHandler g_testLogHandler = nullptr;

void dropStyleSheetNoise(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtDebugMsg && text == QLatin1String("Unknown property font-margin"))
        return;
    g_testLogHandler(type, context, text);
}

// A child process that is ended, if it still runs, when the test leaves it
// behind on a failure.
class ChildProcess : public QProcess
{
public:
    ~ChildProcess() override
    {
        if (state() == QProcess::NotRunning)
            return;
        kill();
        waitForFinished(5000);
    }
};

// True once `condition` holds, false when it did not within `timeoutMs`.
// Events are processed meanwhile, so that child processes are seen to end.
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

// A top-level window as the X server has it.
struct XWindow
{
    QString id;
    QRect geometry;
    bool isNull() const { return id.isEmpty(); }
};

// An Xvfb server started for this test, and xdotool working on it.
class XDisplay
{
public:
    XDisplay() = default;
    XDisplay(const XDisplay&) = delete;
    XDisplay& operator=(const XDisplay&) = delete;
    ~XDisplay()
    {
        if (m_server.state() == QProcess::NotRunning)
            return;
        m_server.terminate();
        if (!m_server.waitForFinished(5000)) {
            m_server.kill();
            m_server.waitForFinished(5000);
        }
    }

    // Starts the server on the first free display. False, with `error` set,
    // when it does not come up.
    bool start(QString* error)
    {
        // The server writes its display number to stdout once it takes
        // connections.
        m_server.setProcessChannelMode(QProcess::SeparateChannels);
        m_server.setStandardErrorFile(QProcess::nullDevice());
        m_server.start(QStringLiteral("Xvfb"),
                       {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                        QStringLiteral("0"), QStringLiteral("%1x%2x24").arg(kScreenWidth).arg(kScreenHeight),
                        QStringLiteral("-dpi"), QStringLiteral("96"), QStringLiteral("-nolisten"),
                        QStringLiteral("tcp")});
        if (!m_server.waitForStarted(5000)) {
            *error = QStringLiteral("Xvfb did not start: ") + m_server.errorString();
            return false;
        }
        QElapsedTimer clock;
        clock.start();
        QByteArray output;
        while (!output.contains('\n') && clock.elapsed() < 10000 && m_server.state() == QProcess::Running) {
            m_server.waitForReadyRead(100);
            output += m_server.readAllStandardOutput();
        }
        bool ok = false;
        const int number = output.trimmed().toInt(&ok);
        if (!ok) {
            *error = QStringLiteral("Xvfb gave no display number: ") + QString::fromLocal8Bit(output);
            return false;
        }
        m_name = QStringLiteral(":%1").arg(number);
        return true;
    }

    QString name() const { return m_name; }

    // Runs xdotool with `arguments`; true when it succeeded. Its output goes
    // to `out` when given.
    bool xdotool(const QStringList& arguments, QByteArray* out = nullptr) const
    {
        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), m_name);
        tool.setProcessEnvironment(env);
        tool.setStandardErrorFile(QProcess::nullDevice());
        tool.start(QStringLiteral("xdotool"), arguments);
        if (!tool.waitForFinished(10000)) {
            tool.kill();
            tool.waitForFinished(5000);
            return false;
        }
        if (out != nullptr)
            *out = tool.readAllStandardOutput();
        return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    }

    // The mapped windows titled exactly `title`.
    QList<XWindow> windows(const QString& title) const
    {
        QList<XWindow> found;
        QByteArray ids;
        // A search that finds nothing fails; that is an empty answer here.
        xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                 QStringLiteral(".")},
                &ids);
        for (const QByteArray& id : ids.split('\n')) {
            if (id.trimmed().isEmpty())
                continue;
            const QString window = QString::fromLatin1(id.trimmed());
            QByteArray answer;
            if (!xdotool({QStringLiteral("getwindowname"), window, QStringLiteral("getwindowgeometry"),
                          QStringLiteral("--shell"), window},
                         &answer))
                continue;
            const int end = answer.indexOf('\n');
            if (end < 0 || QString::fromUtf8(answer.left(end)) != title)
                continue;
            QMap<QByteArray, int> values;
            for (const QByteArray& line : answer.mid(end + 1).split('\n')) {
                const int equals = line.indexOf('=');
                if (equals > 0)
                    values.insert(line.left(equals), line.mid(equals + 1).toInt());
            }
            found << XWindow{window, QRect(values.value("X"), values.value("Y"), values.value("WIDTH"),
                                           values.value("HEIGHT"))};
        }
        return found;
    }

    bool isShown(const QString& title) const { return !windows(title).isEmpty(); }

    // The window titled `title` once exactly one is mapped; a null window when
    // none came within `timeoutMs` or `goOn` says there is no point waiting.
    XWindow waitForWindow(const QString& title, const std::function<bool()>& goOn, int timeoutMs = kStageMs) const
    {
        QElapsedTimer clock;
        clock.start();
        do {
            const QList<XWindow> found = windows(title);
            if (found.size() == 1)
                return found.first();
            QTest::qWait(50);
        } while (clock.elapsed() < timeoutMs && goOn());
        return XWindow();
    }

    // True once no window titled `title` is mapped.
    bool waitUntilGone(const QString& title) const
    {
        return waitUntil([this, &title] { return !isShown(title); });
    }

    // A press and release of the first mouse button at `point` on the screen.
    bool click(const QPoint& point) const
    {
        return xdotool({QStringLiteral("mousemove"), QStringLiteral("--sync"), QString::number(point.x()),
                        QString::number(point.y()), QStringLiteral("click"), QStringLiteral("1")});
    }

    // A press and release of `key` in `window`, which gets the keyboard first.
    bool key(const XWindow& window, const QString& key) const
    {
        return xdotool({QStringLiteral("windowfocus"), QStringLiteral("--sync"), window.id, QStringLiteral("key"),
                        key});
    }

private:
    QProcess m_server;
    QString m_name;
};

// Where the operator touches, relative to the top left corner of each dialog,
// and the dialogs' sizes.
struct Layout
{
    QSize note;
    QPoint yes;
    QSize password;
    QMap<QString, QPoint> keys;   // by caption, and "confirm"
    QSize mainWindow;
    QPoint download;
    QSize downloadDialog;
    QPoint firstProject;
    QPoint start;
};

QPoint centreIn(const QWidget& window, const QWidget* child)
{
    return child->mapTo(&window, child->rect().center());
}

bool showAndWait(QWidget& window, QString* error)
{
    window.show();
    if (QTest::qWaitForWindowExposed(&window))
        return true;
    *error = QString::fromLatin1(window.metaObject()->className()) + QStringLiteral(" not shown");
    return false;
}

} // namespace

class tst_interactive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void downloadByHand();

private:
    // The click targets of the executable's dialogs, from the same dialogs
    // built on the stick `stickRoot` and the panel of KAVO_PANEL_ROOT.
    bool measure(const QString& stickRoot, Layout* layout, QString* error);

    QString m_startDir;
};

void tst_interactive::initTestCase()
{
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
        QSKIP("Xvfb is not installed (tools/install-deps.sh installs it)");
    if (QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty())
        QSKIP("xdotool is not installed (tools/install-deps.sh installs it)");

    g_testLogHandler = qInstallMessageHandler(dropStyleSheetNoise);
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    // The dialogs measured here end the application when their last window
    // closes.
    QApplication::setQuitOnLastWindowClosed(false);
    ScreenSetting::setDeviceWidthOverride(kScreenWidth);
    selectWinSize(kScreenWidth);
    // The application font the executable sets for a screen of this width.
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(12);
    QApplication::setFont(font);
    m_startDir = QDir::currentPath();
}

void tst_interactive::cleanup()
{
    QDir::setCurrent(m_startDir);
}

bool tst_interactive::measure(const QString& stickRoot, Layout* layout, QString* error)
{
    // The main window and the download dialog work in the package root, as
    // the executable started there does.
    if (!QDir::setCurrent(stickRoot)) {
        *error = QStringLiteral("cannot enter the stick");
        return false;
    }
    const auto find = [error](const QWidget& window, const QString& name) -> QWidget* {
        auto* child = window.findChild<QWidget*>(name);
        if (child == nullptr)
            *error = QStringLiteral("%1 has no %2").arg(QString::fromLatin1(window.metaObject()->className()), name);
        return child;
    };

    {
        dlgUpNote note(stickRoot + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
        QWidget* yes = find(note, QStringLiteral("upBtnOk"));
        if (yes == nullptr || !showAndWait(note, error))
            return false;
        layout->note = note.size();
        layout->yes = centreIn(note, yes);
        note.close();
    }
    {
        PwdEntryDialog password(nullptr, text);
        if (!showAndWait(password, error))
            return false;
        layout->password = password.size();
        QByteArray captions = kPassword + kWrongPassword;
        for (const char caption : captions) {
            QWidget* key = find(password, QStringLiteral("keyBtn") + QLatin1Char(caption));
            if (key == nullptr)
                return false;
            layout->keys.insert(QString(QLatin1Char(caption)), centreIn(password, key));
        }
        QWidget* confirm = find(password, QStringLiteral("keyBtnConfirm"));
        if (confirm == nullptr)
            return false;
        layout->keys.insert(QStringLiteral("confirm"), centreIn(password, confirm));
        password.close();
    }
    {
        UDiskUpWin mainWindow(QStringLiteral("0000"));
        QWidget* download = find(mainWindow, QStringLiteral("btnProUpToNew"));
        if (download == nullptr || !showAndWait(mainWindow, error))
            return false;
        layout->mainWindow = mainWindow.size();
        layout->download = centreIn(mainWindow, download);
        mainWindow.close();
    }
    {
        dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0000"));
        auto* list = qobject_cast<QListView*>(find(dialog, QStringLiteral("listView")));
        QWidget* start = find(dialog, QStringLiteral("btnStart"));
        if (list == nullptr || start == nullptr || !showAndWait(dialog, error))
            return false;
        if (list->model()->rowCount() != 1) {
            *error = QStringLiteral("the measured download dialog lists %1 projects").arg(list->model()->rowCount());
            return false;
        }
        layout->downloadDialog = dialog.size();
        const QRect row = list->visualRect(list->model()->index(0, 0));
        layout->firstProject = list->viewport()->mapTo(&dialog, row.center());
        layout->start = centreIn(dialog, start);
        dialog.close();
    }
    return QDir::setCurrent(m_startDir);
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
    QVERIFY(kit::writePackage(stick.path(), package));
    const kit::ProjectSpec project;
    QVERIFY(kit::writeProject(stick.path(), project));

    Layout layout;
    QString error;
    QVERIFY2(measure(stick.path(), &layout, &error), qPrintable(error));

    XDisplay display;
    QVERIFY2(display.start(&error), qPrintable(error));

    // The panel's runtime application: any process that lives until it is
    // told to stop.
    ChildProcess runtime;
    runtime.start(QStringLiteral("sleep"), {QStringLiteral("600")});
    QVERIFY(runtime.waitForStarted());
    QVERIFY(testenv::writeFile(panel.path(QStringLiteral("/var/run/kavo_app.pid")),
                               QByteArray::number(runtime.processId()) + '\n'));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panel.root());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("DISPLAY"), display.name());
    ChildProcess executable;
    executable.setProcessEnvironment(env);
    executable.setWorkingDirectory(stick.path());
    executable.setProcessChannelMode(QProcess::MergedChannels);
    executable.start(stick.path() + QStringLiteral("/opxupdateu/opxupdateu_proj.bin"), QStringList());
    QVERIFY(executable.waitForStarted());

    // What the executable printed, for a failure's message.
    QByteArray output;
    const auto stage = [&](const char* what) {
        output += executable.readAll();
        QString state = QStringLiteral("running");
        if (executable.state() != QProcess::Running)
            state = QLatin1String(executable.exitStatus() == QProcess::NormalExit ? "exited with " : "killed by signal ")
                    + QString::number(executable.exitCode());
        return QStringLiteral("%1 (executable %2, output: %3)").arg(QLatin1String(what), state, QString::fromLocal8Bit(output));
    };
    const auto at = [](const XWindow& window, const QPoint& point) { return window.geometry.topLeft() + point; };
    const auto running = [&executable] { return executable.state() == QProcess::Running; };

    const QString noteTitle = text(2000) + QLatin1Char(' ') + package.version;
    const QString passwordTitle = text(1011);
    const QString mainTitle = text(2000);

    // The start note.
    const XWindow note = display.waitForWindow(noteTitle, running);
    QVERIFY2(!note.isNull(), qPrintable(stage("start note not shown")));
    QCOMPARE(note.geometry.size(), layout.note);
    QVERIFY2(!display.isShown(passwordTitle), qPrintable(stage("password asked before the note was answered")));
    QVERIFY(display.click(at(note, layout.yes)));

    // The password guards the runtime stop.
    XWindow password = display.waitForWindow(passwordTitle, running);
    QVERIFY2(!password.isNull(), qPrintable(stage("password dialog not shown after Yes")));
    QCOMPARE(password.geometry.size(), layout.password);
    QVERIFY2(display.waitUntilGone(noteTitle), qPrintable(stage("start note still shown beside the password")));
    QVERIFY2(runtime.state() == QProcess::Running, "runtime stopped before the password was given");

    for (const char key : kWrongPassword)
        QVERIFY(display.click(at(password, layout.keys.value(QString(QLatin1Char(key))))));
    QVERIFY(display.click(at(password, layout.keys.value(QStringLiteral("confirm")))));
    const XWindow refused = display.waitForWindow(text(1001), running);
    QVERIFY2(!refused.isNull(), qPrintable(stage("wrong password not refused")));
    QVERIFY2(!display.isShown(mainTitle), qPrintable(stage("main window opened on a wrong password")));
    QVERIFY2(runtime.state() == QProcess::Running, "runtime stopped on a wrong password");
    QVERIFY(display.key(refused, QStringLiteral("Return")));
    QVERIFY2(display.waitUntilGone(text(1001)), qPrintable(stage("refusal box not closed by Return")));

    password = display.waitForWindow(passwordTitle, running);
    QVERIFY2(!password.isNull(), qPrintable(stage("password dialog gone after the refusal")));
    for (const char key : kPassword)
        QVERIFY(display.click(at(password, layout.keys.value(QString(QLatin1Char(key))))));

    // The correct password stops the runtime, then the main window opens.
    const XWindow mainWindow = display.waitForWindow(mainTitle, running);
    QVERIFY2(!mainWindow.isNull(), qPrintable(stage("main window not shown after the password")));
    QCOMPARE(mainWindow.geometry.size(), layout.mainWindow);
    QVERIFY2(!display.isShown(passwordTitle), qPrintable(stage("password dialog still shown")));
    QVERIFY2(waitUntil([&runtime] { return runtime.state() == QProcess::NotRunning; }), "runtime not stopped");
    QCOMPARE(runtime.exitStatus(), QProcess::CrashExit);
    QCOMPARE(runtime.exitCode(), int(SIGTERM));

    QVERIFY(display.click(at(mainWindow, layout.download)));
    const XWindow download = display.waitForWindow(project.name, running);
    QVERIFY2(!download.isNull(), qPrintable(stage("download dialog not shown")));
    QCOMPARE(download.geometry.size(), layout.downloadDialog);
    QVERIFY2(display.waitUntilGone(mainTitle), qPrintable(stage("main window still shown beside the download")));

    QVERIFY(display.click(at(download, layout.firstProject)));
    QVERIFY(display.click(at(download, layout.start)));
    QElapsedTimer clock;
    clock.start();

    // The project's files reach the panel, and the countdown keeps the
    // dialog up until the reboot.
    const QString projectArea = panel.path(QStringLiteral("/usr/kavo_app/project"));
    const QString prefix = kit::projectPrefix(stick.path(), project);
    QStringList names;
    for (const kit::PackageFile& file : project.files)
        names << file.name;
    names.sort();
    const auto projectOnPanel = [&] {
        if (QDir(projectArea).entryList(QDir::Files | QDir::Hidden, QDir::Name) != names)
            return false;
        for (const QString& name : names) {
            if (testenv::readFile(projectArea + QLatin1Char('/') + name) != testenv::readFile(prefix + name))
                return false;
        }
        return true;
    };
    QVERIFY2(waitUntil(projectOnPanel), qPrintable(stage("project not downloaded")));
    // The end of the run gives the dialog its project's name back.
    QVERIFY2(!display.waitForWindow(project.name, running).isNull(),
             qPrintable(stage("download dialog gone after the download")));
    QVERIFY2(running(), qPrintable(stage("no countdown after the download")));
    QVERIFY(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))).isNull());

    QVERIFY2(executable.waitForFinished((kCountdownSeconds + 20) * 1000), qPrintable(stage("no reboot")));
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(executable.exitStatus(), QProcess::NormalExit);
    QCOMPARE(executable.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
    QVERIFY2(elapsed >= kCountdownSeconds * 1000, qPrintable(QStringLiteral("rebooted after %1 ms").arg(elapsed)));
    QVERIFY(projectOnPanel());
}

QTEST_MAIN(tst_interactive)
#include "tst_interactive.moc"
