// The wait dialog shown while the panel's runtime application does not stop.
//
// kavo_process::backToDovik opens it modally when the silent wait for the
// runtime has run out or the stop request was refused. The dialog keeps
// asking the panel's process service (first one second after it shows, then
// every 100 ms) and closes itself as soon as the runtime has stopped. The
// operator can go on anyway ("强制执行") or restart the panel ("重启OPX").
// Closed any other way, it leaves its retry flag set and the caller asks
// again.
#pragma once

#include <QDialog>
#include <QString>

#include <functional>
#include <memory>

class QShowEvent;
class QTimer;

namespace Ui {
class app_exit_failed_dlg;
}

class app_exit_failed_dlg : public QDialog
{
    Q_OBJECT

public:
    // `text` looks texts up by message id; when it is empty the dialog shows
    // its built-in Chinese texts.
    app_exit_failed_dlg(QWidget* parent, std::function<QString(int)> text);
    ~app_exit_failed_dlg() override;

    // True until the runtime was seen stopped or the operator chose to go on:
    // the caller then has to ask for the stop again.
    bool retry() const { return m_retry; }

    // Set (the default): only state 0 of the process service ends the wait.
    // Clear: state 1 ends it as well.
    bool pollMode() const { return m_pollMode; }
    void setPollMode(bool on) { m_pollMode = on; }

    // Replaces the first line of the dialog (the note of what is being waited for).
    void setPromptText(const QString& text);

public slots:
    // One look at the process service; closes the dialog once the runtime has
    // stopped, and keeps looking every 100 ms otherwise.
    void checkAppStatus();
    // Restarts the panel. Returns only when the restart failed, after telling
    // the operator why; the dialog stays open.
    void on_rebootBtn_clicked();
    // Goes on as if the runtime had stopped.
    void on_forceExecBtn_clicked();

protected:
    void showEvent(QShowEvent* event) override;

private:
    // Message `id` through the text callable, or `literal` without one.
    QString message(int id, const QString& literal) const;

    std::unique_ptr<Ui::app_exit_failed_dlg> ui;
    std::unique_ptr<QTimer> m_timer;        // drives checkAppStatus
    bool m_retry = true;                    // cleared when the caller may go on
    bool m_pollMode = true;                 // see pollMode()
    std::function<QString(int)> m_text;     // message lookup; may be empty
};
