// Temporary simulated panels and USB sticks for the tests, and a way to run the
// package's executable on them. Nothing here touches the machine's real panel
// directories: every panel lives under a temporary KAVO_PANEL_ROOT.
#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace testenv {

// The built-in text table, loaded as the package loads it at start.
bool loadBuiltinTexts();
// Messages of the process-wide text table, in a row.
QStringList texts(const QList<int>& ids);

// A temporary directory whose path may be handed to the package inside an
// option ("-p DIR"). The package finds its options anywhere inside an
// argument, and QTemporaryDir's own names put a random letter right after a
// "-": one run in a few dozen would read "-sXyz..." in the path as "-s" and
// download a project named after the path. These names hold no "-".
class OptionSafeDir : public QTemporaryDir
{
public:
    OptionSafeDir();
};

// Every entry below `dir` as "relative/path SIZE" (-1 for a directory),
// sorted, so that "nothing was written" is one comparison.
QStringList entriesWithSizes(const QString& dir);

// Writes `data` to `path`, creating missing directories.
bool writeFile(const QString& path, const QByteArray& data);
QByteArray readFile(const QString& path);

// A simulated panel in a temporary directory with the directories of a ready
// panel and an ARMv7 C library stand-in. While it lives, KAVO_PANEL_ROOT of
// this process names it.
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

// A USB stick in a temporary directory holding "opxupdateu/" with a copy of the
// package's executable (from OPX_EXECUTABLE), "language/" and "config/".
class TempStick
{
public:
    TempStick();
    TempStick(const TempStick&) = delete;
    TempStick& operator=(const TempStick&) = delete;

    bool isValid() const { return m_valid; }
    QString root() const { return m_dir.path(); }
    QString packageDir() const { return root() + QStringLiteral("/opxupdateu"); }
    QString executable() const { return packageDir() + QStringLiteral("/opxupdateu_proj.bin"); }

private:
    QTemporaryDir m_dir;
    bool m_valid = false;
};

struct RunResult
{
    bool finished = false;
    QProcess::ExitStatus exitStatus = QProcess::NormalExit;
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs the stick's executable with the stick as working directory, on `panelRoot`
// (KAVO_PANEL_ROOT), headless, with `arguments` as given. `extraEnv` entries
// ("NAME=value") are added to the environment.
RunResult runPackage(const TempStick& stick, const QString& panelRoot, const QStringList& arguments,
                     const QStringList& extraEnv = QStringList(), int timeoutMs = 60000);

} // namespace testenv
