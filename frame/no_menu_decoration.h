// The window decoration of the package's top-level windows.
//
// On the panel the operator must not reach a window's system menu or maximise
// a dialog out of its fixed, centred place. One no_menu_decoration, installed
// as an event filter on the application, strips the system menu and the
// maximise action from every top-level window and dialog before it is first
// shown (and again whenever it is shown), and undoes a maximised state that a
// window manager applies anyway. Everything else, including the title-bar
// double click (QEvent::NonClientAreaMouseButtonDblClick), still reaches the
// window: the start note re-centres itself on it.
#pragma once

#include <QObject>

class QWidget;

class no_menu_decoration : public QObject
{
    Q_OBJECT

public:
    explicit no_menu_decoration(QObject* parent = nullptr);

    // Removes the system-menu and maximise hints from `window` when it is a
    // top-level window or dialog; other widgets are left alone. The native
    // window, when there is one already, takes the new flags at once.
    static void stripWindow(QWidget* window);

    // Never consumes an event.
    bool eventFilter(QObject* watched, QEvent* event) override;
};
