#include "session/ui/filelistitemview.h"

#include "session/sessionmodel.h"
#include "ui_FileListItemViewController.h"

#include <QLabel>
#include <QPainter>
#include <QPixmap>
#include <QSet>
#include <QTimer>

#include <algorithm>
#include <iterator>
#include <limits>
#include <ranges>
#include <utility>

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
{
    connect(session, &SessionModel::foundFilesAdded, this, &FoundFilesTableModel::takeAddedFiles);
}

int FoundFilesTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(std::min<std::size_t>(m_rows.size(), std::numeric_limits<int>::max()));
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
    return index.row() < rowCount() ? QVariant(m_rows[std::size_t(index.row())].path) : QVariant();
}

bool FoundFilesTableModel::pathLessThan(const QString &a, const QString &b)
{
    const int folded = a.compare(b, Qt::CaseInsensitive);
    return folded != 0 ? folded < 0 : a < b;
}

FoundFilesTableModel::Row FoundFilesTableModel::rowOf(const QString &path)
{
    // Folded as QString::compare(Qt::CaseInsensitive) folds, character by
    // character, so comparing the folded texts gives its order. Plain ASCII,
    // nearly every path, is folded here without Qt's character tables.
    bool ascii = true;
    bool upper = false;
    for (const QChar c : path) {
        ascii = ascii && c.unicode() < 0x80;
        upper = upper || (c >= u'A' && c <= u'Z');
    }
    if (!ascii) {
        return {path.toCaseFolded(), path};
    }
    QString folded = path;
    if (upper) {
        for (QChar &c : folded) {
            if (c >= u'A' && c <= u'Z') {
                c = QChar(c.unicode() + (u'a' - u'A'));
            }
        }
    }
    return {folded, path};
}

bool FoundFilesTableModel::rowLessThan(const Row &a, const Row &b)
{
    const int folded = a.folded.compare(b.folded);
    return folded != 0 ? folded < 0 : a.path < b.path;
}

std::vector<FoundFilesTableModel::Row> FoundFilesTableModel::mergedRows(std::vector<Row> &&a, std::vector<Row> &&b)
{
    if (a.empty() || b.empty()) {
        return std::move(a.empty() ? b : a);
    }
    std::vector<Row> merged;
    merged.reserve(a.size() + b.size());
    std::merge(std::make_move_iterator(a.begin()), std::make_move_iterator(a.end()), std::make_move_iterator(b.begin()),
               std::make_move_iterator(b.end()), std::back_inserter(merged), &FoundFilesTableModel::rowLessThan);
    return merged;
}

void FoundFilesTableModel::noteFoundChanges(qsizetype changes)
{
    const quint64 now = m_session->foundFiles().changeCount();
    m_mirrorsFound = m_mirrorsFound && now == m_foundChangeCount + quint64(changes);
    m_foundChangeCount = now;
}

void FoundFilesTableModel::takeAddedFiles(const QStringList &paths)
{
    std::vector<Row> run;
    run.reserve(std::size_t(paths.size()));
    for (const QString &path : paths) {
        run.push_back(rowOf(path));
    }
    std::sort(run.begin(), run.end(), &FoundFilesTableModel::rowLessThan);
    while (!m_addedRuns.empty() && m_addedRuns.back().size() <= run.size()) {
        run = mergedRows(std::move(m_addedRuns.back()), std::move(run));
        m_addedRuns.pop_back();
    }
    m_addedRuns.push_back(std::move(run));
    noteFoundChanges(paths.size());
}

std::vector<FoundFilesTableModel::Row> FoundFilesTableModel::sortedFoundFiles() const
{
    std::vector<Row> rows;
    rows.reserve(std::size_t(m_session->foundFiles().size()));
    for (const QString &path : m_session->foundFiles()) {
        rows.push_back(rowOf(path));
    }
    std::sort(rows.begin(), rows.end(), &FoundFilesTableModel::rowLessThan);
    return rows;
}

