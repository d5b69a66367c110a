#include "session/ui/audiocdmetadatacontroller.h"

#include "session/audiocdprompter.h"
#include "widgets/aspectfillimageview.h"
#include "widgets/progressindicator.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTimer>
#include <QVBoxLayout>

AudioCDMetadataController::AudioCDMetadataController(QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("AudioCDMetadataController"));
    setWindowTitle(QStringLiteral("Album Information"));
    setWindowModality(Qt::WindowModal);

    auto *layout = new QVBoxLayout(this);
    auto *top = new QHBoxLayout;
    m_albumArtworkImageView = new AspectFillImageView(this);
    m_albumArtworkImageView->setObjectName(QStringLiteral("albumArtworkImageView"));
    m_albumArtworkImageView->setFixedSize(160, 160);
    top->addWidget(m_albumArtworkImageView, 0, Qt::AlignTop);

    auto *form = new QFormLayout;
    m_form = form;
    const auto field = [this](const char *name) {
        auto *edit = new QLineEdit(this);
        edit->setObjectName(QString::fromLatin1(name));
        return edit;
    };
    m_releaseRow = new QWidget(this);
    auto *releaseLayout = new QHBoxLayout(m_releaseRow);
    releaseLayout->setContentsMargins(0, 0, 0, 0);
    m_releasePopUp = new QComboBox(m_releaseRow);
    m_releasePopUp->setObjectName(QStringLiteral("releasePopUp"));
    releaseLayout->addWidget(m_releasePopUp);
    form->addRow(QStringLiteral("Release:"), m_releaseRow);
    m_albumTitleField = field("albumTitleField");
    m_albumArtistField = field("albumArtistField");
    m_discNumberField = field("discNumberField");
    m_playlistNameField = field("playlistNameField");
    m_tagNameField = field("tagNameField");
    m_playlistNameField->setPlaceholderText(QStringLiteral("Optional"));
    m_tagNameField->setPlaceholderText(QStringLiteral("Optional"));
    form->addRow(QStringLiteral("Album:"), m_albumTitleField);
    form->addRow(QStringLiteral("Album Artist:"), m_albumArtistField);
    form->addRow(QStringLiteral("Disc Number:"), m_discNumberField);
    form->addRow(QStringLiteral("Playlist:"), m_playlistNameField);
    form->addRow(QStringLiteral("Tag:"), m_tagNameField);
    top->addLayout(form, 1);
    layout->addLayout(top);

    auto *status = new QHBoxLayout;
    m_busyIndicator = new ProgressIndicator(this);
    m_busyIndicator->setFixedSize(16, 16);
    m_busyIndicator->hide();
    m_statusLabel = new QLabel(this);
    m_statusLabel->setObjectName(QStringLiteral("statusLabel"));
    m_statusLabel->setWordWrap(true);
    m_statusLabel->hide();
    status->addWidget(m_busyIndicator, 0, Qt::AlignTop);
    status->addWidget(m_statusLabel, 1);
    layout->addLayout(status);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *upload = buttons->addButton(QStringLiteral("Continue"), QDialogButtonBox::AcceptRole);
    upload->setObjectName(QStringLiteral("continueButton"));
    m_continueButton = upload;
    upload->setDefault(true);
    QPushButton *cancel = buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    cancel->setObjectName(QStringLiteral("cancelButton"));
    connect(upload, &QPushButton::clicked, this, &AudioCDMetadataController::continueClicked);
    connect(cancel, &QPushButton::clicked, this, &AudioCDMetadataController::cancelClicked);
    layout->addWidget(buttons);

    m_pickSettle = new QTimer(this);
    m_pickSettle->setSingleShot(true);
    m_pickSettle->setInterval(300);
    connect(m_releasePopUp, &QComboBox::currentIndexChanged, m_pickSettle, qOverload<>(&QTimer::start));
    connect(m_pickSettle, &QTimer::timeout, this, [this] {
        const QString id = m_releasePopUp->currentData().toString();
        if (!id.isEmpty()) {
            emit releaseChosen(id);
        }
    });

    setAlbumTitle(std::nullopt);
    setAlbumArtist(std::nullopt);
    setDiscNumber(std::nullopt);
    setAlbumArtwork(std::nullopt);
    setReleases({}, QString());
    resize(520, 240);
}

