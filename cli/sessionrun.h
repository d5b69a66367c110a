#pragma once

#include "core/error.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <utility>

class AudioCDPrompter;
class SessionModel;
class SessionTerminalPrompter;
class SignedInRun;
class StatusLine;
struct DiscMetadata;

// What an upload run of the session came to, read once it is over.
struct SessionRunOutcome
{
    // The session ended the run: the lines below are its summary. When not,
    // the run stopped before its end with status.
    bool ended = false;
    int status = 0;
    // Why the run stopped early, if it did ("interrupted", "session expired",
    // or the message that stopped it).
    QString stopReason;
    // The Result page's lines: "Discovered: \t8 files" and so on.
    QString discovered;
    QString uploaded;
    QString skipped;
    QString errors;
    QStringList erroredFiles;
    // Files neither uploaded, skipped nor failed.
    qint64 leftOver = 0;
    // For a disc: each track's verdict, and the rip log.
    QList<std::pair<QString, QString>> trackVerdicts;
    QString ripLogPath;

    // Why the run stopped early, on standard error: "stopped: WHY" when it
    // did not end, "the run stopped: WHY" before the summary of one that did.
    void printStopReason() const;
    // For a run that ended: 130 when interrupted, 1 when a file failed or was
    // left, the run stopped early or failedBesides, else 0.
    int exitStatus(bool failedBesides = false) const;
};

// An upload run of the session model, as upload and upload-cd drive it, on a
// signed-in run; the one place the commands call into the session (the
// progress meter reads it too). The run ends when the session ends the
// upload; it stops with status 3 on an alert that says the run could not
// start or when the session expires; "Upload Error" while running cancels the
// upload; Ctrl-C cancels it too, so it ends after the files in flight.
class SessionRun
{
public:
    // startFailures: titles of the alerts that say the run could not start.
    // cdPrompter answers the disc's questions, for upload-cd.
    SessionRun(SignedInRun &run, StatusLine &status, SessionTerminalPrompter &prompter, AudioCDPrompter *cdPrompter,
               const QStringList &startFailures);
    ~SessionRun();
    SessionRun(const SessionRun &) = delete;
    SessionRun &operator=(const SessionRun &) = delete;

    static int maxSimultaneousUploads();
    // The session, for the progress meter.
    const SessionModel *model() const { return m_session.get(); }

    // Files: searches the folders and waits for the end; returns what was
    // found, as "8 files were found.".
    QString search(const QStringList &folders);
    qint64 scanErrorCount() const;
    QStringList foundFiles() const;
    // Starts the upload of what was found.
    void uploadFiles(int threads, const QString &playlist, const QString &tag, bool reupload);
    // A file's failure worth a line of its own: a code of 1 or more (lower
    // ones are cancellations and transfers tried again), but not the expired
    // session, which stops the run with its own line.
    static bool isFileFailure(const Error &error);

    // A disc: opens it and starts the upload; the cdPrompter is asked the rest.
    void uploadDisc(const QString &volume, const QString &release);
    // The track's title, or its file name.
    QString trackName(const QString &path) const;
    // "Track 2 of 12: Reading 45% Gull Song".
    QString trackProgressLine() const;

    // True while files go up (not paused, not before the run).
    bool isUploading() const;
    // What a command does in the run; each may be empty but start.
    struct Hooks
    {
        // Starts the run (uploadFiles() or uploadDisc()).
        std::function<void()> start;
        // Every second on a terminal, every 10 seconds on a pipe.
        std::function<void()> tick;
        std::function<void(const QString &path, const OptionalError &error)> fileFinished;
        std::function<void(const DiscMetadata &metadata)> discMetadata;
    };
    // Calls hooks.start and turns the event loop until the run ends, then
    // leaves the service, ends the transfers still going and reads the
    // outcome. The hooks are called only until it returns.
    SessionRunOutcome exec(const Hooks &hooks);

private:
    void stopOnFailures(const QStringList &startFailures);
    SessionRunOutcome outcome() const;

    SignedInRun &m_run;
    StatusLine &m_status;
    SessionTerminalPrompter &m_prompter;
    std::unique_ptr<SessionModel> m_session;
    bool m_isDisc = false;
    bool m_running = false;
    bool m_ended = false;
    QString m_stopReason;
};
