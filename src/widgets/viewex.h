#pragma once

#include <QColor>
#include <QWidget>

// A plain view that fills itself with a colour (alpha allowed) and can draw
// a border. With setBlocksMouse(true) it takes mouse clicks itself, so a view
// laid over others, such as the waiting overlay, keeps them from the widgets
// below.
class ViewEx : public QWidget
{
    Q_OBJECT

public:
    explicit ViewEx(QWidget *parent = nullptr);

    QColor backgroundColor() const { return m_backgroundColor; }
    void setBackgroundColor(const QColor &color);
    QColor borderColor() const { return m_borderColor; }
    void setBorderColor(const QColor &color);
    void setBlocksMouse(bool blocks) { m_blocksMouse = blocks; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;

private:
    QColor m_backgroundColor = Qt::transparent;
    QColor m_borderColor = Qt::transparent;
    bool m_blocksMouse = false;
};
