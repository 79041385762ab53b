#include "app/startup.h"

#include "app/constants.h"
#include "platform/platform.h"
#include "text/multilingualmanager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTextCodec>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace startup {

namespace {

// The socket the panel's display server listens on.
const QString kDisplaySocket = QStringLiteral("/tmp/qtembedded-0/QtEmbedded-0");

// A display server started from the stick lives beside the executable.
const QString kServerOnStick = QStringLiteral("/qws/qwsserver");

const QString kDefaultProjectDir = QStringLiteral("/usr/kavo_app/project");
const QString kCurrentLanguageKey = QStringLiteral("/current_language/type");
const QString kToolLanguageKey = QStringLiteral("/tool_language/type");
const QString kToolSettingsFile = QStringLiteral("/config/proUpdateSet.ini");

constexpr int kCmdlineBytes = 255;
constexpr std::size_t kCopyBlock = 4096;

// Whole seconds on the monotonic clock.
time_t monotonicSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Base name of the first string of a process's command line, or an empty text
// when the command line cannot be read.
QByteArray commandName(const QByteArray& cmdlinePath)
{
    FILE* file = std::fopen(cmdlinePath.constData(), "r");
    if (file == nullptr)
        return QByteArray();
    char buffer[kCmdlineBytes + 1] = {};
    const std::size_t count = std::fread(buffer, 1, kCmdlineBytes, file);
    std::fclose(file);
    buffer[count] = '\0';
    // buffer holds the first string up to its NUL (or the whole read).
    const char* slash = std::strrchr(buffer, '/');
    return QByteArray(slash != nullptr ? slash + 1 : buffer);
}

bool runChmod(const QString& path)
{
    const QByteArray command = QByteArrayLiteral("chmod +x ") + QFile::encodeName(path);
    const int status = std::system(command.constData());
    if (status == -1 || WIFSIGNALED(status) || WEXITSTATUS(status) != 0) {
        std::printf("cmd exec failed...\n");
        std::fflush(stdout);
        return false;
    }
    return true;
}

void startServerFallback(const QString& exeDir)
{
    const QString target = platform::panelPath(serverTmpPath);
    if (!copyServerBinary(exeDir + kServerOnStick, target))
        return;
    if (!runChmod(target))
        return;
    QProcess::startDetached(target, {QStringLiteral("-qws")});
}

} // namespace

void setUtf8Codec()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

std::vector<char*> removeQwsArguments(int argc, char* argv[])
{
    std::vector<char*> reduced;
    reduced.reserve(static_cast<std::size_t>(argc) + 1);
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-qws") != 0)
            reduced.push_back(argv[i]);
    }
    reduced.push_back(nullptr);
    return reduced;
}

void parseOption(const QString& argument, StartupOptions& options)
{
    const QChar space(QLatin1Char(' '));
    const int firstSpace = argument.indexOf(space);

    if (argument.contains(QLatin1String("-project"))) {
        options.haveProject = true;
        // The runtime updater starts the package with "-project RESULT PATH".
        // As the updater writes it the result is a plain number; anything else
        // reads as 0, the way a Qt text-to-number conversion fails.
        const int secondSpace = firstSpace < 0 ? -1 : argument.indexOf(space, firstSpace + 1);
        QString number;
        if (firstSpace >= 0)
            number = secondSpace < 0 ? argument.mid(firstSpace + 1)
                                     : argument.mid(firstSpace + 1, secondSpace - firstSpace - 1);
        options.projectResult = number.toInt(nullptr, 10);
        options.projectArg = secondSpace < 0 ? QString() : argument.mid(secondSpace + 1);
    }
    if (argument.contains(QLatin1String("-s"))) {
        options.haveDirect = true;
        if (firstSpace >= 0)
            options.projectArg = argument.mid(firstSpace + 1);
    }
    if (argument.contains(QLatin1String("-p"))) {
        if (firstSpace >= 0)
            options.resultDir = argument.mid(firstSpace + 1);
    }
    if (argument.contains(QLatin1String("-lanID"))) {
        const QStringList pieces = argument.split(space);
        if (pieces.size() >= 2)
            options.lanId = pieces.at(1);
    }
}

void parseOptions(const QStringList& arguments, StartupOptions& options)
{
    for (const QString& argument : arguments)
        parseOption(argument, options);
}

std::vector<pid_t> findPackageProcesses(const QString& procDir, int limit)
{
    std::vector<pid_t> found;
    const QByteArray dirName = QFile::encodeName(procDir);
    DIR* dir = opendir(dirName.constData());
    if (dir == nullptr)
        return found;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
            continue;
        const unsigned long pid = std::strtoul(entry->d_name, nullptr, 10);
        const QByteArray cmdline = dirName + '/' + QByteArray::number(static_cast<qulonglong>(pid)) + "/cmdline";
        if (commandName(cmdline) != kPackageExecutableName)
            continue;
        if (static_cast<int>(found.size()) >= limit)
            break;
        found.push_back(static_cast<pid_t>(pid));
    }
    closedir(dir);
    return found;
}

