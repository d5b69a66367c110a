// The session's CD flow against the local service with generated disc
// images: the chooser and the guard against double starts, the album prompt
// with the release picker, whole runs whose tracks arrive as tagged FLAC, and
// the "CD Rip Error" answers on a damaged disc.
#include "cdroadsupport.h"

#include "audio/cdripper.h"
#include "cd/discsession.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/audiocdflow.h"
#include "session/audiocdprompter.h"
#include "session/sessionmodel.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"
#include "support/logtesting.h"
#include "support/sessiontesting.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

// Answers the CD prompts from the test and records what they were asked.
class TestCDPrompter : public AudioCDPrompter
{
public:
    QList<QStringList> choosers;     // the list each chooser opened with
    QList<QStringList> chooserLists; // lists given to the open chooser
    int chooserCloses = 0;
    std::function<void(int, const QString &)> chooserDone;

    QList<AlbumPromptInput> prompts;
    QList<AlbumPromptInput> refills;
    std::function<void(const QString &)> releaseChosen;
    std::function<void(int, const AlbumPromptResult &)> albumDone;

    void chooseDisk(const QStringList &disks, std::function<void(int, const QString &)> done) override
    {
        choosers << disks;
        chooserDone = std::move(done);
    }
    void setChooserDisks(const QStringList &disks) override { chooserLists << disks; }
    void closeChooser() override
    {
        ++chooserCloses;
        if (auto done = std::exchange(chooserDone, {})) {
            done(0, QString());
        }
    }
    void promptAlbum(const AlbumPromptInput &input, std::function<void(const QString &)> chosen,
                     std::function<void(int, const AlbumPromptResult &)> done) override
    {
        prompts << input;
        releaseChosen = std::move(chosen);
        albumDone = std::move(done);
    }
    void refillAlbumPrompt(const AlbumPromptInput &input) override { refills << input; }
    void setAlbumPromptBusy(bool isBusy, const QString &message) override
    {
        busy = isBusy;
        status = message;
    }
    void selectAlbumPromptRelease(const QString &releaseId) override { selected = releaseId; }

    bool busy = false;
    QString status;
    QString selected;
};

// A session with the CD prompter.
struct CDRun
{
    ScriptedPrompter prompter;
    TestCDPrompter cd;
    SessionModel model{&prompter};
    CDRun() { model.cdFlow()->setPrompter(&cd); }
};

} // namespace

