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

inline ReadAnswer readPassword(QObject *context, int timeoutMs = 20000)
{
    auto answer = std::make_shared<ReadAnswer>();
    PasswordStore::read(context, [answer](const std::optional<QString> &password, const OptionalError &error) {
        answer->answered = true;
        answer->password = password;
        answer->error = error;
    });
    if (!QTest::qWaitFor([answer] { return answer->answered; }, timeoutMs)) {
        return {};
    }
    return *answer;
}

// The error of a write (write true) or remove; "unanswered" when none came.
inline QString change(QObject *context, bool write, const QString &password = QString(), int timeoutMs = 20000)
{
    auto answered = std::make_shared<bool>(false);
    auto message = std::make_shared<QString>();
    const PasswordStore::DoneHandler done = [answered, message](const OptionalError &error) {
        *answered = true;
        if (error) {
            *message = error->localizedDescription();
        }
    };
    if (write) {
        PasswordStore::write(password, context, done);
    } else {
        PasswordStore::remove(context, done);
    }
    if (!QTest::qWaitFor([answered] { return *answered; }, timeoutMs)) {
        return QStringLiteral("unanswered");
    }
    return *message;
}

} // namespace PasswordStoreTesting
