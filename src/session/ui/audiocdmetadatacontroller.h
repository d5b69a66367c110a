#pragma once

#include "cd/discmetadata.h"

#include <QByteArray>
#include <QDialog>
#include <QPixmap>

#include <optional>

class AspectFillImageView;
class ProgressIndicator;
class QComboBox;
class QLabel;
class QPushButton;
class QTimer;
class QFormLayout;
class QLineEdit;
struct AlbumPromptInput;

// The album prompt: album title, album artist and disc number as the disc's
// metadata has them, for the user to correct; a playlist and a tag for the
// upload; the artwork, or the default artwork. When the disc matches several
// releases, a picker lets the user take another (the first is preselected);
// releaseChosen then asks for the fields to be filled again, and the prompt
// is busy until they are (or says why they could not be). Shown
// window-modal; ends with 1 (Continue) or 0 (Cancel).
class AudioCDMetadataController : public QDialog
{
    Q_OBJECT

public:
    explicit AudioCDMetadataController(QWidget *parent = nullptr);

    // Absent values restore "Unknown Album", "Unknown Artist" and "1".
    void setAlbumTitle(const std::optional<QString> &title);
    void setAlbumArtist(const std::optional<QString> &artist);
    void setDiscNumber(std::optional<qint64> number);
    // Encoded image bytes; none (or bytes that do not decode) show the default artwork.
    void setAlbumArtwork(const std::optional<QByteArray> &artwork);
    // The picker shows only for two releases or more.
    void setReleases(const QList<ReleaseCandidate> &releases, const QString &selectedId);
    // All of the above from what the session compiled.
    void fill(const AlbumPromptInput &input);
    // A picked release is being looked up: a busy sign, and no Continue.
    // message says what goes on, or (not busy) what failed; empty hides it.
    void setBusy(bool busy, const QString &message);
    bool isBusy() const { return m_busy; }
    QString statusText() const;
    // Shows releaseId in the picker without asking for it.
    void selectRelease(const QString &releaseId);

    QString albumTitle() const;
    QString albumArtist() const;
    // The disc-number field by the prompt's rule: anything but a whole
    // decimal number gives 1.
    qint64 discNumber() const;
    QString playlistName() const;
    QString tagName() const;
    // The bytes given, empty for the default artwork.
    QByteArray albumArtworkData() const { return m_artwork; }
    // What is shown: the artwork, or the default artwork.
    QPixmap albumArtwork() const;

    QLineEdit *albumTitleField() const { return m_albumTitleField; }
    QLineEdit *albumArtistField() const { return m_albumArtistField; }
    QLineEdit *discNumberField() const { return m_discNumberField; }
    QLineEdit *playlistNameField() const { return m_playlistNameField; }
    QLineEdit *tagNameField() const { return m_tagNameField; }
    AspectFillImageView *albumArtworkImageView() const { return m_albumArtworkImageView; }
    QComboBox *releasePopUp() const { return m_releasePopUp; }
    QPushButton *continueButton() const { return m_continueButton; }

    void continueClicked()
    {
        if (!m_busy) {
            done(1);
        }
    }
    void cancelClicked() { done(0); }

signals:
    void releaseChosen(const QString &releaseId);

private:
    QLineEdit *m_albumTitleField = nullptr;
    QLineEdit *m_albumArtistField = nullptr;
    QLineEdit *m_discNumberField = nullptr;
    QLineEdit *m_playlistNameField = nullptr;
    QLineEdit *m_tagNameField = nullptr;
    AspectFillImageView *m_albumArtworkImageView = nullptr;
    QComboBox *m_releasePopUp = nullptr;
    QWidget *m_releaseRow = nullptr;
    QFormLayout *m_form = nullptr;
    QPushButton *m_continueButton = nullptr;
    QLabel *m_statusLabel = nullptr;
    ProgressIndicator *m_busyIndicator = nullptr;
    // A choice counts once the picker has rested: stepping through it with
    // the wheel or the arrow keys asks for the last release only.
    QTimer *m_pickSettle = nullptr;
    bool m_busy = false;
    QByteArray m_artwork;
};
