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

} // namespace testenv
