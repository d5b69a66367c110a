#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <map>
#include <mutex>
#include <optional>
#include <vector>

// The kinds of request the server tells apart, for fault rules and statistics.
enum class Endpoint { Json, List, Upload, Header, Segment };

const char *endpointName(Endpoint endpoint);

// What the fault rules ask of one request. Several matching rules combine.
struct FaultPlan
{
    int latencyMs = 0;
    int status = 0;                 // 0: answer normally
    QString message;                // message of the error envelope sent with `status`
    std::optional<QByteArray> body; // replaces the whole answer body
    QByteArray contentType;
    qint64 dropAfterBytes = -1; // -1: keep the connection
    bool omitEndMarker = false;
    qint64 bytesPerSecond = 0; // a segment is sent no faster; 0: as fast as it goes
};

// Fault rules set through the control endpoint. A rule names an endpoint (or "download" for
// both download kinds, "any" for all) and applies to the next `count` matching requests, or
// to every one when `count` is 0.
class Faults
{
public:
    // Adds a rule from its JSON form; returns an error message when it is malformed.
    QString add(const QJsonObject &rule);
    void clear();
    QJsonArray list() const;

    // Takes what applies to one request of this kind and counts the request.
    FaultPlan take(Endpoint endpoint);

    QJsonObject requestCounts() const;

private:
    struct Rule
    {
        QJsonObject source;
        QList<Endpoint> endpoints;
        int remaining = 1; // 0: unlimited
        FaultPlan plan;
    };

    mutable std::mutex m_mutex;
    std::vector<Rule> m_rules;
    std::map<Endpoint, qint64> m_counts;
};
