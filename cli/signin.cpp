// Signing in through the service client, waiting for its answer.
#include "cli/signin.h"

#include "service/lyraboxservice.h"

#include <QEventLoop>
#include <QTextStream>

namespace {

// Stands in for the usual delegate while the sign-in is under way.
class SignInWaiter : public LyraboxServiceDelegate
{
public:
    bool respondsToOperation(Operation operation) const override { return implements<SignInWaiter>(operation); }

    void lyraboxDidLogin(LyraboxService *, const OptionalError &error) override
    {
        m_error = error;
        m_answered = true;
        m_loop.quit();
    }

    OptionalError wait()
    {
        if (!m_answered) {
            m_loop.exec();
        }
        return m_error;
    }

private:
    QEventLoop m_loop;
    bool m_answered = false;
    OptionalError m_error;
};

} // namespace

namespace CliSignIn {

OptionalError signIn(const Credentials &credentials)
{
    LyraboxService &service = LyraboxService::sharedService();
    LyraboxServiceDelegate *previous = service.delegate();
    SignInWaiter waiter;
    service.setDelegate(&waiter);
    service.loginWithEmail(credentials.email, credentials.password);
    const OptionalError error = waiter.wait();
    service.setDelegate(previous);
    return error;
}

bool signInInteractively()
{
    QTextStream err(stderr);
    QString reason;
    const std::optional<Credentials> credentials = readCredentials(&reason);
    if (!credentials) {
        err << "pelicane-cli: " << reason << Qt::endl;
        return false;
    }
    if (const OptionalError error = signIn(*credentials)) {
        err << "pelicane-cli: sign-in failed: " << error->localizedDescription() << Qt::endl;
        return false;
    }
    return true;
}

} // namespace CliSignIn
