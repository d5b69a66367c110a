#include "session/ui/folderordiscimagedialog.h"

#include "platform/discimages.h"

#include <QAbstractItemView>
#include <QListView>
#include <QTreeView>

FolderOrDiscImageDialog::FolderOrDiscImageDialog(QWidget *parent) : QFileDialog(parent)
{
    // Qt's own dialog: the platform ones cannot choose several folders.
    setOption(QFileDialog::DontUseNativeDialog);
    setFileMode(QFileDialog::Directory);
    // Files show so that disc images can be picked; only those are offered.
    setOption(QFileDialog::ShowDirsOnly, false);
    setNameFilter(QStringLiteral("Folders and disc images (*.cue *.toc)"));
    for (QAbstractItemView *view : findChildren<QListView *>(QStringLiteral("listView"))) {
        view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    }
    for (QAbstractItemView *view : findChildren<QTreeView *>(QStringLiteral("treeView"))) {
        view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    }
}

void FolderOrDiscImageDialog::accept()
{
    // A folder chooser refuses files; a disc image is let through.
    const QStringList files = selectedFiles();
    if (files.size() == 1 && DiscImages::isDiscImageFile(files.first())) {
        // Past QFileDialog::accept(), which would refuse the file.
        QDialog::accept(); // NOLINT(bugprone-parent-virtual-call)
        return;
    }
    QFileDialog::accept();
}
