#include "widgets/progressindicator.h"

#include <QPainter>

namespace {
constexpr int kSpokes = 12;
}

ProgressIndicator::ProgressIndicator(QWidget *parent) : QWidget(parent)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    m_timer.setInterval(80);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_step = (m_step + 1) % kSpokes;
        update();
    });
}

void ProgressIndicator::startAnimation()
{
    if (!m_timer.isActive()) {
        m_timer.start();
        update();
    }
}

void ProgressIndicator::stopAnimation()
{
    if (m_timer.isActive()) {
        m_timer.stop();
        update();
    }
}

void ProgressIndicator::setColor(const QColor &color)
{
    m_color = color;
    update();
}

void ProgressIndicator::paintEvent(QPaintEvent *)
{
    if (!m_timer.isActive()) {
        return;
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const int side = qMin(width(), height());
    const qreal outer = side / 2.0;
    const qreal inner = outer * 0.45;
    const qreal thickness = qMax(1.5, side / 10.0);
    painter.translate(width() / 2.0, height() / 2.0);
    for (int i = 0; i < kSpokes; ++i) {
        QColor spoke = m_color;
        // The spoke at the current step is brightest; the others fade behind it.
        const int age = (m_step - i + kSpokes) % kSpokes;
        spoke.setAlphaF(qMax(0.15f, 1.0f - float(age) / kSpokes));
        painter.setPen(QPen(spoke, thickness, Qt::SolidLine, Qt::RoundCap));
        painter.save();
        painter.rotate(360.0 * i / kSpokes);
        painter.drawLine(QPointF(0, -inner), QPointF(0, -outer + thickness / 2));
        painter.restore();
    }
}
