#include "core/error.h"

#include "core/paths.h"

Error Error::errorWithMessage(const QString &message, int code)
{
    Error e;
    e.m_domain = Paths::applicationIdentifier();
    e.m_code = code;
    e.m_message = message.isNull() ? QString::fromLatin1(kDefaultErrorMessage) : message;
    e.m_hasUserInfo = true;
    return e;
}

Error Error::maintenanceErrorWithMessage(const QString &message, int code)
{
    Error e = errorWithMessage(message, code);
    e.m_kind = Kind::Maintenance;
    return e;
}

Error Error::cancelledError()
{
    Error e;
    e.m_domain = Paths::applicationIdentifier();
    e.m_code = -999;
    e.m_hasUserInfo = false;
    return e;
}

Error Error::withDomain(const QString &domain, int code, const QString &message)
{
    Error e;
    e.m_domain = domain;
    e.m_code = code;
    e.m_message = message;
    e.m_hasUserInfo = true;
    return e;
}

QString Error::localizedDescription() const
{
    if (!m_hasUserInfo) {
        return QStringLiteral("The operation couldn’t be completed. (%1 error %2.)").arg(m_domain).arg(m_code);
    }
    return m_message;
}
