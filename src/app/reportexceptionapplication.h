#pragma once

#include <QApplication>

#include <exception>

// The application object. An exception that escapes the handling of an event
// is not swallowed: it is reported, and the process ends through the crash
// reporter with a report of it.
class ReportExceptionApplication : public QApplication
{
    Q_OBJECT

public:
    ReportExceptionApplication(int &argc, char **argv);

    // Dispatches the event inside an exception guard. A std::exception goes
    // to reportException(); anything else is rethrown unchanged.
    bool notify(QObject *receiver, QEvent *event) override;

    // Logs the exception, then ends the process through the crash reporter.
    [[noreturn]] virtual void reportException(const std::exception &exception);
};
