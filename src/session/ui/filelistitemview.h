#pragma once

#include <QAbstractTableModel>
#include <QStyledItemDelegate>
#include <QWidget>

#include <memory>
#include <vector>

class QLabel;
class SessionModel;

namespace Ui {
class FileListItemViewController;
}

// One row of the file list: the file's full path, grey ("#a1a1a1") while
// highlighted and white otherwise. Made from the layout
// "FileListItemViewController".
class FileListItemView : public QWidget
{
    Q_OBJECT

public:
    explicit FileListItemView(QWidget *parent = nullptr);
    ~FileListItemView() override;

    QLabel *pathLabel() const;
    bool isHighlighted() const { return m_highlighted; }
    void setHighlighted(bool highlighted);

private:
    std::unique_ptr<Ui::FileListItemViewController> m_ui;
    bool m_highlighted = false;
};

// The rows of the file list: the session's foundFiles sorted by path, taken
// when the table is reloaded (setupListContainerView) and changed only by
// removals, so a scan filling foundFiles meanwhile does not move the table
// under the user. The files a scan hands over are sorted batch by batch as
// they come, so the reload at its end merges instead of sorting them all at
// once on the main thread.
class FoundFilesTableModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    static constexpr int kRowHeight = 22;

    explicit FoundFilesTableModel(SessionModel *session, QObject *parent = nullptr);

    // numberOfRowsInTableView
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    // The path of the row (Qt::DisplayRole).
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    // Takes the files afresh, in order.
    void reloadData();
    // The rows of these paths go, once the session has taken them off its
    // list. `rows`, ascending, are where the caller saw them (the selection);
    // used when they still hold these paths, so a large selection is not
    // looked up path by path.
    void removePaths(const QStringList &paths, const QList<int> &rows = {});
    QString pathAt(int row) const { return row >= 0 && row < rowCount() ? m_rows[std::size_t(row)].path : QString(); }
    // Folders first by name, ignoring case, so 01 comes before 02 and
    // "Beatles" before "beck" sorts as a person expects.
    static bool pathLessThan(const QString &a, const QString &b);

private:
    // A path beside its case-folded form: comparing the folded forms as
    // plain text gives pathLessThan's order several times faster.
    struct Row
    {
        QString folded;
        QString path;
    };
    static Row rowOf(const QString &path);
    static bool rowLessThan(const Row &a, const Row &b);
    static std::vector<Row> mergedRows(std::vector<Row> &&a, std::vector<Row> &&b);
    // Files the session added, sorted into a run of their own that merges
    // with the runs no longer than it.
    void takeAddedFiles(const QStringList &paths);
    // This model just made `changes` changes of the found files its own:
    // any other change since the last note means it no longer mirrors them.
    void noteFoundChanges(qsizetype changes);
    // The sorted rows of every found file, from the start.
    std::vector<Row> sortedFoundFiles() const;
    // Rows from `first` to `last` go, and the table is told.
    void removeRowRun(int first, int last);
    // Frees the removed rows on a later turn of the event loop: letting go
    // of tens of thousands of strings costs more than taking their rows out.
    void releaseLater();

    SessionModel *m_session;
    std::vector<Row> m_rows;
    // Files added since the last reload, in sorted runs of falling length:
    // each file is merged a few times before the reload, not once a batch.
    std::vector<std::vector<Row>> m_addedRuns;
    // Whether the rows and the added runs are the found files exactly, so
    // the reload need not look each row up; and the found files' change
    // count when that was last checked.
    bool m_mirrorsFound = false;
    quint64 m_foundChangeCount = 0;
    std::vector<Row> m_released;
    bool m_releaseQueued = false;
};

// Draws every row with one reused FileListItemView, which keeps a list of a
// hundred thousand files as light as one of ten.
class FileListItemDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    explicit FileListItemDelegate(QObject *parent = nullptr);
    ~FileListItemDelegate() override;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    FileListItemView *itemView() const { return m_view.get(); }

private:
    std::unique_ptr<FileListItemView> m_view;
};
