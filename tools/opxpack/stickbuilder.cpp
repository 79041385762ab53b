#include "tools/opxpack/stickbuilder.h"

#include "app/constants.h"
#include "tools/kit/runtime.h"

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>

#include <unistd.h>

namespace opxpack {
namespace {

// SIZE is read as an unsigned 32-bit number.
constexpr qint64 kLargestFile = 0xFFFFFFFFLL;

// `path` with symbolic links resolved as far as it exists, so that two spellings
// of one place compare equal even before the place is created.
QString resolvedPath(const QString& path)
{
    QString existing = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    QString rest;
    while (!QFileInfo::exists(existing) && existing != QLatin1String("/")) {
        rest = QLatin1Char('/') + QFileInfo(existing).fileName() + rest;
        existing = QFileInfo(existing).absolutePath();
    }
    const QString canonical = QFileInfo(existing).canonicalFilePath();
    return QDir::cleanPath((canonical.isEmpty() ? existing : canonical) + rest);
}

bool isInside(const QString& path, const QString& dir)
{
    return path == dir || path.startsWith(dir == QLatin1String("/") ? dir : dir + QLatin1Char('/'));
}

// A fresh directory `base` + random suffix; empty when none could be made.
QString makeStagingDir(const QString& base)
{
    for (int attempt = 0; attempt < 16; ++attempt) {
        const QString path = base + QString::number(QRandomGenerator::global()->generate(), 36);
        if (!QFileInfo::exists(path) && QDir().mkdir(path))
            return path;
    }
    return QString();
}

bool pathExists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

} // namespace

StickBuilder::StickBuilder(const PackOptions& options, const QString& applicationDir)
    : m_options(options)
    , m_applicationDir(applicationDir)
{
}

bool StickBuilder::fail(const QString& message)
{
    m_error = message;
    return false;
}

QString StickBuilder::projectDir() const
{
    return m_stickRoot + QLatin1Char('/') + m_project.name;
}

bool StickBuilder::check()
{
    m_checked = checkProjectFiles() && checkRuntime() && checkExecutables() && checkStick();
    return m_checked;
}

bool StickBuilder::checkProjectFiles()
{
    const QFileInfo input(m_options.projectDir);
    if (!input.exists())
        return fail(QStringLiteral("project directory %1 does not exist").arg(m_options.projectDir));
    if (!input.isDir())
        return fail(QStringLiteral("%1 is not a directory").arg(m_options.projectDir));
    const QString root = QDir::cleanPath(input.absoluteFilePath());

    m_project = kit::ProjectSpec();
    m_project.name = m_options.name.isEmpty() ? QFileInfo(root).fileName() : m_options.name;
    if (!isProjectName(m_project.name))
        return fail(QStringLiteral("%1 cannot name the project on the stick; give a name with --name").arg(root));

    const QStringList names = kit::regularFiles(root);
    if (names.isEmpty())
        return fail(QStringLiteral("project directory %1 holds no files").arg(m_options.projectDir));
    if (!QFileInfo(root + QLatin1Char('/') + s_contextDat).isFile())
        return fail(QStringLiteral("project directory %1 has no %2; the package offers only directories that hold one")
                        .arg(m_options.projectDir, s_contextDat));

    const QString userTree = downFileDir + QLatin1Char('/');
    QList<kit::PackageFile> files;
    for (const QString& name : names) {
        const QString path = root + QLatin1Char('/') + name;
        const QFileInfo file(path);
        const QString top = name.section(QLatin1Char('/'), 0, 0);
        if (hasControlCharacter(name))
            return fail(QStringLiteral("%1: a file name with a control character cannot be described").arg(path));
        if (name == QLatin1String("project.ini") || name == QLatin1String("version.ini"))
            return fail(QStringLiteral("%1: the package writes its own %2; remove it from the project").arg(path, name));
        if (name.startsWith(downFileDir) && !name.startsWith(userTree))
            return fail(QStringLiteral("%1: the package would take it for part of the %2 tree; rename it")
                            .arg(path, downFileDir));
        if (m_options.variant.isEmpty() && (top == QLatin1String("v5") || top == QLatin1String("v7")) && top != name)
            return fail(QStringLiteral("%1: without a variant directory the package would take %2/ for one; "
                                       "rename it or use --variant")
                            .arg(path, top));
        if (m_options.variant.isEmpty() && top == m_options.product && top != name)
            return fail(QStringLiteral("%1: without a variant directory %2/ is where the package keeps its runtime "
                                       "copy; rename it or use --variant")
                            .arg(path, top));
        if (file.size() > kLargestFile)
            return fail(QStringLiteral("%1 is larger than 4 GiB - 1 bytes, more than a package file can be").arg(path));
        if (!file.isReadable())
            return fail(QStringLiteral("%1 cannot be read").arg(path));
        kit::PackageFile entry;
        entry.name = name;
        entry.desPath = destinationFor(m_options.destinations, name);
        entry.sourcePath = path;
        files << entry;
    }

    m_project.variant = m_options.variant;
    m_project.platform = m_options.platform;
    m_project.platformName = m_options.platformName;
    m_project.product = m_options.product;
    m_project.setVersion = m_options.setVersion;
    m_project.minRunVersion = m_options.minRunVersion;
    m_project.diskCapacity = m_options.diskCapacity;
    m_project.hardwarePlatforms = m_options.hardwarePlatforms;
    m_project.cpuCore = m_options.cpuCore;
    m_project.clearRecipe = m_options.clearRecipe;
    m_project.clearHistory = m_options.clearHistory;
    m_project.clearAlarm = m_options.clearAlarm;
    m_project.clearInitValue = m_options.clearInitValue;
    m_project.clearUserDir = m_options.clearUserDir;
    m_project.scrambledIni = m_options.scramble;
    m_project.files = files;
    return true;
}

bool StickBuilder::checkRuntime()
{
    if (m_options.runtimeDir.isEmpty())
        return true;
    const QString dir = m_options.runtimeDir;
    kit::RuntimeDescription description;
    const QString problem = kit::runtimeDirectoryProblem(dir, &description);
    if (!problem.isEmpty())
        return fail(problem);
    const QString ini = dir + QStringLiteral("/update.ini");
    if (description.hasProduct && description.product.isEmpty())
        return fail(QStringLiteral("%1 names an empty [PREPARE] product").arg(ini));
    const QString product = description.hasProduct ? description.product : defaultProduct;
    if (product != m_options.product)
        return fail(QStringLiteral("the runtime in %1 is for %2, the project for %3 (--product)")
                        .arg(dir, product, m_options.product));
    m_project.withRuntime = true;
    m_project.runtimeSourceDir = QDir::cleanPath(QFileInfo(dir).absoluteFilePath());
    return true;
}

QString StickBuilder::findBesideTool(const QString& fileName) const
{
    // Installed side by side, or in a build tree: the tool in tools/opxpack/,
    // the package at the top and its updater in helper/.
    for (const char* dir : {"", "/..", "/../..", "/helper", "/../helper", "/../../helper"}) {
        const QString candidate = QDir::cleanPath(m_applicationDir + QLatin1String(dir) + QLatin1Char('/') + fileName);
        if (QFileInfo(candidate).isFile())
            return candidate;
    }
    return QString();
}

bool StickBuilder::checkExecutables()
{
    const QString executableName = QStringLiteral("opxupdateu_proj.bin");
    const QString helperName = QStringLiteral("opxupdateu_helper.bin");
    if (!m_options.executable.isEmpty()) {
        if (!QFileInfo(m_options.executable).isFile())
            return fail(QStringLiteral("package executable %1 not found").arg(m_options.executable));
        m_executable = QFileInfo(m_options.executable).absoluteFilePath();
    } else {
        m_executable = findBesideTool(executableName);
        if (m_executable.isEmpty())
            return fail(QStringLiteral("no %1 found beside opxpack in %2; name one with --executable")
                            .arg(executableName, m_applicationDir));
    }

    m_helper.clear();
    if (!m_options.helper.isEmpty()) {
        if (!QFileInfo(m_options.helper).isFile())
            return fail(QStringLiteral("runtime updater %1 not found").arg(m_options.helper));
        m_helper = QFileInfo(m_options.helper).absoluteFilePath();
    } else if (m_project.withRuntime) {
        m_helper = findBesideTool(helperName);
        if (m_helper.isEmpty())
            return fail(QStringLiteral("no %1 found beside opxpack in %2; a stick that carries a runtime needs one: "
                                       "name it with --helper")
                            .arg(helperName, m_applicationDir));
    }
    return true;
}

bool StickBuilder::checkStick()
{
    m_stickRoot = QDir::cleanPath(QFileInfo(m_options.stickRoot).absoluteFilePath());
    const QFileInfo stick(m_stickRoot);
    if (pathExists(m_stickRoot) && !stick.isDir())
        return fail(QStringLiteral("stick %1 exists and is not a directory").arg(m_stickRoot));
    const QString package = m_stickRoot + QLatin1Char('/') + s_opxupdateuDir;
    if (pathExists(package) && !QFileInfo(package).isDir())
        return fail(QStringLiteral("%1 exists and is not a directory").arg(package));
    if (pathExists(projectDir()) && !m_options.force)
        return fail(QStringLiteral("%1 already exists; --force replaces it").arg(projectDir()));

    const QString input = resolvedPath(m_options.projectDir);
    const QString target = resolvedPath(projectDir());
    if (isInside(input, target))
        return fail(QStringLiteral("project directory %1 lies inside %2, which the stick's project would replace")
                        .arg(m_options.projectDir, projectDir()));
    if (isInside(resolvedPath(m_stickRoot), input))
        return fail(QStringLiteral("stick %1 lies inside project directory %2").arg(m_stickRoot, m_options.projectDir));
    return true;
}

bool StickBuilder::build()
{
    if (!m_checked)
        return fail(QStringLiteral("the input has not been checked"));
    const bool done = QFileInfo(m_stickRoot).isDir() ? buildIntoStick() : buildNewStick();
    ::sync(); // the stick may be pulled as soon as the tool returns
    return done;
}

kit::PackageSpec StickBuilder::packageSpec() const
{
    kit::PackageSpec package;
    package.executable = m_executable;
    package.helper = m_helper;
    package.version = m_options.packageVersion;
    package.toolLanguage = m_options.languageId;
    return package;
}

bool StickBuilder::buildNewStick()
{
    const QString parent = QFileInfo(m_stickRoot).absolutePath();
    QString firstCreated;
    for (QString dir = parent; !pathExists(dir); dir = QFileInfo(dir).absolutePath())
        firstCreated = dir;
    if (!QDir().mkpath(parent))
        return fail(QStringLiteral("cannot create %1").arg(parent));

    const QString staging = makeStagingDir(parent + QStringLiteral("/.") + QFileInfo(m_stickRoot).fileName()
                                           + QStringLiteral(".opxpack-"));
    auto undo = [&](const QString& message) {
        if (!staging.isEmpty())
            QDir(staging).removeRecursively();
        if (!firstCreated.isEmpty())
            QDir(firstCreated).removeRecursively();
        return fail(message);
    };
    if (staging.isEmpty())
        return undo(QStringLiteral("cannot create a directory in %1").arg(parent));

    if (!kit::writePackage(staging, packageSpec()))
        return undo(QStringLiteral("cannot write the package directory %1/%2").arg(m_stickRoot, s_opxupdateuDir));
    QString why;
    if (!kit::writeProject(staging, m_project, &why))
        return undo(why);
    if (!QDir().rename(staging, m_stickRoot))
        return undo(QStringLiteral("cannot move %1 to %2").arg(staging, m_stickRoot));
    return true;
}

bool StickBuilder::buildIntoStick()
{
    const QString staging = makeStagingDir(m_stickRoot + QStringLiteral("/.opxpack-"));
    if (staging.isEmpty())
        return fail(QStringLiteral("cannot create a directory in %1").arg(m_stickRoot));
    auto undo = [&](const QString& message) {
        QDir(staging).removeRecursively();
        return fail(message);
    };

    QString why;
    if (!kit::writeProject(staging, m_project, &why))
        return undo(why);
    if (!kit::writePackage(m_stickRoot, packageSpec()))
        return undo(QStringLiteral("cannot write the package directory %1/%2").arg(m_stickRoot, s_opxupdateuDir));

    const QString target = projectDir();
    const QString staged = staging + QLatin1Char('/') + m_project.name;
    const QString replaced = staging + QStringLiteral("/.replaced");
    const bool hadProject = pathExists(target);
    if (hadProject && !QDir().rename(target, replaced))
        return undo(QStringLiteral("cannot move the old %1 out of the way").arg(target));
    if (!QDir().rename(staged, target)) {
        if (hadProject)
            QDir().rename(replaced, target);
        return undo(QStringLiteral("cannot move %1 to %2").arg(staged, target));
    }
    QDir(staging).removeRecursively();
    return true;
}

} // namespace opxpack
