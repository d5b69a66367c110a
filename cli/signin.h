#pragma once

#include "core/error.h"

#include <QString>

#include <optional>

// Sign-in for the command-line front end. The account never comes as an
// argument (it would show in the process list and the shell history): it is
// read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for on the
// terminal, the password without echo.
namespace CliSignIn {

struct Credentials
{
    QString email;
    QString password;
};

// The credentials from the environment, or typed. None (with the reason in
// `error`) when standard input ends before both are given.
std::optional<Credentials> readCredentials(QString *error);

// Signs in through the shared LyraboxService and waits for its answer,
// running the event loop meanwhile. None on success, when the service holds
// the user id and token.
OptionalError signIn(const Credentials &credentials);

// Both steps; prints what went wrong on standard error. True when signed in.
bool signInInteractively();

} // namespace CliSignIn
