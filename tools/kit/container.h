// The panel's packed project file ("#BKCompreProj.bin"): the magic "KAVOZIPE",
// two equal little-endian header words whose first byte is 0, then one zlib
// stream of the project file.
#pragma once

#include <QByteArray>

namespace kit {

// Header word written by this kit; the panel's own producer fixes its meaning,
// the package only checks that both words agree.
constexpr quint32 kContainerWord = 0x00000100;

// A container holding `project`, deflated at `level`.
QByteArray kavoZipContainer(const QByteArray& project, int level = 6);

} // namespace kit
