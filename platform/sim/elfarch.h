// The reader behind the simulated Kavo_GetPlatform_Arch: the panel's platform
// code is the CPU architecture its C library was built for, as the ARM tool
// chains record it in the file's build attributes.
//
// Only a 32-bit little-endian ARM ELF file (e_machine 40) qualifies. Its
// attributes section (type SHT_ARM_ATTRIBUTES, or named ".ARM.attributes") is
// searched for the file-scope Tag_CPU_arch of the "aeabi" vendor: 4 ARMv5TE,
// 5 ARMv5TEJ, 10 ARMv7, and so on. The file may be anything, including broken
// or hostile input: every offset, size and count is checked before use, only
// the header, the section header table and the sections needed are read, and
// a table or section above 1 MiB is refused.
#pragma once

#include <QByteArray>

namespace platform {
namespace sim {

// The largest section header table or section the reader accepts.
constexpr qint64 kMaxElfSectionBytes = 1024 * 1024;

// Tag_CPU_arch of the ARM ELF file at `path` (UTF-8), or -1 when the file is
// missing, unreadable, not a regular file, not a 32-bit little-endian ARM ELF,
// has no attributes section or no file-scope Tag_CPU_arch, or is truncated or
// corrupt anywhere on the way to that value.
int elfCpuArch(const char* path);

// The same for a file image held in memory.
int elfCpuArchOfImage(const QByteArray& image);

// Tag_CPU_arch of the raw contents of an attributes section (format version
// "A", vendor subsections, Tag_File scope), or -1 as above.
int cpuArchOfAttributes(const QByteArray& section);

} // namespace sim
} // namespace platform
