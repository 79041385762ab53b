// The start note: the first window of the package in interactive use.
//
// The note says which package runs and in which version, lets the operator
// pick the package's language and asks for confirmation. "No" closes the
// package. "Yes" asks for the panel's access password when one is set
// (PwdEntryDialog), has the panel's runtime application stopped
// (kavo_process::backToDovik) and then runs the main window (UDiskUpWin) in
// the note's place; the note closes when the main window returns.
//
// The package's version and its languages come from the scrambled package
// description "config/proUpdate.ini" beside the executable, read once through
// a clear copy that is removed again straight away.
#pragma once

#include <QDialog>
#include <QString>
#include <QStringList>

#include <memory>

class QCloseEvent;
class QEvent;
class QShowEvent;
class WinBackground;

namespace Ui {
class dlgUpNote;
}

class dlgUpNote : public QDialog
{
    Q_OBJECT

public:
    // Builds the ready note for the package in `appDir` (the executable's
    // directory) in the language `lanId`, without showing it: fixed size from
    // the size table, centred, version and languages from the package
    // description, texts from the text table, the entry of `lanId` selected in
    // the language list (the first entry when `lanId` is not listed; the
    // language in use stays as it is either way). An unreadable description
    // leaves the version empty and the form's own language list in place.
    dlgUpNote(const QString& appDir, const QString& lanId, QWidget* parent = nullptr);
    ~dlgUpNote() override;

    // Fills the title, the note and the button captions from the text table.
    void initPage();

    // The language code in use by the note.
    QString lanId() const { return m_lanId; }
    // The language codes, one per entry of the language list, in its order.
    QStringList languageIds() const { return m_languageIds; }
    // The package version from the description ("/prepare/version").
    QString version() const { return m_version; }
    // False while the constructor fills the note; language changes are only
    // acted on once it is set.
    bool isInitialised() const { return m_initialised; }

public slots:
    // "Yes": the password gate where a password is configured, then
    // doAllowedAccess(). With a password the note closes once the password
    // dialog returns.
    void clickedBtOk();
    // Has the panel's runtime stopped, then runs the main window modally in
    // place of the note and closes the note when it returns. "Yes" works once.
    void doAllowedAccess();
    // Loads the language of list entry `index` and refills the texts. Ignored
    // until the note is initialised and for entries without a language code.
    // A language without its file falls back to the package's own tool
    // language ("/tool_language/type" of "config/proUpdateSet.ini").
    void on_comboBox_currentIndexChanged(int index);

protected:
    // A double click on the title bar puts the note back in the middle of the
    // screen.
    bool event(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void moveToCentre();
    // Version and languages from the package description.
    void readPackageDescription();

    std::unique_ptr<Ui::dlgUpNote> ui;
    QString m_lanId;
    bool m_initialised = false;
    QStringList m_languageIds;
    QString m_appDir;
    QString m_version;
    std::unique_ptr<WinBackground> m_background;
};
