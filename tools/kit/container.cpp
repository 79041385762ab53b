#include "tools/kit/container.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <zlib.h>

namespace kit {
namespace {

QByteArray containerHeader()
{
    QByteArray out("KAVOZIPE");
    for (int word = 0; word < 2; ++word)
        for (int i = 0; i < 4; ++i)
            out.append(char((kContainerWord >> (8 * i)) & 0xff));
    return out;
}

} // namespace

QByteArray kavoZipContainer(const QByteArray& project, int level)
{
    const QByteArray out = containerHeader();
    uLongf size = compressBound(uLong(project.size()));
    QByteArray packed(int(size), '\0');
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                  reinterpret_cast<const Bytef*>(project.constData()), uLong(project.size()), level)
        != Z_OK)
        return QByteArray();
    packed.resize(int(size));
    return out + packed;
}

bool writeKavoZipContainer(const QString& source, const QString& target, int level)
{
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly))
        return false;
    QDir().mkpath(QFileInfo(target).absolutePath());
    QFile out(target);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const QByteArray header = containerHeader();
    if (out.write(header) != header.size())
        return false;

    z_stream stream{};
    if (deflateInit(&stream, level) != Z_OK)
        return false;
    const int kPiece = 64 * 1024;
    QByteArray packed(kPiece, '\0');
    bool ok = true;
    int flush = Z_NO_FLUSH;
    while (ok && flush != Z_FINISH) {
        QByteArray piece = in.read(kPiece);
        if (piece.isEmpty() && !in.atEnd()) {
            ok = false;
            break;
        }
        flush = in.atEnd() ? Z_FINISH : Z_NO_FLUSH;
        stream.next_in = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_in = uInt(piece.size());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(packed.data());
            stream.avail_out = uInt(packed.size());
            if (deflate(&stream, flush) == Z_STREAM_ERROR) {
                ok = false;
                break;
            }
            const qint64 produced = packed.size() - qint64(stream.avail_out);
            ok = out.write(packed.constData(), produced) == produced;
        } while (ok && stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return ok && out.flush();
}

} // namespace kit
