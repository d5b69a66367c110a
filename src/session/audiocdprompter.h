#pragma once

#include "cd/discmetadata.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// What the album prompt shows: the album data of the disc's first track
// record, and the releases the disc matched with the one the records came
// from.
struct AlbumPromptInput
{
    std::optional<QString> albumTitle;  // absent: "Unknown Album"
    std::optional<QString> albumArtist; // absent: "Unknown Artist"
    std::optional<int> discNumber;      // absent: 1
    std::optional<QByteArray> artwork;  // absent: the default artwork
    QList<ReleaseCandidate> releases;
    QString releaseId;
    // What the user should know about the lookup (MusicBrainz could not be
    // asked, say); empty when all went well.
    QString notice;
};

// What the user confirmed in the album prompt.
struct AlbumPromptResult
{
    QString albumTitle;
    QString albumArtist;
    qint64 discNumber = 1;
    QByteArray artwork; // what the Upload page shows beside the rows
    QString playlistName;
    QString tagName;
};

// How the session asks for the disc and the album data of a CD upload. The
// main window shows window-modal dialogs; pelicane-cli answers from its
// options or the terminal. Every call on the main thread; each prompt ends by
// calling its completion exactly once, with 1 to go on and 0 to cancel.
class AudioCDPrompter
{
public:
    virtual ~AudioCDPrompter() = default;

    // The disc chooser, one row per disc volume, the first selected.
    virtual void chooseDisk(const QStringList &disks, std::function<void(int result, const QString &disk)> done) = 0;
    // Replaces the list of the open chooser.
    virtual void setChooserDisks(const QStringList &disks) = 0;
    // Ends the open chooser with 0.
    virtual void closeChooser() = 0;

    // The album prompt. When the user picks another release, releaseChosen is
    // called with its id; the session compiles again and hands the new data
    // to refillAlbumPrompt.
    virtual void promptAlbum(const AlbumPromptInput &input, std::function<void(const QString &releaseId)> releaseChosen,
                             std::function<void(int result, const AlbumPromptResult &album)> done) = 0;
    virtual void refillAlbumPrompt(const AlbumPromptInput &input) = 0;
    // While a picked release is looked up the prompt shows it is busy (and
    // takes no Continue); message says what goes on, or what failed after.
    virtual void setAlbumPromptBusy(bool busy, const QString &message) = 0;
    // Puts the picker back on the release whose data the prompt shows.
    virtual void selectAlbumPromptRelease(const QString &releaseId) = 0;

    // The disc-number field's rule: the whole text a decimal integer (an
    // optional sign, digits, nothing else) in the 64-bit range gives its
    // value; anything else, the empty text included, gives 1.
    static qint64 discNumberFromText(const QString &text);
};
