// The panel's packed project file ("#BKCompreProj.bin"): the magic "KAVOZIPE",
// two equal little-endian header words whose first byte is 0, then one zlib
// stream of the project file.
#pragma once

#include <QByteArray>
#include <QString>

namespace kit {

// Header word written by this kit; the panel's own producer fixes its meaning,
// the package only checks that both words agree.
constexpr quint32 kContainerWord = 0x00000100;

// A container holding `project`, deflated at `level`.
QByteArray kavoZipContainer(const QByteArray& project, int level = 6);

// Writes the container of the file `source` to `target` (directories created),
// deflating the file piece by piece into one zlib stream as kavoZipContainer()
// does. False when a file cannot be read or written.
bool writeKavoZipContainer(const QString& source, const QString& target, int level = 6);

} // namespace kit
