#include "session/ui/uploadlistitemview.h"

#include "ui_UploadListItemViewController.h"

#include <QResizeEvent>

#include <cmath>

namespace {

const QColor kBackgroundColor(0x25, 0x25, 0x25);
const QColor kProgressBackgroundColor(0x46, 0x46, 0x46);
const QColor kProgressBarColor(0x2f, 0x9b, 0xe0);
const QColor kPausedBarColor(0x8a, 0x8a, 0x8a);
constexpr int kBarHeight = 5;
constexpr int kPercentWidth = 60;
constexpr int kInset = 8;

} // namespace

UploadListItemView::UploadListItemView(QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::UploadListItemViewController>())
{
    m_ui->setupUi(this);
    m_ui->backgroundView->setBackgroundColor(kBackgroundColor);
    m_ui->progressBackgroundView->setBackgroundColor(kProgressBackgroundColor);
    m_ui->progressBarView->setBackgroundColor(kProgressBarColor);
    // Long paths are cut in the middle by the label's elision below.
    m_ui->pathLabel->setTextFormat(Qt::PlainText);
    m_ui->progressLabel->setTextFormat(Qt::PlainText);
    setItem(UploadListItem());
}

UploadListItemView::~UploadListItemView() = default;

void UploadListItemView::setItem(const UploadListItem &item)
{
    m_item = item;
    m_ui->pathLabel->setToolTip(item.pathLabelText());
    m_ui->progressLabel->setText(item.isPaused() ? QStringLiteral("Paused") : item.progressLabelText());
    m_ui->progressBarView->setBackgroundColor(item.isPaused() ? kPausedBarColor : kProgressBarColor);
    layoutSubviews();
}

QString UploadListItemView::pathText() const
{
    return m_item.pathLabelText();
}

QString UploadListItemView::progressText() const
{
    return m_ui->progressLabel->text();
}

void UploadListItemView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    layoutSubviews();
}

void UploadListItemView::layoutSubviews()
{
    const int w = width();
    const int h = height();
    m_ui->backgroundView->setGeometry(0, 0, w, h);
    const int labelHeight = std::max(0, h - kBarHeight);
    m_ui->pathLabel->setGeometry(kInset, 0, std::max(0, w - kPercentWidth - 2 * kInset), labelHeight);
    m_ui->progressLabel->setGeometry(std::max(0, w - kPercentWidth - kInset), 0, kPercentWidth, labelHeight);
    m_ui->pathLabel->setText(
        m_ui->pathLabel->fontMetrics().elidedText(m_item.pathLabelText(), Qt::ElideMiddle, m_ui->pathLabel->width()));
    m_ui->progressBackgroundView->setGeometry(0, h - kBarHeight, w, kBarHeight);
    // The reported value, unclamped: over 100 the bar runs past the row.
    m_progressWidth = int(std::lround(double(w) * m_item.barFraction()));
    m_ui->progressBarView->setGeometry(0, 0, std::max(0, m_progressWidth), kBarHeight);
}
