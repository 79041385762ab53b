// The stick's runtime updater, started by the download with
// "-project ROOT/ NAME" "-product P" "-lanID L". It stops the package run that
// handed over, replaces the panel's runtime by the project's runtime copy of
// the panel's variant and starts the package again in resume mode, telling it
// with "-project 0 NAME" or "-project 1 NAME" whether the runtime was updated.
#include "helper/runtimeupdater.h"
#include "platform/platform.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    platform::preparePanelRoot();

    runtimeupdater::Arguments arguments = runtimeupdater::parseArguments(app.arguments().mid(1));
    if (arguments.project.isEmpty()) {
        std::fprintf(stderr, "usage: opxupdateu_helper.bin \"-project ROOT/ NAME\" \"-product PRODUCT\" "
                             "\"-lanID LANGUAGE\"\n");
        return 2;
    }
    // Without the root the package could not even be told of the failure;
    // the helper's own place on the stick names it as well.
    if (arguments.rootSlash.isEmpty()) {
        arguments.rootSlash = runtimeupdater::packageRootOfHelper(QCoreApplication::applicationDirPath());
        std::fprintf(stderr, "opxupdateu_helper: no package root given, using %s\n",
                     arguments.rootSlash.toLocal8Bit().constData());
    }

    // The run that handed over goes on with its download in the same call and,
    // once it has copied the project, counts down and reboots the panel. It is
    // stopped, and gone, before anything of the runtime is touched, so that no
    // reboot can cut the installation short; the run started again below
    // downloads the project instead. (Without a project named there is no run
    // to start again, so the usage error above leaves that run alone.)
    QString error;
    bool updated = false;
    if (!runtimeupdater::stopPackageRuns())
        error = QStringLiteral("the package run that handed over does not end");
    else if (!arguments.complete())
        error = QStringLiteral("incomplete arguments: ") + app.arguments().mid(1).join(QLatin1Char('|'));
    else
        updated = runtimeupdater::updateRuntime(arguments, error);
    if (updated)
        std::fprintf(stderr, "opxupdateu_helper: runtime updated\n");
    else
        std::fprintf(stderr, "opxupdateu_helper: runtime not updated: %s\n", error.toLocal8Bit().constData());

    if (!runtimeupdater::startPackage(arguments.rootSlash, arguments.project, updated, arguments.lanId)) {
        std::fprintf(stderr, "opxupdateu_helper: cannot start %sopxupdateu/opxupdateu_proj.bin\n",
                     arguments.rootSlash.toLocal8Bit().constData());
        return 1;
    }
    return 0;
}
