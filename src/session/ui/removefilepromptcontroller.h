#pragma once

#include <QDialog>

#include <memory>

class QCheckBox;
class QPushButton;

namespace Ui {
class RemoveFilePromptController;
}

// Asks whether a file is to come off the list, as a sheet over the main
// window: yes closes it with 1, no with 0. "Don't ask again" with yes stores
// DontAskToRemoveFilesKey.
class RemoveFilePromptController : public QDialog
{
    Q_OBJECT

public:
    explicit RemoveFilePromptController(QWidget *parent = nullptr);
    ~RemoveFilePromptController() override;

    // Names the file in the question.
    void setPath(const QString &path);
    // Names the file, or counts the files, in the question.
    void setPaths(const QStringList &paths);

    QCheckBox *rememberCheckbox() const;
    QPushButton *yesButton() const;
    QPushButton *noButton() const;

    void yesClicked();
    void noClicked();

private:
    std::unique_ptr<Ui::RemoveFilePromptController> m_ui;
};
