#include "multilingualmanager.h"

#include "platform/platform.h"

#include <QAtomicInteger>
#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QStringList>

namespace {

// Lays every "[id] string = text" group of one INI file over `texts`. A group
// whose name is not a number counts as id 0; a group without the key gives "".
void readTexts(const QString& path, QMap<int, QString>& texts)
{
    QSettings settings(path, QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    const QStringList groups = settings.childGroups();
    for (const QString& group : groups) {
        const int id = group.toInt(nullptr, 10);
        // A value holding a comma reads back as a list, which converts to "".
        texts[id] = settings.value(group + QStringLiteral("/string")).toString();
    }
}

// A file name never used before in this process, in the panel's /tmp beside
// the package's other temporary files: two packages tried on one PC, each
// with a panel of its own, keep their scratch files apart.
QString freshSnapshotName()
{
    static QAtomicInteger<quint32> counter;
    return platform::panelPath(QStringLiteral("/tmp")) + QStringLiteral("/opxlan-%1-%2.lan")
                                  .arg(QCoreApplication::applicationPid())
                                  .arg(counter.fetchAndAddRelaxed(1));
}

} // namespace

MultilingualManager* MultilingualManager::GetInstance()
{
    static MultilingualManager instance;
    return &instance;
}

bool MultilingualManager::loadMultilingualFile(const QString& languageFile, const QString& defaultFile)
{
    m_texts.clear();

    if (!QFile::exists(languageFile)) {
        if (defaultFile.isEmpty())
            return false;
        if (!QFile::exists(defaultFile))
            return false;
    }

    if (!defaultFile.isEmpty())
        loadFile(defaultFile);
    loadFile(languageFile);
    return true;
}

void MultilingualManager::loadFile(const QString& path)
{
    // A missing file contributes no entries.
    if (path.isEmpty() || !QFile::exists(path))
        return;
    // Compiled-in files cannot change while the process runs.
    if (path.startsWith(QLatin1Char(':'))) {
        readTexts(path, m_texts);
        return;
    }

    // QSettings keeps what it parsed from a path for the whole process and
    // parses the file again only when its size or modification time changed, so
    // a language file rewritten with text of the same length within one tick of
    // the file system clock would show the old texts. Reading a private copy
    // under a name never used before always parses the current bytes.
    const QString snapshot = freshSnapshotName();
    QFile::remove(snapshot); // left by an earlier process of the same id
    if (QFile::copy(path, snapshot)) {
        readTexts(snapshot, m_texts);
        QFile::remove(snapshot);
        return;
    }
    // No copy possible (no writable temporary directory): read the file itself.
    readTexts(path, m_texts);
}

QString MultilingualManager::getMultilingualValue(int id)
{
    // operator[] inserts the empty text for an unknown id, as the table promises.
    return m_texts[id];
}

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

namespace kavo_process {

std::function<QString(int)> _func;

void setMulLanguage(std::function<QString(int)> func)
{
    _func = std::move(func);
}

} // namespace kavo_process

// Q_INIT_RESOURCE declares the resource's init function at global scope, so this
// must stay outside every namespace.
void initKavoResources()
{
    Q_INIT_RESOURCE(resources);
}
