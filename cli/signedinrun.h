#pragma once

#include <QEventLoop>

#include <functional>

// The run of a command that works with the account (upload, upload-cd,
// download-library): signed in first, then the event loop turns until the
// work reports its end. Ctrl-C and SIGTERM do not end the process: they set
// the status to 130 and ask the work to stop, so that it ends after what is
// in flight.
class SignedInRun
{
public:
    // notSignedIn: the status of a run that could not sign in.
    explicit SignedInRun(int notSignedIn) : m_notSignedIn(notSignedIn) {}

    // Signs in, unless the service holds this process's session already.
    // False, with the reason printed, when that failed; status() then says so.
    bool signIn();

    // The receiver for connections that live as long as the run.
    QObject *context() { return &m_loop; }
    int status() const { return m_status; }
    // Ends the run with this status.
    void finish(int status);
    // Ends it with the status it has: the work ended by itself.
    void finish() { finish(m_status); }

    // Watches for SIGINT and SIGTERM, calls start, and turns the event loop
    // until finish(). A signal meanwhile sets the status to 130 and calls
    // onInterrupt, which asks the work to stop (or finishes the run when
    // nothing is under way).
    int exec(const std::function<void()> &start, const std::function<void()> &onInterrupt);
    // Turns the event loop until quit() or finish(), for a step before the
    // work proper; signals keep their usual effect.
    void wait() { m_loop.exec(); }
    void quit() { m_loop.quit(); }

private:
    QEventLoop m_loop;
    int m_notSignedIn;
    int m_status = 0;
};
