// The unpacking of the panel's packed project: any file may stand where the
// container is expected. What it writes must be exactly what zlib inflates
// from the container, and it succeeds exactly when the stream is whole.
#include "fuzzsupport.h"

#include "upload/projectupload.h"

#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <zlib.h>

namespace {

// The container's verdict and contents by the book: "KAVOZIPE", a zero byte
// and two equal words, then one zlib stream that must end.
bool reference(const QByteArray& input, QByteArray& project)
{
    if (input.size() < 16 || std::memcmp(input.constData(), "KAVOZIPE", 9) != 0
        || std::memcmp(input.constData() + 8, input.constData() + 12, 4) != 0)
        return false;
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    if (inflateInit(&stream) != Z_OK)
        return false;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.constData() + 16));
    stream.avail_in = static_cast<uInt>(input.size() - 16);
    int result = Z_OK;
    char out[16384];
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(out);
        stream.avail_out = sizeof out;
        result = inflate(&stream, Z_NO_FLUSH);
        project.append(out, static_cast<int>(sizeof out - stream.avail_out));
    }
    inflateEnd(&stream);
    return result == Z_STREAM_END;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = fuzz::bytes(data, size);
    const QString packed = fuzz::freshPath(QStringLiteral("KavoBackupProject.bin"));
    const QString target = fuzz::freshPath(QStringLiteral("project.KVP"));
    fuzz::writeFile(packed, input);

    bool inflating = false;
    const bool unpacked = projectupload::unpackProject(packed, target, [&] { inflating = true; });

    QByteArray project;
    const bool whole = reference(input, project);
    QFile written(target);
    const bool same = written.open(QIODevice::ReadOnly) && written.readAll() == project;
    if (unpacked != whole || (whole && !same) || !inflating) {
        std::fprintf(stderr, "unpacked %d, whole stream %d, same contents %d\n", unpacked, whole, same);
        std::abort();
    }

    QFile::remove(packed);
    QFile::remove(target);
    return 0;
}
