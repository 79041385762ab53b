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

// Writes armElfImage(cpuArch) to `path`, creating missing directories.
bool writeArmElf(const QString& path, int cpuArch);

} // namespace kit
