#include "widgets/dragdropview.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QPainter>
#include <QStyle>
#include <QStyleOption>
#include <QUrl>

DragDropView::DragDropView(QWidget *parent) : QWidget(parent)
{
    setAcceptDrops(true);
    m_label = new QLabel(QStringLiteral("Drop Files Here"), this);
    m_label->setObjectName(QStringLiteral("dropLabel"));
    QFont font = m_label->font();
    font.setPointSize(40);
    m_label->setFont(font);
    m_label->setAlignment(Qt::AlignCenter);
    m_label->setStyleSheet(QStringLiteral("color: white; background: transparent;"));
    m_label->setAttribute(Qt::WA_TransparentForMouseEvents);
    m_label->setEnabled(false);
    m_label->hide();
}

void DragDropView::setDragEntered(bool entered)
{
    m_isDragEntered = entered;
    m_label->setVisible(entered);
    update();
}

void DragDropView::dragEnterEvent(QDragEnterEvent *event)
{
    setDragEntered(bool(m_folderDropped));
    event->setDropAction(Qt::LinkAction);
    event->accept();
}

void DragDropView::dragMoveEvent(QDragMoveEvent *event)
{
    event->setDropAction(Qt::LinkAction);
    event->accept();
}

void DragDropView::dragLeaveEvent(QDragLeaveEvent *event)
{
    setDragEntered(false);
    event->accept();
}

void DragDropView::dropEvent(QDropEvent *event)
{
    setDragEntered(false);
    QStringList paths;
    if (event->mimeData()->hasUrls()) {
        for (const QUrl &url : event->mimeData()->urls()) {
            if (url.isLocalFile()) {
                paths << url.toLocalFile();
            }
        }
    }
    if (paths.isEmpty()) {
        event->ignore();
        return;
    }
    event->setDropAction(Qt::LinkAction);
    event->accept();
    if (m_folderDropped) {
        m_folderDropped(paths);
    }
}

void DragDropView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    // Lets a style sheet give the area a border.
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
    if (m_isDragEntered) {
        painter.fillRect(rect(), QColor(0, 0, 0, qRound(0.8 * 255)));
    }
}

void DragDropView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_label->setGeometry(rect());
}
