// Whether a project can run on this panel: the panel's C library (its platform
// code comes from it), the hardware the project needs and the versions of the
// design and runtime environments.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/statfs.h>
#include <sys/sysinfo.h>

namespace {

constexpr int64_t kMiB = 1 << 20;

// A number in a package file, read as the panel reads it: strtol rules
// (leading blanks and a sign, digits up to the first other character, none
// gives 0) in the panel's 32-bit C library, where long is 32 bits and a value
// beyond it stops at the limit. Packages are made for that reading, so every
// build reads them so, whatever the width of its own long.
int32_t panelNumber(const char* text)
{
    const long long value = std::strtoll(text, nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

// Reads one version component of at most `length` characters. The component
// goes through a 12-byte scratch area, so only its first 11 characters count.
int32_t versionComponent(const char* start, size_t length)
{
    char scratch[12] = {};
    std::memcpy(scratch, start, length < sizeof(scratch) - 1 ? length : sizeof(scratch) - 1);
    return panelNumber(scratch);
}

} // namespace

QString ProjectDownload::panelPlatformFile()
{
    const QString candidate = platform::panelPath(QStringLiteral("/lib/libc.so.6"));
    const QString libDir = platform::panelPath(QStringLiteral("/lib"));
    const QFileInfo info(candidate);
    if (!info.exists())
        return findPlatformFile(libDir);
    if (info.isFile())
        return candidate;
    // Not a regular file: look for the library inside it as a directory, then
    // anywhere in /lib.
    const QString found = findPlatformFile(candidate);
    return found.isEmpty() ? findPlatformFile(libDir) : found;
}

QString ProjectDownload::variantOfPlatform(const QString& platformCode)
{
    if (platformCode == s_platform_v7)
        return QStringLiteral("v7/");
    if (platformCode == s_platform_v5)
        return QStringLiteral("v5/");
    return QString();
}

QString ProjectDownload::findPlatformFile(const QString& dir)
{
    const QDir directory(dir);
    const QFileInfoList entries = directory.entryInfoList(QStringList(QStringLiteral("*.so*")), QDir::Files,
                                                          QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& entry : entries) {
        if (entry.fileName().startsWith(QLatin1String("libc")))
            return entry.absoluteFilePath();
    }
    return QString();
}

bool ProjectDownload::checkHardware(int& errorCode)
{
    errorCode = 0;

    if (!m_diskCapacity.isEmpty()) {
        // The capacity of the data partition, not its free space: a project
        // made for a larger panel must not land on a smaller one.
        struct statfs64 fs;
        if (statfs64(Kavo_GetDirectory(2), &fs) != 0) {
            errorCode = 0;
            return false;
        }
        const uint64_t total = static_cast<uint64_t>(fs.f_frsize) * static_cast<uint64_t>(fs.f_blocks);
        // "64MB" asks for 64 MiB, as the panel reads it; the largest reading,
        // 2^31 - 1 MiB, still fits the 64-bit byte count.
        const int64_t capacity = panelNumber(m_diskCapacity.toUtf8().constData());
        if (capacity > 0 && total < static_cast<uint64_t>(capacity * kMiB)) {
            errorCode = -1;
            return false;
        }
    }

    if (!m_platformList.isEmpty() && !m_platformList.contains(m_platformCode)) {
        errorCode = -2;
        return false;
    }

    if (m_cpuCore.isEmpty() && m_packageProduct == cpuCountChectProduct)
        m_cpuCore = QStringLiteral("4");
    if (!m_cpuCore.isEmpty() && get_nprocs() < panelNumber(m_cpuCore.toUtf8().constData())) {
        errorCode = -3;
        return false;
    }
    return true;
}

void ProjectDownload::formatVersion(char* text, stVersionInfo& version)
{
    const char* first = std::strchr(text, '.');
    if (first == nullptr)
        return;
    version.major = versionComponent(text, static_cast<size_t>(first - text));

    const char* second = std::strchr(first + 1, '.');
    if (second == nullptr)
        return;
    version.minor = versionComponent(first + 1, static_cast<size_t>(second - first - 1));

    // Anything after a third dot (7.2.1.3) takes no part in the comparison.
    const char* third = std::strchr(second + 1, '.');
    const size_t buildLength = third != nullptr ? static_cast<size_t>(third - second - 1) : std::strlen(second + 1);
    version.build = versionComponent(second + 1, buildLength);
}

bool ProjectDownload::checkVersion()
{
    if (m_stop)
        return false;

    const QSettings package(packagePrefix() + QStringLiteral("version.ini"), QSettings::IniFormat);
    const QString setText = package.value(QStringLiteral("version/setversion")).toString();
    const QString minRunText = package.value(QStringLiteral("version/minrunversion")).toString();
    if (setText.isEmpty() || minRunText.isEmpty()) {
        resetUpgrageUI(msg(2036));
        return false;
    }
    stVersionInfo set;
    stVersionInfo minRun;
    QByteArray bytes = setText.toUtf8();
    formatVersion(bytes.data(), set);
    bytes = minRunText.toUtf8();
    formatVersion(bytes.data(), minRun);

    QSettings runtime(platform::panelPath(QStringLiteral("/usr/kavo_app/update.ini")), QSettings::IniFormat);
    runtime.setIniCodec("UTF-8");
    const QString runText = runtime.value(QStringLiteral("PREPARE/version")).toString();
    const QString minSetText = runtime.value(QStringLiteral("PREPARE/minsetversion")).toString();
    if (runText.isEmpty() || minSetText.isEmpty()) {
        resetUpgrageUI(msg(2036));
        return false;
    }
    stVersionInfo run;
    stVersionInfo minSet;
    bytes = runText.toUtf8();
    formatVersion(bytes.data(), run);
    bytes = minSetText.toUtf8();
    formatVersion(bytes.data(), minSet);

    // The project (set) and the runtime (run) fit when they are the same
    // version, when the runtime is at least the project and still accepts it,
    // or when the project is at least the runtime and still runs on it.
    if (set == run)
        return true;
    if (!(set < minSet) && !(run < set))
        return true;
    if (!(run < minRun) && !(set < run))
        return true;

    const auto triple = [](const QString& text, const stVersionInfo& v) {
        return text.arg(QString::number(v.major), QString::number(v.minor), QString::number(v.build));
    };
    if (set < minSet) {
        resetUpgrageUI(triple(msg(2037), run));
        return false;
    }
    if (run < minRun) {
        resetUpgrageUI(triple(msg(2038), set));
        return false;
    }
    return false;
}
