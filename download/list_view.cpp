#include "download/list_view.h"

#include <QMouseEvent>

list_view::list_view(QWidget* parent)
    : QListView(parent)
{
}

void list_view::mouseReleaseEvent(QMouseEvent* event)
{
    // The press has already made the touched row current; a release on empty
    // space announces the row that was current before.
    emit emitSelectInfo(currentIndex().data(Qt::DisplayRole).toString());
    QListView::mouseReleaseEvent(event);
}
