#include "tools/opxpanel/paneltool.h"

#include "tools/kit/runtime.h"
#include "tools/opxpanel/paneloptions.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>

#include <algorithm>

#include <csignal>
#include <sys/types.h>

namespace opxpanel {
namespace {

// The areas a new panel is laid out in; --force makes them anew.
const char* const kPanelAreas[] = {"usr/kavo_app", "data", "tmp", "var/run"};

int failure(QTextStream& err, const QString& message)
{
    err << "opxpanel: " << message << '\n';
    err.flush();
    return int(ExitCode::Failure);
}

// The pid a panel's pid file names while that process still runs; 0 otherwise.
qint64 runningStandIn(const QString& root)
{
    QFile file(root + QStringLiteral("/var/run/kavo_app.pid"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    bool ok = false;
    const qint64 pid = file.read(32).trimmed().toLongLong(&ok);
    return ok && pid > 1 && ::kill(pid_t(pid), 0) == 0 ? pid : 0;
}

QString checkInputs(const PanelOptions& options)
{
    const QString runtime = options.panel.runtimeSourceDir;
    if (!runtime.isEmpty()) {
        // opxpanel has always reported a plain file given as the runtime as missing.
        if (!QFileInfo(runtime).isDir())
            return QStringLiteral("runtime directory %1 does not exist").arg(runtime);
        const QString problem = kit::runtimeDirectoryProblem(runtime);
        if (!problem.isEmpty())
            return problem;
    }
    const QString backup = options.panel.backupProjectFile;
    if (!backup.isEmpty() && (!QFileInfo(backup).isFile() || !QFileInfo(backup).isReadable()))
        return QStringLiteral("backup project %1 cannot be read").arg(backup);
    return QString();
}

void printTree(const QString& root, QTextStream& out)
{
    QStringList lines;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    const QDir base(root);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString name = base.relativeFilePath(info.filePath());
        lines << (info.isDir() ? name + QLatin1Char('/') : QStringLiteral("%1 (%2 bytes)").arg(name).arg(info.size()));
    }
    std::sort(lines.begin(), lines.end());
    for (const QString& line : lines)
        out << line << '\n';
}

} // namespace

int run(const QStringList& arguments, QTextStream& out, QTextStream& err)
{
    PanelOptions options;
    const int answered = kit::answerCommandLine(QStringLiteral("opxpanel"), parseOptions(arguments, &options), out, err);
    if (answered >= 0)
        return answered;

    const QString root = QDir::cleanPath(QFileInfo(options.root).absoluteFilePath());
    const QFileInfo rootInfo(root);
    if (rootInfo.exists() && rootInfo.canonicalFilePath() == QLatin1String("/"))
        return failure(err, QStringLiteral("the machine's own root cannot be a simulated panel"));
    if ((rootInfo.exists() || rootInfo.isSymLink()) && !rootInfo.isDir())
        return failure(err, QStringLiteral("%1 exists and is not a directory").arg(root));
    const bool existed = rootInfo.isDir();
    if (existed && !QDir(root).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
        && !options.force)
        return failure(err, QStringLiteral("%1 is not empty; --force lays a new panel over it").arg(root));
    const QString inputError = checkInputs(options);
    if (!inputError.isEmpty())
        return failure(err, inputError);

    if (existed) {
        if (const qint64 pid = runningStandIn(root))
            err << "opxpanel: note: the old panel's runtime application stand-in " << pid << " still runs\n";
        for (const char* area : kPanelAreas)
            if (!QDir(root + QLatin1Char('/') + QLatin1String(area)).removeRecursively())
                return failure(err, QStringLiteral("cannot empty %1/%2").arg(root, QLatin1String(area)));
    }
    if (!QDir().mkpath(root) || !kit::makePanel(root, options.panel))
        return failure(err, QStringLiteral("cannot write the panel in %1").arg(root));

    if (options.running) {
        // Any long-lived process will do: the panel only asks whether the pid lives.
        qint64 pid = 0;
        if (!QProcess::startDetached(QStringLiteral("sleep"), {QStringLiteral("infinity")}, root, &pid) || pid <= 0)
            return failure(err, QStringLiteral("cannot start the stand-in runtime application (sleep infinity)"));
        if (!kit::writeFile(root + QStringLiteral("/var/run/kavo_app.pid"), QByteArray::number(pid) + '\n')) {
            ::kill(pid_t(pid), SIGTERM);
            return failure(err, QStringLiteral("cannot write %1/var/run/kavo_app.pid").arg(root));
        }
        out << pid << '\n';
    }
    if (options.print)
        printTree(root, out);
    out.flush();
    return int(ExitCode::Success);
}

} // namespace opxpanel