std::vector<pid_t> stopOtherCopies()
{
    const pid_t self = getpid();
    std::vector<pid_t> signalled;
    for (const pid_t pid : findPackageProcesses()) {
        if (pid == self)
            continue;
        // A copy that is just starting may not take the first signal.
        if (kill(pid, SIGTERM) != 0)
            kill(pid, SIGTERM);
        signalled.push_back(pid);
    }
    return signalled;
}

int readExecutablePath(QString& exePath)
{
    char buffer[1024] = {};
    const ssize_t count = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (count < 0)
        return -1;
    buffer[count] = '\0';
    exePath = QFile::decodeName(buffer);
    return static_cast<int>(count);
}

QString directoryOf(const QString& exePath)
{
    return exePath.left(exePath.lastIndexOf(QLatin1Char('/')));
}

bool copyServerBinary(const QString& source, const QString& target)
{
    FILE* in = std::fopen(QFile::encodeName(source).constData(), "rb");
    if (in == nullptr)
        return false;
    FILE* out = std::fopen(QFile::encodeName(target).constData(), "wb");
    if (out == nullptr) {
        std::fclose(in);
        return false;
    }
    std::fseek(in, 0, SEEK_END);
    long remaining = std::ftell(in);
    std::fseek(in, 0, SEEK_SET);

    char block[kCopyBlock];
    bool ok = true;
    while (remaining > 0) {
        const std::size_t wanted = remaining < static_cast<long>(kCopyBlock) ? static_cast<std::size_t>(remaining)
                                                                            : kCopyBlock;
        const std::size_t got = std::fread(block, 1, wanted, in);
        if (got == 0)
            break;
        if (std::fwrite(block, 1, got, out) != got) {
            std::printf("%s\n", std::strerror(errno));
            std::fflush(stdout);
            ok = false;
            break;
        }
        remaining -= static_cast<long>(got);
    }
    std::fclose(in);
    if (std::fclose(out) != 0 && ok) {
        std::printf("%s\n", std::strerror(errno));
        std::fflush(stdout);
        ok = false;
    }
    return ok;
}

bool ensureDisplayServer(const QString& exeDir)
{
    const QByteArray socketPath = QFile::encodeName(platform::panelPath(kDisplaySocket));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.constData(), 107);

    const time_t start = monotonicSeconds();
    for (;;) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            close(fd);
            return true;
        }
        // The panel has always started the fallback on the first failed
        // connect: elapsed seconds are never negative. The 200 ms retry is
        // kept only as the shape of the wait it was meant to be.
        const time_t elapsed = monotonicSeconds() - start;
        if (elapsed >= 0) {
            std::printf("connect more than 20 seconds\n");
            std::fflush(stdout);
            if (fd >= 0)
                close(fd);
            startServerFallback(exeDir);
            return false;
        }
        if (fd >= 0)
            close(fd);
        usleep(200000);
    }
}

QString buildReportPath(const QString& resultDir, const QString& exeDir)
{
    return (resultDir.isEmpty() ? exeDir : resultDir) + QLatin1Char('/') + logName;
}

QString languageCode(int type)
{
    return QString::asprintf("%04d", type);
}

QString languageFilePath(const QString& exeDir, const QString& code)
{
    return exeDir + QStringLiteral("/language/%1.lan").arg(code);
}

QString chooseLanguageCode(const QString& lanId, const QString& exeDir)
{
    QString code;
    if (lanId.isEmpty()) {
        QString projectDir = qEnvironmentVariable("KAVO_PROJECT_DIR");
        if (projectDir.isEmpty())
            projectDir = kDefaultProjectDir;
        const QString setupFile = platform::panelPath(projectDir) + lan_setup_ini_name;
        if (QFileInfo::exists(setupFile)) {
            QSettings setup(setupFile, QSettings::IniFormat);
            setup.setIniCodec("UTF-8");
            if (setup.contains(kCurrentLanguageKey)) {
                const int type = setup.value(kCurrentLanguageKey).toInt();
                if (type != -1)
                    code = languageCode(type);
            }
        }
    } else {
        code = lanId;
    }

    if (code.isEmpty() || !QFileInfo::exists(languageFilePath(exeDir, code)))
        code = toolLanguageCode(exeDir);
    return code;
}

QString toolLanguageCode(const QString& exeDir)
{
    QSettings toolSettings(exeDir + kToolSettingsFile, QSettings::IniFormat);
    toolSettings.setIniCodec("UTF-8");
    return languageCode(toolSettings.value(kToolLanguageKey, 0).toInt());
}

bool loadLanguage(StartupOptions& options)
{
    options.lanId = chooseLanguageCode(options.lanId, options.exeDir);
    return MultilingualManager::GetInstance()->loadMultilingualFile(
        languageFilePath(options.exeDir, options.lanId), kBuiltinLanguageFile);
}

} // namespace startup
