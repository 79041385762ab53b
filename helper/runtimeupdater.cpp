#include "helper/runtimeupdater.h"

#include "app/startup.h"
#include "download/projectdownload.h"
#include "download/qsettingsfactory.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryFile>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <unistd.h>

namespace runtimeupdater {
namespace {

const QString kProjectOption = QStringLiteral("-project");
const QString kProductOption = QStringLiteral("-product");
const QString kLanIdOption = QStringLiteral("-lanID");

constexpr qint64 kCopyChunk = 64 * 1024;
constexpr int kHashDigits = 32;

// How often a stopped package run is looked for, and how long a killed one
// gets to go.
constexpr useconds_t kStopPollUs = 50 * 1000;
constexpr int kKillWaitMs = 1000;

// Suffix of a file being written into the installed runtime. The new file
// takes the old one's place only by rename, so a running runtime binary is
// never overwritten in place and no file is ever seen half written.
const QString kPartSuffix = QStringLiteral(".opxnew");

void note(const QString& text)
{
    std::fprintf(stderr, "opxupdateu_helper: %s\n", text.toLocal8Bit().constData());
}

// The value of the option that ends at `optionEnd` in `arguments[index]`: the
// text after the first space behind it; the next argument when the option
// stands alone (then `index` moves past it). "" when there is none.
QString optionValue(const QStringList& arguments, int& index, int optionEnd)
{
    const QString rest = arguments.at(index).mid(optionEnd);
    if (rest.isEmpty()) {
        if (index + 1 < arguments.size() && !arguments.at(index + 1).startsWith(QLatin1Char('-')))
            return arguments.at(++index);
        return QString();
    }
    const int space = rest.indexOf(QLatin1Char(' '));
    return space < 0 ? QString() : rest.mid(space + 1);
}

bool isHexDigits(const QByteArray& text)
{
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')))
            return false;
    }
    return true;
}

// Why `name` may not be installed, or "" when it may.
QString nameFault(const QString& name)
{
    if (name.isEmpty())
        return QStringLiteral("an empty file name");
    if (name.startsWith(QLatin1Char('/')))
        return QStringLiteral("the absolute name ") + name;
    if (name.split(QLatin1Char('/')).contains(QStringLiteral("..")))
        return QStringLiteral("the name ") + name + QStringLiteral(" leaving the runtime directory");
    const QString clean = QDir::cleanPath(name);
    if (clean == QLatin1String("."))
        return QStringLiteral("the runtime directory itself (") + name + QLatin1Char(')');
    if (clean.section(QLatin1Char('/'), 0, 0) == QLatin1String("project"))
        return QStringLiteral("the name ") + name + QStringLiteral(" inside the panel's project directory");
    return QString();
}

// Copies `source` to `target` through `target` + kPartSuffix, keeping the
// source's permissions. False with `error` set when it cannot.
bool copyFile(const QString& source, const QString& target, QString& error)
{
    const QString part = target + kPartSuffix;
    if (!QDir().mkpath(QFileInfo(target).absolutePath())) {
        error = QStringLiteral("cannot create the directory of ") + target;
        return false;
    }
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read ") + source + QStringLiteral(": ") + in.errorString();
        return false;
    }
    QFile out(part);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        error = QStringLiteral("cannot write ") + part + QStringLiteral(": ") + out.errorString();
        return false;
    }
    QByteArray buffer(static_cast<int>(kCopyChunk), '\0');
    for (;;) {
        const qint64 count = in.read(buffer.data(), kCopyChunk);
        if (count == 0)
            break;
        if (count < 0 || out.write(buffer.constData(), count) != count) {
            error = QStringLiteral("cannot copy ") + source + QStringLiteral(" to ") + part;
            out.remove();
            return false;
        }
    }
    out.close();
    if (out.error() != QFileDevice::NoError || !out.setPermissions(in.permissions())) {
        error = QStringLiteral("cannot finish ") + part + QStringLiteral(": ") + out.errorString();
        out.remove();
        return false;
    }
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(target).constData()) != 0) {
        error = QStringLiteral("cannot put ") + target + QStringLiteral(" in place");
        out.remove();
        return false;
    }
    return true;
}

} // namespace

bool Arguments::complete() const
{
    return !rootSlash.isEmpty() && !project.isEmpty() && !product.isEmpty() && !lanId.isEmpty();
}

