// The platform-code reader: the panel's C library may be any file. The file
// and the in-memory reading must agree.
#include "fuzzsupport.h"

#include "platform/sim/elfarch.h"

#include <QFile>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray image = fuzz::bytes(data, size);
    const int fromImage = platform::sim::elfCpuArchOfImage(image);

    const QString file = fuzz::freshPath(QStringLiteral("libc.so.6"));
    fuzz::writeFile(file, image);
    const int fromFile = platform::sim::elfCpuArch(QFile::encodeName(file).constData());
    QFile::remove(file);

    if (fromImage != fromFile) {
        std::fprintf(stderr, "image gives %d, file gives %d\n", fromImage, fromFile);
        std::abort();
    }
    return 0;
}
