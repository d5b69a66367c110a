#include "cd/musicbrainzquery.h"

#include "cd/librarymessages.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>

namespace {

struct PendingQuery
{
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    std::optional<MusicBrainz5::CMetadata> metadata;
    std::exception_ptr exception;
    int lastResult = 0;
    int lastHTTPCode = 0;
    std::string lastErrorMessage;
};

} // namespace

MusicBrainzQuery::MusicBrainzQuery(const std::string &userAgent, const std::string &host, int port, int timeoutMs)
    : m_query(std::make_shared<MusicBrainz5::CQuery>(userAgent, host, port)), m_timeoutMs(timeoutMs)
{}

MusicBrainz5::CMetadata MusicBrainzQuery::query(const std::string &entity, const std::string &id,
                                                const MusicBrainz5::CQuery::tParamMap &params)
{
    if (m_abandoned) {
        // The query object still belongs to a thread that never came back.
        throw MusicBrainz5::CTimeoutError(m_lastErrorMessage);
    }
    auto pending = std::make_shared<PendingQuery>();
    std::thread([pending, query = m_query, entity, id, params] {
        LibraryMessages::routeXmlErrorsToLog();
        std::optional<MusicBrainz5::CMetadata> metadata;
        std::exception_ptr exception;
        try {
            metadata = query->Query(entity, id, std::string(), params);
        } catch (...) {
            exception = std::current_exception();
        }
        std::lock_guard<std::mutex> locker(pending->lock);
        pending->metadata = std::move(metadata);
        pending->exception = exception;
        pending->lastResult = query->LastResult();
        pending->lastHTTPCode = query->LastHTTPCode();
        pending->lastErrorMessage = query->LastErrorMessage();
        pending->done = true;
        pending->finished.notify_all();
    }).detach();

    std::unique_lock<std::mutex> locker(pending->lock);
    if (!pending->finished.wait_for(locker, std::chrono::milliseconds(m_timeoutMs), [&] { return pending->done; })) {
        m_abandoned = true;
        m_lastResult = MusicBrainz5::CQuery::eQuery_Timeout;
        m_lastHTTPCode = 0;
        m_lastErrorMessage = "No answer from MusicBrainz within " + std::to_string((m_timeoutMs + 999) / 1000) +
                             (m_timeoutMs > 1000 ? " seconds" : " second");
        throw MusicBrainz5::CTimeoutError(m_lastErrorMessage);
    }
    m_lastResult = pending->lastResult;
    m_lastHTTPCode = pending->lastHTTPCode;
    m_lastErrorMessage = pending->lastErrorMessage;
    if (pending->exception) {
        std::rethrow_exception(pending->exception);
    }
    return *pending->metadata;
}