Arguments parseArguments(const QStringList& arguments)
{
    const QString* const options[] = {&kProjectOption, &kProductOption, &kLanIdOption};
    Arguments parsed;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        const QString* option = nullptr;
        int at = -1;
        for (const QString* candidate : options) {
            const int position = argument.indexOf(*candidate);
            if (position >= 0 && (at < 0 || position < at)) {
                option = candidate;
                at = position;
            }
        }
        if (option == nullptr)
            continue;
        const QString value = optionValue(arguments, i, at + option->size());
        if (option == &kProjectOption) {
            // A project name is one directory name and has no "/"; the root
            // may hold spaces, so it ends at the last "/", not at a space.
            const int slash = value.lastIndexOf(QLatin1Char('/'));
            parsed.rootSlash = value.left(slash + 1);
            parsed.project = value.mid(slash + 1);
            if (parsed.project.startsWith(QLatin1Char(' ')))
                parsed.project.remove(0, 1);
        } else if (option == &kProductOption) {
            parsed.product = value.trimmed();
        } else {
            parsed.lanId = value.trimmed();
        }
    }
    return parsed;
}

QString packageRootOfHelper(const QString& helperDir)
{
    const QString root = QDir::cleanPath(helperDir + QStringLiteral("/../.."));
    return root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
}

int panelPlatformCode()
{
    const QString file = ProjectDownload::panelPlatformFile();
    if (file.isEmpty())
        return -1;
    return Kavo_GetPlatform_Arch(QFile::encodeName(file).constData());
}

bool stopPackageRuns(int graceMs)
{
    std::vector<pid_t> running = startup::stopOtherCopies();
    // A copy that has ended no longer shows a command line, even before its
    // parent has collected it, so the package's own rule tells it as gone.
    const auto waitForEnd = [&running](int ms) {
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            const std::vector<pid_t> found = startup::findPackageProcesses();
            running.erase(std::remove_if(running.begin(), running.end(),
                                         [&found](pid_t pid) {
                                             return std::find(found.begin(), found.end(), pid) == found.end();
                                         }),
                          running.end());
            if (running.empty() || clock.hasExpired(ms))
                return running.empty();
            usleep(kStopPollUs);
        }
    };
    if (waitForEnd(graceMs))
        return true;
    for (const pid_t pid : running) {
        note(QStringLiteral("package run %1 did not end within %2 ms of SIGTERM; killing it").arg(pid).arg(graceMs));
        kill(pid, SIGKILL);
    }
    if (waitForEnd(kKillWaitMs))
        return true;
    note(QStringLiteral("package run %1 is still running").arg(running.front()));
    return false;
}

QString findRuntimeCopy(const QString& rootSlash, const QString& project, const QString& product,
                        const QString& variant)
{
    // Only the copy built for the panel's own processor generation: the
    // download checked exactly this one, and a runtime of another variant (an
    // ARMv7 runtime on an ARMv5 panel) would leave the panel without a runtime
    // that runs.
    const QString dir = rootSlash + project + QLatin1Char('/') + product + QLatin1Char('/') + variant
                        + QStringLiteral("kavo_app");
    return QFileInfo(dir).isDir() ? dir : QString();
}

bool readMd5List(const QString& path, QVector<Md5Entry>& entries, QString& error)
{
    entries.clear();
    QFile list(path);
    if (!list.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read the MD5 list ") + path;
        return false;
    }
    for (int number = 1; !list.atEnd(); ++number) {
        QByteArray line = list.readLine();
        while (line.endsWith('\n') || line.endsWith('\r'))
            line.chop(1);
        if (line.isEmpty())
            continue;
        const QByteArray hash = line.left(kHashDigits);
        if (line.size() <= kHashDigits + 2 || !isHexDigits(hash) || line.at(kHashDigits) != ' '
            || (line.at(kHashDigits + 1) != ' ' && line.at(kHashDigits + 1) != '*')) {
            error = QStringLiteral("line %1 of %2 is not \"HASH  name\"").arg(number).arg(path);
            return false;
        }
        const QString name = QString::fromUtf8(line.mid(kHashDigits + 2));
        const QString fault = nameFault(name);
        if (!fault.isEmpty()) {
            error = QStringLiteral("line %1 of %2 names %3").arg(number).arg(path, fault);
            return false;
        }
        entries.append(Md5Entry{hash.toLower(), QDir::cleanPath(name)});
    }
    if (entries.isEmpty()) {
        error = QStringLiteral("the MD5 list ") + path + QStringLiteral(" names no file");
        return false;
    }
    return true;
}

