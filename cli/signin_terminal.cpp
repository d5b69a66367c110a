// Reading the account from the environment or the terminal.
#include "cli/signin.h"

#include <QByteArray>
#include <QTextStream>

#include <csignal>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

namespace {

struct termios g_savedTerminal;
volatile sig_atomic_t g_echoOff = 0;

void restoreEcho()
{
    if (g_echoOff) {
        tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTerminal);
        g_echoOff = 0;
    }
}

// Ctrl-C while the password is being typed must not leave the terminal mute.
void interrupted(int signal)
{
    restoreEcho();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

std::optional<QString> readLine(const char *prompt, bool hidden)
{
    const bool terminal = isatty(STDIN_FILENO);
    if (terminal) {
        std::fputs(prompt, stderr);
        std::fflush(stderr);
    }
    void (*previousInt)(int) = SIG_DFL;
    void (*previousTerm)(int) = SIG_DFL;
    if (hidden && terminal && tcgetattr(STDIN_FILENO, &g_savedTerminal) == 0) {
        struct termios quiet = g_savedTerminal;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        quiet.c_lflag |= ECHONL;
        previousInt = std::signal(SIGINT, interrupted);
        previousTerm = std::signal(SIGTERM, interrupted);
        g_echoOff = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
    }
    QByteArray line;
    int c = 0;
    while ((c = std::fgetc(stdin)) != EOF && c != '\n') {
        line.append(char(c));
    }
    if (hidden && terminal) {
        restoreEcho();
        std::signal(SIGINT, previousInt);
        std::signal(SIGTERM, previousTerm);
    }
    if (c == EOF && line.isEmpty()) {
        return std::nullopt;
    }
    if (line.endsWith('\r')) {
        line.chop(1);
    }
    return QString::fromUtf8(line);
}

} // namespace

namespace CliSignIn {

std::optional<Credentials> readCredentials(QString *error)
{
    Credentials credentials;
    if (qEnvironmentVariableIsSet("PELICANE_EMAIL")) {
        credentials.email = qEnvironmentVariable("PELICANE_EMAIL");
    } else if (const auto email = readLine("E-mail: ", false)) {
        credentials.email = *email;
    } else {
        *error = QStringLiteral("No e-mail address given (set PELICANE_EMAIL or type it).");
        return std::nullopt;
    }
    if (qEnvironmentVariableIsSet("PELICANE_PASSWORD")) {
        credentials.password = qEnvironmentVariable("PELICANE_PASSWORD");
    } else if (const auto password = readLine("Password: ", true)) {
        credentials.password = *password;
    } else {
        *error = QStringLiteral("No password given (set PELICANE_PASSWORD or type it).");
        return std::nullopt;
    }
    return credentials;
}

} // namespace CliSignIn
