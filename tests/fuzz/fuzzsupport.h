// What the fuzz targets share: a scratch directory that is also the simulated
// panel's root, fresh file names, inputs cut into several files. A download
// without a screen is the tests' RecordingDownload.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstddef>
#include <cstdint>

namespace fuzz {

// This process's scratch directory, on a memory file system where the
// machine has one; made on first use with "tmp" inside it, named by
// KAVO_PANEL_ROOT, and removed at exit. It is also the working directory.
QString scratchDir();

// A path in the scratch directory that no earlier call gave: QSettings keeps
// what it parsed of a path for the life of the process and would answer a
// later input from an earlier one.
QString freshPath(const QString& stem);

// The input as bytes.
QByteArray bytes(const uint8_t* data, size_t size);

// The input cut at every line "--8<--" into exactly `count` files; missing
// ones are empty and the last takes the rest, separators included.
QList<QByteArray> files(const QByteArray& input, int count);

// Writes `content` to `path` as the kit writes files (scrambled when asked),
// creating its directory; aborts when it cannot, as that is the machine
// failing, not the code under test.
void writeFile(const QString& path, const QByteArray& content, bool scrambled = false);

} // namespace fuzz
