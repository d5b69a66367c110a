#pragma once

#include <QList>
#include <QtGlobal>

// Transfer speed from one-second samples: the mean of the last five whole
// seconds, or -1 while the first second is still running.
class DownloadSpeedMeter
{
public:
    static constexpr int kMaximumSamples = 5;

    // One write of `bytesWritten` bytes, `totalBytesWritten` being the total so
    // far, at `now` seconds on a monotonic clock. Returns the speed in bytes
    // per second.
    qint64 addWrite(qint64 bytesWritten, qint64 totalBytesWritten, double now)
    {
        if (totalBytesWritten == bytesWritten) {
            m_downloadSpeedCheckTime = now;
            m_downloadSpeedCheckBytes = 0;
        }
        m_downloadSpeedCheckBytes += bytesWritten;
        if (now - m_downloadSpeedCheckTime >= 1.0) {
            m_downloadSpeeds.append(m_downloadSpeedCheckBytes);
            m_downloadSpeedCheckBytes = 0;
            m_downloadSpeedCheckTime = now;
            while (m_downloadSpeeds.size() > kMaximumSamples) {
                m_downloadSpeeds.removeFirst();
            }
        }
        return speed();
    }

    qint64 speed() const
    {
        if (m_downloadSpeeds.isEmpty()) {
            return -1;
        }
        qint64 sum = 0;
        for (qint64 sample : m_downloadSpeeds) {
            sum += sample;
        }
        return sum / m_downloadSpeeds.size();
    }

private:
    QList<qint64> m_downloadSpeeds;
    qint64 m_downloadSpeedCheckBytes = 0;
    double m_downloadSpeedCheckTime = 0;
};
