#include "app/runmodes.h"

#include "download/dlgdownload.h"
#include "frame/no_menu_decoration.h"
#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "frontend/dlgupnote.h"
#include "log/clogger.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"
#include "text/multilingualmanager.h"

#include <QApplication>
#include <QFont>
#include <QIcon>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

namespace runmodes {

namespace {

QStringList commandLineArguments(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
}

void setApplicationFont(QApplication& app, int deviceWidth)
{
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(deviceWidth <= kSmallScreenMaxWidth ? 12 : 16);
    app.setFont(font);
}

// The download dialog of the direct and resume modes.
std::unique_ptr<dlgDownLoad> downloadDialog(const startup::StartupOptions& options)
{
    return std::make_unique<dlgDownLoad>(QString(Kavo_GetDirectory(3)), options.lanId);
}

// A widget of the dialog's form, by its object name.
QWidget* part(dlgDownLoad& dialog, const char* name)
{
    return dialog.findChild<QWidget*>(QLatin1String(name));
}

// Runs `dialog` modally, then the event loop. A successful download leaves its
// reboot countdown running, and the event loop keeps it going until the reboot
// ends the process. Otherwise the dialog was the last window: the loop has
// nothing left to wait for and ends at once.
int runDownload(dlgDownLoad& dialog)
{
    dialog.exec();
    if (!dialog.isCountingDown())
        QTimer::singleShot(0, qApp, &QCoreApplication::quit);
    return QApplication::exec();
}

} // namespace

int startPackage(int argc, char* argv[])
{
    startup::setUtf8Codec();
    platform::preparePanelRoot();

    // The package is always a client of the panel's display server, never one
    // itself, whatever it was started with.
    std::vector<char*> clientArgv = startup::removeQwsArguments(argc, argv);
    int clientArgc = static_cast<int>(clientArgv.size()) - 1;

    startup::stopOtherCopies();

    startup::StartupOptions options;
    QString exePath;
    options.exePathLength = startup::readExecutablePath(exePath);
    if (options.exePathLength < 0) {
        std::printf("opxupdateu_proj get exepath failed:%s\n", std::strerror(errno));
        std::fflush(stdout);
        return -1;
    }
    options.exeDir = startup::directoryOf(exePath);

    startup::ensureDisplayServer(options.exeDir);

    // Qt's own event dispatcher rather than GLib's: the copy processes events
    // every 1024 bytes, a quarter million times for 256 MiB, and each call
    // costs a fifth less there (tools/bench/eventcost.cpp). The variable is
    // read only while the application is made; the runtime updater and the
    // other programs started from here get the environment they came with.
    const bool callerSetNoGlib = qEnvironmentVariableIsSet("QT_NO_GLIB");
    const QByteArray callersNoGlib = qgetenv("QT_NO_GLIB");
    qputenv("QT_NO_GLIB", "1");
    QApplication app(clientArgc, clientArgv.data());
    if (callerSetNoGlib)
        qputenv("QT_NO_GLIB", callersNoGlib);
    else
        qunsetenv("QT_NO_GLIB");
    initKavoResources();

    const int deviceWidth = ScreenSetting::deviceWidth();
    selectWinSize(deviceWidth);
    setApplicationFont(app, deviceWidth);
    QApplication::setWindowIcon(QIcon());

    no_menu_decoration decoration;
    app.installEventFilter(&decoration);

    kavo_process::setMulLanguage(std::bind(&MultilingualManager::getMultilingualValue,
                                           MultilingualManager::GetInstance(), std::placeholders::_1));

    startup::parseOptions(commandLineArguments(argc, argv), options);
    options.resultDir = startup::buildReportPath(options.resultDir, options.exeDir);
    startup::loadLanguage(options);

    if (options.haveProject) {
        if (options.projectResult != 0)
            return runResumeFailed(options.exePathLength);
        return runResumeDownload(options);
    }
    if (options.haveDirect)
        return runDirectDownload(options);
    return runStartNote(options);
}

int runStartNote(const startup::StartupOptions& options)
{
    // The note runs the rest of the interactive session from its buttons; the
    // event loop ends when its last window has closed.
    dlgUpNote note(options.exeDir, options.lanId);
    note.show();
    return QApplication::exec();
}

int runDirectDownload(const startup::StartupOptions& options)
{
    CLogger* logger = CLogger::GetInstance();
    logger->close();
    if (!options.resultDir.isEmpty())
        logger->open(options.resultDir);
    logger->writeReport(msg(2105));

    // Unattended: no list to choose from and no buttons to press.
    std::unique_ptr<dlgDownLoad> dialog = downloadDialog(options);
    dialog->setDirectMode(true);
    for (const char* name : {"label_2", "listView", "btnStart", "btnStop", "btnRestart"})
        part(*dialog, name)->hide();
    dialog->setProjectName(options.projectArg);
    return runDownload(*dialog);
}

int runResumeDownload(const startup::StartupOptions& options)
{
    // The operator chose the project before the runtime update; the buttons
    // stay in sight but cannot start another run.
    std::unique_ptr<dlgDownLoad> dialog = downloadDialog(options);
    dialog->setResumeMode(true);
    for (const char* name : {"label_2", "listView"})
        part(*dialog, name)->hide();
    for (const char* name : {"btnStart", "btnStop", "btnRestart"})
        part(*dialog, name)->setEnabled(false);
    dialog->setProjectName(options.projectArg);
    return runDownload(*dialog);
}

int runResumeFailed(int exePathLength)
{
    QMessageBox box(QMessageBox::Information, msg(1001), msg(2081), QMessageBox::Ok);
    box.setWindowFlags((box.windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    box.button(QMessageBox::Ok)->setText(msg(1003));
    box.exec();
    return exePathLength;
}

} // namespace runmodes
