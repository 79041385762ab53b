// USB sticks: the package directory "opxupdateu" and one directory per project,
// with the description files the package checks before a download.
#pragma once

#include "tools/kit/runtime.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace kit {

// One file of a project package.
struct PackageFile
{
    QString name;       // relative to the package prefix, e.g. "project.bin" or "DownLoadFile/a/b.dat"
    QByteArray content;
    QString desPath;    // destination directory on the panel, e.g. "/usr/kavo_app/project"
    // A file holding the content, read in pieces, instead of `content`; empty:
    // `content` is the file.
    QString sourcePath = QString();
};

struct ProjectSpec
{
    QString name = QStringLiteral("proj");
    QString variant;                               // "", "v5" or "v7": the directory holding the files
    QString platform = QStringLiteral("10");       // [GLOBAL] OPXPlatform
    QString platformName = QStringLiteral("OPX7"); // [GLOBAL] OPXName
    QString product = QStringLiteral("KavoPro");   // [version] product; empty: key absent
    QString setVersion = QStringLiteral("7.2.1");
    QString minRunVersion = QStringLiteral("7.0.0");
    QString diskCapacity;                          // [hardware] disk_capacity (MiB); empty: absent
    QStringList hardwarePlatforms;                 // [hardware] platform; empty: absent
    QString cpuCore;                               // [hardware] cpu_core; empty: absent
    bool clearRecipe = false;
    bool clearHistory = false;
    bool clearAlarm = false;
    bool clearInitValue = false;
    bool clearUserDir = false;
    bool scrambledIni = false;                     // project.ini stored scrambled
    QList<PackageFile> files = {
        {QStringLiteral("context.dat"), QByteArray("project context\n"), QStringLiteral("/usr/kavo_app/project")},
        {QStringLiteral("project.bin"), QByteArray("the new project\n"), QStringLiteral("/usr/kavo_app/project")},
    };
    bool withRuntime = false;                      // a runtime copy and its updater marker
    RuntimeSpec runtime;
    // With `withRuntime`: a plain runtime directory copied as the runtime copy
    // (see copyRuntime) instead of `runtime`; empty: `runtime` is written.
    QString runtimeSourceDir = QString();
};

// The panel family directory the package looks into on a panel of `platform`:
// "v7" for 10, "v5" for 5, empty for any other.
QString panelFamily(const QString& platform);

// The package prefix of `spec` inside `stickRoot`: root/name/ or root/name/variant/.
QString projectPrefix(const QString& stickRoot, const ProjectSpec& spec);

// The project description text: globals, hardware, one group per file with
// its CRC-32 (upper-case hex, no leading zeros), size and destination, clear flags.
// Texts that the INI reader would otherwise split or cut (holding ",", ";",
// quotes, backslashes or outer blanks) are written quoted. A file read from
// `sourcePath` that cannot be read gets an empty CRC.
QByteArray projectIniText(const ProjectSpec& spec);

// The CRC-32 of the file at `path` as the package writes it (upper-case hex,
// no leading zeros), the file read in pieces; empty when it cannot be read.
QByteArray fileCrcText(const QString& path);

// `text` as an INI value that reads back as it is: unchanged when it is safe,
// else quoted with backslash escapes.
QByteArray iniValue(const QString& text);

// Writes the project's directory into `stickRoot`: files, project.ini (scrambled
// when asked), version.ini, and the runtime copy under product/<v7|v5>/kavo_app
// with product/opxupdateu.bin when asked. The runtime copy follows the panel
// family (`platform` 10 -> "v7/", 5 -> "v5/", otherwise none). False when a
// file cannot be written or copied (`error`, when given, says which).
bool writeProject(const QString& stickRoot, const ProjectSpec& spec, QString* error = nullptr);

// The runtime copy's directory of `spec` inside `stickRoot`:
// root/name/product/<v7/|v5/|>kavo_app.
QString runtimeCopyDir(const QString& stickRoot, const ProjectSpec& spec);

// The package's own files on a stick.
struct PackageSpec
{
    QString executable;        // opxupdateu_proj.bin to copy
    QString helper;            // runtime updater to copy to opxupdateu/helper/; empty: none
    QString version = QStringLiteral("V1.0.0.0");
    QStringList languageNames = {QStringLiteral("中文")};
    QStringList languageIds = {QStringLiteral("0000")};
    int toolLanguage = 0;      // [tool_language] type of proUpdateSet.ini
};

// Writes "opxupdateu/" into `stickRoot`: the executable, the updater, the
// "language/" directory, "config/proUpdateSet.ini" and the scrambled
// "config/proUpdate.ini"; and the empty "opxbackup/" where uploads go.
bool writePackage(const QString& stickRoot, const PackageSpec& spec);

} // namespace kit