void AudioCDMetadataController::setAlbumTitle(const std::optional<QString> &title)
{
    m_albumTitleField->setText(title.value_or(QStringLiteral("Unknown Album")));
}

void AudioCDMetadataController::setAlbumArtist(const std::optional<QString> &artist)
{
    m_albumArtistField->setText(artist.value_or(QStringLiteral("Unknown Artist")));
}

void AudioCDMetadataController::setDiscNumber(std::optional<qint64> number)
{
    m_discNumberField->setText(QString::number(number.value_or(1)));
}

void AudioCDMetadataController::setAlbumArtwork(const std::optional<QByteArray> &artwork)
{
    const QPixmap image = AspectFillImageView::pixmapFromData(artwork.value_or(QByteArray()));
    m_artwork = image.isNull() ? QByteArray() : *artwork;
    m_albumArtworkImageView->setImage(image);
}

void AudioCDMetadataController::setReleases(const QList<ReleaseCandidate> &releases, const QString &selectedId)
{
    const QSignalBlocker blocker(m_releasePopUp);
    m_releasePopUp->clear();
    for (const ReleaseCandidate &release : releases) {
        QStringList details;
        for (const QString &detail : {release.date, release.country, release.label}) {
            if (!detail.isEmpty()) {
                details << detail;
            }
        }
        QString text = release.title;
        if (!release.artistCredit.isEmpty()) {
            text += QStringLiteral(" / ") + release.artistCredit;
        }
        if (!details.isEmpty()) {
            text += QStringLiteral(" (") + details.join(QStringLiteral(", ")) + QLatin1Char(')');
        }
        m_releasePopUp->addItem(text, release.id);
    }
    const int selected = m_releasePopUp->findData(selectedId);
    m_releasePopUp->setCurrentIndex(selected >= 0 ? selected : 0);
    m_form->setRowVisible(m_releaseRow, releases.size() > 1);
    m_pickSettle->stop();
}

void AudioCDMetadataController::fill(const AlbumPromptInput &input)
{
    setAlbumTitle(input.albumTitle);
    setAlbumArtist(input.albumArtist);
    setDiscNumber(input.discNumber ? std::optional<qint64>(*input.discNumber) : std::nullopt);
    setAlbumArtwork(input.artwork);
    setReleases(input.releases, input.releaseId);
    setBusy(false, input.notice);
}

void AudioCDMetadataController::setBusy(bool busy, const QString &message)
{
    m_busy = busy;
    m_continueButton->setEnabled(!busy);
    if (busy) {
        m_busyIndicator->show();
        m_busyIndicator->startAnimation();
    } else {
        m_busyIndicator->stopAnimation();
        m_busyIndicator->hide();
    }
    m_statusLabel->setText(message);
    m_statusLabel->setVisible(!message.isEmpty());
}

QString AudioCDMetadataController::statusText() const
{
    return m_statusLabel->isVisible() ? m_statusLabel->text() : QString();
}

void AudioCDMetadataController::selectRelease(const QString &releaseId)
{
    const QSignalBlocker blocker(m_releasePopUp);
    const int index = m_releasePopUp->findData(releaseId);
    if (index >= 0) {
        m_releasePopUp->setCurrentIndex(index);
    }
    m_pickSettle->stop();
}

QString AudioCDMetadataController::albumTitle() const
{
    return m_albumTitleField->text();
}

QString AudioCDMetadataController::albumArtist() const
{
    return m_albumArtistField->text();
}

qint64 AudioCDMetadataController::discNumber() const
{
    return AudioCDPrompter::discNumberFromText(m_discNumberField->text());
}

QString AudioCDMetadataController::playlistName() const
{
    return m_playlistNameField->text();
}

QString AudioCDMetadataController::tagName() const
{
    return m_tagNameField->text();
}

QPixmap AudioCDMetadataController::albumArtwork() const
{
    return m_albumArtworkImageView->image();
}
