// Simulated panels: a directory laid out as a panel's file system, for the
// demo, the tests and integrators trying a stick on a PC.
#pragma once

#include "tools/kit/runtime.h"

#include <QByteArray>
#include <QMap>
#include <QString>

namespace kit {

struct PanelSpec
{
    int cpuArch = 10;              // Tag_CPU_arch of the C library stand-in (10 ARMv7, 5 ARMv5TEJ)
    bool installRuntime = true;    // /usr/kavo_app with update.ini and its md5 list
    RuntimeSpec runtime;
    // A plain runtime directory (files and a plain update.ini) installed instead
    // of `runtime`, with a fresh md5 list; empty: `runtime` is written.
    QString runtimeSourceDir = QString();
    // The current project in /usr/kavo_app/project, by relative path.
    QMap<QString, QByteArray> projectFiles = {
        {QStringLiteral("project.bin"), QByteArray("the panel's current project\n")},
    };
    QByteArray backupProject = QByteArray("the panel's current project, as the design software opens it\n");
    // A file whose content the packed project holds instead of `backupProject`,
    // read in pieces; empty: `backupProject` is packed.
    QString backupProjectFile = QString();
    QString projectSuffix;         // [PROJECTINFO] SUFFIX_NAME of project_setup.ini; empty: key absent
    QString passwordDigest;        // [SECURITY] license of kavo_app_conf.ini; empty: no digest
    int language = -1;             // [current_language] type of lan_setup.ini; -1: no file
    QMap<QString, QByteArray> fonts = {
        {QStringLiteral("simsun.ttf"), QByteArray("system font\n")},
        {QStringLiteral("fontdir"), QByteArray("simsun.ttf\n")},
    };
    // Saved data by path relative to /data ("recipe/r1.dat", "userfile/u.txt").
    QMap<QString, QByteArray> data = {
        {QStringLiteral("recipe/recipe.dat"), QByteArray("recipe\n")},
        {QStringLiteral("history/history.dat"), QByteArray("history\n")},
        {QStringLiteral("alarm/alarm.dat"), QByteArray("alarm\n")},
        {QStringLiteral("initvalue/init.dat"), QByteArray("initial values\n")},
        {QStringLiteral("userfile/user.txt"), QByteArray("user file\n")},
    };
};

// Lays out a ready panel under `root` (created). False when a file could not be
// written.
bool makePanel(const QString& root, const PanelSpec& spec);

} // namespace kit
