#include "session/sessionmodel.h"

#include "core/logger.h"
#include "platform/passwordstore.h"
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
    m_password = QStringLiteral("");
    m_rememberMe = Settings::boolean(kSettingsRememberMe);
    if (!m_rememberMe) {
        return; // nothing is remembered; the keyring is not bothered
    }
    // The keyring may first ask to be unlocked: the field fills when it answers.
    PasswordStore::read(this, [this](const std::optional<QString> &password, const OptionalError &error) {
        if (error) {
            Logger::log(QStringLiteral("Remember Me: ") + error->localizedDescription());
        }
        // What the user typed meanwhile wins.
        if (password && m_password.isEmpty()) {
            m_password = *password;
            emit passwordLoaded(*password);
        }
    });
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
        PasswordStore::remove(this, [this](const OptionalError &error) {
            if (error) {
                showAlert(QStringLiteral("Remember Me"), error->localizedDescription(), QStringLiteral("OK"));
            }
        });
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
        PasswordStore::write(m_password, this, [this](const OptionalError &error) {
            if (error) {
                showAlert(QStringLiteral("Remember Me"),
                          error->localizedDescription() + QStringLiteral("\n\nYou will need to type it next time."),
                          QStringLiteral("OK"));
            }
        });
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
