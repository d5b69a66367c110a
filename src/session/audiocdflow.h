#pragma once

#include "cd/discmetadata.h"
#include "session/audiocdprompter.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QStringList>

#include <memory>

class SessionModel;

// The CD sequence of a session: the disc chosen, its lookup (with the
// waiting overlay and its Cancel), the album prompt with its release picker,
// and the hand-over of the tracks to the run. One sequence at a time; every
// result of the worker threads carries the sequence (and the release pick)
// it belongs to, so a result that comes after its sequence ended, or after a
// newer pick, is dropped. However a sequence ends, the overlay goes with it.
class AudioCDFlow : public QObject
{
    Q_OBJECT

public:
    explicit AudioCDFlow(SessionModel *session);
    ~AudioCDFlow() override;

    // Asks for the disc and the album data; without one the first disc is
    // taken and the album data stands as found.
    AudioCDPrompter *prompter() const { return m_prompter; }
    void setPrompter(AudioCDPrompter *prompter) { m_prompter = prompter; }
    // The longest wait for one answer of the metadata services.
    void setLookupTimeout(int milliseconds) { m_lookupTimeoutMs = milliseconds; }

    // The CD button: the one disc, or the chooser for several.
    void OnBeginUploadCD();
    // Starts the sequence with disk (a disc volume), for the release given
    // or the first the disc matches. False when one is running already.
    bool beginUploadCD(const QString &disk, const QString &releaseId = QString());
    // The overlay's Cancel: ends the sequence while the disc is looked up.
    void cancelLookup();
    // Ejects the first disc found, on a worker; the disc list follows.
    void OnEjectCD();
    // Ejects the disc at volume once whatever reads it has stopped (Start
    // Over: the run is stopped first).
    void ejectInBackground(const QString &volume);
    // The disc volumes present changed (or were listed again).
    void disksChanged(const QStringList &disks);

    // From the CD button until the run is under way, cancelled or failed.
    bool isBeginningUpload() const { return m_sequenceRunning || m_chooserOpen; }
    bool isDiskChooserOpen() const { return m_chooserOpen; }
    // The overlay of the lookup is up (its Cancel shows).
    bool isLookingUp() const { return m_lookingUp; }
    // A release picked in the album prompt is being looked up.
    bool isReleaseLookupRunning() const { return m_pickRunning; }
    // The last compilation of the disc, and the artwork the Upload page shows.
    const DiscMetadata &metadata() const { return m_metadata; }
    QByteArray artwork() const { return m_artwork; }
    // The tracks' raw sizes: they are no files the run could measure.
    const QHash<QString, qint64> &trackSizes() const { return m_trackSizes; }

    // Each track of the last CD run with how it came out: its name, and the
    // AccurateRip verdict of its rip (or why it failed). Empty when the last
    // run was no CD run.
    QList<std::pair<QString, QString>> trackVerdicts() const;
    // The rip log of the last CD run: written when the run ends (or now, for
    // a run stopped early), once.
    void writeRipLog();
    QString ripLogPath() const { return m_ripLogPath; }

signals:
    void lookingUpChanged(bool lookingUp);
    // The disc's metadata was compiled (again, after another release was picked).
    void metadataCompiled(const DiscMetadata &metadata);
    void artworkChanged(const QByteArray &artwork);

private:
    enum class Compile { First, Pick };
    void compile(Compile kind, const QString &releaseId);
    void stageReached(int stage);
    struct Compiled
    {
        DiscMetadata metadata;
        QStringList tracks;
        QHash<QString, qint64> sizes;
        QString accurateRipId;
        QString accurateRipLookup;
    };
    void compiled(const Compiled &result);
    void picked(const DiscMetadata &metadata);
    void pickRelease(const QString &releaseId);
    void albumPromptEnded(int result, const AlbumPromptResult &album);
    // Ends the running sequence; its late results are dropped from now on.
    void endSequence();
    void setLookingUp(bool lookingUp, const QString &reason = QString());
    AlbumPromptInput promptInput() const;

    SessionModel *m_session;
    AudioCDPrompter *m_prompter = nullptr;
    int m_lookupTimeoutMs = 30000;

    quint64 m_sequence = 0;
    bool m_sequenceRunning = false;
    bool m_chooserOpen = false;
    bool m_lookingUp = false;
    quint64 m_pick = 0;
    bool m_pickRunning = false;
    QString m_volume;
    std::shared_ptr<DiscLookupCache> m_cache;
    DiscMetadata m_metadata;
    QByteArray m_artwork;
    QHash<QString, qint64> m_trackSizes;
    // The tracks of the last run handed over, for its verdicts.
    QStringList m_runTracks;
    QString m_accurateRipId;
    QString m_accurateRipLookup;
    QDateTime m_runStarted;
    QString m_ripLogPath;
};
