#include "platform/sim/elfarch.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace sim {
namespace {

constexpr qint64 kElfHeaderSize = 52;
constexpr qint64 kSectionHeaderSize = 40;
constexpr int kMachineArm = 40;
constexpr quint32 kShtNobits = 8;
constexpr quint32 kShtArmAttributes = 0x70000003;
constexpr quint32 kShnXindex = 0xffff;
constexpr quint64 kTagFile = 1;
constexpr quint64 kTagCpuArch = 6;
constexpr quint64 kTagCompatibility = 32;
const char kAttributesName[] = ".ARM.attributes";

// Where the bytes come from: a file read piece by piece, or an image in memory.
// read() gives exactly [offset, offset + length) or fails; a range reaching past
// the end fails, which is how truncation shows.
class Source
{
public:
    virtual ~Source() = default;
    virtual qint64 size() const = 0;
    virtual bool readAt(qint64 offset, char* out, qint64 length) const = 0;

    bool read(qint64 offset, qint64 length, QByteArray& out) const
    {
        if (offset < 0 || length < 0 || length > kMaxElfSectionBytes || offset > size()
            || length > size() - offset)
            return false;
        out.resize(int(length));
        return readAt(offset, out.data(), length);
    }
};

class FileSource : public Source
{
public:
    explicit FileSource(int fd, qint64 size) : m_fd(fd), m_size(size) {}

    qint64 size() const override { return m_size; }

    bool readAt(qint64 offset, char* out, qint64 length) const override
    {
        while (length > 0) {
            const ssize_t got = pread(m_fd, out, size_t(length), off_t(offset));
            if (got < 0 && errno == EINTR)
                continue;
            // 0 means the file shrank under us since fstat: as good as truncated.
            if (got <= 0)
                return false;
            out += got;
            offset += got;
            length -= got;
        }
        return true;
    }

private:
    int m_fd;
    qint64 m_size;
};

class ImageSource : public Source
{
public:
    explicit ImageSource(const QByteArray& image) : m_image(image) {}

    qint64 size() const override { return m_image.size(); }

    bool readAt(qint64 offset, char* out, qint64 length) const override
    {
        std::memcpy(out, m_image.constData() + offset, size_t(length));
        return true;
    }

private:
    const QByteArray& m_image;
};

const uchar* bytes(const QByteArray& data)
{
    return reinterpret_cast<const uchar*>(data.constData());
}

quint32 le16(const uchar* p)
{
    return quint32(p[0]) | quint32(p[1]) << 8;
}

quint32 le32(const uchar* p)
{
    return quint32(p[0]) | quint32(p[1]) << 8 | quint32(p[2]) << 16 | quint32(p[3]) << 24;
}

struct Section
{
    quint32 name = 0;
    quint32 type = 0;
    quint32 offset = 0;
    quint32 size = 0;
    quint32 link = 0;
};

Section sectionAt(const uchar* entry)
{
    Section s;
    s.name = le32(entry);
    s.type = le32(entry + 4);
    s.offset = le32(entry + 16);
    s.size = le32(entry + 20);
    s.link = le32(entry + 24);
    return s;
}

// The section's contents, or false when it has none in the file or lies
// (partly) outside it.
bool readSection(const Source& source, const Section& section, QByteArray& out)
{
    if (section.type == kShtNobits || section.size == 0)
        return false;
    return source.read(section.offset, section.size, out);
}

// A cursor over one bounded stretch of the attributes section. Every step
// checks the end first; on a failure the position is left wherever it was.
class Cursor
{
public:
    Cursor(const uchar* data, qint64 pos, qint64 end) : m_data(data), m_pos(pos), m_end(end) {}

    qint64 pos() const { return m_pos; }
    bool atEnd() const { return m_pos >= m_end; }

