#include "tools/kit/armelf.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>

namespace kit {
namespace {

void put16(QByteArray& out, quint16 v)
{
    out.append(char(v & 0xff));
    out.append(char(v >> 8));
}

void put32(QByteArray& out, quint32 v)
{
    for (int i = 0; i < 4; ++i)
        out.append(char((v >> (8 * i)) & 0xff));
}

void putUleb(QByteArray& out, quint32 v)
{
    do {
        quint8 byte = v & 0x7f;
        v >>= 7;
        if (v != 0)
            byte |= 0x80;
        out.append(char(byte));
    } while (v != 0);
}

QByteArray cpuName(int cpuArch)
{
    switch (cpuArch) {
    case 4: return "5TE";
    case 5: return "5TEJ";
    case 10: return "7-A";
    default: return "generic";
    }
}

void putSectionHeader(QByteArray& out, quint32 name, quint32 type, quint32 offset, quint32 size)
{
    put32(out, name);
    put32(out, type);
    put32(out, 0); // flags
    put32(out, 0); // addr
    put32(out, offset);
    put32(out, size);
    put32(out, 0); // link
    put32(out, 0); // info
    put32(out, type == 0 ? 0 : 1); // addralign; the null section has none
    put32(out, 0); // entsize
}

} // namespace

QByteArray armAttributesSection(int cpuArch)
{
    QByteArray attrs;
    attrs.append(char(5)); // Tag_CPU_name
    attrs.append(cpuName(cpuArch));
    attrs.append('\0');
    attrs.append(char(6)); // Tag_CPU_arch
    putUleb(attrs, quint32(cpuArch));
    attrs.append(char(8)); // Tag_ARM_ISA_use
    putUleb(attrs, 1);

    QByteArray fileScope;
    fileScope.append(char(1)); // Tag_File
    put32(fileScope, quint32(1 + 4 + attrs.size()));
    fileScope.append(attrs);

    QByteArray vendor("aeabi");
    vendor.append('\0');

    QByteArray section;
    section.append('A'); // format version
    put32(section, quint32(4 + vendor.size() + fileScope.size()));
    section.append(vendor);
    section.append(fileScope);
    return section;
}

QByteArray armElfImage(int cpuArch)
{
    return armElfImageWithSection(armAttributesSection(cpuArch));
}

QByteArray armElfImageWithSection(const QByteArray& attributes, quint32 sectionType)
{
    const quint32 kHeaderSize = 52;
    const quint32 kSectionHeaderSize = 40;
    const QByteArray names = QByteArray("\0.ARM.attributes\0.shstrtab\0", 27);
    const quint32 attributesOffset = kHeaderSize;
    const quint32 namesOffset = attributesOffset + quint32(attributes.size());
    quint32 sectionHeadersOffset = namesOffset + quint32(names.size());
    sectionHeadersOffset = (sectionHeadersOffset + 3) & ~3u;

    QByteArray image;
    image.append("\x7f" "ELF", 4);
    image.append(char(1)); // ELFCLASS32
    image.append(char(1)); // ELFDATA2LSB
    image.append(char(1)); // EV_CURRENT
    image.append(QByteArray(9, '\0'));
    put16(image, 3);  // ET_DYN
    put16(image, 40); // EM_ARM
    put32(image, 1);  // e_version
    put32(image, 0);  // e_entry
    put32(image, 0);  // e_phoff
    put32(image, sectionHeadersOffset);
    put32(image, 0x05000000); // EABI version 5
    put16(image, quint16(kHeaderSize));
    put16(image, 32); // e_phentsize
    put16(image, 0);  // e_phnum
    put16(image, quint16(kSectionHeaderSize));
    put16(image, 3);  // e_shnum
    put16(image, 2);  // e_shstrndx

    image.append(attributes);
    image.append(names);
    image.append(QByteArray(int(sectionHeadersOffset) - image.size(), '\0'));

    putSectionHeader(image, 0, 0, 0, 0);
    putSectionHeader(image, 1, sectionType, attributesOffset, quint32(attributes.size()));
    putSectionHeader(image, 17, 3 /* SHT_STRTAB */, namesOffset, quint32(names.size()));
    return image;
}

bool writeArmElf(const QString& path, int cpuArch)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const QByteArray image = armElfImage(cpuArch);
    return file.write(image) == image.size() && file.flush();
}

} // namespace kit