bool checkRuntimeCopy(const QString& dir, RuntimeCopy& copy, QString& error)
{
    copy = RuntimeCopy();
    copy.dir = dir;
    const QString description = dir + QStringLiteral("/update.ini");
    if (!QFileInfo(description).isFile()) {
        error = QStringLiteral("the runtime copy has no ") + description;
        return false;
    }
    // A fresh file name for every clear copy: QSettings could otherwise hand
    // back what it read from an earlier copy of the same name and size.
    QTemporaryFile clear(platform::panelPath(QStringLiteral("/tmp")) + QStringLiteral("/opxupdateu_helper_XXXXXX.ini"));
    if (!clear.open()) {
        error = QStringLiteral("cannot create a clear copy of ") + description + QStringLiteral(": ")
                + clear.errorString();
        return false;
    }
    clear.close();
    if (!QSettingsFactory::decryptFile(description, clear.fileName(), CRYPT_WITH_MARK)) {
        error = description + QStringLiteral(" is not a scrambled runtime description");
        return false;
    }
    copy.version = ProjectDownload::runtimeVersion(clear.fileName());
    if (copy.version.isEmpty() || copy.version.contains(QLatin1Char('/'))) {
        error = description + QStringLiteral(" names no usable version");
        return false;
    }
    copy.listName = QStringLiteral("version.") + copy.version;
    if (!readMd5List(dir + QLatin1Char('/') + copy.listName, copy.entries, error))
        return false;

    for (const Md5Entry& entry : qAsConst(copy.entries)) {
        const QString path = dir + QLatin1Char('/') + entry.name;
        QFile file(path);
        if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) {
            error = QStringLiteral("the runtime copy lacks ") + entry.name;
            return false;
        }
        QCryptographicHash hash(QCryptographicHash::Md5);
        if (!hash.addData(&file)) {
            error = QStringLiteral("cannot read ") + path;
            return false;
        }
        if (hash.result().toHex() != entry.hash) {
            error = QStringLiteral("the runtime copy's ") + entry.name + QStringLiteral(" differs from its MD5 list");
            return false;
        }
    }
    return true;
}

bool installRuntime(const RuntimeCopy& copy, const QString& targetDir, QString& error)
{
    const QString description = QStringLiteral("update.ini");
    const auto install = [&]() {
        for (const Md5Entry& entry : copy.entries) {
            // The description and the list are written last, below.
            if (entry.name == description || entry.name == copy.listName)
                continue;
            if (!copyFile(copy.dir + QLatin1Char('/') + entry.name, targetDir + QLatin1Char('/') + entry.name,
                          error))
                return false;
        }
        if (!copyFile(copy.dir + QLatin1Char('/') + copy.listName, targetDir + QLatin1Char('/') + copy.listName,
                      error))
            return false;

        // The new version is announced only once every file it names is in place.
        const QString target = targetDir + QLatin1Char('/') + description;
        const QString part = target + kPartSuffix;
        if (!QSettingsFactory::decryptFile(copy.dir + QLatin1Char('/') + description, part, CRYPT_WITH_MARK)
            || std::rename(QFile::encodeName(part).constData(), QFile::encodeName(target).constData()) != 0) {
            QFile::remove(part);
            error = QStringLiteral("cannot write the clear description ") + target;
            return false;
        }
        return true;
    };
    const bool installed = install();
    // Whatever was written, also on the way to a failure, is on disk before
    // the package is started again.
    ::sync();
    return installed;
}

bool updateRuntime(const Arguments& arguments, QString& error)
{
    // A panel whose platform cannot be told has no variant to match; the
    // download itself refuses such a panel.
    const int code = panelPlatformCode();
    if (code < 0) {
        error = QStringLiteral("cannot tell the panel's platform from its C library");
        return false;
    }
    const QString variant = ProjectDownload::variantOfPlatform(QString::number(code));
    const QString dir = findRuntimeCopy(arguments.rootSlash, arguments.project, arguments.product, variant);
    if (dir.isEmpty()) {
        error = QStringLiteral("no runtime copy of %1 in %2%3 for a panel of platform %4: only %1/%5kavo_app counts")
                    .arg(arguments.product, arguments.rootSlash, arguments.project)
                    .arg(code)
                    .arg(variant);
        return false;
    }
    RuntimeCopy copy;
    if (!checkRuntimeCopy(dir, copy, error))
        return false;
    const QString installed = QFile::decodeName(Kavo_GetDirectory(0));
    if (installed.isEmpty()) {
        error = QStringLiteral("the panel names no runtime directory");
        return false;
    }
    return installRuntime(copy, installed, error);
}

bool startPackage(const QString& rootSlash, const QString& project, bool succeeded, const QString& lanId)
{
    const QString program = rootSlash + QStringLiteral("opxupdateu/opxupdateu_proj.bin");
    const QStringList arguments = {
        kProjectOption + (succeeded ? QStringLiteral(" 0 ") : QStringLiteral(" 1 ")) + project,
        kLanIdOption + QLatin1Char(' ') + lanId,
    };
    return QProcess::startDetached(program, arguments, rootSlash);
}

} // namespace runtimeupdater
