#include "boxanswerer.h"

#include <QAbstractButton>
#include <QApplication>

#include <utility>

namespace testenv {

BoxAnswerer::BoxAnswerer(QList<QMessageBox::StandardButton> answers, QMessageBox::StandardButton otherwise)
    : m_answers(std::move(answers))
    , m_otherwise(otherwise)
{
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { poll(); });
    // A box's exec() runs its own event loop, which is where this timer fires.
    m_timer.start(10);
}

void BoxAnswerer::poll()
{
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    // Only a box on screen is answered: one still being shown is not ready for
    // a click, and one already answered must not be recorded twice.
    if (box == nullptr || !box->isVisible())
        return;

    SeenBox record;
    record.title = box->windowTitle();
    record.text = box->text();
    for (QAbstractButton* button : box->buttons())
        record.buttons << button->text();
    record.icon = box->icon();
    record.flags = box->windowFlags();
    record.parent = box->parentWidget();
    m_seen << record;

    const QMessageBox::StandardButton answer = m_answers.isEmpty() ? m_otherwise : m_answers.takeFirst();
    QAbstractButton* button = box->button(answer);
    if (button != nullptr)
        button->click();
    else
        box->reject();
}

} // namespace testenv
