#include "upload/projectupload.h"

#include "download/accessfile.h"
#include "platform/kavo_api.h"

#include <QByteArray>
#include <QSettings>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace projectupload {

namespace {

// The packed copy as the stick access routine names it, relative to the root
// of the stick.
constexpr char kStickPackedPath[] = "opxbackup/KavoBackupProject.bin";

constexpr char kSuffixKey[] = "/PROJECTINFO/SUFFIX_NAME";

// Extension used when the project settings name none.
const QString kDefaultSuffix = QStringLiteral(".KVP");

// Input and output chunk of the unpacking, in bytes. Inflating itself runs at
// several times the speed of the page cache; what decides the throughput is
// the cost per read and write, so the chunks are large.
constexpr int kUnpackChunk = 1 << 20;

// The container's fixed header: the magic, then two 32-bit words.
constexpr char kMagic[] = "KAVOZIPE";
constexpr size_t kHeaderSize = 16;

uint32_t littleEndianWord(const unsigned char* bytes)
{
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

// The panel's producer compares its magic as a C string against the whole
// header, so the terminating zero has to be there as well: byte 8, the first
// byte of the first word, is 0 in every container the panel writes. The two
// words carry no meaning for the package beyond having to agree.
bool headerValid(const unsigned char* header)
{
    if (std::memcmp(header, kMagic, sizeof(kMagic)) != 0)
        return false;
    return littleEndianWord(header + 8) == littleEndianWord(header + 12);
}

// Writes all `count` bytes of `data` at the current position of `fd`, going on
// after partial writes. False after reporting a failed write.
bool writeAll(int fd, const char* data, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t written = write(fd, data + done, count - done);
        if (written <= 0) {
            // A write that moves nothing would be tried for ever; it counts as
            // a failure like an error does.
            const int error = written == 0 ? EIO : errno;
            fprintf(stderr, "error write failed!%s\n", strerror(error));
            return false;
        }
        done += size_t(written);
    }
    return true;
}

// Copies `size` bytes from `source` to `target` chunk by chunk. Both files are
// positioned explicitly before every chunk so that each chunk lands at its own
// offset whatever an earlier partial transfer left behind. Returns the bytes
// that were not copied (0 on success).
off_t copyChunks(int source, int target, off_t size, const char* sourcePath,
                 const std::function<void()>& afterChunk)
{
    const AccessFile::CopyBuffer& copy = AccessFile::_s_accessFile;
    off_t offset = 0;
    off_t remaining = size;
    while (remaining > 0) {
        const size_t chunk = remaining < off_t(copy.size) ? size_t(remaining) : copy.size;

        if (lseek(source, offset, SEEK_SET) == off_t(-1)) {
            fprintf(stderr, "seek failed!%s\n", strerror(errno));
            fprintf(stderr, " read file:%s data failed!\n", sourcePath);
            break;
        }
        const ssize_t got = read(source, copy.buffer, chunk);
        if (got == -1) {
            fprintf(stderr, "error read failed!%s\n", strerror(errno));
            fprintf(stderr, " read file:%s data failed!\n", sourcePath);
            break;
        }
        if (got == 0) {
            // The file shrank under the copy.
            fprintf(stderr, "reach the end of file, but not read finished!%d\n", int(remaining));
            fprintf(stderr, " read file:%s data failed!\n", sourcePath);
            break;
        }

        if (lseek(target, offset, SEEK_SET) == off_t(-1)) {
            fprintf(stderr, "seek failed!%s\n", strerror(errno));
            fprintf(stderr, " write file:%s data failed!\n", kStickPackedPath);
            break;
        }
        if (!writeAll(target, copy.buffer, size_t(got)))
            break;

        if (afterChunk)
            afterChunk();
        offset += got;
        remaining -= got;
    }
    return remaining;
}

// Closes the two files of an unpacking and tells whether it succeeded.
bool finishUnpack(FILE* in, FILE* out, bool ok)
{
    fclose(in);
    // The stick's file system may report a full disk only when the last
    // buffered bytes go out.
    if (fclose(out) != 0)
        ok = false;
    return ok;
}

// "." + [PROJECTINFO] SUFFIX_NAME of `projectDir` + "/project_setup.ini", or
// kDefaultSuffix when the file, the key or its value is missing.
QString projectSuffix(const QString& projectDir)
{
    QSettings settings(projectDir + QStringLiteral("/project_setup.ini"), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    const QString suffix = settings.value(QLatin1String(kSuffixKey)).toString();
    if (suffix.isEmpty())
        return kDefaultSuffix;
    return QLatin1Char('.') + suffix;
}

// Allocates AccessFile::_s_accessFile (1 MiB) when it is not there yet. False
// when the memory cannot be had.
bool ensureCopyBuffer()
{
    AccessFile::CopyBuffer& copy = AccessFile::_s_accessFile;
    if (copy.buffer != nullptr)
        return true;
    copy.buffer = new (std::nothrow) char[AccessFile::kCopyBufferSize];
    if (copy.buffer == nullptr)
        return false;
    copy.size = AccessFile::kCopyBufferSize;
    return true;
}

} // namespace

QString targetFileName(const QString& baseName, const QString& projectDir)
{
    return baseName + projectSuffix(projectDir);
}

void freeCopyBuffers()
{
    delete[] AccessFile::_s_accessFile.buffer;
    AccessFile::_s_accessFile.buffer = nullptr;
    AccessFile::_s_accessFile.size = 0;
    delete[] AccessFile::_s_sumCodeBuf;
    AccessFile::_s_sumCodeBuf = nullptr;
}

bool copyToUdisk(const QString& sourcePath, const std::function<void()>& afterChunk)
{
    if (!ensureCopyBuffer())
        return false;

    const QByteArray source = sourcePath.toUtf8();
    struct stat info;
    if (stat(source.constData(), &info) != 0) {
        fprintf(stderr, "stat src path:%s failed! %s\n", source.constData(), strerror(errno));
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        fprintf(stderr, "src file is not a regular file:%d\n", int(info.st_mode));
        return false;
    }

    const int in = open(source.constData(), O_RDONLY);
    if (in == -1) {
        fprintf(stderr, "copy r open file:%s failed:%s\n", source.constData(), strerror(errno));
        return false;
    }
    const off_t size = lseek(in, 0, SEEK_END);
    if (size == off_t(-1)) {
        fprintf(stderr, "seek file %s failed!%s\n", source.constData(), strerror(errno));
        close(in);
        return false;
    }

    const int out = Kavo_udisk_open(kStickPackedPath, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    if (out == -1) {
        fprintf(stderr, "copy w open file:%s failed:%s\n", kStickPackedPath, strerror(errno));
        close(in);
        return false;
    }

    if (size == 0) {
        fprintf(stderr, "real copy a empty file:%s\n", kStickPackedPath);
        close(in);
        close(out);
        sync();
        return true;
    }

    const off_t remaining = copyChunks(in, out, size, source.constData(), afterChunk);
    close(in);
    close(out);
    sync();
    return remaining == 0;
}

bool unpackProject(const QString& packedPath, const QString& targetPath, const std::function<void()>& inflating)
{
    FILE* in = fopen(packedPath.toUtf8().constData(), "rb");
    if (in == nullptr)
        return false;
    FILE* out = fopen(targetPath.toUtf8().constData(), "wb");
    if (out == nullptr) {
        fclose(in);
        return false;
    }

    std::vector<unsigned char> input(kUnpackChunk, 0);
    std::vector<unsigned char> output(kUnpackChunk, 0);

    // inflateInit hands zlib the version and stream-structure size of the
    // headers this program is built with, and zlib refuses a mismatch with
    // itself. The panel's library is the 1.2.8 one, whose stream structure
    // is 56 bytes on the panel's 32-bit processor; a build for a PC passes its
    // own library's values the same way.
    z_stream stream;
    std::memset(&stream, 0, sizeof(stream));
    if (inflateInit(&stream) != Z_OK)
        return finishUnpack(in, out, false);

    if (inflating)
        inflating();

    unsigned char header[kHeaderSize];
    if (fread(header, 1, kHeaderSize, in) != kHeaderSize || !headerValid(header)) {
        inflateEnd(&stream);
        return finishUnpack(in, out, false);
    }

    // The loop ends at the end of the zlib stream or of the file, whichever
    // comes first: each pass consumes fresh input, and an inner pass ends as
    // soon as inflate leaves room in the output buffer, which it does when it
    // runs out of input. What a stream inflates to goes straight to the target
    // one buffer at a time; its size is bounded only by the space on the stick,
    // and a full stick shows up as a short write.
    int result = Z_OK;
    bool failed = false;
    do {
        stream.avail_in = uInt(fread(input.data(), 1, input.size(), in));
        if (ferror(in)) {
            failed = true;
            break;
        }
        if (stream.avail_in == 0)
            break;
        stream.next_in = input.data();

        do {
            stream.avail_out = uInt(output.size());
            stream.next_out = output.data();
            result = inflate(&stream, Z_NO_FLUSH);
            if (result == Z_STREAM_ERROR || result == Z_NEED_DICT || result == Z_DATA_ERROR
                || result == Z_MEM_ERROR) {
                failed = true;
                break;
            }
            const size_t produced = output.size() - stream.avail_out;
            if (fwrite(output.data(), 1, produced, out) != produced || ferror(out)) {
                failed = true;
                break;
            }
        } while (stream.avail_out == 0);
    } while (!failed && result != Z_STREAM_END);

    inflateEnd(&stream);
    return finishUnpack(in, out, !failed && result == Z_STREAM_END);
}

} // namespace projectupload
