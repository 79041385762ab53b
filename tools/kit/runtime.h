// Runtime environment trees ("kavo_app"), as installed on a panel or carried in
// a package: the files, update.ini and the md5sum list that names them.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

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

// The md5 list's file name for a version text: "version." + its first word.
QString md5ListName(const QString& version);

// Writes `data` to `path`, creating missing directories.
bool writeFile(const QString& path, const QByteArray& data);

// Writes the scrambled form of `data` to `path`.
bool writeScrambled(const QString& path, const QByteArray& data);

} // namespace kit
