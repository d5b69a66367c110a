#include "session/ui/filelistitemview.h"

#include "session/sessionmodel.h"
#include "ui_FileListItemViewController.h"

#include <QLabel>
#include <QPainter>
#include <QPixmap>

#include <algorithm>
#include <limits>

FileListItemView::FileListItemView(QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::FileListItemViewController>())
{
    m_ui->setupUi(this);
    setAttribute(Qt::WA_TranslucentBackground);
    setHighlighted(false);
}

FileListItemView::~FileListItemView() = default;

QLabel *FileListItemView::pathLabel() const
{
    return m_ui->pathLabel;
}

void FileListItemView::setHighlighted(bool highlighted)
{
    m_highlighted = highlighted;
    QPalette palette = m_ui->pathLabel->palette();
    palette.setColor(QPalette::WindowText, highlighted ? QColor(0xa1, 0xa1, 0xa1) : QColor(Qt::white));
    m_ui->pathLabel->setPalette(palette);
}

FoundFilesTableModel::FoundFilesTableModel(SessionModel *session, QObject *parent)
    : QAbstractTableModel(parent), m_session(session)
{}

int FoundFilesTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(std::min<qsizetype>(m_paths.size(), std::numeric_limits<int>::max()));
}

int FoundFilesTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : 1;
}

QVariant FoundFilesTableModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || (role != Qt::DisplayRole && role != Qt::ToolTipRole)) {
        return {};
    }
    return index.row() < m_paths.size() ? QVariant(m_paths.at(index.row())) : QVariant();
}

bool FoundFilesTableModel::pathLessThan(const QString &a, const QString &b)
{
    const int folded = a.compare(b, Qt::CaseInsensitive);
    return folded != 0 ? folded < 0 : a < b;
}

void FoundFilesTableModel::reloadData()
{
    beginResetModel();
    m_paths = m_session->foundFiles().toList();
    std::sort(m_paths.begin(), m_paths.end(), &FoundFilesTableModel::pathLessThan);
    endResetModel();
}

void FoundFilesTableModel::removePaths(const QStringList &paths)
{
    for (const QString &path : paths) {
        const auto it = std::lower_bound(m_paths.cbegin(), m_paths.cend(), path, &FoundFilesTableModel::pathLessThan);
        if (it == m_paths.cend() || *it != path) {
            continue;
        }
        const int row = int(it - m_paths.cbegin());
        beginRemoveRows(QModelIndex(), row, row);
        m_paths.removeAt(row);
        endRemoveRows();
    }
}

FileListItemDelegate::FileListItemDelegate(QObject *parent)
    : QStyledItemDelegate(parent), m_view(std::make_unique<FileListItemView>())
{}

FileListItemDelegate::~FileListItemDelegate() = default;

void FileListItemDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    m_view->resize(option.rect.size());
    // Cut in the middle: the folder's start and the file's name stay readable.
    QLabel *label = m_view->pathLabel();
    label->setText(label->fontMetrics().elidedText(index.data().toString(), Qt::ElideMiddle,
                                                   std::max(0, option.rect.width() - 12)));
    // Grey under the pointer, as the row the next click selects.
    m_view->setHighlighted(option.state.testFlag(QStyle::State_MouseOver) &&
                           !option.state.testFlag(QStyle::State_Selected));
    painter->save();
    if (option.state.testFlag(QStyle::State_Selected)) {
        painter->fillRect(option.rect, option.palette.color(QPalette::Active, QPalette::Highlight).darker(150));
    }
    // Drawn into a picture of the row at the screen's pixel density, then
    // placed in the painter's own coordinates: a render offset would have to
    // be given in device pixels, which on a high-density screen moves every
    // row but the first off its place.
    const qreal ratio = painter->device()->devicePixelRatioF();
    QPixmap row((QSizeF(option.rect.size()) * ratio).toSize());
    row.setDevicePixelRatio(ratio);
    row.fill(Qt::transparent);
    m_view->render(&row, QPoint(), QRegion(), QWidget::DrawChildren);
    painter->drawPixmap(option.rect.topLeft(), row);
    painter->restore();
}

QSize FileListItemDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    Q_UNUSED(index);
    return {option.rect.width(), FoundFilesTableModel::kRowHeight};
}
