// The package's main window in interactive use.
//
// Once the start note (dlgUpNote) has been confirmed and the panel's runtime
// has let go of the panel, this window offers the package's two jobs: the
// download of a project from the stick (dlgDownLoad, run modally in place of
// this window, which closes when it returns) and the upload of the panel's
// packed project to the stick (zeltUpDlg, shown over this window, which stays
// disabled behind it until the upload dialog closes).
#pragma once

#include <QDialog>
#include <QString>

#include <memory>

class QCloseEvent;
class QShowEvent;
class WinBackground;

namespace Ui {
class UDiskUpWin;
}

class UDiskUpWin : public QDialog
{
    Q_OBJECT

public:
    // Builds the window for the language `lanId` (handed on to the download
    // dialog): fixed size from the size table, centred, its texts from the
    // text table. Makes "./opxbackup/" the working directory when it exists
    // (an upload creates it when it does not).
    // The upload button is disabled when the panel has no project area or no
    // packed project "#BKCompreProj.bin" in it.
    explicit UDiskUpWin(const QString& lanId, QWidget* parent = nullptr);
    ~UDiskUpWin() override;

    // The panel's packed project, the file the upload copies.
    QString backupFile() const { return m_backupFile; }
    // The panel's project area (Kavo_GetDirectory(3)); may be empty.
    QString panelDir() const { return m_panelDir; }
    QString lanId() const { return m_lanId; }

    // Makes `dir` the process's working directory. True on success; false when
    // the path length limit is unknown or the change fails. The helper itself
    // lives with the screenless download code (AccessFile::changeWorkingDir),
    // which needs it without a window; this is its name for the front end.
    static bool changeWorkingDir(const char* dir);

public slots:
    // Replaces this window by the download dialog for as long as it runs, then
    // closes. Works once per window: the button is let go first.
    void showUpToNew();
    // Opens the upload dialog over this window, which it disables; the upload
    // dialog gives it back when it closes. A stick without "opxbackup" gets
    // one first, and it becomes the working directory.
    void showUpToDisk();

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    std::unique_ptr<Ui::UDiskUpWin> ui;
    // Where the upload writes on the stick, relative to where the package was
    // started.
    const QString m_backupDir = QStringLiteral("./opxbackup/");
    bool m_inBackupDir = false; // the working directory is the backup directory
    // Two fields the window has always carried with these values; nothing in
    // the front end reads them.
    [[maybe_unused]] int m_winMode = 1;
    [[maybe_unused]] int m_winState = 0;
    QString m_backupFile;
    QString m_panelDir;
    QString m_lanId;
    std::unique_ptr<WinBackground> m_background;
};
