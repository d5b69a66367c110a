#pragma once

#include <QLabel>
#include <QStringList>
#include <QWidget>

#include <functional>

// The drop area of the folder page: files and folders dragged from a file
// manager are handed, as paths, to folderDropped. While a drag is over it (and
// a handler is set) it darkens and shows "Drop Files Here".
class DragDropView : public QWidget
{
    Q_OBJECT

public:
    using FolderDroppedHandler = std::function<void(const QStringList &paths)>;

    explicit DragDropView(QWidget *parent = nullptr);

    FolderDroppedHandler folderDropped() const { return m_folderDropped; }
    void setFolderDropped(FolderDroppedHandler handler) { m_folderDropped = std::move(handler); }

    bool isDragEntered() const { return m_isDragEntered; }
    QLabel *label() const { return m_label; }

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void setDragEntered(bool entered);

    FolderDroppedHandler m_folderDropped;
    bool m_isDragEntered = false;
    QLabel *m_label = nullptr;
};
