#include "session/ui/mainwindowcdprompter.h"

#include "session/ui/audiocdchoosercontroller.h"
#include "session/ui/audiocdmetadatacontroller.h"

void MainWindowCDPrompter::chooseDisk(const QStringList &disks, std::function<void(int, const QString &)> done)
{
    auto *chooser = new AudioCDChooserController(m_window);
    chooser->setAttribute(Qt::WA_DeleteOnClose);
    chooser->setDisks(disks);
    QObject::connect(chooser, &QDialog::finished, chooser,
                     [chooser, done](int result) { done(result, result == 1 ? chooser->selectedDisk() : QString()); });
    m_chooser = chooser;
    chooser->open();
}

void MainWindowCDPrompter::setChooserDisks(const QStringList &disks)
{
    if (m_chooser) {
        m_chooser->setDisks(disks);
    }
}

void MainWindowCDPrompter::closeChooser()
{
    if (m_chooser) {
        m_chooser->done(0);
    }
}

void MainWindowCDPrompter::promptAlbum(const AlbumPromptInput &input,
                                       std::function<void(const QString &)> releaseChosen,
                                       std::function<void(int, const AlbumPromptResult &)> done)
{
    auto *prompt = new AudioCDMetadataController(m_window);
    prompt->setAttribute(Qt::WA_DeleteOnClose);
    prompt->fill(input);
    QObject::connect(prompt, &AudioCDMetadataController::releaseChosen, prompt,
                     [releaseChosen](const QString &id) { releaseChosen(id); });
    QObject::connect(prompt, &QDialog::finished, prompt, [prompt, done](int result) {
        AlbumPromptResult album;
        album.albumTitle = prompt->albumTitle();
        album.albumArtist = prompt->albumArtist();
        album.discNumber = prompt->discNumber();
        album.artwork = prompt->albumArtworkData();
        album.playlistName = prompt->playlistName();
        album.tagName = prompt->tagName();
        done(result, album);
    });
    m_albumPrompt = prompt;
    prompt->open();
}

void MainWindowCDPrompter::refillAlbumPrompt(const AlbumPromptInput &input)
{
    if (m_albumPrompt) {
        m_albumPrompt->fill(input);
    }
}

void MainWindowCDPrompter::setAlbumPromptBusy(bool busy, const QString &message)
{
    if (m_albumPrompt) {
        m_albumPrompt->setBusy(busy, message);
    }
}

void MainWindowCDPrompter::selectAlbumPromptRelease(const QString &releaseId)
{
    if (m_albumPrompt) {
        m_albumPrompt->selectRelease(releaseId);
    }
}
