#include "tools/kit/panel.h"

#include "tools/kit/armelf.h"
#include "tools/kit/container.h"

#include <QDir>

namespace kit {

bool makePanel(const QString& root, const PanelSpec& spec)
{
    bool ok = true;
    for (const char* dir : {"/usr/kavo_app/project", "/usr/kavo_app/font", "/usr/kavo_app/config", "/data/recipe",
                            "/data/history", "/data/alarm", "/data/initvalue", "/data/userfile", "/var/run", "/tmp"})
        ok = QDir().mkpath(root + QLatin1String(dir)) && ok;
    ok = writeArmElf(root + QStringLiteral("/lib/libc.so.6"), spec.cpuArch) && ok;

    const QString app = root + QStringLiteral("/usr/kavo_app");
    if (spec.installRuntime)
        ok = (spec.runtimeSourceDir.isEmpty() ? writeRuntime(app, spec.runtime, false)
                                              : copyRuntime(spec.runtimeSourceDir, app, false))
             && ok;

    const QString project = app + QStringLiteral("/project");
    for (auto it = spec.projectFiles.cbegin(); it != spec.projectFiles.cend(); ++it)
        ok = writeFile(project + QLatin1Char('/') + it.key(), it.value()) && ok;
    if (!spec.backupProjectFile.isEmpty())
        ok = writeKavoZipContainer(spec.backupProjectFile, project + QStringLiteral("/#BKCompreProj.bin")) && ok;
    else if (!spec.backupProject.isNull())
        ok = writeFile(project + QStringLiteral("/#BKCompreProj.bin"), kavoZipContainer(spec.backupProject)) && ok;
    QByteArray setup("[PROJECTINFO]\n");
    if (!spec.projectSuffix.isEmpty())
        setup += "SUFFIX_NAME=" + spec.projectSuffix.toUtf8() + '\n';
    ok = writeFile(project + QStringLiteral("/project_setup.ini"), setup) && ok;
    if (spec.language != -1)
        ok = writeFile(project + QStringLiteral("/lan_setup.ini"),
                       "[current_language]\ntype=" + QByteArray::number(spec.language) + '\n')
             && ok;

    if (!spec.passwordDigest.isEmpty())
        ok = writeFile(app + QStringLiteral("/config/kavo_app_conf.ini"),
                       "[SECURITY]\nlicense=" + spec.passwordDigest.toUtf8() + '\n')
             && ok;

    for (auto it = spec.fonts.cbegin(); it != spec.fonts.cend(); ++it)
        ok = writeFile(app + QStringLiteral("/font/") + it.key(), it.value()) && ok;
    for (auto it = spec.data.cbegin(); it != spec.data.cend(); ++it)
        ok = writeFile(root + QStringLiteral("/data/") + it.key(), it.value()) && ok;
    return ok;
}

} // namespace kit
