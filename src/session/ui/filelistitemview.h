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

// The rows of the file list: one per entry of the session's foundFiles. The
// row count is taken when the table is reloaded (setupListContainerView) and
// changes only by removals, so a scan filling foundFiles meanwhile does not
// move the table under the user.
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

    // Takes the row count afresh.
    void reloadData();
    // The row of a removed file goes (foundFileRemoved).
    void removeRow(qsizetype row);

private:
    SessionModel *m_session;
    int m_rowCount = 0;
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
