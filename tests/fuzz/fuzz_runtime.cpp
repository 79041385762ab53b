// The runtime description (update.ini) and the version rules: the installed
// runtime's description, the scrambled one a package carries, and the
// package's version.ini weighed against them. Input: update.ini, then
// version.ini.
#include "fuzzsupport.h"

#include "recordingdownload.h"

#include <QDir>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QList<QByteArray> files = fuzz::files(fuzz::bytes(data, size), 2);

    // The panel's description has a fixed path: every input gets a panel of its own.
    const QString panel = fuzz::freshPath(QStringLiteral("panel"));
    const QByteArray previousRoot = qgetenv("KAVO_PANEL_ROOT");
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel));
    fuzz::writeFile(panel + QStringLiteral("/usr/kavo_app/update.ini"), files[0]);
    QDir().mkpath(panel + QStringLiteral("/tmp"));

    const QString project = fuzz::freshPath(QStringLiteral("p"));
    fuzz::writeFile(project + QStringLiteral("/version.ini"), files[1]);
    fuzz::writeFile(project + QStringLiteral("/KavoPro/opxupdateu.bin"), QByteArray());
    // The updater beside the package, the same for every input.
    static const bool updater = (fuzz::writeFile(QStringLiteral("opxupdateu/helper/opxupdateu_helper.bin"), {}), true);
    Q_UNUSED(updater);
    fuzz::writeFile(project + QStringLiteral("/KavoPro/v7/kavo_app/update.ini"), files[0], true);

    RecordingDownload download;
    download.m_projectName = QDir(project).dirName();
    download.m_variantName = QStringLiteral("v7/");
    download.m_packageProduct = QStringLiteral("KavoPro");
    download.m_panelProduct = QStringLiteral("KavoPro");
    ProjectDownload::runtimeVersion(panel + QStringLiteral("/usr/kavo_app/update.ini"));
    download.checkVersion();
    download.isUpdateAppCheck();

    qputenv("KAVO_PANEL_ROOT", previousRoot);
    QDir(project).removeRecursively();
    QDir(panel).removeRecursively();
    return 0;
}
