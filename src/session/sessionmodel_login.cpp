#include "session/sessionmodel.h"

#include "platform/settings.h"
#include "service/lyraboxservice.h"

void SessionModel::attachToService()
{
    LyraboxService::sharedService().setDelegate(this);
}

void SessionModel::detachFromService()
{
    LyraboxService &service = LyraboxService::sharedService();
    if (service.delegate() == this) {
        service.setDelegate(nullptr);
    }
}

void SessionModel::loadCredentials()
{
    m_email = Settings::string(kSettingsEmail);
    if (m_email.isNull()) {
        m_email = QStringLiteral("");
    }
    m_password = Settings::string(kSettingsPassword);
    if (m_password.isNull()) {
        m_password = QStringLiteral("");
    }
    m_rememberMe = Settings::boolean(kSettingsRememberMe);
}

void SessionModel::OnLogin()
{
    if (m_email.isEmpty() || m_password.isEmpty()) {
        showAlert(QStringLiteral("Login Error"), QStringLiteral("Email and Password must not be blank."),
                  QStringLiteral("OK"));
        return;
    }
    setLoggingIn(true);
    // Sent exactly as typed: blanks are part of what the user chose.
    LyraboxService::sharedService().loginWithEmail(m_email, m_password);
}

void SessionModel::OnRememberMeChecked(bool checked)
{
    m_rememberMe = checked;
    if (!checked) {
        Settings::remove(kSettingsEmail);
        Settings::remove(kSettingsPassword);
    }
    Settings::setValue(kSettingsRememberMe, checked);
}

void SessionModel::setLoggingIn(bool loggingIn)
{
    m_isLoggingIn = loggingIn;
    emit loggingInChanged(loggingIn);
}

void SessionModel::lyraboxDidLogin(LyraboxService *service, const OptionalError &error)
{
    Q_UNUSED(service);
    setLoggingIn(false);
    if (error) {
        // "Maintenace" is the title users of the other edition know; kept as it is.
        showAlert(error->isMaintenance() ? QStringLiteral("Maintenace") : QStringLiteral("Login Error"),
                  error->localizedDescription(), QStringLiteral("OK"));
        return;
    }
    if (m_rememberMe) {
        Settings::setValue(kSettingsEmail, m_email);
        Settings::setValue(kSettingsPassword, m_password);
    }
    setMainPageType(MainPageTypeSearch);
}

void SessionModel::lyraboxDidReceiveAuthorizationError(LyraboxService *service)
{
    Q_UNUSED(service);
    if (m_isUploading) {
        OnPauseUpload();
    }
    stopWaitingAnimation();
    setMainPageType(MainPageTypeLogin);
    emit sessionExpired();
    showAlert(QStringLiteral("Login Error"), QStringLiteral("Your login session has expired. Please login again."),
              QStringLiteral("OK"));
}
