#include "platform/platform.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

namespace platform {
namespace {

// KAVO_PANEL_ROOT as bytes, made absolute and without trailing "/" ("/" alone
// thus means the real root, like an empty value). A relative value is taken
// from the working directory at its first use: the package changes its working
// directory later, and the panel must not move with it. The value is looked up
// on every call so that a test can switch panels; GUI thread only.
QByteArray rootBytes()
{
    static bool s_resolved = false;
    static QByteArray s_value;
    static QByteArray s_root;
    const QByteArray value = qgetenv("KAVO_PANEL_ROOT");
    if (!s_resolved || value != s_value) {
        s_resolved = true;
        s_value = value;
        QByteArray root = value;
        if (!root.isEmpty() && !root.startsWith('/'))
            root = QFile::encodeName(QDir::currentPath()) + '/' + root;
        while (root.endsWith('/'))
            root.chop(1);
        s_root = root;
    }
    return s_root;
}

// "/proc" is the running system's own, never the simulated panel's. The test is
// on the cleaned path, so that "//proc/self/exe" is recognised too.
bool isProcPath(const QString& path)
{
    const QString clean = QDir::cleanPath(path);
    return clean == QLatin1String("/proc") || clean.startsWith(QLatin1String("/proc/"));
}

// True when the ".." components of an absolute path climb above "/". On the
// panel the kernel stops them at "/", but below a panel root they would walk
// out of the simulated panel into the PC it runs on. Only the text counts: the
// panel root's own links are the business of whoever built it.
bool climbsAboveRoot(const QString& path)
{
    int depth = 0;
    for (const QStringRef& part : path.splitRef(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (part == QLatin1String(".."))
            --depth;
        else if (part != QLatin1String("."))
            ++depth;
        if (depth < 0)
            return true;
    }
    return false;
}

// What a path that would leave the panel root becomes: a path below a device
// file, which no call can create, open or remove (ENOTDIR on every file
// system). Its text keeps no ".." and is absolute, so neither a later cleaning
// nor the working directory can turn it into a real place; a trailing "/"
// stays, so that a destination directory still reads as one.
QString refusedPath(const QString& path)
{
    QString refused = QStringLiteral("/dev/null/outside-panel-root");
    if (path.endsWith(QLatin1Char('/')))
        refused += QLatin1Char('/');
    return refused;
}

} // namespace

QString panelRoot()
{
    return QFile::decodeName(rootBytes());
}

// The path is prefixed as it is, not cleaned: a destination ending in "/" keeps
// its "/", and "//tmp//update.ini" keeps its doubled separators.
QString panelPath(const QString& path)
{
    if (!path.startsWith(QLatin1Char('/')) || isProcPath(path))
        return path;
    const QByteArray root = rootBytes();
    if (root.isEmpty())
        return path;
    if (climbsAboveRoot(path))
        return refusedPath(path);
    return QFile::decodeName(root) + path;
}

std::string panelPath(const char* path)
{
    if (path == nullptr)
        return std::string();
    const QString text = QString::fromUtf8(path);
    if (path[0] != '/' || isProcPath(text))
        return path;
    const QByteArray root = rootBytes();
    if (root.isEmpty())
        return path;
    if (climbsAboveRoot(text))
        return refusedPath(text).toStdString();
    return root.toStdString() + path;
}

QString confinedPanelPath(const QString& path)
{
    const QByteArray root = rootBytes();
    if (root.isEmpty())
        return path;
    const QString rootText = QFile::decodeName(root);
    // What lies inside the root is the part behind it, taken as a panel path.
    if (!path.startsWith(rootText + QLatin1Char('/')) || climbsAboveRoot(path.mid(rootText.size())))
        return refusedPath(path);
    return path;
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
