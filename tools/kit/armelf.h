// Writes small ARM ELF files that carry an ".ARM.attributes" section: the
// stand-in for a panel's C library on a simulated panel, and test input for
// the platform-code reader.
#pragma once

#include <QByteArray>
#include <QString>

namespace kit {

// A 32-bit little-endian ARM shared object whose "aeabi" file attributes name
// the CPU architecture `cpuArch` (Tag_CPU_arch: 5 ARMv5TEJ, 10 ARMv7, ...),
// preceded by a Tag_CPU_name text as real tool chains write it.
QByteArray armElfImage(int cpuArch);

// The section type the ARM tool chains give their attributes section.
constexpr quint32 kShtArmAttributes = 0x70000003;

// The contents of an attributes section as armElfImage() writes it: format
// version "A", one "aeabi" subsection, one Tag_File scope holding Tag_CPU_name,
// Tag_CPU_arch `cpuArch` and Tag_ARM_ISA_use.
QByteArray armAttributesSection(int cpuArch);

// A 32-bit little-endian ARM shared object whose section ".ARM.attributes" of
// type `sectionType` holds `attributes` as they are. Layout: the 52-byte ELF
// header, the attributes at offset 52, the section names, then three section
// headers (null, attributes, names) on a 4-byte boundary.
QByteArray armElfImageWithSection(const QByteArray& attributes, quint32 sectionType = kShtArmAttributes);

// Writes armElfImage(cpuArch) to `path`, creating missing directories. False
// when the file cannot be written completely.
bool writeArmElf(const QString& path, int cpuArch);

} // namespace kit
