// Looking into a dialog under test through its widgets' object names.
#pragma once

#include <QApplication>
#include <QEvent>
#include <QPushButton>
#include <QStringList>
#include <QTextEdit>
#include <QWidget>

#include <functional>
#include <initializer_list>

namespace testenv {

// The child `name` of `parent`. A form without it is broken for every case
// that follows, so a missing child ends the test program.
template <typename T>
T* child(const QWidget& parent, const char* name)
{
    T* widget = parent.findChild<T*>(QLatin1String(name));
    if (widget == nullptr)
        qFatal("no child %s", name);
    return widget;
}

// The lines of the dialog's text pane.
inline QStringList paneLines(const QWidget& dialog)
{
    return child<QTextEdit>(dialog, "textEdit")->toPlainText().split(QLatin1Char('\n'));
}

// Whether the named buttons are enabled, as 0/1 digits in the order given.
inline QString enabledButtons(const QWidget& dialog, std::initializer_list<const char*> names)
{
    QString states;
    for (const char* name : names)
        states += child<QPushButton>(dialog, name)->isEnabled() ? QLatin1Char('1') : QLatin1Char('0');
    return states;
}

// The window's title, then the text of each named child (a label's, a button's).
inline QStringList textsOf(const QWidget& window, std::initializer_list<const char*> names)
{
    QStringList texts{window.windowTitle()};
    for (const char* name : names)
        texts << child<QWidget>(window, name)->property("text").toString();
    return texts;
}

// While it lives, hands every widget that is being shown to `onShow`, before
// it shows and before a modal one starts its loop.
class ShowWatcher : public QObject
{
public:
    explicit ShowWatcher(std::function<void(QWidget*)> onShow)
        : m_onShow(std::move(onShow))
    {
        qApp->installEventFilter(this);
    }
    ~ShowWatcher() override { qApp->removeEventFilter(this); }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Show && watched->isWidgetType())
            m_onShow(static_cast<QWidget*>(watched));
        return false;
    }

private:
    std::function<void(QWidget*)> m_onShow;
};

} // namespace testenv
