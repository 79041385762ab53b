// The runtime updater of the stick: replaces the panel's runtime environment
// ("kavo_app") by the copy a project package carries, then starts the package
// again so that it resumes the project download.
//
// The download hands over with three arguments, each option and its values in
// one argument: "-project ROOT/ NAME", "-product P", "-lanID L". The updater
//
//   stops the package     stopPackageRuns      the run that handed over
//   finds the copy        findRuntimeCopy      ROOT/NAME/P/<the panel's v7/|v5/|>kavo_app
//   checks it whole       checkRuntimeCopy     every file of its MD5 list
//   installs it           installRuntime       over Kavo_GetDirectory(0)
//   hands back            startPackage         "-project 0|1 NAME", "-lanID L"
//
// The run that handed over goes on with its download after starting the
// updater and ends in a reboot of the panel; it is stopped first, so that no
// reboot can cut the runtime installation short. The resumed run downloads
// the project. Nothing on the panel changes before the whole copy has been
// checked. The panel's project directory inside the runtime is never touched.
// Diagnostics go to standard error in English; the operator hears of the
// outcome only from the resumed package.
#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

namespace runtimeupdater {

// The hand-over from the download. `rootSlash` is the package root followed
// by "/"; empty members were not given.
struct Arguments
{
    QString rootSlash;
    QString project;
    QString product;
    QString lanId;

    // True when all three options came with their values.
    bool complete() const;
};

// Reads the options from `arguments` (without the program name). An option is
// found anywhere inside an argument and its value follows it after one space;
// an argument naming several options belongs to the one that occurs first.
// The "-project" value is split after its last "/": the root keeps that "/",
// the project name is the rest without the separating space, so a root with
// spaces still parses. An option given alone takes the next argument as its
// value. Never fails: what is missing stays empty.
Arguments parseArguments(const QStringList& arguments);

// The package root of a helper installed as ROOT/opxupdateu/helper/: ROOT + "/".
// Used when the hand-over lacks the root but names the project.
QString packageRootOfHelper(const QString& helperDir);

// The platform code of the panel's C library, found as the package finds it,
// or -1 when it cannot be told.
int panelPlatformCode();

// How long the package run that handed over gets to end after SIGTERM.
constexpr int kStopGraceMs = 5000;

// Stops every running copy of the package, found and signalled as the
// package's own start-up does, and waits until none of them runs any more.
// A copy still running after `graceMs` is killed (said on standard error).
// False when a killed copy has not gone a second later either.
bool stopPackageRuns(int graceMs = kStopGraceMs);

// The runtime copy for a panel of `variant` (ProjectDownload::variantOfPlatform):
// rootSlash + project + "/" + product + "/" + variant + "kavo_app" when that
// directory exists, else "". Copies of other variants never count.
QString findRuntimeCopy(const QString& rootSlash, const QString& project, const QString& product,
                        const QString& variant);

// One line of an MD5 list.
struct Md5Entry
{
    QByteArray hash; // 32 lower-case hexadecimal digits
    QString name;    // relative to the runtime directory, cleaned
};

// A runtime copy that passed its check.
struct RuntimeCopy
{
    QString dir;      // the copy's directory
    QString version;  // first word of its /PREPARE/version
    QString listName; // "version." + version
    QVector<Md5Entry> entries;
};

// Reads the MD5 list at `path` ("HASH  name" or "HASH *name" lines, empty lines
// allowed). False with `error` set when it cannot be read, a line is malformed,
// or a name is empty, absolute, has a ".." component or lies in the runtime's
// "project" directory (the panel's project is not the updater's to change).
bool readMd5List(const QString& path, QVector<Md5Entry>& entries, QString& error);

// Checks the runtime copy in `dir`: its scrambled update.ini (with the "#"
// mark) names a version, its MD5 list exists and every file it names exists
// and has the listed MD5. False with `error` set at the first fault; nothing
// is written but a temporary clear copy of update.ini in the panel's /tmp.
bool checkRuntimeCopy(const QString& dir, RuntimeCopy& copy, QString& error);

// Copies a checked runtime over `targetDir`: every listed file, then the MD5
// list as it is, then update.ini in its clear form (the installed description
// is plain), each through a temporary name renamed into place. Missing
// directories are created; nothing else in `targetDir` is touched. False with
// `error` set at the first file that could not be written; the files before
// it are already replaced.
bool installRuntime(const RuntimeCopy& copy, const QString& targetDir, QString& error);

// The whole update for a complete hand-over: find the copy for the panel's
// platform, check it, install it over Kavo_GetDirectory(0). False with
// `error` set when any step fails, also when the panel's platform cannot be
// told or the package carries no copy of the panel's variant.
bool updateRuntime(const Arguments& arguments, QString& error);

// Starts rootSlash + "opxupdateu/opxupdateu_proj.bin" detached in rootSlash
// with "-project 0 NAME" (or "-project 1 NAME" when `succeeded` is false) and
// "-lanID L". False when it could not be started.
bool startPackage(const QString& rootSlash, const QString& project, bool succeeded, const QString& lanId);

} // namespace runtimeupdater
