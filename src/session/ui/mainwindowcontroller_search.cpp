// The folder and file-list pages of the main window.
#include "session/ui/mainwindowcontroller.h"

#include "core/formatting.h"
#include "core/paths.h"
#include "platform/settings.h"
#include "session/ui/filelistitemview.h"
#include "session/ui/folderordiscimagedialog.h"
#include "session/ui/removefilepromptcontroller.h"
#include "ui_MainWindowController.h"

#include <QAction>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QKeyEvent>
#include <QListView>
#include <QMimeData>
#include <QTreeView>

#include <algorithm>
#include <functional>

namespace {

QStringList localPaths(const QMimeData *mime)
{
    QStringList paths;
    if (mime && mime->hasUrls()) {
        for (const QUrl &url : mime->urls()) {
            if (url.isLocalFile()) {
                paths << url.toLocalFile();
            }
        }
    }
    return paths;
}

// Files dropped anywhere on the list, upload or result page go to the drop
// area's handler too, which decides by page what a drop means.
class PageDropForwarder : public QObject
{
public:
    PageDropForwarder(DragDropView *dropArea, QObject *parent) : QObject(parent), m_dropArea(dropArea) {}

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        switch (event->type()) {
        case QEvent::DragEnter:
        case QEvent::DragMove: {
            auto *drag = static_cast<QDragMoveEvent *>(event);
            if (!m_dropArea->folderDropped() || localPaths(drag->mimeData()).isEmpty()) {
                drag->ignore();
                return true;
            }
            drag->setDropAction(Qt::LinkAction);
            drag->accept();
            return true;
        }
        case QEvent::Drop: {
            auto *drop = static_cast<QDropEvent *>(event);
            const QStringList paths = localPaths(drop->mimeData());
            if (paths.isEmpty() || !m_dropArea->folderDropped()) {
                drop->ignore();
                return true;
            }
            drop->setDropAction(Qt::LinkAction);
            drop->accept();
            m_dropArea->folderDropped()(paths);
            return true;
        }
        default:
            return QObject::eventFilter(watched, event);
        }
    }

private:
    DragDropView *m_dropArea;
};

// The selected rows, ascending, read off the selection's ranges: asking for
// selectedRows() tests every row of a large selection against every range.
QList<int> selectedRowNumbers(const QItemSelectionModel *selection)
{
    QList<int> rows;
    for (const QItemSelectionRange &range : selection->selection()) {
        for (int row = range.top(); row <= range.bottom(); ++row) {
            rows.append(row);
        }
    }
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    return rows;
}

// Delete and Backspace on the file list take the selection off.
class DeleteKeyFilter : public QObject
{
public:
    DeleteKeyFilter(std::function<void()> remove, QObject *parent) : QObject(parent), m_remove(std::move(remove)) {}

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress) {
            const int key = static_cast<QKeyEvent *>(event)->key();
            if (key == Qt::Key_Delete || key == Qt::Key_Backspace) {
                m_remove();
                return true;
            }
        }
        return QObject::eventFilter(watched, event);
    }

private:
    std::function<void()> m_remove;
};

} // namespace

