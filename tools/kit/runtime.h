// Runtime environment trees ("kavo_app"), as installed on a panel or carried in
// a package: the files, update.ini and the md5sum list that names them.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace kit {

struct RuntimeSpec
{
    QString version = QStringLiteral("7.2.1");       // [PREPARE] version (first word names the md5 list)
    QString minSetVersion = QStringLiteral("7.0.0"); // [PREPARE] minsetversion
    QString product = QStringLiteral("KavoPro");     // [PREPARE] product; empty: key left out
    // Runtime files by path relative to the runtime directory.
    QMap<QString, QByteArray> files = {
        {QStringLiteral("bin/kavo_app"), QByteArray("kavo runtime application\n")},
        {QStringLiteral("lib/libkavo.so"), QByteArray("kavo runtime library\n")},
        {QStringLiteral("config/logger.ini"), QByteArray("[log]\nlevel=1\n")},
    };
    bool writeMd5List = true;
};

// The md5sum list of `files`, in the format `md5sum -c` reads.
QByteArray md5List(const QMap<QString, QByteArray>& files);

// The text of an update.ini for `spec`. Scrambled descriptions must carry "#"
// as their fourth clear byte, so the text opens with a comment line that does.
QByteArray updateIniText(const RuntimeSpec& spec);

// Writes the runtime tree into `dir` (created): the files, update.ini (scrambled
// when `scrambled`), and "version." + version with the md5 list.
bool writeRuntime(const QString& dir, const RuntimeSpec& spec, bool scrambled);

// True for a version text the package reads field by field: digits and dots,
// at least three parts, each of at most nine digits (so it fits the package's
// 32-bit fields).
bool isDottedVersion(const QString& text);

// The md5 list's file name for a version text: "version." + its first word.
QString md5ListName(const QString& version);

// Relative paths of the regular files below `dir`, sorted; symbolic links to
// files count as files, linked directories are not entered.
QStringList regularFiles(const QString& dir);

// Writes `data` to `path`, creating missing directories.
bool writeFile(const QString& path, const QByteArray& data);

// Copies the file `from` to `to`, replacing what is there and creating missing
// directories.
bool copyFile(const QString& from, const QString& to);

// Writes the scrambled form of `data` to `path`.
bool writeScrambled(const QString& path, const QByteArray& data);

// What a plain update.ini says, read as the package reads it (UTF-8).
struct RuntimeDescription
{
    bool readable = false;   // the file exists and parses as INI
    QString version;         // [PREPARE] version, as stored
    QString minSetVersion;   // [PREPARE] minsetversion
    bool hasProduct = false; // [PREPARE] product present (possibly empty)
    QString product;
};

// Reads the plain runtime description at `path`.
RuntimeDescription readRuntimeDescription(const QString& path);

// Why the plain runtime directory `dir` cannot be carried or installed (it is
// missing, not a directory, or its update.ini is missing, unreadable or names
// no version), in the words the tools print; empty when it is usable, with
// `description` then holding what its update.ini says.
QString runtimeDirectoryProblem(const QString& dir, RuntimeDescription* description = nullptr);

// The md5sum list of every regular file below `dir` (paths relative to it,
// sorted) except the relative paths in `exclude`, each file read in pieces.
// Names holding a backslash or a line break are escaped as md5sum escapes
// them. Null when a file cannot be read.
QByteArray md5ListOfDirectory(const QString& dir, const QStringList& exclude);

// Copies the plain runtime directory `sourceDir` (its files and a plain
// update.ini that names a version) into `targetDir` (created): every file as
// it is, update.ini plain or, when `scrambled`, scrambled behind a comment
// line that gives it the "#" mark where its own text lacks one, and a fresh
// md5 list "version." + first word of the version for all files but update.ini
// and the list. False with `error` set when the source is unusable or a file
// cannot be copied.
bool copyRuntime(const QString& sourceDir, const QString& targetDir, bool scrambled, QString* error = nullptr);

} // namespace kit
