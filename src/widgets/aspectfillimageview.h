#pragma once

#include <QPixmap>
#include <QWidget>

// Shows an image scaled to cover the whole view, keeping its proportions and
// cutting off what overflows (aspect fill), as album artwork is shown. With
// no image it shows the program's "default-artwork" image.
class AspectFillImageView : public QWidget
{
    Q_OBJECT

public:
    explicit AspectFillImageView(QWidget *parent = nullptr);

    // A null pixmap shows the default artwork.
    void setImage(const QPixmap &image);
    // The image shown: the one set, or the default artwork.
    QPixmap image() const;
    bool isShowingDefaultArtwork() const { return m_image.isNull(); }

    // The image from encoded bytes (JPEG, PNG...); null when they do not decode.
    static QPixmap pixmapFromData(const QByteArray &bytes);
    // The "default-artwork" image: a dark square with a disc, drawn once.
    static QPixmap defaultArtwork();
    // image scaled to cover size and cut to it, centred.
    static QPixmap aspectFilled(const QPixmap &image, const QSize &size);

    QSize sizeHint() const override { return {200, 200}; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QPixmap m_image;
};
