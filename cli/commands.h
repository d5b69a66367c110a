#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

#include <cstdio>
#include <variant>

// Sub-commands of pelicane-cli; args are what follows the command's name.
// Each returns the process exit status.
int runUploadCommand(const QStringList &args);
int runDownloadLibraryCommand(const QStringList &args);
int runDiscInfoCommand(const QStringList &args);
int runRipCommand(const QStringList &args);
int runUploadCDCommand(const QStringList &args);

// The exit statuses; each command's usage says which of them it gives.
namespace Exit {
enum Status : int {
    Success = 0,
    Failed = 1, // a file or track failed, or the run stopped before its end
    Usage = 2,
    NotStarted = 3, // no sign-in, the run could not start, or the session expired
    Interrupted = 130,
};
} // namespace Exit

// How a command ends without running: for --help its usage on standard
// output (status 0), for wrong arguments why on standard error (status 2).
struct CommandExit
{
    int status = Exit::Success;
    QString text;
    bool toStandardOutput = false;

    static CommandExit help(const QString &usage) { return {Exit::Success, usage, true}; }
    static CommandExit wrongArguments(const QString &text) { return {Exit::Usage, text, false}; }
    // "pelicane-cli COMMAND: ERROR", a blank line and the usage.
    static CommandExit usageError(const char *command, const QString &error, const QString &usage)
    {
        return wrongArguments(QStringLiteral("pelicane-cli ") + QLatin1String(command) + QStringLiteral(": ") + error +
                              QStringLiteral("\n\n") + usage);
    }

    int print() const
    {
        QTextStream(toStandardOutput ? stdout : stderr) << text << Qt::flush;
        return status;
    }
};

// A command's arguments, parsed: the options to run with, or its way out.
template <typename Options> using Parsed = std::variant<Options, CommandExit>;

// Every command takes the same three steps: its arguments parsed into
// options, the run with them (progress and failures are printed as they
// come), then the summary of the run's outcome, which gives the exit status.
template <typename Options, typename Outcome>
int runCommand(const Parsed<Options> &parsed, Outcome (*run)(const Options &), int (*printSummary)(const Outcome &))
{
    if (const CommandExit *exit = std::get_if<CommandExit>(&parsed)) {
        return exit->print();
    }
    return printSummary(run(std::get<Options>(parsed)));
}
