// The CD prompts offscreen: the disc chooser and the album prompt on their
// own, then the whole road through the main window's buttons against the
// local service with the sample disc.
#include "cdroadsupport.h"

#include "../session/alertdriver.h"
#include "../session/signedinwindow.h"
#include "audio/cdripper.h"
#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/audiocdflow.h"
#include "session/audiocdprompter.h"
#include "session/sessionmodel.h"
#include "session/ui/audiocdchoosercontroller.h"
#include "session/ui/audiocdmetadatacontroller.h"
#include "session/ui/folderordiscimagedialog.h"
#include "session/ui/mainwindowcdprompter.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/clitesting.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"
#include "ui_MainWindowController.h"
#include "widgets/aspectfillimageview.h"

#include <QComboBox>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

class TestCDPrompts : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        DiscServicesData::pointAt(m_server);
    }

    void chooserListsVolumeNamesFirstSelected()
    {
        AudioCDChooserController chooser;
        chooser.setDisks({QStringLiteral("/dev/sr0"), QStringLiteral("/music/images/live.cue")});
        QCOMPARE(chooser.browser()->count(), 2);
        QCOMPARE(chooser.browser()->item(0)->text(), QStringLiteral("sr0"));
        QCOMPARE(chooser.browser()->item(1)->text(), QStringLiteral("live.cue"));
        QCOMPARE(chooser.browser()->currentRow(), 0);
        QCOMPARE(chooser.selectedDisk(), QStringLiteral("/dev/sr0"));
        // A new list reloads at once and keeps the choice while it is there.
        chooser.browser()->setCurrentRow(1);
        chooser.setDisks({QStringLiteral("/dev/sr1"), QStringLiteral("/music/images/live.cue")});
        QCOMPARE(chooser.selectedDisk(), QStringLiteral("/music/images/live.cue"));
        chooser.setDisks({QStringLiteral("/dev/sr1")});
        QCOMPARE(chooser.selectedDisk(), QStringLiteral("/dev/sr1"));

        QSignalSpy finished(&chooser, &QDialog::finished);
        chooser.open();
        chooser.findChild<QPushButton *>(QStringLiteral("uploadButton"))->click();
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished[0][0].toInt(), 1);
    }

    void albumPromptFieldsArtworkAndReleases()
    {
        AudioCDMetadataController prompt;
        QVERIFY(prompt.albumArtworkImageView()->isShowingDefaultArtwork());
        QVERIFY(prompt.albumArtworkData().isEmpty());

        // A whole number as typed, sign and all; anything else is disc 1.
        for (const auto &[text, number] : QList<QPair<QString, qint64>>{{"2", 2},
                                                                        {"+3", 3},
                                                                        {"0", 0},
                                                                        {"-2", -2},
                                                                        {"2a", 1},
                                                                        {" 2", 1},
                                                                        {"2 ", 1},
                                                                        {"", 1},
                                                                        {"-", 1},
                                                                        {"99999999999999999999", 1}}) {
            prompt.discNumberField()->setText(text);
            QCOMPARE(prompt.discNumber(), number);
        }

        AlbumPromptInput input;
        input.albumTitle = QStringLiteral("Harbour Lights");
        input.discNumber = 3;
        input.artwork = DiscServicesData::imageBytes("PNG", 32);
        for (const char *id : {"a", "b"}) {
            ReleaseCandidate release;
            release.id = QString::fromLatin1(id);
            release.title = QStringLiteral("Pressing ") + release.id;
            input.releases << release;
        }
        input.releaseId = QStringLiteral("a");
        prompt.fill(input);
        QCOMPARE(prompt.albumTitle(), QStringLiteral("Harbour Lights"));
        QCOMPARE(prompt.albumArtist(), QStringLiteral("Unknown Artist"));
        QCOMPARE(prompt.discNumber(), 3);
        QVERIFY(!prompt.albumArtworkImageView()->isShowingDefaultArtwork());
        QCOMPARE(prompt.albumArtworkData(), *input.artwork);
        QCOMPARE(prompt.releasePopUp()->count(), 2);
        QCOMPARE(prompt.releasePopUp()->currentIndex(), 0);

        // Stepping through the picker asks for the release it rests on, once.
        QSignalSpy chosen(&prompt, &AudioCDMetadataController::releaseChosen);
        prompt.releasePopUp()->setCurrentIndex(1);
        prompt.releasePopUp()->setCurrentIndex(0);
        prompt.releasePopUp()->setCurrentIndex(1);
        QTRY_COMPARE(chosen.size(), 1);
        QTest::qWait(400);
        QCOMPARE(chosen.size(), 1);
        QCOMPARE(chosen[0][0].toString(), QStringLiteral("b"));
        // Filling again (for the release picked) asks for nothing more.
        input.releaseId = QStringLiteral("b");
        prompt.fill(input);
        QCOMPARE(chosen.size(), 1);
        QCOMPARE(prompt.releasePopUp()->currentIndex(), 1);
    }

    // The folder chooser takes a folder, and a disc image too, but no other file.
    void folderChooserTakesDiscImages()
    {
        const QString root = m_dir.filePath(QStringLiteral("chooser"));
        QVERIFY(QDir().mkpath(root + QStringLiteral("/Album")));
        for (const char *name : {"disc.cue", "disc.bin", "notes.txt"}) {
            QFile file(root + QLatin1Char('/') + QLatin1String(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("FILE \"disc.bin\" BINARY\n");
        }
        const auto choose = [&](const QString &name) {
            FolderOrDiscImageDialog dialog;
            dialog.setDirectory(root);
            dialog.selectFile(name);
            dialog.open();
            dialog.accept();
            const bool accepted = dialog.result() == QDialog::Accepted;
            return accepted ? dialog.selectedFiles() : QStringList();
        };
        QCOMPARE(choose(QStringLiteral("Album")), QStringList{root + QStringLiteral("/Album")});
        QCOMPARE(choose(QStringLiteral("disc.cue")), QStringList{root + QStringLiteral("/disc.cue")});
        QCOMPARE(choose(QStringLiteral("notes.txt")), QStringList());
    }

    // The sample disc through the window: the CD buttons appear, the album
    // prompt opens window-modal over the window, its data goes into every
    // track, and the tracks arrive as FLAC files with the artwork shown.
    void sampleDiscThroughTheWindow()
    {
        DiscImages::clear();
        const QString image = makeSamples(m_server, m_dir.filePath(QStringLiteral("music")));
        QVERIFY(!image.isEmpty());

        MainWindowController window;
        signInThroughTheWindow(window);
        QVERIFY(window.ui()->searchUploadCDButton->isHidden());

        // Two discs: the chooser, window-modal; taking both out closes it.
        const QString second = m_dir.filePath(QStringLiteral("second.cue"));
        QVERIFY(QFile::copy(image, second));
        QVERIFY(QFile::copy(QFileInfo(image).path() + QStringLiteral("/sample-cd.bin"),
                            m_dir.filePath(QStringLiteral("second.bin"))));
        QVERIFY(DiscImages::insert(image));
        QVERIFY(DiscImages::insert(second));
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->searchUploadCDButton->isVisible(), 5000);
        window.ui()->searchUploadCDButton->click();
        QVERIFY(window.cdPrompter()->chooser());
        QCOMPARE(window.cdPrompter()->chooser()->windowModality(), Qt::WindowModal);
        QCOMPARE(window.cdPrompter()->chooser()->browser()->count(), 2);
        DiscImages::clear();
        QTRY_VERIFY_WITH_TIMEOUT(!window.cdPrompter()->chooser(), 5000);
        QVERIFY(window.ui()->searchUploadCDButton->isHidden());
        QVERIFY(!window.session()->cdFlow()->isBeginningUpload());

        QVERIFY(DiscImages::insert(image));
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->searchUploadCDButton->isVisible(), 5000);
        QVERIFY(window.ui()->searchEjectCDButton->isVisible());
        window.ui()->searchUploadCDButton->click();
        window.ui()->searchUploadCDButton->click();
        QTRY_VERIFY_WITH_TIMEOUT(window.cdPrompter()->albumPrompt(), 30000);
        AudioCDMetadataController *prompt = window.cdPrompter()->albumPrompt();
        QCOMPARE(prompt->parentWidget(), &window);
        QCOMPARE(prompt->windowModality(), Qt::WindowModal);
        QCOMPARE(prompt->albumTitle(), QStringLiteral("Harbour Lights"));
        QCOMPARE(prompt->releasePopUp()->count(), 2);
        QVERIFY(!prompt->albumArtworkImageView()->isShowingDefaultArtwork());
        prompt->albumTitleField()->setText(QStringLiteral("Harbour Lights (Window)"));
        prompt->discNumberField()->setText(QStringLiteral("4"));
        prompt->tagNameField()->setText(QStringLiteral("From CD"));
        const auto before = storedFilesByName(m_server);
        prompt->findChild<QPushButton *>(QStringLiteral("continueButton"))->click();

        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeUpload), 5000);
        QVERIFY(window.ui()->audioCDArtworkImageView->isVisible());
        QVERIFY(!window.ui()->audioCDArtworkImageView->pixmap().isNull());
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeResult), 60000);
        QCOMPARE(window.session()->completedFiles().size(), 3);

        // The prompt's data reached every track (the audio and the found tags
        // are the session's, checked in tst_cdsession).
        const auto added = storedSince(m_server, before);
        QCOMPARE(added.size(), 3);
        for (const QJsonObject &stored : added) {
            QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("From CD"));
            const QHash<QString, QString> tags = flacTags(stored.value("stored_path").toString());
            QCOMPARE(tags.value("album"), QStringLiteral("Harbour Lights (Window)"));
            QCOMPARE(tags.value("discnumber"), QStringLiteral("4"));
        }

        // Starting over ejects the disc; the Eject button does too.
        window.ui()->resultsStartOverButton->click();
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), 5000);
        // The eject runs on a worker once the run has stopped.
        QTRY_VERIFY_WITH_TIMEOUT(DiscImages::list().isEmpty(), 5000);
        QVERIFY(window.ui()->searchUploadCDButton->isHidden());
        QVERIFY(DiscImages::insert(image));
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->searchEjectCDButton->isVisible(), 5000);
        window.ui()->searchEjectCDButton->click();
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->searchUploadCDButton->isHidden(), 5000);
        QVERIFY(DiscImages::list().isEmpty());
        LyraboxService::sharedService().stopUploads();
    }

    // Ordinary actions while a lookup or a rip is still going, with the
    // MusicBrainz stand-in slowed down: Cancel on the overlay, quick release
    // changes, Continue while a pick is looked up, a pick whose lookup
    // fails, Start Over during a rip. None crashes, blocks or sends a
    // release the prompt does not show.
    void actionsWhileALookupOrARipRuns()
    {
        DiscImages::clear();
        DiscServicesData data(m_server.dataDirectory());
        DiscImage::Options options = DiscImage::audioOptions({300, 310, 320, 330});
        options.seed = 77;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("five"), options);
        QVERIFY(image.isValid());
        const QString discId = image.musicBrainzDiscId();
        QList<DiscServicesData::Release> releases;
        for (int i = 0; i < 5; ++i) {
            const QString n = QString::number(i);
            releases << DiscServicesData::release(
                QStringLiteral("rel-five-") + n, QStringLiteral("Pressing ") + n, QStringLiteral("200") + n,
                {{{discId}, DiscServicesData::tracksTitled({"a" + n, "b" + n, "c" + n, "d" + n})}});
            data.addRelease(releases.last());
            data.addCoverArt(releases.last().id, QStringLiteral("jpg"), DiscServicesData::imageBytes("JPG"));
            data.delayAnswer(QStringLiteral("musicbrainz/release/rel-five-%1.xml").arg(i), 300);
        }
        data.addDisc(discId, releases);
        data.delayAnswer(QStringLiteral("musicbrainz/discid/%1.xml").arg(discId), 800);

        MainWindowController window;
        signInThroughTheWindow(window);
        AudioCDFlow *flow = window.session()->cdFlow();
        flow->setLookupTimeout(1000);
        QVERIFY(DiscImages::insert(image.cuePath()));
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->searchUploadCDButton->isVisible(), 5000);

        // Cancel on the overlay ends the sequence at once; its late answer
        // brings nothing back.
        window.ui()->searchUploadCDButton->click();
        QTRY_VERIFY(window.ui()->waitingCancelButton->isVisible());
        QVERIFY(window.ui()->maskContainerView->isVisible());
        window.ui()->waitingCancelButton->click();
        QVERIFY(!window.ui()->maskContainerView->isVisible());
        QVERIFY(!flow->isBeginningUpload());
        QTest::qWait(1500);
        QVERIFY(!window.cdPrompter()->albumPrompt());
        QVERIFY(!window.ui()->maskContainerView->isVisible());

        // Ten quick release changes: one lookup for the release the picker
        // rests on, whose data the prompt then shows.
        window.ui()->searchUploadCDButton->click();
        QTRY_VERIFY_WITH_TIMEOUT(window.cdPrompter()->albumPrompt(), 30000);
        QVERIFY(!window.ui()->maskContainerView->isVisible());
        AudioCDMetadataController *prompt = window.cdPrompter()->albumPrompt();
        QCOMPARE(prompt->releasePopUp()->count(), 5);
        for (int step = 0; step < 10; ++step) {
            prompt->releasePopUp()->setCurrentIndex((step * 3 + 1) % 5);
            QTest::qWait(50);
        }
        const int rested = prompt->releasePopUp()->currentIndex();
        QTRY_VERIFY(prompt->isBusy());
        QTRY_VERIFY_WITH_TIMEOUT(!prompt->isBusy(), 10000);
        QCOMPARE(prompt->albumTitle(), QStringLiteral("Pressing %1").arg(rested));
        QCOMPARE(window.session()->audioCDID3Tags().value(flow->metadata().trackPaths.value(1)).title(),
                 QStringLiteral("b%1").arg(rested));

        // A pick whose lookup fails keeps what is shown and typed, and says so.
        data.delayAnswer(QStringLiteral("musicbrainz/release/rel-five-%1.xml").arg((rested + 1) % 5), 3000);
        prompt->albumTitleField()->setText(QStringLiteral("Typed Title"));
        prompt->releasePopUp()->setCurrentIndex((rested + 1) % 5);
        QTRY_VERIFY(prompt->isBusy());
        // Continue waits for the pick: the tracks go up as the prompt shows them.
        prompt->continueButton()->click();
        QVERIFY(window.cdPrompter()->albumPrompt());
        QTRY_VERIFY_WITH_TIMEOUT(!prompt->isBusy(), 10000);
        QVERIFY2(prompt->statusText().contains(QStringLiteral("could not be looked up")),
                 qPrintable(prompt->statusText()));
        QCOMPARE(prompt->albumTitle(), QStringLiteral("Typed Title"));
        QCOMPARE(prompt->releasePopUp()->currentIndex(), rested);

        // Start Over while a track is read: the rip stops before the disc
        // goes, and the window is back on the Search page.
        ripSimulateUnreadableSectors({image.trackFirstSector(0) + 100}, 3000);
        prompt->continueButton()->click();
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeUpload), 5000);
        QTest::qWait(500);
        QCOMPARE(window.session()->completedFiles().size(), 0);
        AlertDriver alerts;
        alerts.answer(QStringLiteral("Start Over"));
        window.ui()->uploadStartOverButton->click();
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(DiscImages::list().isEmpty(), 10000);
        ripSimulateUnreadableSectors({});
        QVERIFY(!window.ui()->maskContainerView->isVisible());
        LyraboxService::sharedService().stopUploads();
    }
};

QTEST_MAIN(TestCDPrompts)
#include "tst_cdprompts.moc"
