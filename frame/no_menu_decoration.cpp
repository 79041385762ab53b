#include "frame/no_menu_decoration.h"

#include <QEvent>
#include <QTimer>
#include <QWidget>
#include <QWindow>

namespace {

bool isDecoratedWindow(const QWidget* widget)
{
    if (!widget->isWindow())
        return false;
    const Qt::WindowType type = widget->windowType();
    return type == Qt::Window || type == Qt::Dialog;
}

} // namespace

no_menu_decoration::no_menu_decoration(QObject* parent)
    : QObject(parent)
{
}

void no_menu_decoration::stripWindow(QWidget* window)
{
    if (window == nullptr || !isDecoratedWindow(window))
        return;
    const Qt::WindowFlags flags = window->windowFlags();
    // Without the customise hint a window manager draws its default buttons and
    // menu whatever hints are left.
    const Qt::WindowFlags stripped =
        (flags & ~(Qt::WindowSystemMenuHint | Qt::WindowMaximizeButtonHint)) | Qt::CustomizeWindowHint;
    if (stripped == flags)
        return;
    // setWindowFlags() would hide a window that is being shown; the flags are
    // changed in place and handed to the native window when it exists.
    window->overrideWindowFlags(stripped);
    if (QWindow* handle = window->windowHandle())
        handle->setFlags(stripped);
}

bool no_menu_decoration::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::Polish:
    case QEvent::Show:
        if (watched->isWidgetType())
            stripWindow(static_cast<QWidget*>(watched));
        break;
    case QEvent::WindowStateChange:
        if (watched->isWidgetType()) {
            QWidget* window = static_cast<QWidget*>(watched);
            if (isDecoratedWindow(window) && window->isMaximized()) {
                // Changing the state from inside its own change notification
                // is not safe; undo it once the notification is over.
                QTimer::singleShot(0, window, [window] {
                    window->setWindowState(window->windowState() & ~Qt::WindowMaximized);
                });
            }
        }
        break;
    default:
        break;
    }
    return QObject::eventFilter(watched, event);
}
