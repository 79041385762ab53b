// The upload dialog: takes the panel's current project home on the stick.
//
// The main window opens it non-modally over itself, with the stick's
// "opxbackup" directory as the working directory, after disabling itself. One
// press of the upload button copies the panel's packed project file to the
// stick (projectupload::copyToUdisk) and unpacks it there into a project file
// the configuration software opens (projectupload::unpackProject); each step
// is one line in the text pane. The upload button works once per opening;
// the back button closes the dialog, and closing gives the main window back.
#pragma once

#include <QDialog>
#include <QMessageBox>
#include <QString>

#include <memory>

class QCloseEvent;

namespace Ui {
class zeltUpDlg;
}

class zeltUpDlg : public QDialog
{
    Q_OBJECT

public:
    // `mainWindow` is the window that opened the dialog (its parent, enabled
    // again when the dialog closes); `sourcePath` the panel's packed project
    // file to upload.
    zeltUpDlg(QWidget* mainWindow, const QString& sourcePath);
    ~zeltUpDlg() override;

    // The file name the unpacked project gets in the working directory; empty
    // until an upload starts.
    QString targetName() const { return m_targetName; }

public slots:
    // The whole upload: asks before replacing an earlier upload, copies,
    // unpacks, reports every step in the text pane and leaves only the back
    // button usable (or both buttons, when the operator keeps the earlier
    // upload).
    void clickedStartUpBt();

protected:
    void closeEvent(QCloseEvent* event) override;
    // Escape closes like every other way, so the main window is given back.
    void reject() override;

private:
    // Appends a line to the text pane and shows it at once.
    void appendLine(const QString& text);
    // Asks whether the existing upload `name` is to be replaced.
    QMessageBox::StandardButton askOverwrite(const QString& name);

    std::unique_ptr<Ui::zeltUpDlg> ui;
    QWidget* m_mainWindow = nullptr;   // the opener; not owned
    QString m_sourcePath;              // the panel's packed project file
    QString m_targetName;              // the unpacked project's file name
    bool m_uploading = false;          // an upload runs in this call stack
};
