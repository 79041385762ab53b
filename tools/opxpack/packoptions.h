// The command line of opxpack, the stick builder for integrators: which plain
// project directory to pack, where the stick is, and every value the package
// description carries. Parsing checks the form of each value; what the files
// say is StickBuilder's to check.
#pragma once

#include "tools/kit/toolcli.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace opxpack {

using kit::ExitCode;
using kit::ParseOutcome;
using kit::ParseStatus;

// One --dest rule: project files whose path relative to the project directory
// matches `glob` go to `panelDir` on the panel.
struct Destination
{
    QString glob;
    QString panelDir;
};

struct PackOptions
{
    QString projectDir;
    QString name;                                  // project directory on the stick
    QString stickRoot;
    bool force = false;                            // replace a project of that name
    QList<Destination> destinations;               // the user's rules, first match wins
    QString platform = QStringLiteral("10");
    QString platformName = QStringLiteral("OPX7");
    QString product = QStringLiteral("KavoPro");
    QString setVersion = QStringLiteral("7.2.1");
    QString minRunVersion = QStringLiteral("7.0.0");
    QString diskCapacity;                          // MiB; empty: no condition
    QStringList hardwarePlatforms;
    QString cpuCore;                               // empty: no condition
    bool clearRecipe = false;
    bool clearHistory = false;
    bool clearAlarm = false;
    bool clearInitValue = false;
    bool clearUserDir = false;
    QString variant = QStringLiteral("v7");        // "", "v5" or "v7", resolved from --variant
    bool scramble = false;
    QString runtimeDir;                            // plain runtime to carry; empty: none
    QString executable;                            // empty: looked for beside opxpack
    QString helper;                                // empty: looked for beside opxpack
    int languageId = 0;
    QString packageVersion = QStringLiteral("V1.0.0.0");
};

// Reads `arguments` (the program name first) into `options`. Usage when an
// option is unknown, a required one is missing or a value has the wrong form;
// Help when --help was asked for.
ParseOutcome parseOptions(const QStringList& arguments, PackOptions* options);

// True when `text` holds a character below 0x20 or DEL, which the package's
// descriptions cannot carry.
bool hasControlCharacter(const QString& text);

// True for a name the project directory on the stick may have: not empty, not
// hidden, a single path component without control characters, and neither the
// package's own directory nor the panel's backup directory.
bool isProjectName(const QString& name);

// The destination directory on the panel of the project file at `relativePath`:
// the first rule whose glob matches the whole path ("*" also matches "/"),
// else "/data/userfile" for the DownLoadFile tree and "/usr/kavo_app/project"
// for the rest.
QString destinationFor(const QList<Destination>& rules, const QString& relativePath);

} // namespace opxpack
