#include "faults.h"

#include <QSet>

const char *endpointName(Endpoint endpoint)
{
    switch (endpoint) {
    case Endpoint::Json:
        return "json";
    case Endpoint::List:
        return "list";
    case Endpoint::Upload:
        return "upload";
    case Endpoint::Header:
        return "header";
    case Endpoint::Segment:
        return "segment";
    }
    return "";
}

QString Faults::add(const QJsonObject &rule)
{
    static const QSet<QString> known{
        "endpoint", "count",        "latency_ms",       "status",          "message",
        "body",     "content_type", "drop_after_bytes", "omit_end_marker", "bytes_per_second"};
    for (auto it = rule.begin(); it != rule.end(); ++it) {
        if (!known.contains(it.key()))
            return "unknown fault key \"" + it.key() + "\"";
    }
    Rule r;
    r.source = rule;
    const QString endpoint = rule.value("endpoint").toString();
    if (endpoint == "any")
        r.endpoints = {Endpoint::Json, Endpoint::List, Endpoint::Upload, Endpoint::Header, Endpoint::Segment};
    else if (endpoint == "download")
        r.endpoints = {Endpoint::Header, Endpoint::Segment};
    else {
        for (Endpoint e : {Endpoint::Json, Endpoint::List, Endpoint::Upload, Endpoint::Header, Endpoint::Segment}) {
            if (endpoint == QLatin1String(endpointName(e)))
                r.endpoints = {e};
        }
    }
    if (r.endpoints.isEmpty())
        return "\"endpoint\" must be one of json, list, upload, header, segment, download, any";

    auto integer = [&](const char *key, qint64 fallback, qint64 minimum, qint64 maximum, qint64 *out) -> bool {
        QJsonValue value = rule.value(QLatin1String(key));
        if (value.isUndefined()) {
            *out = fallback;
            return true;
        }
        if (!value.isDouble() || value.toDouble() != double(value.toInteger()))
            return false;
        *out = value.toInteger();
        return *out >= minimum && *out <= maximum;
    };
    qint64 count, latency, status, drop, rate;
    if (!integer("count", 1, 0, 1000000, &count))
        return "\"count\" must be a whole number of 0 or more";
    if (!integer("latency_ms", 0, 0, 600000, &latency))
        return "\"latency_ms\" must be a whole number from 0 to 600000";
    if (!integer("status", 0, 0, 999, &status) || (status != 0 && status < 100))
        return "\"status\" must be an HTTP status from 100 to 999";
    if (!integer("drop_after_bytes", -1, -1, std::numeric_limits<qint64>::max(), &drop))
        return "\"drop_after_bytes\" must be a whole number of 0 or more";
    if (!integer("bytes_per_second", 0, 0, std::numeric_limits<qint64>::max(), &rate))
        return "\"bytes_per_second\" must be a whole number of 0 or more";
    if (rule.contains("message") && !rule.value("message").isString())
        return "\"message\" must be a string";
    if (rule.contains("body") && !rule.value("body").isString())
        return "\"body\" must be a string";
    if (rule.contains("content_type") && !rule.value("content_type").isString())
        return "\"content_type\" must be a string";
    if (rule.contains("omit_end_marker") && !rule.value("omit_end_marker").isBool())
        return "\"omit_end_marker\" must be true or false";
    r.remaining = int(count);
    r.plan.latencyMs = int(latency);
    r.plan.status = int(status);
    r.plan.message = rule.value("message").toString();
    if (rule.contains("body"))
        r.plan.body = rule.value("body").toString().toUtf8();
    r.plan.contentType = rule.value("content_type").toString().toUtf8();
    r.plan.dropAfterBytes = drop;
    r.plan.omitEndMarker = rule.value("omit_end_marker").toBool();
    r.plan.bytesPerSecond = rate;

    std::lock_guard lock(m_mutex);
    m_rules.push_back(r);
    return {};
}

void Faults::clear()
{
    std::lock_guard lock(m_mutex);
    m_rules.clear();
}

QJsonArray Faults::list() const
{
    std::lock_guard lock(m_mutex);
    QJsonArray array;
    for (const Rule &rule : m_rules) {
        QJsonObject object = rule.source;
        object.insert("remaining", rule.remaining);
        array.append(object);
    }
    return array;
}

FaultPlan Faults::take(Endpoint endpoint)
{
    std::lock_guard lock(m_mutex);
    ++m_counts[endpoint];
    FaultPlan plan;
    for (auto it = m_rules.begin(); it != m_rules.end();) {
        if (!it->endpoints.contains(endpoint)) {
            ++it;
            continue;
        }
        const FaultPlan &p = it->plan;
        plan.latencyMs += p.latencyMs;
        if (p.status != 0 && plan.status == 0) {
            plan.status = p.status;
            plan.message = p.message;
        }
        if (p.body && !plan.body) {
            plan.body = p.body;
            plan.contentType = p.contentType;
        }
        if (p.dropAfterBytes >= 0 && plan.dropAfterBytes < 0)
            plan.dropAfterBytes = p.dropAfterBytes;
        plan.omitEndMarker = plan.omitEndMarker || p.omitEndMarker;
        // The slowest link wins.
        if (p.bytesPerSecond > 0 && (plan.bytesPerSecond == 0 || p.bytesPerSecond < plan.bytesPerSecond))
            plan.bytesPerSecond = p.bytesPerSecond;
        if (it->remaining > 0 && --it->remaining == 0)
            it = m_rules.erase(it);
        else
            ++it;
    }
    return plan;
}

QJsonObject Faults::requestCounts() const
{
    std::lock_guard lock(m_mutex);
    QJsonObject counts;
    for (Endpoint e : {Endpoint::Json, Endpoint::List, Endpoint::Upload, Endpoint::Header, Endpoint::Segment})
        counts.insert(QLatin1String(endpointName(e)), m_counts.count(e) ? m_counts.at(e) : 0);
    return counts;
}
