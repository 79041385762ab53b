#include "tools/kit/runtime.h"

#include "download/qsettingsfactory.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>

#include <algorithm>

namespace kit {
namespace {

// The comment line that gives a description the "#" mark a scrambled one must
// carry as its fourth byte: the kit's own descriptions open with it, and a
// copied one gets it when its own text lacks the mark.
const QByteArray kMarkLine(";;;# runtime environment description\n");

// Copies `from` to `to` in pieces, turning every byte into its scrambled form
// when `scramble`; `prefix` is written (scrambled alike) before the content.
bool copyBytes(QFile& from, const QString& to, const QByteArray& prefix, bool scramble)
{
    QDir().mkpath(QFileInfo(to).absolutePath());
    QFile target(to);
    if (!target.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    auto put = [&](QByteArray chunk) {
        if (scramble)
            for (char& c : chunk)
                c = char(QSettingsFactory::encryptByte(static_cast<unsigned char>(c)));
        return target.write(chunk) == chunk.size();
    };
    if (!prefix.isEmpty() && !put(prefix))
        return false;
    while (!from.atEnd()) {
        const QByteArray chunk = from.read(64 * 1024);
        if (chunk.isEmpty() || !put(chunk))
            return false;
    }
    return target.flush();
}

} // namespace

QStringList regularFiles(const QString& dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    const QDir base(dir);
    while (it.hasNext())
        files << base.relativeFilePath(it.next());
    std::sort(files.begin(), files.end());
    return files;
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
}

bool copyFile(const QString& from, const QString& to)
{
    QDir().mkpath(QFileInfo(to).absolutePath());
    QFile::remove(to); // QFile::copy does not overwrite
    return QFile::copy(from, to);
}

bool writeScrambled(const QString& path, const QByteArray& data)
{
    QByteArray scrambled(data.size(), '\0');
    for (int i = 0; i < data.size(); ++i)
        scrambled[i] = char(QSettingsFactory::encryptByte(static_cast<unsigned char>(data[i])));
    return writeFile(path, scrambled);
}

QByteArray md5List(const QMap<QString, QByteArray>& files)
{
    QByteArray list;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        list += QCryptographicHash::hash(it.value(), QCryptographicHash::Md5).toHex();
        list += "  ";
        list += it.key().toUtf8();
        list += '\n';
    }
    return list;
}

bool isDottedVersion(const QString& text)
{
    static const QRegularExpression version(QStringLiteral("^[0-9]{1,9}(\\.[0-9]{1,9}){2,}$"));
    return version.match(text).hasMatch();
}

QString md5ListName(const QString& version)
{
    return QStringLiteral("version.") + version.trimmed().split(QLatin1Char(' '), Qt::SkipEmptyParts).value(0);
}

QByteArray updateIniText(const RuntimeSpec& spec)
{
    QByteArray text = kMarkLine + "[PREPARE]\n";
    text += "version=" + spec.version.toUtf8() + '\n';
    text += "minsetversion=" + spec.minSetVersion.toUtf8() + '\n';
    if (!spec.product.isEmpty())
        text += "product=" + spec.product.toUtf8() + '\n';
    return text;
}

RuntimeDescription readRuntimeDescription(const QString& path)
{
    RuntimeDescription description;
    if (!QFileInfo(path).isFile())
        return description;
    QSettings ini(path, QSettings::IniFormat);
    ini.setIniCodec("UTF-8");
    description.readable = ini.status() == QSettings::NoError;
    description.version = ini.value(QStringLiteral("PREPARE/version")).toString();
    description.minSetVersion = ini.value(QStringLiteral("PREPARE/minsetversion")).toString();
    description.hasProduct = ini.contains(QStringLiteral("PREPARE/product"));
    description.product = ini.value(QStringLiteral("PREPARE/product")).toString();
    return description;
}

QString runtimeDirectoryProblem(const QString& dir, RuntimeDescription* description)
{
    const QFileInfo info(dir);
    if (!info.exists())
        return QStringLiteral("runtime directory %1 does not exist").arg(dir);
    if (!info.isDir())
        return QStringLiteral("runtime %1 is not a directory").arg(dir);
    const QString ini = dir + QStringLiteral("/update.ini");
    if (!QFileInfo(ini).isFile())
        return QStringLiteral("runtime directory %1 has no update.ini").arg(dir);
    const RuntimeDescription read = readRuntimeDescription(ini);
    if (!read.readable || md5ListName(read.version) == QLatin1String("version."))
        return QStringLiteral("%1 names no [PREPARE] version (a plain update.ini is needed)").arg(ini);
    if (description)
        *description = read;
    return QString();
}

QByteArray md5ListOfDirectory(const QString& dir, const QStringList& exclude)
{
    QByteArray list("");
    for (const QString& name : regularFiles(dir)) {
        if (exclude.contains(name))
            continue;
        QFile file(dir + QLatin1Char('/') + name);
        QCryptographicHash hash(QCryptographicHash::Md5);
        if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
            return QByteArray();
        QByteArray text = name.toUtf8();
        // md5sum marks a line whose name it had to escape with a leading backslash.
        if (text.contains('\\') || text.contains('\n')) {
            text.replace('\\', "\\\\").replace('\n', "\\n");
            list += '\\';
        }
        list += hash.result().toHex() + "  " + text + '\n';
    }
    return list;
}

bool copyRuntime(const QString& sourceDir, const QString& targetDir, bool scrambled, QString* error)
{
    auto fail = [error](const QString& text) {
        if (error)
            *error = text;
        return false;
    };
    RuntimeDescription description;
    const QString problem = runtimeDirectoryProblem(sourceDir, &description);
    if (!problem.isEmpty())
        return fail(problem);
    const QString sourceIni = sourceDir + QStringLiteral("/update.ini");
    const QString listName = md5ListName(description.version);

    if (!QDir().mkpath(targetDir))
        return fail(QStringLiteral("cannot create %1").arg(targetDir));
    for (const QString& name : regularFiles(sourceDir)) {
        if (name == QLatin1String("update.ini") || name == listName)
            continue;
        if (!copyFile(sourceDir + QLatin1Char('/') + name, targetDir + QLatin1Char('/') + name))
            return fail(QStringLiteral("cannot copy %1 to %2").arg(sourceDir + QLatin1Char('/') + name, targetDir));
    }

    QFile ini(sourceIni);
    if (!ini.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read %1").arg(sourceIni));
    QByteArray prefix;
    const QByteArray head = ini.peek(4);
    if (scrambled && (head.size() < 4 || head.at(3) != '#')) {
        prefix = kMarkLine;
        if (ini.peek(3) == "\xEF\xBB\xBF")
            ini.read(3); // a byte order mark would no longer open the file
    }
    if (!copyBytes(ini, targetDir + QStringLiteral("/update.ini"), prefix, scrambled))
        return fail(QStringLiteral("cannot write %1/update.ini").arg(targetDir));

    const QByteArray list = md5ListOfDirectory(targetDir, {QStringLiteral("update.ini"), listName});
    if (list.isNull() || !writeFile(targetDir + QLatin1Char('/') + listName, list))
        return fail(QStringLiteral("cannot write the md5 list %1/%2").arg(targetDir, listName));
    return true;
}

bool writeRuntime(const QString& dir, const RuntimeSpec& spec, bool scrambled)
{
    bool ok = QDir().mkpath(dir);
    for (auto it = spec.files.cbegin(); it != spec.files.cend(); ++it)
        ok = writeFile(dir + QLatin1Char('/') + it.key(), it.value()) && ok;
    const QByteArray ini = updateIniText(spec);
    ok = (scrambled ? writeScrambled(dir + QStringLiteral("/update.ini"), ini)
                    : writeFile(dir + QStringLiteral("/update.ini"), ini))
         && ok;
    if (spec.writeMd5List)
        ok = writeFile(dir + QLatin1Char('/') + md5ListName(spec.version), md5List(spec.files)) && ok;
    return ok;
}

} // namespace kit
