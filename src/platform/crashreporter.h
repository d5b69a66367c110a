#pragma once

#include <QString>

// Records how the program died. Once started, a fatal signal (SIGSEGV,
// SIGABRT, SIGBUS, SIGFPE, SIGILL) or std::terminate on any thread writes a
// report with the backtrace of the thread that died to <data folder>/Crashes/
// and a log line naming it, and the process then ends as it would have
// without the reporter. Threads started after start() get a stack of their
// own for the handler, so a stack overflow is reported too.
//
// Everything a signal handler needs (file names, texts) is prepared by
// start(); the handlers themselves only use async-signal-safe calls.
namespace CrashReporter {

// Installs the handlers. Call once at launch, after the first log line.
void start();
bool isStarted();

// <data folder>/Crashes, or empty when there is no data folder.
QString crashDirectory();
// The report this process would write, prepared at start().
QString reportPath();

// An exception that nobody handled: writes the report with its description,
// logs the report's name and ends the process.
[[noreturn]] void reportException(const QString &description);

} // namespace CrashReporter
