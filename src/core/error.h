#pragma once

#include <QString>

#include <optional>

// A failure as a value: domain, code and the message a user may be shown.
// Codes of 1 and above are permanent failures of the service or of a file,
// 0 and below transport failures (-999 cancelled, -1001 timed out,
// -1005 connection lost, -1009 offline), 200 a local file failure of an
// upload, 1000 an unreadable CD, 1001 missing CD metadata.
class Error
{
public:
    enum class Kind { Ordinary, Maintenance };

    // The program's own errors. A null message gives the default text.
    static Error errorWithMessage(const QString &message = QString(), int code = 0);
    // The service said it is down for maintenance.
    static Error maintenanceErrorWithMessage(const QString &message = QString(), int code = 0);
    // Code -999 and no user information at all.
    static Error cancelledError();
    // An error of another domain, such as a transport failure.
    static Error withDomain(const QString &domain, int code, const QString &message);

    QString domain() const { return m_domain; }
    int code() const { return m_code; }
    bool hasUserInfo() const { return m_hasUserInfo; }
    bool isMaintenance() const { return m_kind == Kind::Maintenance; }
    Kind kind() const { return m_kind; }
    bool isCancelled() const { return m_code == -999; }

    // The message; for an error without user information the platform's
    // generic sentence naming domain and code.
    QString localizedDescription() const;

    bool operator==(const Error &other) const = default;

private:
    Error() = default;

    QString m_domain;
    int m_code = 0;
    QString m_message;
    bool m_hasUserInfo = false;
    Kind m_kind = Kind::Ordinary;
};

// "Error or none", the result of every operation that can fail.
using OptionalError = std::optional<Error>;

inline constexpr const char *kDefaultErrorMessage = "Error occurred but message was unspecified.";
