#include "qsettingsfactory.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr unsigned char kScrambleKey = 0x6B;
constexpr std::streamsize kChunkSize = 255;

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Drops what a failed conversion wrote: it is clear text all the same.
void discardWritten(int fd)
{
    while (::ftruncate(fd, 0) != 0 && errno == EINTR)
        continue;
}

} // namespace

unsigned char QSettingsFactory::decryptByte(unsigned char b)
{
    const unsigned char rotated = static_cast<unsigned char>((b >> 5) | (b << 3));
    return static_cast<unsigned char>(rotated ^ kScrambleKey);
}

unsigned char QSettingsFactory::encryptByte(unsigned char b)
{
    const unsigned char mixed = static_cast<unsigned char>(b ^ kScrambleKey);
    return static_cast<unsigned char>((mixed << 5) | (mixed >> 3));
}

bool QSettingsFactory::decryptFile(const QString& source, const QString& target, CRYPT_TYPE type)
{
    std::ifstream in(source.toUtf8().constData(), std::ios::in | std::ios::binary);
    if (!in.is_open())
        return false;
    // The clear copies have fixed names in the panel's /tmp, where anybody may
    // plant a link. Following one would put the clear text wherever the link
    // points (or overwrite that file): a link at the target's own path makes
    // the open fail instead, before anything is truncated.
    const int out = ::open(target.toUtf8().constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (out < 0)
        return false;

    in.seekg(0, std::ios::end);
    const std::streamoff length = std::max<std::streamoff>(in.tellg(), 0);
    in.seekg(0, std::ios::beg);

    // Only the lowest bit of the type counts: even types carry the mark.
    const bool checkMark = (static_cast<int>(type) & 1) == 0;

    char buffer[kChunkSize] = {};
    std::streamoff remaining = length;
    std::streamsize chunk = static_cast<std::streamsize>(std::min<std::streamoff>(length, kChunkSize));
    bool firstChunk = true;
    bool result = true;

    for (;;) {
        // A short read means the file ended early; what was converted stands.
        in.read(buffer, chunk);
        if (in.fail() || in.bad())
            break;

        for (std::streamsize i = 0; i < chunk; ++i)
            buffer[i] = static_cast<char>(decryptByte(static_cast<unsigned char>(buffer[i])));

        // The clear file of a marked type starts with a comment line whose fourth
        // byte is "#"; anything else is not one of our files.
        if (firstChunk && checkMark && (chunk < 4 || buffer[3] != '#')) {
            result = false;
            break;
        }
        firstChunk = false;

        // A clear copy that could not be written whole would be read as a
        // shorter description: it fails, and is left empty as a refused one.
        if (!writeAll(out, buffer, static_cast<size_t>(chunk))) {
            discardWritten(out);
            result = false;
            break;
        }

        remaining -= kChunkSize;
        if (remaining > kChunkSize)
            chunk = kChunkSize;
        else if (remaining < 0)
            break;
        else
            chunk = static_cast<std::streamsize>(remaining);
    }

    in.close();
    ::close(out);
    // The clear copy is opened by the INI reader right after this.
    ::sync();
    return result;
}

bool QSettingsFactory::encryptFile(const QString& source, const QString& target)
{
    std::ifstream in(source.toUtf8().constData(), std::ios::in | std::ios::binary);
    std::ofstream out(target.toUtf8().constData(), std::ios::out | std::ios::binary | std::ios::trunc);
    if (!in.is_open() || !out.is_open())
        return false;

    char buffer[4096];
    while (in) {
        in.read(buffer, sizeof buffer);
        const std::streamsize got = in.gcount();
        for (std::streamsize i = 0; i < got; ++i)
            buffer[i] = static_cast<char>(encryptByte(static_cast<unsigned char>(buffer[i])));
        out.write(buffer, got);
    }
    const bool readAll = !in.bad();

    in.close();
    out.close();
    ::sync();
    return readAll && !out.fail();
}

FreshCopy::FreshCopy(const QString& path)
    : m_original(path)
    , m_path(path)
{
    static int serial = 0;
    const QString copy = path + QLatin1Char('.') + QString::number(QCoreApplication::applicationPid())
                         + QLatin1Char('.') + QString::number(++serial);
    QFile::remove(copy);
    if (QFile::copy(path, copy))
        m_path = copy;
}

// A clear copy left on the panel would give away what the scrambling hides:
// once read, both the private copy and the clear copy it came from go.
FreshCopy::~FreshCopy()
{
    if (m_path != m_original)
        QFile::remove(m_path);
    QFile::remove(m_original);
    ::sync();
}
