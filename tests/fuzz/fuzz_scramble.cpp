// The scrambling decoder: any file may stand where a scrambled description is
// expected. Unmarked conversion is exactly undone by the producer's; a marked
// one that passes is read as the package reads a description.
#include "fuzzsupport.h"

#include "download/qsettingsfactory.h"

#include <QFile>
#include <QSettings>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = fuzz::bytes(data, size);
    const QString scrambled = fuzz::freshPath(QStringLiteral("scrambled"));
    const QString clear = fuzz::freshPath(QStringLiteral("clear"));
    const QString again = fuzz::freshPath(QStringLiteral("again"));
    fuzz::writeFile(scrambled, input);

    if (!QSettingsFactory::decryptFile(scrambled, clear, CRYPT_NO_MARK)
        || !QSettingsFactory::encryptFile(clear, again)) {
        std::fprintf(stderr, "an unmarked conversion failed\n");
        std::abort();
    }
    QFile file(again);
    if (!file.open(QIODevice::ReadOnly) || file.readAll() != input) {
        std::fprintf(stderr, "scrambling the clear copy does not give the input back\n");
        std::abort();
    }
    file.close();

    if (QSettingsFactory::decryptFile(scrambled, clear, CRYPT_WITH_MARK)) {
        const FreshCopy copy(clear);
        QSettings settings(copy.path(), QSettings::IniFormat);
        settings.setIniCodec("UTF-8");
        settings.value(QStringLiteral("/PREPARE/version")).toString();
    }

    for (const QString& path : {scrambled, clear, again})
        QFile::remove(path);
    return 0;
}
