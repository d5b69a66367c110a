#include "cli/signedinrun.h"

#include "cli/commands.h"
#include "cli/signin.h"
#include "cli/terminal.h"
#include "service/lyraboxservice.h"

bool SignedInRun::signIn()
{
    // The service keeps the token of a sign-in for the life of the process.
    if (!LyraboxService::sharedService().userToken().isEmpty() || CliSignIn::signInInteractively()) {
        m_status = Exit::Success;
        return true;
    }
    m_status = m_notSignedIn;
    return false;
}

void SignedInRun::finish(int status)
{
    m_status = status;
    m_loop.exit(status);
}

int SignedInRun::exec(const std::function<void()> &start, const std::function<void()> &onInterrupt)
{
    const InterruptWatcher interrupts([this, &onInterrupt] {
        m_status = Exit::Interrupted;
        onInterrupt();
    });
    start();
    m_loop.exec();
    return m_status;
}