void MainWindowController::connectSearchPages()
{
    // Search page.
    connect(m_session, &SessionModel::searchFolderPathTextChanged, m_ui->searchFolderPathTextField,
            &QLineEdit::setText);
    // Every edit by the user, not the text the session puts there.
    connect(m_ui->searchFolderPathTextField, &QLineEdit::textEdited, m_session, &SessionModel::OnPathChanged);
    connect(m_ui->browseButton, &QPushButton::clicked, this, &MainWindowController::OnBrowseFolder);
    connect(m_ui->searchButton, &QPushButton::clicked, this, &MainWindowController::OnSearchFolder);
    connect(m_session, &SessionModel::searchContainerViewSetUp, this, [this] {
        m_ui->searchEjectCDButton->hide();
        m_ui->searchUploadCDButton->hide();
        m_ui->searchCDFoundTextField->hide();
        m_ui->downloadLibraryButton->setText(QStringLiteral("Start Download"));
        m_ui->dragDropView->setFolderDropped([this](const QStringList &paths) { m_session->filesDropped(paths); });
    });
    connect(m_session, &SessionModel::foundDisksChanged, this, [this](const QStringList &disks) {
        const bool found = !disks.isEmpty();
        m_ui->searchEjectCDButton->setVisible(found);
        m_ui->searchUploadCDButton->setVisible(found);
        m_ui->searchCDFoundTextField->setVisible(found);
    });
    m_ui->searchEjectCDButton->hide();
    m_ui->searchUploadCDButton->hide();
    m_ui->searchCDFoundTextField->hide();

    auto *forwarder = new PageDropForwarder(m_ui->dragDropView, this);
    for (QWidget *page : {m_ui->filesContainerView, m_ui->uploadContainerView, m_ui->resultContainerView}) {
        page->setAcceptDrops(true);
        page->installEventFilter(forwarder);
    }

    // List page.
    m_filesTableModel = new FoundFilesTableModel(m_session, this);
    m_filesTableDelegate = new FileListItemDelegate(this);
    QTableView *table = m_ui->filesTableView;
    table->setModel(m_filesTableModel);
    table->setItemDelegate(m_filesTableDelegate);
    table->setMouseTracking(true);
    table->horizontalHeader()->hide();
    table->horizontalHeader()->setStretchLastSection(true);
    table->verticalHeader()->hide();
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table->verticalHeader()->setMinimumSectionSize(FoundFilesTableModel::kRowHeight);
    table->verticalHeader()->setDefaultSectionSize(FoundFilesTableModel::kRowHeight);
    // A click selects (Shift and Ctrl add to it); Delete, the context menu or
    // the Remove button take the selected files off.
    auto *remove = new QAction(QStringLiteral("Remove from List"), table);
    remove->setShortcuts({QKeySequence::Delete, QKeySequence(Qt::Key_Backspace)});
    remove->setShortcutContext(Qt::WidgetShortcut);
    remove->setEnabled(false);
    connect(remove, &QAction::triggered, this, &MainWindowController::removeSelectedFiles);
    table->addAction(remove);
    // Keys that reach the table without passing the shortcut map do the same.
    table->installEventFilter(new DeleteKeyFilter([this] { removeSelectedFiles(); }, table));
    connect(m_ui->removeFilesButton, &QPushButton::clicked, this, &MainWindowController::removeSelectedFiles);
    connect(table->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this, remove] {
        const bool any = m_ui->filesTableView->selectionModel()->hasSelection();
        remove->setEnabled(any);
        m_ui->removeFilesButton->setEnabled(any);
    });
    // Return in the folder field searches, as the Search button promises.
    connect(m_ui->searchFolderPathTextField, &QLineEdit::returnPressed, this, &MainWindowController::OnSearchFolder);

    connect(m_session, &SessionModel::fileCountLabelTextChanged, m_ui->fileCountLabel, &QLabel::setText);
    connect(m_session, &SessionModel::fileSearchInProgressChanged, this, [this](bool inProgress) {
        if (inProgress) {
            m_ui->fileSearchProgressIndicator->startAnimation();
        } else {
            m_ui->fileSearchProgressIndicator->stopAnimation();
        }
        // The running count and the way out exist only while a scan runs.
        m_ui->fileSearchCountLabel->setVisible(inProgress);
        m_ui->cancelSearchButton->setVisible(inProgress);
    });
    connect(m_session, &SessionModel::fileSearchCountChanged, this, [this](qint64 count) {
        m_ui->fileSearchCountLabel->setText(count == 1
                                                ? QStringLiteral("1 file found so far")
                                                : QStringLiteral("%1 files found so far").arg(groupedNumber(count)));
    });
    m_ui->fileSearchCountLabel->hide();
    m_ui->cancelSearchButton->hide();
    m_ui->cancelSearchButton->setShortcut(QKeySequence(Qt::Key_Escape));
    connect(m_ui->cancelSearchButton, &QPushButton::clicked, m_session, &SessionModel::OnCancelSearch);
    connect(m_session, &SessionModel::beginUploadEnabledChanged, m_ui->beginUploadButton, &QPushButton::setEnabled);
    connect(m_session, &SessionModel::listContainerViewSetUp, this, [this] {
        // Back to 3 every time the list is set up, whatever was typed before.
        m_ui->uploadThreadCountField->setText(QStringLiteral("3"));
        m_filesTableModel->reloadData();
    });
}

void MainWindowController::OnBrowseFolder()
{
    const QStringList roots = m_session->searchFolderPath();
    FolderOrDiscImageDialog dialog(this);
    dialog.setDirectory(roots.isEmpty() ? Paths::musicDirectory() : roots.last());
    if (dialog.exec() != QDialog::Accepted) {
        return;
    }
    // The scan waits for Search.
    m_session->chooseSearchFolders(dialog.selectedFiles());
}

QStringList MainWindowController::selectedFiles() const
{
    const QList<int> rows = selectedRowNumbers(m_ui->filesTableView->selectionModel());
    QStringList paths;
    paths.reserve(rows.size());
    for (const int row : rows) {
        const QString path = m_filesTableModel->pathAt(row);
        if (!path.isEmpty()) {
            paths.append(path);
        }
    }
    return paths;
}

void MainWindowController::removeSelectedFiles()
{
    const QStringList paths = selectedFiles();
    if (paths.isEmpty()) {
        return;
    }
    auto remove = [this, paths] {
        // The row after the removed ones keeps the selection, so Delete can go on.
        const QList<int> rows = selectedRowNumbers(m_ui->filesTableView->selectionModel());
        int next = rows.isEmpty() ? 0 : rows.last() - int(paths.size()) + 1;
        m_session->removeFoundFiles(paths);
        m_filesTableModel->removePaths(paths, rows);
        next = std::clamp(next, 0, m_filesTableModel->rowCount() - 1);
        if (next >= 0) {
            m_ui->filesTableView->selectRow(next);
        }
    };
    if (Settings::boolean(DontAskToRemoveFilesKey)) {
        remove();
        return;
    }
    auto *prompt = new RemoveFilePromptController(this);
    prompt->setAttribute(Qt::WA_DeleteOnClose);
    prompt->setPaths(paths);
    connect(prompt, &QDialog::finished, this, [remove](int result) {
        if (result == 1) {
            remove();
        }
    });
    m_removeFilePrompt = prompt;
    prompt->open();
}

RemoveFilePromptController *MainWindowController::removeFilePrompt() const
{
    return m_removeFilePrompt;
}
