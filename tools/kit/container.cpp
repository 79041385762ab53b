#include "tools/kit/container.h"

#include <zlib.h>

namespace kit {

QByteArray kavoZipContainer(const QByteArray& project, int level)
{
    QByteArray out("KAVOZIPE");
    for (int word = 0; word < 2; ++word)
        for (int i = 0; i < 4; ++i)
            out.append(char((kContainerWord >> (8 * i)) & 0xff));

    uLongf size = compressBound(uLong(project.size()));
    QByteArray packed(int(size), '\0');
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                  reinterpret_cast<const Bytef*>(project.constData()), uLong(project.size()), level)
        != Z_OK)
        return QByteArray();
    packed.resize(int(size));
    return out + packed;
}

} // namespace kit
