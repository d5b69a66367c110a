#pragma once

#include <musicbrainz5/HTTPFetch.h>
#include <musicbrainz5/Metadata.h>
#include <musicbrainz5/Query.h>

#include <memory>
#include <string>

// One MusicBrainz query object with a bound on every wait.
//
// libmusicbrainz5 has no time-out of its own that a caller can set (its HTTP
// layer waits two minutes per read, and a connection to a silent host longer
// still). Each query therefore runs on a thread of its own while the caller
// waits at most the bound; a query still running then is abandoned (its
// thread keeps the query object alive and ends when the library gives up)
// and the caller gets a CTimeoutError, as if the library had timed out.
class MusicBrainzQuery
{
public:
    MusicBrainzQuery(const std::string &userAgent, const std::string &host, int port, int timeoutMs);

    // Throws the library's exceptions, and CTimeoutError past the bound.
    MusicBrainz5::CMetadata query(const std::string &entity, const std::string &id,
                                  const MusicBrainz5::CQuery::tParamMap &params = {});

    // The last query's outcome; after a time-out, the bound's.
    int lastResult() const { return m_lastResult; }
    int lastHTTPCode() const { return m_lastHTTPCode; }
    std::string lastErrorMessage() const { return m_lastErrorMessage; }

private:
    std::shared_ptr<MusicBrainz5::CQuery> m_query;
    int m_timeoutMs;
    bool m_abandoned = false;
    int m_lastResult = 0;
    int m_lastHTTPCode = 0;
    std::string m_lastErrorMessage;
};
