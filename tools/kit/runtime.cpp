#include "tools/kit/runtime.h"

#include "download/qsettingsfactory.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace kit {

bool writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
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

QString md5ListName(const QString& version)
{
    return QStringLiteral("version.") + version.trimmed().split(QLatin1Char(' '), Qt::SkipEmptyParts).value(0);
}

QByteArray updateIniText(const RuntimeSpec& spec)
{
    QByteArray text(";;;# runtime environment description\n[PREPARE]\n");
    text += "version=" + spec.version.toUtf8() + '\n';
    text += "minsetversion=" + spec.minSetVersion.toUtf8() + '\n';
    if (!spec.product.isEmpty())
        text += "product=" + spec.product.toUtf8() + '\n';
    return text;
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
