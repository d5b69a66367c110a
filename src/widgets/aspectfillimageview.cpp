#include "widgets/aspectfillimageview.h"

#include <QPainter>
#include <QPixmapCache>
#include <QRadialGradient>

AspectFillImageView::AspectFillImageView(QWidget *parent) : QWidget(parent)
{
    setMinimumSize(64, 64);
}

void AspectFillImageView::setImage(const QPixmap &image)
{
    m_image = image;
    update();
}

QPixmap AspectFillImageView::image() const
{
    return m_image.isNull() ? defaultArtwork() : m_image;
}

QPixmap AspectFillImageView::pixmapFromData(const QByteArray &bytes)
{
    QPixmap pixmap;
    if (!bytes.isEmpty()) {
        pixmap.loadFromData(bytes);
    }
    return pixmap;
}

QPixmap AspectFillImageView::defaultArtwork()
{
    const QString key = QStringLiteral("default-artwork");
    QPixmap pixmap;
    if (QPixmapCache::find(key, &pixmap)) {
        return pixmap;
    }
    pixmap = QPixmap(400, 400);
    pixmap.fill(QColor(0x2b, 0x2b, 0x2b));
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QRadialGradient disc(QPointF(200, 200), 150);
    disc.setColorAt(0.0, QColor(0x9a, 0x9a, 0x9a));
    disc.setColorAt(0.6, QColor(0x5c, 0x5c, 0x5c));
    disc.setColorAt(1.0, QColor(0x44, 0x44, 0x44));
    painter.setPen(QPen(QColor(0x70, 0x70, 0x70), 3));
    painter.setBrush(disc);
    painter.drawEllipse(QPointF(200, 200), 150, 150);
    painter.setBrush(QColor(0x2b, 0x2b, 0x2b));
    painter.drawEllipse(QPointF(200, 200), 22, 22);
    painter.end();
    QPixmapCache::insert(key, pixmap);
    return pixmap;
}

QPixmap AspectFillImageView::aspectFilled(const QPixmap &image, const QSize &size)
{
    if (image.isNull() || size.isEmpty()) {
        return {};
    }
    const QPixmap scaled = image.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return scaled.copy((scaled.width() - size.width()) / 2, (scaled.height() - size.height()) / 2, size.width(),
                       size.height());
}

void AspectFillImageView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.drawPixmap(0, 0, aspectFilled(image(), size()));
}
