#include "widgets/viewex.h"

#include <QMouseEvent>
#include <QPainter>

ViewEx::ViewEx(QWidget *parent) : QWidget(parent) {}

void ViewEx::setBackgroundColor(const QColor &color)
{
    m_backgroundColor = color;
    update();
}

void ViewEx::setBorderColor(const QColor &color)
{
    m_borderColor = color;
    update();
}

void ViewEx::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (m_backgroundColor.alpha() > 0) {
        painter.fillRect(rect(), m_backgroundColor);
    }
    if (m_borderColor.alpha() > 0) {
        painter.setPen(m_borderColor);
        painter.drawRect(rect().adjusted(0, 0, -1, -1));
    }
}

void ViewEx::mousePressEvent(QMouseEvent *event)
{
    event->setAccepted(m_blocksMouse);
}

void ViewEx::mouseReleaseEvent(QMouseEvent *event)
{
    event->setAccepted(m_blocksMouse);
}

void ViewEx::mouseDoubleClickEvent(QMouseEvent *event)
{
    event->setAccepted(m_blocksMouse);
}

void ViewEx::wheelEvent(QWheelEvent *event)
{
    event->setAccepted(m_blocksMouse);
}
