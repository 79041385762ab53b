// The upload's unpacking against zlib's own inflate of the same container:
//
//   opxbench_inflate PROJECT_FILE WORKDIR
//
// packs PROJECT_FILE into WORKDIR/packed.bin as the panel does, then unpacks
// it three times each way, alternating, into WORKDIR/out.bin and prints the
// best throughput of each and their ratio. zlib's own: one inflate stream over
// 1 MiB buffers, written with write(2).
#include "tools/kit/container.h"
#include "upload/projectupload.h"

#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

namespace {

bool zlibInflate(const QString& packed, const QString& target)
{
    FILE* in = std::fopen(packed.toUtf8().constData(), "rb");
    const int out = ::open(target.toUtf8().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in == nullptr || out < 0)
        return false;
    std::vector<unsigned char> input(1 << 20);
    std::vector<unsigned char> output(1 << 20);
    unsigned char header[16];
    bool ok = std::fread(header, 1, sizeof header, in) == sizeof header;
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    inflateInit(&stream);
    int result = Z_OK;
    while (ok && result != Z_STREAM_END) {
        stream.avail_in = static_cast<uInt>(std::fread(input.data(), 1, input.size(), in));
        if (stream.avail_in == 0)
            break;
        stream.next_in = input.data();
        do {
            stream.avail_out = static_cast<uInt>(output.size());
            stream.next_out = output.data();
            result = inflate(&stream, Z_NO_FLUSH);
            const size_t produced = output.size() - stream.avail_out;
            ok = result >= 0 && ::write(out, output.data(), produced) == static_cast<ssize_t>(produced);
        } while (ok && stream.avail_out == 0);
    }
    inflateEnd(&stream);
    std::fclose(in);
    ::close(out);
    return ok && result == Z_STREAM_END;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s PROJECT_FILE WORKDIR\n", argv[0]);
        return 2;
    }
    const QString project = QString::fromLocal8Bit(argv[1]);
    const QString packed = QString::fromLocal8Bit(argv[2]) + QStringLiteral("/packed.bin");
    const QString target = QString::fromLocal8Bit(argv[2]) + QStringLiteral("/out.bin");
    if (!kit::writeKavoZipContainer(project, packed)) {
        std::fprintf(stderr, "cannot pack %s\n", argv[1]);
        return 1;
    }
    const double megabytes = double(QFile(project).size()) / (1 << 20);
    double best[2] = {0, 0};
    for (int round = 0; round < 6; ++round) {
        const int which = round % 2;
        // Each run starts alike: no target, nothing of the last run still
        // waiting to go to the disk.
        QFile::remove(target);
        sync();
        QElapsedTimer timer;
        timer.start();
        const bool ok = which == 0 ? projectupload::unpackProject(packed, target, {}) : zlibInflate(packed, target);
        const double seconds = double(timer.nsecsElapsed()) / 1e9;
        if (!ok || QFile(target).size() != QFile(project).size()) {
            std::fprintf(stderr, "unpacking failed (%s)\n", which == 0 ? "package" : "zlib");
            return 1;
        }
        best[which] = std::max(best[which], megabytes / seconds);
    }
    std::printf("unpack   %.0f MB/s, zlib inflate %.0f MB/s, ratio %.2f\n", best[0], best[1], best[0] / best[1]);
    return 0;
}
