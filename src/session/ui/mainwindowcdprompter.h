#pragma once

#include "session/audiocdprompter.h"
#include "session/ui/audiocdchoosercontroller.h"
#include "session/ui/audiocdmetadatacontroller.h"

#include <QPointer>

class QWidget;

// The CD prompts of the main window: the disc chooser and the album prompt,
// each window-modal over the window and dropped when it ends.
class MainWindowCDPrompter : public AudioCDPrompter
{
public:
    explicit MainWindowCDPrompter(QWidget *window) : m_window(window) {}

    void chooseDisk(const QStringList &disks, std::function<void(int, const QString &)> done) override;
    void setChooserDisks(const QStringList &disks) override;
    void closeChooser() override;
    void promptAlbum(const AlbumPromptInput &input, std::function<void(const QString &)> releaseChosen,
                     std::function<void(int, const AlbumPromptResult &)> done) override;
    void refillAlbumPrompt(const AlbumPromptInput &input) override;
    void setAlbumPromptBusy(bool busy, const QString &message) override;
    void selectAlbumPromptRelease(const QString &releaseId) override;

    // The open prompts, for tests.
    AudioCDChooserController *chooser() const { return m_chooser; }
    AudioCDMetadataController *albumPrompt() const { return m_albumPrompt; }

private:
    QWidget *m_window;
    QPointer<AudioCDChooserController> m_chooser;
    QPointer<AudioCDMetadataController> m_albumPrompt;
};
