#pragma once

// Waits for the password store's answers, which always come later.

#include "platform/passwordstore.h"

#include <QTest>

namespace PasswordStoreTesting {

struct ReadAnswer
{
    bool answered = false;
    std::optional<QString> password;
    OptionalError error;
};

inline ReadAnswer readPassword(QObject *context)
{
    auto answer = std::make_shared<ReadAnswer>();
    PasswordStore::read(context, [answer](const std::optional<QString> &password, const OptionalError &error) {
        *answer = {true, password, error};
    });
    QTest::qWaitFor([answer] { return answer->answered; }, 20000);
    return *answer;
}

// The error of a write (write true) or remove; "unanswered" when none came.
inline QString change(QObject *context, bool write, const QString &password = QString())
{
    auto message = std::make_shared<std::optional<QString>>();
    const PasswordStore::DoneHandler done = [message](const OptionalError &error) {
        *message = error ? error->localizedDescription() : QString();
    };
    if (write) {
        PasswordStore::write(password, context, done);
    } else {
        PasswordStore::remove(context, done);
    }
    QTest::qWaitFor([message] { return message->has_value(); }, 20000);
    return message->value_or(QStringLiteral("unanswered"));
}

} // namespace PasswordStoreTesting
