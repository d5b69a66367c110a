#pragma once

#include <QString>

#include <optional>

// One row of the Upload page: a file in flight, or the digest check's own row.
// It holds what the row shows; the main window draws it and pelicane-cli reads
// it, so the label rules live here once.
class UploadListItem
{
public:
    // Rows are 30 high and stacked 32 apart from the top of the upload area.
    static constexpr int kRowHeight = 30;
    static constexpr int kRowPitch = 32;
    // The height a row is made with before the list lays it out.
    static constexpr int kInitialHeight = 35;

    // Clears everything back to an empty row.
    void setupView();

    QString path() const { return m_path; }
    // The text shown; the label follows it.
    void setPath(const QString &path);

    // The key the row is found by.
    QString filePath() const { return m_filePath; }
    void setFilePath(const QString &filePath) { m_filePath = filePath; }

    const std::optional<QString> &audioCDTrackName() const { return m_audioCDTrackName; }
    void setAudioCDTrackName(const std::optional<QString> &name) { m_audioCDTrackName = name; }

    // p is a whole percentage. The label becomes "Reading: <track>" or
    // "Uploading: <track>" for a CD track, else the path; progress() keeps p
    // clamped to 0..100 while barFraction() keeps it as given, so a value
    // over 100 draws a bar wider than the row, as the program always did.
    void setUploadProgress(qint64 p, bool isRip);

    QString pathLabelText() const { return m_pathLabelText; }
    qint64 progress() const { return m_progress; }
    QString progressLabelText() const;
    double barFraction() const { return m_barFraction; }
    bool isRip() const { return m_isRip; }
    // A row a pause interrupted: kept on screen, marked, until the run goes on.
    bool isPaused() const { return m_paused; }
    void setPaused(bool paused) { m_paused = paused; }

private:
    QString m_path;
    QString m_filePath;
    std::optional<QString> m_audioCDTrackName;
    QString m_pathLabelText;
    qint64 m_progress = 0;
    double m_barFraction = 0;
    bool m_isRip = false;
    bool m_paused = false;
};
