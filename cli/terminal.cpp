#include "cli/terminal.h"

#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The signal handler may only write to a pipe; the event loop reads it.
int g_signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[1], &byte, 1);
}

} // namespace

StatusLine::StatusLine() : m_terminal(::isatty(STDERR_FILENO)) {}

void StatusLine::show(const QString &text)
{
    QTextStream err(stderr);
    if (m_terminal) {
        err << "\r\033[K" << text << Qt::flush;
        m_open = true;
    } else {
        err << text << Qt::endl;
    }
}

void StatusLine::endLine()
{
    if (m_open) {
        QTextStream(stderr) << "\r\033[K" << Qt::flush;
        m_open = false;
    }
}

InterruptWatcher::InterruptWatcher(std::function<void()> onInterrupt)
{
    if (g_signalPipe[0] < 0 && ::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    m_notifier = std::make_unique<QSocketNotifier>(g_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, m_notifier.get(),
                     [onInterrupt = std::move(onInterrupt)] {
                         char byte = 0;
                         while (::read(g_signalPipe[0], &byte, 1) > 0) {
                         }
                         onInterrupt();
                     });
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

InterruptWatcher::~InterruptWatcher()
{
    if (m_notifier) {
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    }
}
