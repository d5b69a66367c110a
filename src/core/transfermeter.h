#pragma once

#include <QString>
#include <QtGlobal>

#include <deque>

// The overall progress of a transfer by bytes (an upload run, the library
// download): how much is done of how much, the speed averaged over the last
// few seconds and the time left at that speed. It is fed the bytes done and
// the total whenever they change and once a second; times are seconds on a
// monotonic clock.
class TransferMeter
{
public:
    // The speed is the bytes sent over this many seconds, divided by them.
    static constexpr double kAveragingSeconds = 5.0;
    // Below this much history the speed is not yet known.
    static constexpr double kMinimumSeconds = 1.0;

    // Forgets the history: at the start of a run, and on pause and resume,
    // so that a pause does not drag the speed down.
    void restart(double now);
    // Bytes done may fall back (a failed file or segment starts over); only
    // what moves forward counts as sent for the speed.
    void update(qint64 doneBytes, qint64 totalBytes, double now);

    qint64 doneBytes() const { return m_done; }
    qint64 totalBytes() const { return m_total; }
    // Whole percent of the bytes, 0 to 100; -1 while the total is unknown.
    int percent() const;
    // Bytes per second; -1 while unknown.
    double speed() const;
    // Whole seconds left at the current speed; -1 while unknown.
    qint64 secondsLeft() const;

    // "12.5 MB of 40.0 MB" ("of about" for a total that is an estimate).
    QString amountText(bool approximateTotal = false) const;
    // The amount, then the speed and the time left once they are known:
    // "12.5 MB of 40.0 MB — 1.20 MB/s — 25 s left"; "— waiting" while nothing moves.
    QString progressText(bool approximateTotal = false) const;

    // "1.5 MB", "820 KB", "12 bytes": decimal units, as file managers show sizes.
    static QString formatBytes(qint64 bytes);
    // "45 s", "3 min 05 s", "2 h 07 min".
    static QString formatDuration(qint64 seconds);

private:
    struct Sample
    {
        double time;
        qint64 sent;
    };
    std::deque<Sample> m_samples;
    qint64 m_done = 0;
    qint64 m_total = 0;
    qint64 m_sent = 0; // only grows
};
