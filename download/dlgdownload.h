// The download dialog: the operator picks a project on the stick and watches
// it being downloaded into the panel.
//
// The dialog lists the projects of the package root (the stick directory that
// holds "opxupdateu"; the main window may have moved the working directory to
// the stick's "opxbackup" by then), shows every step of the download as a line in its text pane and offers three
// buttons: restart the panel, stop the download, start the download. The check
// and copy routines it runs are those of ProjectDownload, which report back
// through the channels implemented here. After a successful download a
// countdown reboots the panel. In the direct and resume modes the start-up code
// opens the dialog on a given project and a start timer begins the download as
// soon as the dialog is shown; in direct mode every line also goes to the
// result report.
#pragma once

#include "download/projectdownload.h"

#include <QDialog>
#include <QModelIndex>
#include <QString>

#include <memory>

class QCloseEvent;
class QScreen;
class QShowEvent;
class QStringListModel;
class QTimer;
class WinBackground;

namespace Ui {
class dlgDownLoad;
}

class dlgDownLoad : public QDialog, public ProjectDownload
{
    Q_OBJECT

public:
    // `dataDir` is the panel's project directory, `lanId` the language code
    // handed on to the runtime updater. Lists the projects of the package root
    // and selects the newest one.
    dlgDownLoad(const QString& dataDir, const QString& lanId, QWidget* parent = nullptr);
    ~dlgDownLoad() override;

    // Direct download with result report: start on show, log every line.
    void setDirectMode(bool on);
    // Resumed after a runtime update: start on show, reboot on close.
    void setResumeMode(bool on);
    // The project to download; the window title follows it.
    void setProjectName(const QString& name);
    // The package root the download works in: the stick directory that holds
    // "opxupdateu" and the projects. Unset, it is the parent of the
    // executable's own directory; a dialog run outside a package (the tests)
    // names its own, and the project list is made again from it.
    void setPackageRoot(const QString& root);
    // True while the reboot countdown of a successful download runs.
    bool isCountingDown() const;

    // Start is enabled when `start` is true or a stop was requested (after a
    // stop, starting again is always offered); stop and restart follow their
    // arguments.
    void setBntEnable(bool start, bool stop, bool restart) override;
    // Appends a progress line and keeps the screen alive; logged in direct mode.
    void setTextEditContent(const QString& text) override;
    // The failure report: only restart and start stay usable, the line is
    // appended (and logged in direct mode). Does not process events.
    void resetUpgrageUI(const QString& text) override;
    // Ends a run. In direct mode writes the outcome marker into the result
    // report, closes the report and closes the dialog.
    void updateFinish(bool ok);
    // A modal question with Yes and No; true only for Yes.
    using ProjectDownload::QuestionIcon;
    bool askYesNo(QuestionIcon icon, const QString& title, const QString& text) override;

signals:
    void startLoad();

public slots:
    // Runs the download sequence of the selected project.
    void clickedStartBt();
    // Asks the running sequence to stop at its next check.
    void clickedStopBt();
    // Reboots the panel, or quits when the button has been turned into a quit
    // button after an early failure. Does nothing while the panel's project is
    // being replaced.
    void clickedReStartBt();
    // One tick of the reboot countdown.
    void onTimer();
    void on_listView_clicked(const QModelIndex& index);
    void getSelectProName(const QString& name);

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    // Escape goes through the close rules like every other way of closing.
    void reject() override;

private:
    // The download sequence (downloadsequence.cpp).
    void runSequence();
    // The package root the sequence changes into.
    QString packageRoot() const;
    // Ends the run with `text` as the failure report.
    void failWith(const QString& text);
    // Ends the run of a package that cannot be trusted (message 2020); the
    // restart button then quits.
    void failPackage();
    // Ends the run with message `id` once the download has begun (title set to
    // the progress text): the title goes back to the project name.
    void failDownload(int id);
    // True when a stop was requested; the run then ends here, before the next
    // step writes on the panel (the stop button has told the operator).
    bool endOnStop();

    // Directories of the package root `root` that hold a project, newest first.
    static QStringList findProjects(const QString& root);
    // Fills the list from the package root and selects the newest project.
    void listProjects();
    void selectProject(const QString& name);
    // Asks the platform to reboot; on failure tells the operator why, or, in
    // direct mode where nobody is there to read a box, the result report and
    // standard error, and ends the process with a failure status.
    void rebootOrReport();

    int m_restartCount = 10;                   // seconds the countdown shows next
    std::unique_ptr<QTimer> m_restartTimer;    // countdown ticks after a successful download
    std::unique_ptr<QTimer> m_startTimer;      // starts the download once shown (direct, resume)
    std::unique_ptr<Ui::dlgDownLoad> ui;
    std::unique_ptr<WinBackground> m_background;
    QScreen* m_screen = nullptr;               // the screen that decides the size class
    QStringListModel* m_projectModel = nullptr; // owned through the dialog
    QString m_packageRoot;                     // empty: found from the executable
    bool m_replacing = false;                  // the run deletes, copies or clears on the panel
};
