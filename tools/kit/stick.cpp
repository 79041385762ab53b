#include "tools/kit/stick.h"

#include "app/constants.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <zlib.h>

namespace kit {
namespace {

QByteArray crcText(const QByteArray& content)
{
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(content.constData()), uInt(content.size()));
    return QByteArray::number(quint64(crc), 16).toUpper();
}

QByteArray crcText(const PackageFile& file)
{
    return file.sourcePath.isEmpty() ? crcText(file.content) : fileCrcText(file.sourcePath);
}

qint64 sizeOf(const PackageFile& file)
{
    return file.sourcePath.isEmpty() ? file.content.size() : QFileInfo(file.sourcePath).size();
}

bool copyExecutable(const QString& from, const QString& to)
{
    return copyFile(from, to)
           && QFile::setPermissions(to, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                            | QFileDevice::ReadGroup | QFileDevice::ExeGroup
                                            | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

} // namespace

QString panelFamily(const QString& platform)
{
    if (platform == s_platform_v7)
        return QStringLiteral("v7");
    if (platform == s_platform_v5)
        return QStringLiteral("v5");
    return QString();
}

QByteArray fileCrcText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    uLong crc = crc32(0L, nullptr, 0);
    while (!file.atEnd()) {
        const QByteArray piece = file.read(64 * 1024);
        if (piece.isEmpty())
            return QByteArray();
        crc = crc32(crc, reinterpret_cast<const Bytef*>(piece.constData()), uInt(piece.size()));
    }
    return QByteArray::number(quint64(crc), 16).toUpper();
}

QByteArray iniValue(const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    bool plain = !text.startsWith(QLatin1Char(' ')) && !text.endsWith(QLatin1Char(' '))
                 && !text.startsWith(QLatin1Char('\t')) && !text.endsWith(QLatin1Char('\t'));
    for (char c : utf8)
        plain = plain && c != ',' && c != ';' && c != '"' && c != '\\' && c != '#' && static_cast<unsigned char>(c) >= 0x20;
    if (plain)
        return utf8;
    QByteArray quoted("\"");
    for (char c : utf8) {
        switch (c) {
        case '"': quoted += "\\\""; break;
        case '\\': quoted += "\\\\"; break;
        case '\n': quoted += "\\n"; break;
        case '\r': quoted += "\\r"; break;
        case '\t': quoted += "\\t"; break;
        default: quoted += c;
        }
    }
    return quoted + '"';
}

QString runtimeCopyDir(const QString& stickRoot, const ProjectSpec& spec)
{
    const QString family = panelFamily(spec.platform);
    return stickRoot + QLatin1Char('/') + spec.name + QLatin1Char('/') + spec.product + QLatin1Char('/')
           + (family.isEmpty() ? QString() : family + QLatin1Char('/')) + QStringLiteral("kavo_app");
}

QString projectPrefix(const QString& stickRoot, const ProjectSpec& spec)
{
    QString prefix = stickRoot + QLatin1Char('/') + spec.name + QLatin1Char('/');
    if (!spec.variant.isEmpty())
        prefix += spec.variant + QLatin1Char('/');
    return prefix;
}

QByteArray projectIniText(const ProjectSpec& spec)
{
    QByteArray ini("[GLOBAL]\n");
    ini += "OPXPlatform=" + iniValue(spec.platform) + '\n';
    ini += "OPXName=" + iniValue(spec.platformName) + '\n';
    ini += "FILENUM=" + QByteArray::number(spec.files.size()) + '\n';
    ini += "VERSION=" + iniValue(spec.setVersion) + "\n\n";

    ini += "[hardware]\n";
    if (!spec.diskCapacity.isEmpty())
        ini += "disk_capacity=" + spec.diskCapacity.toUtf8() + '\n';
    if (!spec.hardwarePlatforms.isEmpty())
        ini += "platform=" + spec.hardwarePlatforms.join(QLatin1String(", ")).toUtf8() + '\n';
    if (!spec.cpuCore.isEmpty())
        ini += "cpu_core=" + spec.cpuCore.toUtf8() + '\n';
    ini += '\n';

    for (int i = 0; i < spec.files.size(); ++i) {
        const PackageFile& file = spec.files.at(i);
        ini += "[FILE" + QByteArray::number(i + 1) + "]\n";
        ini += "NAME=" + iniValue(file.name) + '\n';
        ini += "CRC=" + crcText(file) + '\n';
        ini += "SIZE=" + QByteArray::number(sizeOf(file)) + '\n';
        ini += "DESPATH=" + iniValue(file.desPath) + "\n\n";
    }

    ini += "[DOWNLOAD]\n";
    ini += "CLEARRECIPE=" + QByteArray(spec.clearRecipe ? "1" : "0") + '\n';
    ini += "CLEARHISTORY=" + QByteArray(spec.clearHistory ? "1" : "0") + '\n';
    ini += "CLEARALARM=" + QByteArray(spec.clearAlarm ? "1" : "0") + '\n';
    ini += "CLEARINITVALUE=" + QByteArray(spec.clearInitValue ? "1" : "0") + '\n';
    ini += "CLEARUSERDIR=" + QByteArray(spec.clearUserDir ? "1" : "0") + '\n';
    return ini;
}

bool writeProject(const QString& stickRoot, const ProjectSpec& spec, QString* error)
{
    const QString prefix = projectPrefix(stickRoot, spec);
    bool ok = QDir().mkpath(prefix);
    auto note = [error, &ok](bool done, const QString& what) {
        if (!done && ok && error)
            *error = QStringLiteral("cannot write ") + what;
        ok = done && ok;
    };
    if (!ok && error)
        *error = QStringLiteral("cannot create ") + prefix;
    for (const PackageFile& file : spec.files) {
        const QString target = prefix + file.name;
        note(file.sourcePath.isEmpty() ? writeFile(target, file.content) : copyFile(file.sourcePath, target), target);
    }

    const QByteArray ini = projectIniText(spec);
    note(spec.scrambledIni ? writeScrambled(prefix + QStringLiteral("project.ini"), ini)
                           : writeFile(prefix + QStringLiteral("project.ini"), ini),
         prefix + QStringLiteral("project.ini"));

    QByteArray version("[version]\n");
    if (!spec.product.isEmpty())
        version += "product=" + iniValue(spec.product) + '\n';
    version += "setversion=" + iniValue(spec.setVersion) + '\n';
    version += "minrunversion=" + iniValue(spec.minRunVersion) + '\n';
    note(writeFile(prefix + QStringLiteral("version.ini"), version), prefix + QStringLiteral("version.ini"));

    if (spec.withRuntime) {
        const QString productDir = stickRoot + QLatin1Char('/') + spec.name + QLatin1Char('/') + spec.product;
        const QString runtimeDir = runtimeCopyDir(stickRoot, spec);
        if (spec.runtimeSourceDir.isEmpty()) {
            note(writeRuntime(runtimeDir, spec.runtime, true), runtimeDir);
        } else {
            QString why;
            const bool copied = copyRuntime(spec.runtimeSourceDir, runtimeDir, true, &why);
            if (!copied && ok && error)
                *error = why;
            ok = copied && ok;
        }
        note(writeFile(productDir + QStringLiteral("/opxupdateu.bin"), QByteArray("runtime update marker\n")),
             productDir + QStringLiteral("/opxupdateu.bin"));
    }
    return ok;
}

bool writePackage(const QString& stickRoot, const PackageSpec& spec)
{
    const QString package = stickRoot + QStringLiteral("/opxupdateu");
    bool ok = QDir().mkpath(package + QStringLiteral("/language"));
    // Uploads land in "opxbackup"; a stick has it from the start, as a stick
    // that has been used for an upload has it.
    ok = QDir().mkpath(stickRoot + QStringLiteral("/opxbackup")) && ok;
    if (!spec.executable.isEmpty())
        ok = copyExecutable(spec.executable, package + QStringLiteral("/opxupdateu_proj.bin")) && ok;
    if (!spec.helper.isEmpty())
        ok = copyExecutable(spec.helper, package + QStringLiteral("/helper/opxupdateu_helper.bin")) && ok;

    ok = writeFile(package + QStringLiteral("/config/proUpdateSet.ini"),
                   "[tool_language]\ntype=" + QByteArray::number(spec.toolLanguage) + '\n')
         && ok;
    QByteArray note(";;;# package description\n[prepare]\n");
    note += "version=" + spec.version.toUtf8() + "\n[language_conf]\n";
    note += "list=" + spec.languageNames.join(QLatin1String(", ")).toUtf8() + '\n';
    note += "id=" + spec.languageIds.join(QLatin1String(", ")).toUtf8() + '\n';
    ok = writeScrambled(package + QStringLiteral("/config/proUpdate.ini"), note) && ok;
    return ok;
}

} // namespace kit
