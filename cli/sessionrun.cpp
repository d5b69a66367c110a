// Every call the commands make into the session model is here, so that the
// commands read as what they do rather than as the session's steps.
#include "cli/sessionrun.h"

#include "cli/commands.h"
#include "cli/sessionterminalprompter.h"
#include "cli/signedinrun.h"
#include "cli/terminal.h"

#include "service/lyraboxservice.h"
#include "session/audiocdflow.h"
#include "session/sessionmodel.h"

#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

void SessionRunOutcome::printStopReason() const
{
    if (!stopReason.isEmpty()) {
        QTextStream(stderr) << (ended ? "pelicane-cli: the run stopped: " : "pelicane-cli: stopped: ") << stopReason
                            << Qt::endl;
    }
}

int SessionRunOutcome::exitStatus(bool failedBesides) const
{
    if (status == Exit::Interrupted) {
        return Exit::Interrupted;
    }
    const bool failed = !erroredFiles.isEmpty() || leftOver > 0 || !stopReason.isEmpty() || failedBesides;
    return failed ? Exit::Failed : Exit::Success;
}

SessionRun::SessionRun(SignedInRun &run, StatusLine &status, SessionTerminalPrompter &prompter,
                       AudioCDPrompter *cdPrompter, const QStringList &startFailures)
    : m_run(run), m_status(status), m_prompter(prompter), m_session(std::make_unique<SessionModel>(&prompter)),
      m_isDisc(cdPrompter != nullptr)
{
    if (cdPrompter) {
        m_session->cdFlow()->setPrompter(cdPrompter);
    }
    m_session->attachToService();
    stopOnFailures(startFailures);
    QObject::connect(m_session.get(), &SessionModel::uploadEnded, m_run.context(), [this] {
        m_ended = true;
        m_run.finish();
    });
}

SessionRun::~SessionRun()
{
    m_prompter.onAlert = nullptr;
    m_session->detachFromService();
}

int SessionRun::maxSimultaneousUploads()
{
    return SessionModel::kMaxSimultaneousUploads;
}

void SessionRun::stopOnFailures(const QStringList &startFailures)
{
    SignedInRun *run = &m_run;
    SessionModel *session = m_session.get();
    m_prompter.onAlert = [this, run, session, startFailures](const QString &message, const QString &informative) {
        if (startFailures.contains(message)) {
            QTimer::singleShot(0, run->context(), [run] { run->finish(Exit::NotStarted); });
        } else if (message == QLatin1String("Upload Error") && m_running) {
            // The session has paused the run: cancelling it ends it with what is done.
            m_stopReason = informative;
            QTimer::singleShot(0, session, [session] { session->OnCancelUpload(); });
        }
    };
    QObject::connect(session, &SessionModel::sessionExpired, run->context(), [this, run] {
        m_stopReason = QStringLiteral("session expired");
        QTimer::singleShot(0, run->context(), [run] { run->finish(Exit::NotStarted); });
    });
}

QString SessionRun::search(const QStringList &folders)
{
    m_session->setMainPageType(MainPageTypeSearch);
    m_session->setSearchFolderPath(folders);
    QObject::connect(m_session.get(), &SessionModel::fileSearchInProgressChanged, m_run.context(),
                     [this](bool inProgress) {
                         if (!inProgress && !m_running) {
                             m_run.quit();
                         }
                     });
    m_session->OnSearchFolder();
    if (m_session->isFileSearchInProgress()) {
        m_run.wait();
    }
    return m_session->fileCountLabelText().section(QLatin1Char('.'), 0, 0) + QLatin1Char('.');
}

qint64 SessionRun::scanErrorCount() const
{
    return m_session->scanErrorCount();
}

QStringList SessionRun::foundFiles() const
{
    return m_session->foundFiles().toList();
}

void SessionRun::uploadFiles(int threads, const QString &playlist, const QString &tag, bool reupload)
{
    m_session->OnReuploadChecked(!reupload);
    m_running = true;
    m_session->OnUploadFiles(QString::number(threads), playlist, tag);
}

