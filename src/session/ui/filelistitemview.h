#pragma once

#include <QAbstractTableModel>
#include <QStyledItemDelegate>
#include <QWidget>

#include <memory>

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
// under the user.
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

    // Takes the files afresh and sorts them.
    void reloadData();
    // The rows of these paths go.
    void removePaths(const QStringList &paths);
    QString pathAt(int row) const { return row >= 0 && row < m_paths.size() ? m_paths.at(row) : QString(); }
    // Folders first by name, ignoring case, so 01 comes before 02 and
    // "Beatles" before "beck" sorts as a person expects.
    static bool pathLessThan(const QString &a, const QString &b);

private:
    SessionModel *m_session;
    QStringList m_paths;
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