    // A ULEB128 number. Values beyond 64 bits are read to their end and come
    // out as the largest value, so that no caller mistakes them for a small one.
    bool uleb(quint64& value)
    {
        quint64 result = 0;
        bool overflow = false;
        int shift = 0;
        for (;;) {
            if (m_pos >= m_end)
                return false;
            const quint64 part = m_data[m_pos] & 0x7fu;
            const bool more = (m_data[m_pos] & 0x80u) != 0;
            ++m_pos;
            if (shift < 64) {
                if (shift > 0 && (part >> (64 - shift)) != 0)
                    overflow = true;
                result |= part << shift;
            } else if (part != 0) {
                overflow = true;
            }
            if (!more)
                break;
            if (shift < 64)
                shift += 7;
        }
        value = overflow ? ~quint64(0) : result;
        return true;
    }

    // Skips a zero-terminated text; the terminator must lie inside the stretch.
    bool skipText()
    {
        if (m_pos >= m_end)
            return false;
        const void* nul = std::memchr(m_data + m_pos, 0, size_t(m_end - m_pos));
        if (nul == nullptr)
            return false;
        m_pos = static_cast<const uchar*>(nul) - m_data + 1;
        return true;
    }

    bool u32(quint32& value)
    {
        if (m_end - m_pos < 4)
            return false;
        value = le32(m_data + m_pos);
        m_pos += 4;
        return true;
    }

private:
    const uchar* m_data;
    qint64 m_pos;
    qint64 m_end;
};

enum class Scan { Found, Absent, Corrupt };

// Tag numbers below 32 have fixed meanings; from 32 on, an even tag carries a
// ULEB128 and an odd one a text, so that a reader can skip tags it does not
// know. Tag_compatibility (32) is the exception: a flag followed by a vendor name.
bool skipAttribute(Cursor& cursor, quint64 tag)
{
    quint64 ignored = 0;
    switch (tag) {
    case 4:  // Tag_CPU_raw_name
    case 5:  // Tag_CPU_name
    case 65: // Tag_also_compatible_with: a tag and value packed as a text
    case 67: // Tag_conformance
        return cursor.skipText();
    case kTagCompatibility:
        return cursor.uleb(ignored) && cursor.skipText();
    default:
        if (tag >= 32 && tag % 2 == 1)
            return cursor.skipText();
        return cursor.uleb(ignored);
    }
}

Scan scanAttributeList(Cursor cursor, int& cpuArch)
{
    while (!cursor.atEnd()) {
        quint64 tag = 0;
        if (!cursor.uleb(tag))
            return Scan::Corrupt;
        if (tag == kTagCpuArch) {
            quint64 value = 0;
            if (!cursor.uleb(value) || value > quint64(INT_MAX))
                return Scan::Corrupt;
            cpuArch = int(value);
            return Scan::Found;
        }
        if (!skipAttribute(cursor, tag))
            return Scan::Corrupt;
    }
    return Scan::Absent;
}

// The "aeabi" subsection body: sub-subsections of a scope tag and a length
// that counts from the tag. Only Tag_File describes the whole file; section
// and symbol scopes are skipped by their length.
Scan scanVendorBody(const uchar* data, qint64 pos, qint64 end, int& cpuArch)
{
    while (pos < end) {
        Cursor cursor(data, pos, end);
        quint64 scope = 0;
        quint32 length = 0;
        if (!cursor.uleb(scope) || !cursor.u32(length))
            return Scan::Corrupt;
        if (length < cursor.pos() - pos || length > end - pos)
            return Scan::Corrupt;
        const qint64 scopeEnd = pos + length;
        if (scope == kTagFile) {
            const Scan scan = scanAttributeList(Cursor(data, cursor.pos(), scopeEnd), cpuArch);
            if (scan != Scan::Absent)
                return scan;
        }
        pos = scopeEnd;
    }
    return Scan::Absent;
}

int cpuArchOf(const Source& source)
{
    QByteArray header;
    if (!source.read(0, kElfHeaderSize, header))
        return -1;
    const uchar* h = bytes(header);
    if (std::memcmp(h, "\x7f" "ELF", 4) != 0 || h[4] != 1 /* ELFCLASS32 */ || h[5] != 1 /* ELFDATA2LSB */
        || le16(h + 18) != kMachineArm)
        return -1;

    const qint64 tableOffset = le32(h + 32);
    const qint64 entrySize = le16(h + 46);
    quint32 count = le16(h + 48);
    quint32 namesIndex = le16(h + 50);
    if (tableOffset == 0 || entrySize < kSectionHeaderSize)
        return -1;
    // Files with very many sections keep the real count and the index of the
    // section names in the reserved section 0.
    if (count == 0 || namesIndex == kShnXindex) {
        QByteArray first;
        if (!source.read(tableOffset, kSectionHeaderSize, first))
            return -1;
        const Section reserved = sectionAt(bytes(first));
        if (count == 0)
            count = reserved.size;
        if (namesIndex == kShnXindex)
            namesIndex = reserved.link;
    }
    if (count == 0)
        return -1;

    // read() refuses a table above the limit, like any section.
    QByteArray table;
    if (!source.read(tableOffset, qint64(count) * entrySize, table))
        return -1;
    const uchar* entries = bytes(table);
    auto section = [&](quint32 index) { return sectionAt(entries + qint64(index) * entrySize); };

    // Section 0 is reserved and never a real section.
    quint32 found = 0;
    for (quint32 i = 1; i < count && found == 0; ++i) {
        if (section(i).type == kShtArmAttributes)
            found = i;
    }
    if (found == 0 && namesIndex != 0 && namesIndex < count) {
        QByteArray names;
        if (readSection(source, section(namesIndex), names)) {
            const qint64 wanted = qint64(sizeof kAttributesName); // with its terminator
            for (quint32 i = 1; i < count && found == 0; ++i) {
                const qint64 at = section(i).name;
                if (at <= names.size() - wanted && std::memcmp(names.constData() + at, kAttributesName, size_t(wanted)) == 0)
                    found = i;
            }
        }
    }
    if (found == 0)
        return -1;

    QByteArray attributes;
    if (!readSection(source, section(found), attributes))
        return -1;
    return cpuArchOfAttributes(attributes);
}

} // namespace

