#include "session/ui/removefilepromptcontroller.h"

#include "platform/settings.h"
#include "ui_RemoveFilePromptController.h"

#include <QFileInfo>

RemoveFilePromptController::RemoveFilePromptController(QWidget *parent)
    : QDialog(parent), m_ui(std::make_unique<Ui::RemoveFilePromptController>())
{
    m_ui->setupUi(this);
    // A sheet: modal for its window only.
    setWindowModality(Qt::WindowModal);
    connect(m_ui->yesButton, &QPushButton::clicked, this, &RemoveFilePromptController::yesClicked);
    connect(m_ui->noButton, &QPushButton::clicked, this, &RemoveFilePromptController::noClicked);
}

RemoveFilePromptController::~RemoveFilePromptController() = default;

void RemoveFilePromptController::setPaths(const QStringList &paths)
{
    if (paths.size() == 1) {
        setPath(paths.first());
        return;
    }
    m_ui->messageLabel->setText(QStringLiteral("Remove %1 files from the list?").arg(paths.size()));
    m_ui->messageLabel->setToolTip(paths.mid(0, 20).join(QLatin1Char('\n')));
}

void RemoveFilePromptController::setPath(const QString &path)
{
    m_ui->messageLabel->setText(QStringLiteral("Remove “%1” from the list?").arg(QFileInfo(path).fileName()));
    m_ui->messageLabel->setToolTip(path);
}

QCheckBox *RemoveFilePromptController::rememberCheckbox() const
{
    return m_ui->rememberCheckbox;
}

QPushButton *RemoveFilePromptController::yesButton() const
{
    return m_ui->yesButton;
}

QPushButton *RemoveFilePromptController::noButton() const
{
    return m_ui->noButton;
}

void RemoveFilePromptController::yesClicked()
{
    if (m_ui->rememberCheckbox->isChecked()) {
        Settings::setValue(DontAskToRemoveFilesKey, true);
    }
    done(1);
}

void RemoveFilePromptController::noClicked()
{
    done(0);
}
