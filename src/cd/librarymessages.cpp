#include "cd/librarymessages.h"

#include "core/logger.h"

#include <cdio/logging.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <cstdarg>
#include <mutex>

namespace {

cdio_log_handler_t g_cdioHandler = nullptr;

void logCdioMessage(cdio_log_level_t level, const char message[])
{
    if (level >= CDIO_LOG_ERROR) {
        // libcdio's own handler ends the program on these; it still does.
        Logger::log(QStringLiteral("libcdio: ") + QString::fromLocal8Bit(message));
        if (g_cdioHandler) {
            g_cdioHandler(level, message);
        }
        return;
    }
    if (level >= cdio_loglevel_default) {
        Logger::log(QStringLiteral("libcdio: ") + QString::fromLocal8Bit(message));
    }
}

#if LIBXML_VERSION >= 21200
using XmlError = const xmlError *;
#else
using XmlError = xmlErrorPtr;
#endif

void logXmlError(void *, XmlError error)
{
    if (!error || !error->message) {
        return;
    }
    Logger::log(
        QStringLiteral("libxml2: line %1: %2").arg(error->line).arg(QString::fromUtf8(error->message).trimmed()));
}

// What libxml2 prints past its error records, in pieces of lines.
void logXmlText(void *, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    consoleWrite(QString::vasprintf(format, arguments));
    va_end(arguments);
}

} // namespace

namespace LibraryMessages {

void routeToLog()
{
    static std::once_flag once;
    std::call_once(once, [] { g_cdioHandler = cdio_log_set_handler(logCdioMessage); });
}

void routeXmlErrorsToLog()
{
    // The parser's globals must exist before a thread sets its handler.
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
    xmlSetStructuredErrorFunc(nullptr, logXmlError);
    xmlSetGenericErrorFunc(nullptr, logXmlText);
}

} // namespace LibraryMessages
