// The language file reader: any file a stick's language directory may hold.
#include "fuzzsupport.h"

#include "text/multilingualmanager.h"

#include <QFile>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString file = fuzz::freshPath(QStringLiteral("language.lan"));
    fuzz::writeFile(file, fuzz::bytes(data, size));

    MultilingualManager* texts = MultilingualManager::GetInstance();
    texts->loadMultilingualFile(file, QString());
    for (const int id : {0, 1000, 2000, 2068, -1})
        texts->getMultilingualValue(id);

    QFile::remove(file);
    return 0;
}
