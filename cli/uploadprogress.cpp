#include "cli/uploadprogress.h"

#include "core/formatting.h"
#include "session/sessionmodel.h"

#include <QFileInfo>

#include <cmath>

namespace {

// The rate is taken over this many seconds, so it follows a change of pace
// quickly without jumping with every file.
constexpr qint64 kWindowMs = 10000;

} // namespace

UploadProgressMeter::UploadProgressMeter(const SessionModel *session) : m_session(session) {}

qint64 UploadProgressMeter::sizeOf(const QString &path)
{
    auto it = m_sizes.constFind(path);
    if (it == m_sizes.constEnd()) {
        it = m_sizes.insert(path, QFileInfo(path).size());
    }
    return *it;
}

void UploadProgressMeter::begin()
{
    m_totalBytes = 0;
    m_completedBytes = 0;
    for (const QString &path : m_session->foundFiles()) {
        m_totalBytes += sizeOf(path);
    }
    for (const QString &path : m_session->readyFiles()) {
        m_totalBytes += sizeOf(path);
    }
    for (const QString &path : m_session->retryFiles()) {
        m_totalBytes += sizeOf(path);
    }
    m_samples.clear();
    m_clock.start();
}

void UploadProgressMeter::fileCompleted(const QString &path)
{
    m_completedBytes += m_sizes.value(path, QFileInfo(path).size());
}

qint64 UploadProgressMeter::bytesSent() const
{
    qint64 inFlight = 0;
    for (const UploadListItem &row : m_session->uploadListItems()) {
        if (m_session->uploadingFiles().contains(row.filePath())) {
            inFlight += qint64(double(m_sizes.value(row.filePath())) * double(row.progress()) / 100.0);
        }
    }
    return m_completedBytes + inFlight;
}

qint64 UploadProgressMeter::settledBytes() const
{
    // Skipped and failed files will not be sent (in this run).
    qint64 bytes = 0;
    for (const QString &path : m_session->skippedFiles()) {
        bytes += m_sizes.value(path);
    }
    for (const QString &path : m_session->erroredFiles()) {
        bytes += m_sizes.value(path);
    }
    return bytes;
}

qint64 UploadProgressMeter::bytesRemaining() const
{
    return std::max<qint64>(0, m_totalBytes - settledBytes() - bytesSent());
}

void UploadProgressMeter::sample()
{
    if (!m_clock.isValid()) {
        return;
    }
    const qint64 now = m_clock.elapsed();
    m_samples.append({now, bytesSent()});
    while (m_samples.size() > 2 && now - m_samples.first().first > kWindowMs) {
        m_samples.removeFirst();
    }
}

double UploadProgressMeter::rate() const
{
    if (m_samples.size() < 2) {
        return -1;
    }
    const auto &[firstMs, firstBytes] = m_samples.first();
    const auto &[lastMs, lastBytes] = m_samples.last();
    if (lastMs - firstMs < 1000) {
        return -1;
    }
    return double(std::max<qint64>(0, lastBytes - firstBytes)) * 1000.0 / double(lastMs - firstMs);
}

qint64 UploadProgressMeter::secondsLeft() const
{
    const double bytesPerSecond = rate();
    if (bytesPerSecond <= 0) {
        return -1;
    }
    const qint64 seconds = qint64(std::ceil(double(bytesRemaining()) / bytesPerSecond));
    // Files whose bytes are all sent still wait for their answers.
    const bool filesLeft = !m_session->uploadingFiles().isEmpty() || !m_session->readyFiles().isEmpty();
    return filesLeft ? std::max<qint64>(seconds, 1) : seconds;
}

QString UploadProgressMeter::formatBytes(double bytes)
{
    static const char *const units[] = {"B", "KB", "MB", "GB", "TB"};
    int unit = 0;
    while (bytes >= 1000.0 && unit < 4) {
        bytes /= 1000.0;
        ++unit;
    }
    return unit == 0 ? QStringLiteral("%1 B").arg(qint64(bytes))
                     : QStringLiteral("%1 %2").arg(bytes, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString UploadProgressMeter::formatDuration(qint64 seconds)
{
    const qint64 hours = seconds / 3600;
    const qint64 minutes = (seconds / 60) % 60;
    const qint64 secs = seconds % 60;
    if (hours > 0) {
        return QStringLiteral("%1:%2:%3")
            .arg(hours)
            .arg(minutes, 2, 10, QLatin1Char('0'))
            .arg(secs, 2, 10, QLatin1Char('0'));
    }
    return QStringLiteral("%1:%2").arg(minutes).arg(secs, 2, 10, QLatin1Char('0'));
}

QString UploadProgressMeter::line() const
{
    const qint64 done = m_session->completedFiles().size();
    const qint64 remaining = m_session->foundFiles().size() + m_session->readyFiles().size() +
                             m_session->uploadingFiles().size() + m_session->retryFiles().size();
    QString text = QStringLiteral("Uploaded %1 of %2 files, %3 remaining")
                       .arg(groupedNumber(done), groupedNumber(done + remaining), groupedNumber(remaining));
    if (!m_session->skippedFiles().isEmpty()) {
        text += QStringLiteral(", %1 skipped").arg(groupedNumber(m_session->skippedFiles().size()));
    }
    if (!m_session->erroredFiles().isEmpty()) {
        text += QStringLiteral(", %1 failed").arg(groupedNumber(m_session->erroredFiles().size()));
    }
    const double bytesPerSecond = rate();
    text += QStringLiteral(" | %1/s").arg(bytesPerSecond < 0 ? QStringLiteral("-") : formatBytes(bytesPerSecond));
    const qint64 left = secondsLeft();
    text += QStringLiteral(" | %1 left").arg(left < 0 ? QStringLiteral("-:--") : formatDuration(left));
    if (m_session->isMd5CheckProgressItemOnScreen()) {
        text += QStringLiteral(" | checking %1").arg(m_session->md5CheckProgressItem().progressLabelText());
    }
    return text;
}
