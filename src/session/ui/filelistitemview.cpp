#include "session/ui/filelistitemview.h"

#include "session/sessionmodel.h"
#include "ui_FileListItemViewController.h"

#include <QPainter>

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
    return parent.isValid() ? 0 : m_rowCount;
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
    const OrderedPathSet &files = m_session->foundFiles();
    return index.row() < files.size() ? QVariant(files.at(index.row())) : QVariant();
}

void FoundFilesTableModel::reloadData()
{
    beginResetModel();
    m_rowCount = int(std::min<qsizetype>(m_session->foundFiles().size(), std::numeric_limits<int>::max()));
    endResetModel();
}

void FoundFilesTableModel::removeRow(qsizetype row)
{
    if (row < 0 || row >= m_rowCount) {
        return;
    }
    beginRemoveRows(QModelIndex(), int(row), int(row));
    --m_rowCount;
    endRemoveRows();
}

FileListItemDelegate::FileListItemDelegate(QObject *parent)
    : QStyledItemDelegate(parent), m_view(std::make_unique<FileListItemView>())
{}

FileListItemDelegate::~FileListItemDelegate() = default;

void FileListItemDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    m_view->pathLabel()->setText(index.data().toString());
    // Grey under the pointer: a click takes the file off the list.
    m_view->setHighlighted(option.state.testFlag(QStyle::State_MouseOver));
    m_view->resize(option.rect.size());
    painter->save();
    m_view->render(painter, painter->deviceTransform().map(option.rect.topLeft()), QRegion(), QWidget::DrawChildren);
    painter->restore();
}

QSize FileListItemDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    Q_UNUSED(index);
    return {option.rect.width(), FoundFilesTableModel::kRowHeight};
}
