// Temporary simulated panels, the text table, and files read and written by tests.
#pragma once

#include "tools/kit/runtime.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace testenv {

// The built-in text table, loaded as the package loads it at start.
bool loadBuiltinTexts();
// Messages of the process-wide text table, in a row.
QStringList texts(const QList<int>& ids);

// A temporary directory without "-" in its name, as the package finds options
// such as "-s" anywhere inside an argument ("-p DIR").
class OptionSafeDir : public QTemporaryDir
{
public:
    OptionSafeDir();
};

// Every entry below `dir` as "relative/path SIZE" (-1 for a directory),
// sorted, so that "nothing was written" is one comparison.
QStringList entriesWithSizes(const QString& dir);

// The kit writes the files of every panel and stick; tests write theirs the same way.
using kit::writeFile;
QByteArray readFile(const QString& path);

// A ready simulated panel with an ARMv7 C library; KAVO_PANEL_ROOT names it while it lives.
class TempPanel
{
public:
    TempPanel();
    ~TempPanel();
    TempPanel(const TempPanel&) = delete;
    TempPanel& operator=(const TempPanel&) = delete;

    bool isValid() const { return m_dir.isValid(); }
    QString root() const { return m_dir.path(); }
    // The simulated location of the panel-side absolute path `panelAbsolute`.
    QString path(const QString& panelAbsolute) const { return root() + panelAbsolute; }

private:
    QTemporaryDir m_dir;
    QByteArray m_previousRoot;
    bool m_hadPreviousRoot;
};

} // namespace testenv
