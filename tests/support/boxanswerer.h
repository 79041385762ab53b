// Answering the modal message boxes that the code under test opens, so that a
// widget test runs through them without an operator, and recording what each
// box showed for the test to check afterwards.
#pragma once

#include <QList>
#include <QMessageBox>
#include <QString>
#include <QStringList>
#include <QTimer>

class QWidget;

namespace testenv {

// What a message box showed before it was answered.
struct SeenBox
{
    QString title;
    QString text;
    // Captions in the box's own order.
    QStringList buttons;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    Qt::WindowFlags flags;
    // Only for comparing: the widget may be gone by the time a test looks.
    QWidget* parent = nullptr;
};

// Each box as "title|text|captions joined by /".
inline QStringList boxTexts(const QList<SeenBox>& boxes)
{
    QStringList texts;
    for (const SeenBox& box : boxes)
        texts << box.title + QLatin1Char('|') + box.text + QLatin1Char('|') + box.buttons.join(QLatin1Char('/'));
    return texts;
}

// While it lives, answers each modal QMessageBox that opens with the next of
// `answers`, and with `otherwise` once they are used up. An answer the box has
// no button for, or NoButton, rejects the box as the Escape key or the title
// bar's close button would.
class BoxAnswerer
{
public:
    explicit BoxAnswerer(QList<QMessageBox::StandardButton> answers = {},
                         QMessageBox::StandardButton otherwise = QMessageBox::Ok);

    // The boxes answered so far, oldest first.
    const QList<SeenBox>& seen() const { return m_seen; }

private:
    void poll();

    QList<QMessageBox::StandardButton> m_answers;
    QMessageBox::StandardButton m_otherwise;
    QList<SeenBox> m_seen;
    QTimer m_timer;
};

} // namespace testenv
