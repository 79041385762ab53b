// The access-password dialog with its own on-screen keyboard.
//
// The panel has no physical keyboard, so the dialog carries 40 keys: the ten
// digits, the 26 letters (switchable between upper and lower case) and the
// function keys "Cap", "Del", "<--" and confirm. Every change of the typed
// text is checked at once against the digest that md5_crypt_ctrl reads from
// the panel configuration; a match closes the dialog and emits
// allowedAccess(), so a correct password never needs the confirm key.
#pragma once

#include <QDialog>
#include <QFont>
#include <QString>

#include <functional>

class QCloseEvent;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QShowEvent;
class QSignalMapper;

class PwdEntryDialog : public QDialog
{
    Q_OBJECT

public:
    static constexpr int kRows = 5;
    static constexpr int kColumns = 8;
    // The longest password the panel's settings program accepts.
    static constexpr int kMaxPasswordLength = 20;

    // Builds the dialog and its keyboard. `text` fetches captions and messages
    // by id; when it is empty the built-in Chinese texts are shown.
    PwdEntryDialog(QWidget* parent, std::function<QString(int)> text);
    ~PwdEntryDialog() override;

    // True once a typed password has been accepted.
    bool isAccessAllowed() const { return m_accessAllowed; }

signals:
    void allowedAccess();

public slots:
    void valueChanged(const QString& text);
    void doClicked(int index);
    void on_keyBtnCap_clicked();
    void on_keyBtnBack_clicked();
    void on_keyBtnDel_clicked();
    void on_keyBtnConfirm_clicked();

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void buildLayout();
    // Text `id` through the lookup, or `fallback` without one.
    QString text(int id, const QString& fallback) const;
    // An information box with one OK button, run modally over the dialog.
    void inform(const QString& message);
    Qt::WindowFlags boxFlags() const;

    QFont m_font;
    QLabel* m_label = nullptr;
    QLineEdit* m_lineEditPwd = nullptr;
    bool m_capsOn = true;
    bool m_accessAllowed = false;
    QSignalMapper* m_mapper = nullptr;
    // All 40 keys in table order (row * kColumns + column): 36 character keys,
    // then Cap, Del, Back and Confirm.
    QPushButton* m_keys[kRows][kColumns] = {};
    QPushButton* m_keyBtnCap = nullptr;
    QPushButton* m_keyBtnDel = nullptr;
    QPushButton* m_keyBtnBack = nullptr;
    QPushButton* m_keyBtnConfirm = nullptr;
    QHBoxLayout* m_rowLayouts[kRows] = {};
    std::function<QString(int)> m_text;
};
