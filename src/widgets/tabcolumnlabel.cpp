#include "widgets/tabcolumnlabel.h"

#include <QPainter>
#include <QStyle>

namespace {

// The part before the first tab and the part after the last tab of the run.
std::pair<QString, QString> split(const QString &text)
{
    const qsizetype tab = text.indexOf(QLatin1Char('\t'));
    if (tab < 0) {
        return {text, QString()};
    }
    qsizetype value = tab;
    while (value < text.size() && text.at(value) == QLatin1Char('\t')) {
        ++value;
    }
    return {text.left(tab), text.mid(value)};
}

} // namespace

TabColumnLabel::TabColumnLabel(QWidget *parent) : QLabel(parent) {}

void TabColumnLabel::setColumn(int column)
{
    m_column = column;
    updateGeometry();
    update();
}

void TabColumnLabel::fitColumnTo(const QStringList &names)
{
    int widest = 0;
    for (const QString &name : names) {
        widest = std::max(widest, fontMetrics().horizontalAdvance(name));
    }
    setColumn(widest + fontMetrics().horizontalAdvance(QLatin1Char(' ')) * 2);
}

int TabColumnLabel::valueStart(const QString &name) const
{
    return std::max(m_column, fontMetrics().horizontalAdvance(name + QLatin1Char(' ')));
}

QSize TabColumnLabel::sizeHint() const
{
    const auto [name, value] = split(text());
    const QMargins margins = contentsMargins();
    const int width = value.isNull() ? fontMetrics().horizontalAdvance(name)
                                     : valueStart(name) + fontMetrics().horizontalAdvance(value);
    return QSize(width + margins.left() + margins.right(), fontMetrics().height() + margins.top() + margins.bottom());
}

QSize TabColumnLabel::minimumSizeHint() const
{
    return sizeHint();
}

void TabColumnLabel::paintEvent(QPaintEvent *)
{
    const auto [name, value] = split(text());
    QPainter painter(this);
    const QRect area = contentsRect();
    const QColor color = palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, foregroundRole());
    painter.setPen(color);
    const int flags = Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine;
    painter.drawText(area, flags, name);
    if (!value.isNull()) {
        painter.drawText(area.adjusted(valueStart(name), 0, 0, 0), flags, value);
    }
}