class TestCDSession : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    std::unique_ptr<DiscServicesData> m_data;
    DiscImage m_disc; // known to the stand-ins, two releases
    int m_images = 0;

    DiscImage makeImage(const QList<int> &sectors)
    {
        DiscImage::Options options = DiscImage::audioOptions(sectors);
        options.seed = quint32(++m_images);
        return DiscImage::create(m_dir.path(), QStringLiteral("disc%1").arg(m_images), options);
    }

    // A signed-in session on the Search page, with the CD prompter.
    void signIn(SessionModel &model)
    {
        model.attachToService();
        model.setEmail(QString::fromLatin1(DevServerProcess::kDemoEmail));
        model.setPassword(QString::fromLatin1(DevServerProcess::kDemoPassword));
        model.OnLogin();
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeSearch), 30000);
    }

    // The one disc inserted, the CD button pressed, the album prompt up.
    void startWithDisc(SessionModel &model, TestCDPrompter &cd, const DiscImage &image)
    {
        QVERIFY(DiscImages::insert(image.cuePath()));
        model.discoverAudioCDs();
        QCOMPARE(model.foundDisks().size(), 1);
        model.cdFlow()->OnBeginUploadCD();
        QTRY_COMPARE_WITH_TIMEOUT(cd.prompts.size(), 1, 30000);
    }

    AlbumPromptResult givenAlbum() const
    {
        AlbumPromptResult album;
        album.albumTitle = QStringLiteral("Given Album");
        album.albumArtist = QStringLiteral("Given Artist");
        album.discNumber = 2;
        album.playlistName = QStringLiteral("CD Playlist");
        album.tagName = QStringLiteral("CD Tag");
        return album;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        DiscServicesData::pointAt(m_server);
        m_data = std::make_unique<DiscServicesData>(m_server.dataDirectory());

        m_disc = makeImage({300, 320, 340});
        QVERIFY(m_disc.isValid());
        const QString discId = m_disc.musicBrainzDiscId();
        DiscServicesData::Release first = DiscServicesData::release(
            QStringLiteral("rel-first"), QStringLiteral("Found Album"), QStringLiteral("1999"),
            {{{discId}, DiscServicesData::tracksTitled({"One", "Two", "Three"}, QStringLiteral("Found Band"))}},
            QStringLiteral("Found Band"));
        DiscServicesData::Release second = first;
        second.id = QStringLiteral("rel-second");
        second.title = QStringLiteral("Reissue Album");
        second.date = QStringLiteral("2010");
        m_data->addDisc(discId, {first, second});
        m_data->addRelease(first);
        m_data->addRelease(second);
        m_data->addCoverArt(first.id, QStringLiteral("png"), DiscServicesData::imageBytes("PNG"));
    }

    void cleanup()
    {
        ripSimulateUnreadableSectors({});
        LyraboxService::sharedService().stopUploads();
        QTest::qWait(20);
        DiscImages::clear();
        DiscSession::closeAll();
    }

    // Two discs bring up the chooser; a second press only refreshes its list;
    // taking the last disc out closes it. One disc needs no chooser, and two
    // quick presses start one sequence.
    void chooserAndDoubleStarts()
    {
        CDRun run;
        auto &[prompter, cd, model] = run;
        model.setMainPageType(MainPageTypeSearch);
        const DiscImage a = makeImage({100, 100});
        const DiscImage b = makeImage({120});
        QVERIFY(DiscImages::insert(a.cuePath()));
        QVERIFY(DiscImages::insert(b.cuePath()));
        QSignalSpy disksChanged(&model, &SessionModel::foundDisksChanged);
        model.discoverAudioCDs();
        QCOMPARE(model.foundDisks().size(), 2);
        QCOMPARE(disksChanged.size(), 1);
        model.discoverAudioCDs(); // the same count: no news
        QCOMPARE(disksChanged.size(), 1);

        model.cdFlow()->OnBeginUploadCD();
        QCOMPARE(cd.choosers, QList<QStringList>{model.foundDisks()});
        QVERIFY(model.cdFlow()->isBeginningUpload());
        model.cdFlow()->OnBeginUploadCD();
        QCOMPARE(cd.choosers.size(), 1);
        QCOMPARE(cd.chooserLists, QList<QStringList>{model.foundDisks()});

        DiscImages::eject(a.cuePath());
        model.discoverAudioCDs();
        QCOMPARE(cd.chooserCloses, 0); // one disc is left
        DiscImages::eject(b.cuePath());
        model.discoverAudioCDs();
        QVERIFY(model.foundDisks().isEmpty());
        QCOMPARE(cd.chooserCloses, 1);
        QVERIFY(!model.cdFlow()->isDiskChooserOpen());
        QVERIFY(!model.cdFlow()->isBeginningUpload());

        // One disc: straight to the sequence, once.
        QVERIFY(DiscImages::insert(a.cuePath()));
        model.discoverAudioCDs();
        prompter.overlay.clear();
        model.cdFlow()->OnBeginUploadCD();
        model.cdFlow()->OnBeginUploadCD();
        QCOMPARE(cd.choosers.size(), 1);
        QCOMPARE(prompter.overlay.count(QStringLiteral("start:Loading CD...")), 1);
        QTRY_COMPARE_WITH_TIMEOUT(cd.prompts.size(), 1, 30000);
        QTest::qWait(100);
        QCOMPARE(cd.prompts.size(), 1);
        QCOMPARE(prompter.overlay.last(), QStringLiteral("stop"));
        // Not signed in, the service has named no supported extension: the
        // track list is empty, and the album prompt still comes, with defaults.
        QVERIFY(model.readyFiles().isEmpty());
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(!cd.prompts[0].albumTitle.has_value());
        cd.albumDone(0, AlbumPromptResult());
        QVERIFY(!model.cdFlow()->isBeginningUpload());
        QVERIFY(model.readyFiles().isEmpty());
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
    }

    // Searching a disc image (typed, chosen or dropped) inserts it and takes
    // the CD way instead of scanning.
    // A disc image dropped or typed on any page is put in; only on the Search
    // page does it start the CD sequence, with that disc and no other.
    void discImageOpenedOnEachPage_data()
    {
        QTest::addColumn<quint32>("page");
        QTest::addColumn<bool>("typed");
        for (const quint32 page : {MainPageTypeSearch, MainPageTypeList, MainPageTypeUpload, MainPageTypeResult}) {
            QTest::addRow("dropped on %s", qPrintable(SessionModel::pageName(page))) << page << false;
            QTest::addRow("typed on %s", qPrintable(SessionModel::pageName(page))) << page << true;
        }
    }

    void discImageOpenedOnEachPage()
    {
        QFETCH(quint32, page);
        QFETCH(bool, typed);
        CDRun run;
        auto &[prompter, cd, model] = run;
        // Another disc is in already.
        model.setMainPageType(MainPageTypeSearch);
        QVERIFY(DiscImages::insert(m_disc.cuePath()));
        model.discoverAudioCDs();
        const DiscImage image = makeImage({90, 95});
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        model.setMainPageType(page);
        if (typed) {
            model.setSearchFolderPath({image.cuePath()});
            model.OnSearchFolder();
        } else {
            model.filesDropped({image.cuePath()});
        }
        QVERIFY(DiscImages::contains(image.cuePath()));
        QCOMPARE(model.mainPageType(), page);
        QCOMPARE(model.cdFlow()->isBeginningUpload(), page == MainPageTypeSearch);
        if (page == MainPageTypeSearch) {
            QTRY_COMPARE_WITH_TIMEOUT(cd.prompts.size(), 1, 30000);
            QCOMPARE(model.cdFlow()->metadata().discId, image.musicBrainzDiscId());
            cd.albumDone(0, AlbumPromptResult());
            return;
        }
        QVERIFY(model.readyFiles().isEmpty());
        // Back on the Search page both discs are offered, the controls shown.
        QSignalSpy disks(&model, &SessionModel::foundDisksChanged);
        model.setMainPageType(MainPageTypeSearch);
        QCOMPARE(disks.size(), 1);
        QCOMPARE(model.foundDisks(), (QStringList{DiscImages::normalizedPath(m_disc.cuePath()), volume}));
    }

    // The disc controls are state: entering the Search page again shows them
    // for the discs still there, the same discs as before or not.
    void discControlsFollowTheDiscsPresent()
    {
        CDRun run;
        auto &[prompter, cd, model] = run;
        model.setMainPageType(MainPageTypeSearch);
        QVERIFY(DiscImages::insert(m_disc.cuePath()));
        model.discoverAudioCDs();
        QSignalSpy disks(&model, &SessionModel::foundDisksChanged);
        model.setSearchFolderPath({m_dir.path()});
        model.OnSearchFolder();
        model.OnCancelSearch();
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
        QCOMPARE(disks.size(), 1);
        QCOMPARE(disks.last().at(0).toStringList(), model.foundDisks());
        QCOMPARE(model.foundDisks().size(), 1);
        // A disc swapped for another between two looks is news too.
        const DiscImage other = makeImage({91});
        DiscImages::clear();
        QVERIFY(DiscImages::insert(other.cuePath()));
        model.discoverAudioCDs();
        QCOMPARE(disks.size(), 2);
        QCOMPARE(model.foundDisks(), QStringList{DiscImages::normalizedPath(other.cuePath())});
    }

    // A path that is no disc at all fails the compilation hard.
    void unreadableDiscSaysCouldNotRip()
    {
        CDRun run;
        auto &[prompter, cd, model] = run;
        model.setMainPageType(MainPageTypeSearch);
        QVERIFY(model.cdFlow()->beginUploadCD(m_dir.filePath(QStringLiteral("no-such-disc.cue"))));
        QTRY_COMPARE_WITH_TIMEOUT(prompter.alerts.size(), 1, 30000);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Could not rip from CD"));
        QVERIFY(!model.cdFlow()->isBeginningUpload());
        QVERIFY(cd.prompts.isEmpty());
    }

    // The whole road: the release picker, the album data given, one track
    // at a time, a damaged track retried, every track at the service as a
    // FLAC of the disc's audio with the tags.
    void wholeDiscWithRetry()
    {
        CDRun run;
        auto &[prompter, cd, model] = run;
        signIn(model);
        startWithDisc(model, cd, m_disc);
        const AlbumPromptInput &input = cd.prompts[0];
        QCOMPARE(input.albumTitle, std::optional<QString>(QStringLiteral("Found Album")));
        QCOMPARE(input.releases.size(), 2);
        QCOMPARE(input.releaseId, QStringLiteral("rel-first"));
        QVERIFY(input.artwork.has_value());

        cd.releaseChosen(QStringLiteral("rel-second"));
        QTRY_COMPARE_WITH_TIMEOUT(cd.refills.size(), 1, 30000);
        QCOMPARE(cd.refills[0].albumTitle, std::optional<QString>(QStringLiteral("Reissue Album")));
        QCOMPARE(cd.refills[0].releaseId, QStringLiteral("rel-second"));
        QCOMPARE(model.audioCDID3Tags().value(model.readyFiles().toList().value(1)).title(),
                 std::optional<QString>(QStringLiteral("Two")));

        // The service fails the first track once: Retry sends it as ripped,
        // without ripping it again. The second track cannot be read at
        // first; Retry finds it mended.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 1}, {"status", 500}}));
        const LogWatch log;
        ripSimulateUnreadableSectors({m_disc.trackFirstSector(1) + 100});
        prompter.answers = {kAlertFirstButtonReturn, kAlertFirstButtonReturn};
        std::function<void()> mendAtRipError = [&] {
            if (prompter.titles().contains(QStringLiteral("CD Rip Error"))) {
                ripSimulateUnreadableSectors({});
            } else {
                prompter.whileAlertShows = mendAtRipError;
            }
        };
        prompter.whileAlertShows = mendAtRipError;
        qsizetype mostInFlight = 0;
        connect(&model, &SessionModel::uploadStateChanged, this,
                [&] { mostInFlight = std::max(mostInFlight, model.uploadingFiles().size()); });
        const auto before = storedFilesByName(m_server);
        AlbumPromptResult album = givenAlbum();
        album.artwork = *input.artwork;
        cd.albumDone(1, album);
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
        QVERIFY(!model.cdFlow()->isBeginningUpload());
        QVERIFY(model.isAudioCDArtworkVisible());
        QCOMPARE(model.cdFlow()->artwork(), *input.artwork);
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), 60000);
        QCOMPARE(mostInFlight, 1);
        QCOMPARE(prompter.titles().count(QStringLiteral("CD Rip Error")), 1);
        QCOMPARE(prompter.titles().count(QStringLiteral("Upload Error")), 1);
        QCOMPARE(log.text().count(QStringLiteral("1 Audio Track.aiff: Begin reading CD")), 1);
        QCOMPARE(log.text().count(QStringLiteral("1 Audio Track.aiff: Sending the track as it was ripped before")), 1);
        QCOMPARE(model.completedFiles().size(), 3);
        QVERIFY(model.erroredFiles().isEmpty());

        const auto added = storedSince(m_server, before);
        const QStringList titles{QStringLiteral("One"), QStringLiteral("Two"), QStringLiteral("Three")};
        QCOMPARE(added.size(), 3);
        for (int i = 0; i < 3; ++i) {
            const QJsonObject stored = added.value(titles[i] + QStringLiteral(".flac"));
            QVERIFY2(!stored.isEmpty(), qPrintable(titles[i]));
            QCOMPARE(stored.value("playlist_name").toString(), QStringLiteral("CD Playlist"));
            QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("CD Tag"));
            const QString path = stored.value("stored_path").toString();
            QCOMPARE(decodedFlacAudio(path), m_disc.trackAudio(i));
            const QHash<QString, QString> tags = flacTags(path);
            QCOMPARE(tags.value("title"), titles[i]);
            QCOMPARE(tags.value("album"), QStringLiteral("Given Album"));
            QCOMPARE(tags.value("albumartist"), QStringLiteral("Given Artist"));
            QCOMPARE(tags.value("discnumber"), QStringLiteral("2"));
            QCOMPARE(tags.value("year"), QStringLiteral("2010"));
        }
    }

    // Skip goes on with the next track; Cancel ends the run. Only what the
    // service holds counts as uploaded.
    void skipAndCancelOnADamagedDisc()
    {
        for (const int answer : {kAlertSecondButtonReturn, kAlertThirdButtonReturn}) {
            DiscImages::clear();
            CDRun run;
            auto &[prompter, cd, model] = run;
            signIn(model);
            const DiscImage image = makeImage({200, 210, 220});
            startWithDisc(model, cd, image);
            ripSimulateUnreadableSectors({image.trackFirstSector(0) + 50});
            // An unknown disc: the alert first, then the prompt.
            QCOMPARE(prompter.titles(), QStringList{QStringLiteral("Metadata Not Found")});
            QCOMPARE(model.readyFiles().size(), 3);
            prompter.answers = {answer};
            const auto before = storedFilesByName(m_server);
            cd.albumDone(1, givenAlbum());
            QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), 60000);
            QTest::qWait(200);
            QCOMPARE(prompter.titles().count(QStringLiteral("CD Rip Error")), 1);
            const auto added = storedSince(m_server, before);
            QCOMPARE(qsizetype(added.size()), model.completedFiles().size());
            if (answer == kAlertSecondButtonReturn) {
                QCOMPARE(model.completedFiles().size(), 2);
                QCOMPARE(model.erroredFiles().size(), 1);
                for (const QString &name : added.keys()) {
                    QVERIFY(name.endsWith(QStringLiteral(".flac")));
                }
            } else {
                QCOMPARE(model.completedFiles().size(), 0);
                QVERIFY(model.uploadingFiles().isEmpty());
            }
            ripSimulateUnreadableSectors({});
            model.detachFromService();
        }
    }
};

QTEST_GUILESS_MAIN(TestCDSession)
#include "tst_cdsession.moc"
