#include "platform/platform.h"

#include <QDir>
#include <QFile>

namespace platform {

QString panelRoot()
{
    return QFile::decodeName(qgetenv("KAVO_PANEL_ROOT"));
}

QString panelPath(const QString& path)
{
    const QString root = panelRoot();
    if (root.isEmpty() || !path.startsWith(QLatin1Char('/')))
        return path;
    if (path == QLatin1String("/proc") || path.startsWith(QLatin1String("/proc/")))
        return path;
    return root + path;
}

std::string panelPath(const char* path)
{
    if (path == nullptr)
        return std::string();
    return panelPath(QString::fromUtf8(path)).toUtf8().toStdString();
}

void preparePanelRoot()
{
    const QString root = panelRoot();
    if (root.isEmpty())
        return;
    QDir().mkpath(root + QStringLiteral("/tmp"));
    QDir().mkpath(root + QStringLiteral("/var/run"));
}

} // namespace platform