bool SessionRun::isFileFailure(const Error &error)
{
    return error.code() >= 1 && error.code() != SessionModel::kNotAuthenticatedStatus;
}

void SessionRun::uploadDisc(const QString &volume, const QString &release)
{
    QObject::connect(m_session.get(), &SessionModel::mainPageTypeChanged, m_run.context(), [this](quint32 page) {
        if (page == MainPageTypeUpload) {
            m_running = true;
        }
    });
    m_session->setMainPageType(MainPageTypeSearch);
    m_session->cdFlow()->beginUploadCD(volume, release);
}

QString SessionRun::trackName(const QString &path) const
{
    const PLCID3Tag tag = m_session->audioCDID3Tags().value(path);
    return tag.title() ? *tag.title() : QFileInfo(path).fileName();
}

QString SessionRun::trackProgressLine() const
{
    const qint64 total = m_session->foundFilesCountCache();
    const qint64 done =
        m_session->completedFiles().size() + m_session->erroredFiles().size() + m_session->skippedFiles().size();
    if (m_session->uploadListItems().isEmpty()) {
        return QStringLiteral("Track %1 of %2").arg(qMin(done + 1, total)).arg(total);
    }
    const UploadListItem &row = m_session->uploadListItems().first();
    return QStringLiteral("Track %1 of %2: %3 %4%")
        .arg(qMin(done + 1, total))
        .arg(total)
        .arg(row.pathLabelText())
        .arg(row.progress());
}

bool SessionRun::isUploading() const
{
    return m_session->mainPageType() == MainPageTypeUpload && m_session->isUploading();
}

SessionRunOutcome SessionRun::exec(const Hooks &hooks)
{
    // The hooks' connections go with it, before the hooks' captures do.
    QObject scope;
    if (hooks.fileFinished) {
        QObject::connect(m_session.get(), &SessionModel::uploadFinished, &scope, hooks.fileFinished);
    }
    if (hooks.discMetadata) {
        QObject::connect(m_session->cdFlow(), &AudioCDFlow::metadataCompiled, &scope, hooks.discMetadata);
    }
    QTimer ticker;
    ticker.setInterval(m_status.isTerminal() ? 1000 : 10000);
    if (hooks.tick) {
        QObject::connect(&ticker, &QTimer::timeout, &scope, hooks.tick);
    }
    m_run.exec(
        [&] {
            hooks.start();
            ticker.start();
        },
        [this] {
            m_stopReason = QStringLiteral("interrupted");
            if (m_session->mainPageType() == MainPageTypeUpload) {
                m_session->OnCancelUpload();
            } else {
                m_run.finish();
            }
        });
    m_running = false;
    ticker.stop();
    m_status.endLine();
    m_session->detachFromService();
    // Transfers still going (a run stopped early) end before the summary.
    LyraboxService::sharedService().shutdown();
    if (m_isDisc) {
        m_session->cdFlow()->writeRipLog();
    }
    return outcome();
}

SessionRunOutcome SessionRun::outcome() const
{
    SessionRunOutcome outcome;
    outcome.ended = m_ended;
    outcome.status = m_run.status();
    outcome.stopReason = m_stopReason;
    outcome.discovered = m_session->discoveredLabelText();
    outcome.uploaded = m_session->uploadedLabelText();
    outcome.skipped = m_session->skippedLabelText();
    outcome.errors = m_session->errorsLabelText();
    outcome.erroredFiles = m_session->erroredFiles().toList();
    outcome.leftOver = m_session->foundFiles().size() + m_session->readyFiles().size() +
                       m_session->uploadingFiles().size() + m_session->retryFiles().size();
    if (m_isDisc) {
        outcome.trackVerdicts = m_session->cdFlow()->trackVerdicts();
        outcome.ripLogPath = m_session->cdFlow()->ripLogPath();
    }
    return outcome;
}
