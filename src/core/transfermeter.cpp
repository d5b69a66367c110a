#include "core/transfermeter.h"

#include <QLocale>

#include <algorithm>
#include <cmath>

void TransferMeter::restart(double now)
{
    m_samples.clear();
    m_samples.push_back({now, m_sent});
}

void TransferMeter::update(qint64 doneBytes, qint64 totalBytes, double now)
{
    if (doneBytes > m_done) {
        m_sent += doneBytes - m_done;
    }
    m_done = doneBytes;
    m_total = totalBytes;
    if (m_samples.empty()) {
        m_samples.push_back({now, m_sent});
        return;
    }
    if (now - m_samples.back().time >= 0.25) {
        m_samples.push_back({now, m_sent});
    } else {
        m_samples.back().sent = m_sent;
    }
    // Keep one sample at or before the start of the window.
    while (m_samples.size() > 2 && now - m_samples[1].time >= kAveragingSeconds) {
        m_samples.pop_front();
    }
}

int TransferMeter::percent() const
{
    if (m_total <= 0) {
        return -1;
    }
    return int(std::clamp<qint64>(m_done * 100 / m_total, 0, 100));
}

double TransferMeter::speed() const
{
    if (m_samples.size() < 2) {
        return -1;
    }
    const Sample &first = m_samples.front();
    const Sample &last = m_samples.back();
    const double seconds = last.time - first.time;
    if (seconds < kMinimumSeconds) {
        return -1;
    }
    return double(last.sent - first.sent) / seconds;
}

qint64 TransferMeter::secondsLeft() const
{
    const double bytesPerSecond = speed();
    if (bytesPerSecond <= 0 || m_total <= 0) {
        return -1;
    }
    return qint64(std::ceil(double(std::max<qint64>(0, m_total - m_done)) / bytesPerSecond));
}

QString TransferMeter::amountText(bool approximateTotal) const
{
    return QStringLiteral("%1 of %2%3")
        .arg(formatBytes(m_done), approximateTotal ? QStringLiteral("about ") : QString(), formatBytes(m_total));
}

QString TransferMeter::progressText(bool approximateTotal) const
{
    QString text = amountText(approximateTotal);
    const double bytesPerSecond = speed();
    if (bytesPerSecond >= 0) {
        text += QStringLiteral(" — %1/s").arg(formatBytes(qint64(bytesPerSecond)));
    }
    const qint64 left = secondsLeft();
    if (left >= 0) {
        text += QStringLiteral(" — %1 left").arg(formatDuration(left));
    } else if (bytesPerSecond == 0) {
        text += QStringLiteral(" — waiting");
    }
    return text;
}

QString TransferMeter::formatBytes(qint64 bytes)
{
    if (bytes < 1000) {
        return bytes == 1 ? QStringLiteral("1 byte") : QStringLiteral("%1 bytes").arg(bytes);
    }
    static const char *const units[] = {"KB", "MB", "GB", "TB"};
    auto value = double(bytes);
    int unit = -1;
    while (value >= 1000 && unit < 3) {
        value /= 1000;
        ++unit;
    }
    // Three significant digits at most: 1.25 MB, 12.5 MB, 125 MB.
    const int decimals = value < 10 ? 2 : value < 100 ? 1 : 0;
    return QStringLiteral("%1 %2").arg(QString::number(value, 'f', decimals), QLatin1String(units[unit]));
}

QString TransferMeter::formatDuration(qint64 seconds)
{
    seconds = std::max<qint64>(0, seconds);
    if (seconds < 60) {
        return QStringLiteral("%1 s").arg(seconds);
    }
    if (seconds < 3600) {
        return QStringLiteral("%1 min %2 s").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    }
    return QStringLiteral("%1 h %2 min").arg(seconds / 3600).arg((seconds % 3600) / 60, 2, 10, QLatin1Char('0'));
}
