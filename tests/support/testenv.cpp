#include "testenv.h"

#include "text/multilingualmanager.h"
#include "tools/kit/armelf.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>


namespace testenv {

bool loadBuiltinTexts()
{
    initKavoResources();
    return MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile);
}

QStringList texts(const QList<int>& ids)
{
    QStringList lines;
    for (int id : ids)
        lines << msg(id);
    return lines;
}

QStringList entriesWithSizes(const QString& dir)
{
    QStringList entries;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        entries << QDir(dir).relativeFilePath(it.filePath()) + QLatin1Char(' ')
                       + QString::number(it.fileInfo().isDir() ? -1 : it.fileInfo().size());
    }
    entries.sort();
    return entries;
}

OptionSafeDir::OptionSafeDir()
    : QTemporaryDir(QDir::tempPath() + QStringLiteral("/opxtest_XXXXXX"))
{
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

TempPanel::TempPanel()
    : m_hadPreviousRoot(qEnvironmentVariableIsSet("KAVO_PANEL_ROOT"))
{
    m_previousRoot = qgetenv("KAVO_PANEL_ROOT");
    for (const char* dir : {"/usr/kavo_app/project", "/usr/kavo_app/font", "/usr/kavo_app/config", "/data/recipe", "/data/history",
                            "/data/alarm", "/data/initvalue", "/data/userfile", "/var/run", "/tmp"})
        QDir().mkpath(path(dir));
    kit::writeArmElf(path("/lib/libc.so.6"), 10);
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(root()));
}

TempPanel::~TempPanel()
{
    if (m_hadPreviousRoot)
        qputenv("KAVO_PANEL_ROOT", m_previousRoot);
    else
        qunsetenv("KAVO_PANEL_ROOT");
}

TempStick::TempStick()
{
    if (!m_dir.isValid())
        return;
    const QString source = qEnvironmentVariable("OPX_EXECUTABLE");
    QDir().mkpath(packageDir() + QStringLiteral("/language")) && QDir().mkpath(packageDir() + QStringLiteral("/config"));
    m_valid = !source.isEmpty() && QFile::copy(source, executable())
              && QFile::setPermissions(executable(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup);
}

RunResult runPackage(const TempStick& stick, const QString& panelRoot, const QStringList& arguments,
                     const QStringList& extraEnv, int timeoutMs)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KAVO_PANEL_ROOT"), panelRoot);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    for (const QString& entry : extraEnv) {
        const int eq = entry.indexOf(QLatin1Char('='));
        env.insert(entry.left(eq), entry.mid(eq + 1));
    }

    QProcess process;
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(stick.root());
    process.start(stick.executable(), arguments);

    RunResult result;
    if (!process.waitForStarted(timeoutMs))
        return result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished)
        process.kill(), process.waitForFinished(5000);
    result.exitStatus = process.exitStatus();
    result.exitCode = process.exitCode();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

} // namespace testenv