void FoundFilesTableModel::reloadData()
{
    beginResetModel();
    // The shortest runs first, so that each file is moved about twice.
    std::vector<Row> rows;
    for (auto &run : std::views::reverse(m_addedRuns)) {
        rows = mergedRows(std::move(run), std::move(rows));
    }
    m_addedRuns.clear();
    rows = mergedRows(std::move(m_rows), std::move(rows));
    m_rows.clear();
    noteFoundChanges(0);
    const OrderedPathSet &found = m_session->foundFiles();
    if (!m_mirrorsFound) {
        // The found files changed in ways this model was not told of: the
        // rows of files no longer there go, and a file added twice shows
        // once (equal rows are neighbours).
        std::size_t kept = 0;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (!found.contains(rows[i].path) || (kept > 0 && rows[kept - 1].path == rows[i].path)) {
                continue;
            }
            if (kept != i) {
                rows[kept] = std::move(rows[i]);
            }
            ++kept;
        }
        rows.resize(kept);
        // Every row is found and no two are alike: as many rows as found
        // files are all of them. Else some came another way, and all are
        // sorted from the start.
        if (qsizetype(kept) != found.size()) {
            rows = sortedFoundFiles();
        }
        m_mirrorsFound = true;
    }
    m_rows = std::move(rows);
    endResetModel();
}

void FoundFilesTableModel::removePaths(const QStringList &paths, const QList<int> &seenRows)
{
    // The rows to go, ascending: those given when they hold the paths, else
    // a few are looked up, many are picked out in one pass.
    std::vector<int> rows;
    bool seenRowsHold = seenRows.size() == paths.size();
    for (qsizetype i = 0; seenRowsHold && i < seenRows.size(); ++i) {
        const int row = seenRows.at(i);
        seenRowsHold = row >= 0 && row < rowCount() && (i == 0 || seenRows.at(i - 1) < row) &&
                       m_rows[std::size_t(row)].path == paths.at(i);
    }
    if (seenRowsHold) {
        rows.assign(seenRows.cbegin(), seenRows.cend());
    } else if (paths.size() * 64 < qsizetype(m_rows.size())) {
        for (const QString &path : paths) {
            const auto it =
                std::lower_bound(m_rows.cbegin(), m_rows.cend(), rowOf(path), &FoundFilesTableModel::rowLessThan);
            if (it != m_rows.cend() && it->path == path) {
                rows.push_back(int(it - m_rows.cbegin()));
            }
        }
        std::sort(rows.begin(), rows.end());
        rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    } else {
        const QSet<QString> gone(paths.cbegin(), paths.cend());
        for (std::size_t row = 0; row < m_rows.size(); ++row) {
            if (gone.contains(m_rows[row].path)) {
                rows.push_back(int(row));
            }
        }
    }
    // Runs of neighbouring rows, as a selection made with Shift gives.
    std::vector<std::pair<int, int>> runs;
    for (const int row : rows) {
        if (!runs.empty() && runs.back().second == row - 1) {
            runs.back().second = row;
        } else {
            runs.emplace_back(row, row);
        }
    }
    // Each run told to the view costs it a pass over all the rows; past a
    // few runs the table is told once that everything changed.
    constexpr std::size_t kMostRunsTold = 16;
    if (runs.size() <= kMostRunsTold) {
        // The last run first, so the earlier runs keep their rows.
        for (const auto &[first, last] : std::views::reverse(runs)) {
            removeRowRun(first, last);
        }
        noteFoundChanges(qsizetype(rows.size()));
        return;
    }
    beginResetModel();
    std::size_t kept = 0;
    std::size_t next = 0;
    for (std::size_t row = 0; row < m_rows.size(); ++row) {
        if (next < rows.size() && std::size_t(rows[next]) == row) {
            m_released.push_back(std::move(m_rows[row]));
            ++next;
            continue;
        }
        if (kept != row) {
            m_rows[kept] = std::move(m_rows[row]);
        }
        ++kept;
    }
    m_rows.resize(kept);
    endResetModel();
    releaseLater();
    noteFoundChanges(qsizetype(rows.size()));
}

void FoundFilesTableModel::removeRowRun(int first, int last)
{
    beginRemoveRows(QModelIndex(), first, last);
    const auto begin = m_rows.begin() + first;
    const auto end = m_rows.begin() + last + 1;
    std::move(begin, end, std::back_inserter(m_released));
    m_rows.erase(begin, end);
    endRemoveRows();
    releaseLater();
}

void FoundFilesTableModel::releaseLater()
{
    if (!m_released.empty() && !m_releaseQueued) {
        m_releaseQueued = true;
        QTimer::singleShot(0, this, [this] {
            m_released = {};
            m_releaseQueued = false;
        });
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
