#include "tools/opxpack/packtool.h"

#include "app/constants.h"
#include "tools/opxpack/packoptions.h"
#include "tools/opxpack/stickbuilder.h"

#include <QFileInfo>

#include <algorithm>

namespace opxpack {

int run(const QStringList& arguments, const QString& applicationDir, QTextStream& out, QTextStream& err)
{
    PackOptions options;
    const int answered = kit::answerCommandLine(QStringLiteral("opxpack"), parseOptions(arguments, &options), out, err);
    if (answered >= 0)
        return answered;

    StickBuilder builder(options, applicationDir);
    if (!builder.check() || !builder.build()) {
        err << "opxpack: " << builder.error() << '\n';
        err.flush();
        return int(ExitCode::Failure);
    }

    const kit::ProjectSpec& project = builder.project();
    const QString userTree = downFileDir + QLatin1Char('/');
    const auto userFiles = std::count_if(project.files.cbegin(), project.files.cend(),
                                         [&](const kit::PackageFile& file) { return file.name.startsWith(userTree); });
    out << "packed " << project.files.size() << " files (" << userFiles << " for the user file area) into "
        << builder.projectDir() << '\n';
    if (project.withRuntime)
        out << "with the runtime copy of " << project.runtimeSourceDir << '\n';
    // The package finds its options anywhere inside an argument, so "-s NAME"
    // with "-project" in NAME starts the resume mode instead of the download.
    if (project.name.contains(QLatin1String("-project")))
        err << "opxpack: note: the package's direct mode (\"-s " << project.name
            << "\") would read \"-project\" in the name as its resume option; choose another --name to download "
               "it unattended\n";
    out << "try it on a simulated panel: cd " << QFileInfo(builder.projectDir()).absolutePath()
        << " && KAVO_PANEL_ROOT=PANEL QT_QPA_PLATFORM=offscreen ./opxupdateu/opxupdateu_proj.bin \"-s "
        << project.name << "\" \"-p /tmp\"\n";
    out.flush();
    err.flush();
    return int(ExitCode::Success);
}

} // namespace opxpack
