// The executable on an X server of its own, clicked through start note, password,
// main window and a download up to the reboot as an operator would. The server knows
// where each dialog is; where a button lies in it is measured on the same dialog here.
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
#include <QListView>
#include <QtTest>

namespace {

// Runs xdotool on $DISPLAY: its output with a space appended (so that success
// is never null), or null when it failed.
QByteArray xdotool(const QString& arguments)
{
    QProcess tool;
    tool.start(QStringLiteral("xdotool"), arguments.split(QLatin1Char(' ')));
    const bool ok = tool.waitForFinished(10000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    return ok ? tool.readAllStandardOutput() + ' ' : QByteArray();
}

// The geometry of the one mapped window titled exactly `title`; null if none or several are.
QRect window(const QString& title)
{
    QList<QRect> found;
    for (const QByteArray& id : xdotool(QStringLiteral("search --onlyvisible --name .")).simplified().split(' ')) {
        QList<QByteArray> lines = xdotool("getwindowname " + id + " getwindowgeometry --shell " + id).split('\n');
        if (QString::fromUtf8(lines.takeFirst()) != title)
            continue;
        QMap<QByteArray, int> values;
        for (const QByteArray& line : lines)
            values.insert(line.left(line.indexOf('=')), line.mid(line.indexOf('=') + 1).toInt());
        found << QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT"));
    }
    return found.size() == 1 ? found.first() : QRect();
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

    QVERIFY(QDir::setCurrent(stick.path())); // the package root, where the executable starts
    QMap<QString, QPoint> at;                // where to touch, by button
    dlgUpNote note(stick.path() + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
    at["yes"] = centreOf(note, QStringLiteral("upBtnOk"));
    PwdEntryDialog password(nullptr, msg);
    for (const char key : QByteArray("2468"))
        at[QString(QLatin1Char(key))] = centreOf(password, QStringLiteral("keyBtn") + QLatin1Char(key));
    UDiskUpWin main(QStringLiteral("0000"));
    at["download"] = centreOf(main, QStringLiteral("btnProUpToNew"));
    dlgDownLoad download(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0000"));
    download.setPackageRoot(stick.path());
    at["start"] = centreOf(download, QStringLiteral("btnStart"));
    auto* list = download.findChild<QListView*>(QStringLiteral("listView"));
    at["project"] = list->viewport()->mapTo(&download, list->visualRect(list->model()->index(0, 0)).center());

    // The X server writes its display number once it takes connections; one that does not answer a
    // client is replaced, up to three times. The executable runs on it. Without -noreset the server
    // starts over whenever its last client leaves, and refuses a client that comes meanwhile.
    qputenv("QT_QPA_PLATFORM", "xcb");
    QProcess server;
    bool answers = false;
    for (int attempt = 0; attempt < 3 && !answers; ++attempt) {
        server.kill();
        server.waitForFinished(5000);
        server.start(QStringLiteral("Xvfb"),
                     QStringLiteral("-displayfd 1 -screen 0 1024x768x24 -dpi 96 -nolisten tcp -noreset").split(' '));
        QVERIFY(server.waitForStarted());
        if (!QTest::qWaitFor([&] { return server.canReadLine() || server.state() != QProcess::Running; }, 10000))
            continue;
        qputenv("DISPLAY", ':' + server.readLine().trimmed());
        answers = QTest::qWaitFor([&] { return !xdotool(QStringLiteral("getdisplaygeometry")).isNull(); }, 10000);
    }
    QVERIFY2(answers, server.readAllStandardError().constData());
    const auto stopServer = qScopeGuard([&server] {
        server.terminate();
        server.waitForFinished(5000);
    });
    QProcess executable;
    executable.setWorkingDirectory(stick.path());
    executable.setProcessChannelMode(QProcess::MergedChannels);
    executable.start(stick.path() + QStringLiteral("/opxupdateu/opxupdateu_proj.bin"), QStringList());
    QVERIFY(executable.waitForStarted());
    const auto explain = qScopeGuard([&executable] {
        if (QTest::currentTestFailed())
            qWarning("the executable's output:\n%s", executable.readAll().constData());
    });

    // Touches `button` in the window titled `title` once it stays put: a dialog is mapped, then centred.
    const auto click = [&](const QString& title, const QString& button) {
        QRect last, now;
        const bool settled = QTest::qWaitFor([&] {
            last = std::exchange(now, window(title));
            return !now.isNull() && now == last;
        }, 20000);
        const QPoint point = now.topLeft() + at.value(button);
        const QString move = QStringLiteral("mousemove --sync %1 %2 click 1").arg(point.x()).arg(point.y());
        return settled && !xdotool(move).isNull();
    };

    QVERIFY(click(msg(2000) + QLatin1Char(' ') + package.version, "yes"));
    // The note's backdrop covers the screen also without a window manager to carry out its full-screen state.
    QCOMPARE(window(QStringLiteral("MainWindow")), QRect(0, 0, 1024, 768));
    for (const char* key : {"2", "4", "6", "8"})
        QVERIFY(click(msg(1011), key));
    QVERIFY(click(msg(2000), "download"));
    QVERIFY(click(project.name, "project") && click(project.name, "start"));

    // The countdown ends in the reboot, the project's files on the panel.
    QVERIFY(executable.waitForFinished(60000) && executable.exitStatus() == QProcess::NormalExit);
    QCOMPARE(executable.exitCode(), 0);
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/var/run/reboot-requested"))), QByteArray("reboot\n"));
    for (const kit::PackageFile& file : project.files)
        QCOMPARE(testenv::readFile(panel.path("/usr/kavo_app/project/") + file.name), file.content);
}

QTEST_MAIN(tst_interactive)
#include "tst_interactive.moc"
