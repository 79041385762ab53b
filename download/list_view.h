// The project list of the download dialog.
#pragma once

#include <QListView>
#include <QString>

class list_view : public QListView
{
    Q_OBJECT

public:
    explicit list_view(QWidget* parent = nullptr);

signals:
    // The display text of the current row when the operator lifts the finger
    // off the list.
    void emitSelectInfo(const QString& name);

protected:
    // Announces the current row, then lets the view finish the release (which
    // may emit clicked()).
    void mouseReleaseEvent(QMouseEvent* event) override;
};
