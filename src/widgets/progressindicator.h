#pragma once

#include <QColor>
#include <QTimer>
#include <QWidget>

// The spinning busy indicator: twelve spokes turning while animating, and
// nothing at all drawn while stopped.
class ProgressIndicator : public QWidget
{
    Q_OBJECT

public:
    explicit ProgressIndicator(QWidget *parent = nullptr);

    void startAnimation();
    void stopAnimation();
    bool isAnimating() const { return m_timer.isActive(); }

    QColor color() const { return m_color; }
    void setColor(const QColor &color);

    QSize sizeHint() const override { return {24, 24}; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QTimer m_timer;
    int m_step = 0;
    QColor m_color = Qt::white;
};
