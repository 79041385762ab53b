#include "tools/kit/stick.h"

#include <QDir>
#include <QFile>

#include <zlib.h>

namespace kit {
namespace {

QString variantName(const QString& platform)
{
    if (platform == QLatin1String("10"))
        return QStringLiteral("v7/");
    if (platform == QLatin1String("5"))
        return QStringLiteral("v5/");
    return QString();
}

QByteArray crcText(const QByteArray& content)
{
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(content.constData()), uInt(content.size()));
    return QByteArray::number(quint64(crc), 16).toUpper();
}

bool copyExecutable(const QString& from, const QString& to)
{
    QFile::remove(to);
    QDir().mkpath(QFileInfo(to).absolutePath());
    return QFile::copy(from, to)
           && QFile::setPermissions(to, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                            | QFileDevice::ReadGroup | QFileDevice::ExeGroup
                                            | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

} // namespace

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
    ini += "OPXPlatform=" + spec.platform.toUtf8() + '\n';
    ini += "OPXName=" + spec.platformName.toUtf8() + '\n';
    ini += "FILENUM=" + QByteArray::number(spec.files.size()) + '\n';
    ini += "VERSION=" + spec.setVersion.toUtf8() + "\n\n";

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
        ini += "NAME=" + file.name.toUtf8() + '\n';
        ini += "CRC=" + crcText(file.content) + '\n';
        ini += "SIZE=" + QByteArray::number(file.content.size()) + '\n';
        ini += "DESPATH=" + file.desPath.toUtf8() + "\n\n";
    }

    ini += "[DOWNLOAD]\n";
    ini += "CLEARRECIPE=" + QByteArray(spec.clearRecipe ? "1" : "0") + '\n';
    ini += "CLEARHISTORY=" + QByteArray(spec.clearHistory ? "1" : "0") + '\n';
    ini += "CLEARALARM=" + QByteArray(spec.clearAlarm ? "1" : "0") + '\n';
    ini += "CLEARINITVALUE=" + QByteArray(spec.clearInitValue ? "1" : "0") + '\n';
    ini += "CLEARUSERDIR=" + QByteArray(spec.clearUserDir ? "1" : "0") + '\n';
    return ini;
}

bool writeProject(const QString& stickRoot, const ProjectSpec& spec)
{
    const QString prefix = projectPrefix(stickRoot, spec);
    bool ok = QDir().mkpath(prefix);
    for (const PackageFile& file : spec.files)
        ok = writeFile(prefix + file.name, file.content) && ok;

    const QByteArray ini = projectIniText(spec);
    ok = (spec.scrambledIni ? writeScrambled(prefix + QStringLiteral("project.ini"), ini)
                            : writeFile(prefix + QStringLiteral("project.ini"), ini))
         && ok;

    QByteArray version("[version]\n");
    if (!spec.product.isEmpty())
        version += "product=" + spec.product.toUtf8() + '\n';
    version += "setversion=" + spec.setVersion.toUtf8() + '\n';
    version += "minrunversion=" + spec.minRunVersion.toUtf8() + '\n';
    ok = writeFile(prefix + QStringLiteral("version.ini"), version) && ok;

    if (spec.withRuntime) {
        const QString productDir = stickRoot + QLatin1Char('/') + spec.name + QLatin1Char('/') + spec.product;
        ok = writeRuntime(productDir + QLatin1Char('/') + variantName(spec.platform) + QStringLiteral("kavo_app"),
                          spec.runtime, true)
             && ok;
        ok = writeFile(productDir + QStringLiteral("/opxupdateu.bin"), QByteArray("runtime update marker\n")) && ok;
    }
    return ok;
}

bool writePackage(const QString& stickRoot, const PackageSpec& spec)
{
    const QString package = stickRoot + QStringLiteral("/opxupdateu");
    bool ok = QDir().mkpath(package + QStringLiteral("/language"));
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
