#pragma once

#include <QFileDialog>

// The folder chooser, which also takes a disc image: folders as ever (several
// at once), and a ".cue" or ".toc" file, which then stands for its disc.
class FolderOrDiscImageDialog : public QFileDialog
{
    Q_OBJECT

public:
    explicit FolderOrDiscImageDialog(QWidget *parent = nullptr);

    void accept() override;
};
