#include "session/ui/audiocdchoosercontroller.h"

#include <QDialogButtonBox>
#include <QFileInfo>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

AudioCDChooserController::AudioCDChooserController(QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("AudioCDChooserController"));
    setWindowTitle(QStringLiteral("Choose CD"));
    setWindowModality(Qt::WindowModal);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(QStringLiteral("Choose the CD to upload:"), this));
    m_browser = new QListWidget(this);
    m_browser->setObjectName(QStringLiteral("browser"));
    m_browser->setSelectionMode(QAbstractItemView::SingleSelection);
    layout->addWidget(m_browser);
    auto *buttons = new QDialogButtonBox(this);
    QPushButton *upload = buttons->addButton(QStringLiteral("Upload"), QDialogButtonBox::AcceptRole);
    upload->setObjectName(QStringLiteral("uploadButton"));
    upload->setDefault(true);
    QPushButton *cancel = buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    cancel->setObjectName(QStringLiteral("cancelButton"));
    connect(upload, &QPushButton::clicked, this, &AudioCDChooserController::uploadClicked);
    connect(cancel, &QPushButton::clicked, this, &AudioCDChooserController::cancelClicked);
    connect(m_browser, &QListWidget::itemDoubleClicked, this, &AudioCDChooserController::uploadClicked);
    layout->addWidget(buttons);
    resize(360, 240);
}

void AudioCDChooserController::setDisks(const QStringList &disks)
{
    const QString selected = selectedDisk();
    m_disks = disks;
    m_browser->clear();
    for (const QString &disk : disks) {
        // A volume shows as its name: "sr0", "sample-cd.cue".
        m_browser->addItem(QFileInfo(disk).fileName());
    }
    const qsizetype keep = disks.indexOf(selected);
    if (m_browser->count() > 0) {
        m_browser->setCurrentRow(keep >= 0 ? int(keep) : 0);
    }
}

QString AudioCDChooserController::selectedDisk() const
{
    const int row = m_browser->currentRow();
    return row >= 0 && row < m_disks.size() ? m_disks.at(row) : QString();
}