int cpuArchOfAttributes(const QByteArray& section)
{
    const uchar* data = bytes(section);
    const qint64 size = section.size();
    if (size < 1 || data[0] != 'A')
        return -1;

    qint64 pos = 1;
    while (pos < size) {
        // A vendor subsection: its length (counting itself), the vendor's name,
        // then the vendor's own data.
        Cursor cursor(data, pos, size);
        quint32 length = 0;
        if (!cursor.u32(length) || length < 4 || length > size - pos)
            return -1;
        const qint64 end = pos + length;
        Cursor name(data, cursor.pos(), end);
        if (!name.skipText())
            return -1;
        const qint64 nameLength = name.pos() - cursor.pos() - 1;
        if (nameLength == 5 && std::memcmp(data + cursor.pos(), "aeabi", 5) == 0) {
            int cpuArch = -1;
            switch (scanVendorBody(data, name.pos(), end, cpuArch)) {
            case Scan::Found:
                return cpuArch;
            case Scan::Corrupt:
                return -1;
            case Scan::Absent:
                break;
            }
        }
        pos = end;
    }
    return -1;
}

int elfCpuArchOfImage(const QByteArray& image)
{
    return cpuArchOf(ImageSource(image));
}

int elfCpuArch(const char* path)
{
    if (path == nullptr || *path == '\0')
        return -1;
    // Non-blocking, so that a FIFO or a device under that name cannot hold the
    // caller; only regular files are read at all.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return -1;
    struct stat info;
    int result = -1;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
        result = cpuArchOf(FileSource(fd, info.st_size));
    close(fd);
    return result;
}

} // namespace sim
} // namespace platform
