// The upload of the panel's project to the stick, without its screen.
//
// The panel keeps its current project as a packed backup file
// ("#BKCompreProj.bin" in its project directory): the magic "KAVOZIPE", two
// equal header words, then one zlib stream of the project file that the
// configuration software opens. The upload dialog (zeltUpDlg) runs these
// routines on the GUI thread with the stick's "opxbackup" directory as the
// working directory:
//
//   targetFileName   the name the unpacked project gets on the stick
//   copyToUdisk      backup file -> "opxbackup/KavoBackupProject.bin" on the
//                    stick, in 1 MiB chunks through the shared copy buffer
//   unpackProject    "./KavoBackupProject.bin" -> "./" + target name
//   freeCopyBuffers  releases the shared buffers once the upload is over
//
// Copy failures are explained on standard error; the operator only learns that
// the upload or the unpacking failed.
#pragma once

#include <QString>

#include <functional>

namespace projectupload {

// The packed copy as the unpacking finds it in the working directory, the
// stick's "opxbackup".
inline const QString kLocalPackedPath = QStringLiteral("./KavoBackupProject.bin");

// The file name of the unpacked project: `baseName` + "." + [PROJECTINFO]
// SUFFIX_NAME of `projectDir` + "/project_setup.ini", or + ".KVP" when the
// file, the key or its value is missing.
QString targetFileName(const QString& baseName, const QString& projectDir);

// Releases both shared copy buffers; safe when they were never allocated.
void freeCopyBuffers();

// Copies the regular file `sourcePath` to "opxbackup/KavoBackupProject.bin" on
// the stick (Kavo_udisk_open, created or truncated) in chunks of the shared copy buffer,
// calling `afterChunk` (may be empty) after every chunk so that the screen
// stays alive. True when every byte was written; false after printing the
// reason to standard error (missing or irregular source, open, seek, read or
// write failure, no buffer). The stick is synced after the target is closed.
bool copyToUdisk(const QString& sourcePath, const std::function<void()>& afterChunk);

// Unpacks the container `packedPath` into `targetPath` (created or truncated).
// `inflating` (may be empty) is called once both files are open and the
// decompressor is ready, before the header is read. True only when the whole
// zlib stream was inflated and written; bytes after the end of the stream are
// ignored. False when a file cannot be opened, the header is wrong, the stream
// is damaged or ends early, or a write falls short; the target may then hold a
// partial project. Memory use does not depend on the data: whatever the stream
// inflates to is streamed to the target.
bool unpackProject(const QString& packedPath, const QString& targetPath, const std::function<void()>& inflating);

} // namespace projectupload
