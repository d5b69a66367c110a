#pragma once

#include "cd/discmetadata.h"

#include <QByteArray>
#include <QDialog>
#include <QPixmap>

#include <optional>

class AspectFillImageView;
class QComboBox;
class QFormLayout;
class QLineEdit;
struct AlbumPromptInput;

// The album prompt: album title, album artist and disc number as the disc's
// metadata has them, for the user to correct; a playlist and a tag for the
// upload; the artwork, or the default artwork. When the disc matches several
// releases, a picker lets the user take another (the first is preselected);
// releaseChosen then asks for the fields to be filled again. Shown
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

    void continueClicked() { done(1); }
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
    QByteArray m_artwork;
};
