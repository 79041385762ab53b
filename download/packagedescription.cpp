// The package's description files: "project.ini" (platform, hardware needs,
// the files to copy, the data areas to clear) and "version.ini" (product and
// versions). Both are read before anything on the panel is touched.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "platform/platform.h"

#include <QByteArray>
#include <QSettings>

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace {

// The value part of an environment entry: the text between its first and its
// second "=". Package tools have always read it that way, so a value that holds
// a "=" of its own is cut there.
QString environmentValue(const char* entry)
{
    const char* start = std::strchr(entry, '=');
    if (start == nullptr)
        return QString();
    ++start;
    const char* end = std::strchr(start, '=');
    const int length = end != nullptr ? static_cast<int>(end - start) : static_cast<int>(std::strlen(start));
    return QString::fromLocal8Bit(start, length);
}

// The destination directory of a package file, as the panel names it. A
// DESPATH with a "$" names an environment variable: its first character is
// dropped (the "$" is expected there), the name runs to the first "/", and the
// first environment entry that begins with that name gives the directory.
// It is a plain prefix test, so HOME also matches an entry for HOMEDIR when
// that one comes first: existing packages were made against this lookup.
QString destinationDirectory(const QString& desPath)
{
    if (!desPath.contains(QLatin1Char('$')))
        return desPath + QLatin1Char('/');

    const QString rest = desPath.mid(1);
    const int slash = rest.indexOf(QLatin1Char('/'));
    const QByteArray name = (slash < 0 ? rest : rest.left(slash)).toLocal8Bit();

    QString destination;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, name.constData(), static_cast<size_t>(name.size())) == 0) {
            destination = environmentValue(*entry) + QLatin1Char('/');
            break;
        }
    }
    if (slash >= 0 && slash + 1 < rest.size())
        destination += rest.mid(slash + 1) + QLatin1Char('/');
    return destination;
}

bool flagSet(const QSettings& ini, const char* key)
{
    return ini.value(QLatin1String(key)).toInt() != 0;
}

// The numbers i from 1 to `count` for which the description holds a group
// "FILE" + i, in numeric order. The count is only a number in the file: a file
// group the description does not hold would give an entry without a name,
// which the checks and the copy pass over anyway. Walking the groups that are
// there keeps the work in proportion to the file, whatever count it names.
QVector<int> fileGroupNumbers(const QSettings& ini, int count)
{
    const QString prefix = QStringLiteral("FILE");
    QVector<int> numbers;
    for (const QString& group : ini.childGroups()) {
        if (!group.startsWith(prefix))
            continue;
        bool ok = false;
        const int i = group.midRef(prefix.size()).toInt(&ok, 10);
        // Only the plain decimal spelling names the group of file i.
        if (ok && i >= 1 && i <= count && group == prefix + QString::number(i))
            numbers.append(i);
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

} // namespace

bool ProjectDownload::projectIniNodeExist(QSettings* settings)
{
    return settings->contains(s_opxPlatformNode) && settings->contains(s_opxNameNode)
           && settings->contains(s_fileNumNode) && settings->contains(s_versionNode);
}

bool ProjectDownload::parseIniFile(const QString& path)
{
    if (m_stop)
        return false;

    QSettings ini(path, QSettings::IniFormat);
    ini.setIniCodec("UTF-8");

    const QString platformCode = ini.value(s_opxPlatformNode).toString().trimmed();
    if (platformCode != m_platformCode) {
        const QString name = ini.value(s_opxNameNode).toString().trimmed();
        setTextEditContent(msg(2015).arg(name));
        return false;
    }

    m_diskCapacity = ini.value(QStringLiteral("/hardware/disk_capacity")).toString().trimmed();
    // "platform=" reads as one empty entry, and "platform=10," ends in one: an
    // empty entry names no platform, and a list of none restricts none.
    m_platformList = ini.value(QStringLiteral("/hardware/platform")).toStringList();
    m_platformList.removeAll(QString());
    m_cpuCore = ini.value(QStringLiteral("/hardware/cpu_core")).toString().trimmed();

    const int fileCount = ini.value(s_fileNumNode).toInt();
    m_fileList = QVector<FILE_INFO>();
    if (fileCount < 1) {
        setTextEditContent(msg(2016));
        return false;
    }

    const QString sourceDir = packagePrefix();
    for (const int i : fileGroupNumbers(ini, fileCount)) {
        if (m_stop)
            return false;
        const QString group = QStringLiteral("/FILE") + QString::number(i);
        FILE_INFO info;
        info.fileName = ini.value(group + QStringLiteral("/NAME")).toString();
        info.crc = ini.value(group + QStringLiteral("/CRC")).toString().toUpper();
        info.size = ini.value(group + QStringLiteral("/SIZE")).toUInt();
        const QString desPath = ini.value(group + QStringLiteral("/DESPATH")).toString();
        // Only the expanded destination names a place on the panel.
        info.desPath = platform::panelPath(destinationDirectory(desPath));
        info.srcPath = sourceDir;
        m_fileList.append(info);
    }

    m_clearRecipe = flagSet(ini, "/DOWNLOAD/CLEARRECIPE");
    m_clearHistory = flagSet(ini, "/DOWNLOAD/CLEARHISTORY");
    m_clearAlarm = flagSet(ini, "/DOWNLOAD/CLEARALARM");
    m_clearInitValue = flagSet(ini, "/DOWNLOAD/CLEARINITVALUE");
    m_clearUserDir = flagSet(ini, "/DOWNLOAD/CLEARUSERDIR");

    // version.ini has always been read with the reader's default codec; its
    // values are plain ASCII names and version numbers.
    const QSettings version(packagePrefix() + QStringLiteral("version.ini"), QSettings::IniFormat);
    const QString productKey = QStringLiteral("/version/product");
    if (version.contains(productKey)) {
        const QString product = version.value(productKey).toString();
        if (product.isEmpty()) {
            resetUpgrageUI(msg(2023));
            return false;
        }
        m_packageProduct = product;
    }
    return true;
}
