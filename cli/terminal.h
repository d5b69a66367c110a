#pragma once

#include <QString>

#include <functional>
#include <memory>

class QSocketNotifier;

// One status line on standard error: redrawn in place on a terminal, a line
// of its own each time on a pipe (callers show less often there).
class StatusLine
{
public:
    StatusLine();

    bool isTerminal() const { return m_terminal; }
    void show(const QString &text);
    // Clears the line in place, so other output starts on a line of its own.
    void endLine();

private:
    bool m_terminal;
    bool m_open = false;
};

// Turns Ctrl-C and SIGTERM into a call on the event loop, so a command can
// stop cleanly; the default handling comes back when the object goes.
class InterruptWatcher
{
public:
    explicit InterruptWatcher(std::function<void()> onInterrupt);
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher &) = delete;
    InterruptWatcher &operator=(const InterruptWatcher &) = delete;

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};
