// Turns a plain project directory into a project package on a USB stick.
//
// check() reads everything the package will need (the project's files, the
// runtime to carry, the executables to copy, the stick) and refuses before
// anything is written; build() then stages the project beside its final place
// and moves it there, so that a failure leaves the stick as it was.
#pragma once

#include "tools/kit/stick.h"
#include "tools/opxpack/packoptions.h"

#include <QString>

namespace opxpack {

class StickBuilder
{
public:
    // `applicationDir` is where the default executables are looked for.
    StickBuilder(const PackOptions& options, const QString& applicationDir);

    // True when the stick can be built. False with error() set when the input
    // is missing, not a directory, empty, lacks context.dat, holds a file the
    // package cannot describe (4 GiB or more, a name the package misreads, a
    // description file of its own), when the runtime or the executables are
    // not usable, or when the stick or the project on it may not be written.
    bool check();

    // Writes the stick; check() must have passed. False with error() set when
    // writing failed; what was staged is removed again.
    bool build();

    QString error() const { return m_error; }

    // After check(): the project as it will be written.
    const kit::ProjectSpec& project() const { return m_project; }
    // After check(): the stick's project directory (STICK/NAME).
    QString projectDir() const;
    // After check(): the executables that will be copied ("" for no updater).
    QString executable() const { return m_executable; }
    QString helper() const { return m_helper; }

private:
    bool fail(const QString& message);
    bool checkProjectFiles();
    bool checkRuntime();
    bool checkExecutables();
    bool checkStick();
    QString findBesideTool(const QString& fileName) const;
    // The package directory written beside the project, from the checked options.
    kit::PackageSpec packageSpec() const;
    bool buildNewStick();
    bool buildIntoStick();

    PackOptions m_options;
    QString m_applicationDir;
    QString m_error;
    QString m_stickRoot;   // absolute
    QString m_executable;
    QString m_helper;
    kit::ProjectSpec m_project;
    bool m_checked = false;
};

} // namespace opxpack
