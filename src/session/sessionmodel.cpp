#include "session/sessionmodel.h"

#include "core/logger.h"
#include "core/paths.h"
#include "platform/settings.h"
#include "session/audiocdflow.h"

#include <QFileInfo>

#include <cstdio>

SessionModel::SessionModel(SessionPrompter *prompter, QObject *parent) : QObject(parent), m_prompter(prompter)
{
    connectRunRecord();
    m_cdFlow = new AudioCDFlow(this);
}

SessionModel::~SessionModel()
{
    // The run record follows the session's own signals; the members that
    // may still signal while they go must not reach it half destroyed.
    m_record.tick.stop();
    disconnect(this, nullptr, this, nullptr);
    saveDigestCacheNow();
}

int SessionModel::showAlert(const QString &messageText, const QString &informativeText, const QString &defaultButton,
                            const QString &alternateButton, const QString &otherButton)
{
    if (m_prompter) {
        return m_prompter->showAlertWithMessageText(messageText, informativeText, defaultButton, alternateButton,
                                                    otherButton);
    }
    std::fprintf(stderr, "%s: %s\n", qPrintable(messageText), qPrintable(informativeText));
    return kAlertFirstButtonReturn;
}

bool SessionModel::hasVisibleAlert() const
{
    return m_prompter && m_prompter->hasVisibleAlert();
}

void SessionModel::startWaitingAnimation(const QString &reason)
{
    if (m_prompter) {
        m_prompter->startWaitingAnimation(reason);
    }
}

void SessionModel::stopWaitingAnimation()
{
    if (m_prompter) {
        m_prompter->stopWaitingAnimation();
    }
}

QString SessionModel::pageName(quint32 type)
{
    switch (type) {
    case MainPageTypeLogin:
        return QStringLiteral("Login");
    case MainPageTypeSearch:
        return QStringLiteral("Search");
    case MainPageTypeList:
        return QStringLiteral("List");
    case MainPageTypeUpload:
        return QStringLiteral("Upload");
    case MainPageTypeResult:
        return QStringLiteral("Result");
    default:
        return QString();
    }
}

void SessionModel::setMainPageType(quint32 type)
{
    m_mainPageType = type;
    const QString name = pageName(type);
    if (name.isEmpty()) {
        return;
    }
    Logger::log(QStringLiteral("SetPage(%1)").arg(name));
    switch (type) {
    case MainPageTypeSearch:
        setupSearchContainerView();
        break;
    case MainPageTypeList:
        setupListContainerView();
        break;
    case MainPageTypeUpload:
        setupUploadContainerView();
        break;
    case MainPageTypeResult:
        setupResultContainerView();
        break;
    default:
        break;
    }
    emit mainPageTypeChanged(type);
}

void SessionModel::loadSearchFolderPath()
{
    m_searchFolderPath.clear();
    const QString saved = Settings::string(kSettingsLastFolderPath);
    if (!saved.isEmpty()) {
        m_searchFolderPath.append(saved);
    }
    // A saved folder that has gone stays in front on purpose: the user sees
    // what was chosen last time, and the Music folder comes second.
    if (m_searchFolderPath.isEmpty() || !QFileInfo::exists(m_searchFolderPath.first())) {
        m_searchFolderPath.append(Paths::musicDirectory());
    }
    updateSearchFolderPath();
}

QString SessionModel::searchFolderPathText() const
{
    if (m_searchFolderPath.size() < 2) {
        return m_searchFolderPath.isEmpty() ? QString() : m_searchFolderPath.first();
    }
    return QStringLiteral("Multiple Folders");
}

void SessionModel::updateSearchFolderPath()
{
    emit searchFolderPathTextChanged(searchFolderPathText());
}

void SessionModel::lyraboxDidVerifyLogin(LyraboxService *service, const OptionalError &error)
{
    Q_UNUSED(service);
    stopWaitingAnimation();
    if (error) {
        showAlert(QStringLiteral("Error Starting Upload"), error->localizedDescription(), QString());
        return;
    }
    startMd5CheckPhase();
}

void SessionModel::lyraboxDidReadMd5List(LyraboxService *service, const OptionalError &error)
{
    Q_UNUSED(service);
    stopWaitingAnimation();
    if (error) {
        showAlert(QStringLiteral("Error starting upload"), error->localizedDescription(), QStringLiteral("OK"));
        return;
    }
    setMainPageType(MainPageTypeUpload);
}
