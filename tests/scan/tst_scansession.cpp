#include "scantree.h"

#include "app/logger.h"
#include "platform/discimages.h"
#include "platform/paths.h"
#include "platform/settings.h"
#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"
#include "support/discimage.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace ScanTree;

namespace {

// Answers alerts with a fixed button and remembers what was asked.
class RecordingPrompter : public SessionPrompter
{
public:
    struct Alert
    {
        QString message, informative, first, second, third;
    };
    QList<Alert> alerts;
    int answer = kAlertFirstButtonReturn;
    bool alertShowing = false;

    int showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                 const QString &defaultButton, const QString &alternateButton,
                                 const QString &otherButton) override
    {
        alerts.append({messageText, informativeText, defaultButton, alternateButton, otherButton});
        return answer;
    }
    bool hasVisibleAlert() const override { return alertShowing; }
    void startWaitingAnimation(const QString &) override {}
    void stopWaitingAnimation() override {}
};

class LogWatch
{
public:
    LogWatch() : m_start(Logger::logSize()) {}
    QStringList lines() const
    {
        QFile file(Logger::logFileURL().toLocalFile());
        if (!file.open(QIODevice::ReadOnly) || !file.seek(m_start)) {
            return {};
        }
        QStringList result;
        for (const QString &line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            result << line.mid(line.indexOf(QStringLiteral(": ")) + 2);
        }
        return result;
    }

private:
    qint64 m_start;
};

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

} // namespace

class TestScanSession : public QObject
{
    Q_OBJECT

private:
    DevServerProcess m_server;
    QTemporaryDir m_dir;

    // A session on the Search page, as after signing in.
    std::unique_ptr<SessionModel> makeSession(RecordingPrompter *prompter)
    {
        auto session = std::make_unique<SessionModel>(prompter);
        session->setMainPageType(MainPageTypeSearch);
        return session;
    }

    // Waits for the scan to end (the spinner stops) and for its last hand-over.
    static bool waitForScan(SessionModel &session)
    {
        QDeadlineTimer deadline(60000);
        while (session.isFileSearchInProgress() && !deadline.hasExpired()) {
            QTest::qWait(10);
        }
        return !session.isFileSearchInProgress() && session.folderScanRunner().waitForDone(60000);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_dir.isValid());
        // The supported formats come with the sign-in.
        LyraboxService &service = LyraboxService::sharedService();
        service.loginWithEmail(QString::fromLatin1(DevServerProcess::kDemoEmail),
                               QString::fromLatin1(DevServerProcess::kDemoPassword));
        QTRY_VERIFY_WITH_TIMEOUT(!service.getSupportedFormatList().isEmpty(), 60000);
        QVERIFY(service.getSupportedFormatList().contains(QStringLiteral("mp3")));
        QVERIFY(service.getSupportedFormatList().contains(QStringLiteral("aiff")));
    }

    void cleanup() { DiscImages::clear(); }

    void searchFindsFilesAndFillsTheListPage()
    {
        const QString root = m_dir.filePath(QStringLiteral("library"));
        QVERIFY(writeFile(root + QStringLiteral("/A/one.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/A/two.FLAC")));
        QVERIFY(writeFile(root + QStringLiteral("/B/three.m4a")));
        QVERIFY(writeFile(root + QStringLiteral("/B/cover.jpg")));
        const QString single = m_dir.filePath(QStringLiteral("single.ogg"));
        QVERIFY(writeFile(single));

        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        session->foundFiles().append(QStringLiteral("/left/over.mp3"));
        session->setSearchFolderPath({root, single});
        QSignalSpy labels(session.get(), &SessionModel::fileCountLabelTextChanged);
        QSignalSpy listSetUps(session.get(), &SessionModel::listContainerViewSetUp);

        LogWatch log;
        session->OnSearchFolder();
        // At once: the List page, a spinner, the searching label and no upload yet.
        QCOMPARE(session->mainPageType(), quint32(MainPageTypeList));
        QVERIFY(session->isFileSearchInProgress());
        QVERIFY(!session->isBeginUploadEnabled());
        QCOMPARE(session->fileCountLabelText(), QStringLiteral("Searching for files..."));
        QVERIFY(waitForScan(*session));

        QCOMPARE(sorted(session->foundFiles().toList()),
                 sorted({root + QStringLiteral("/A/one.mp3"), root + QStringLiteral("/A/two.FLAC"),
                         root + QStringLiteral("/B/three.m4a"), single}));
        QCOMPARE(session->foundFiles().last(), single); // the second root comes after the first
        QCOMPARE(session->fileCountLabelText(),
                 QStringLiteral("4 files were found. Click a filename to remove it from the list."));
        QVERIFY(session->isBeginUploadEnabled());
        QVERIFY(prompter.alerts.isEmpty());
        // Entering the page set it up once, the scan's end once more.
        QCOMPARE(listSetUps.size(), 2);
        QCOMPARE(labels.first().first().toString(), QStringLiteral("0 files were found. "));
        QCOMPARE(log.lines(), (QStringList{QStringLiteral("Scanning directory: (\"%1\", \"%2\")").arg(root, single),
                                           QStringLiteral("SetPage(List)"),
                                           QStringLiteral("Scan complete. Found 4 files. 0 scan errors.")}));

        // Taking a file off leaves the label as the scan left it.
        QSignalSpy removed(session.get(), &SessionModel::foundFileRemoved);
        session->removeFoundFile(root + QStringLiteral("/B/three.m4a"));
        QCOMPARE(session->foundFiles().size(), 3);
        QCOMPARE(removed.size(), 1);
        QCOMPARE(session->fileCountLabelText(),
                 QStringLiteral("4 files were found. Click a filename to remove it from the list."));
    }

    void nothingFoundLeavesTheButtonOff()
    {
        const QString empty = m_dir.filePath(QStringLiteral("empty"));
        QVERIFY(QDir().mkpath(empty));
        QVERIFY(writeFile(empty + QStringLiteral("/readme.txt")));
        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        session->setSearchFolderPath({empty});
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));
        QCOMPARE(session->fileCountLabelText(), QStringLiteral("0 files were found. "));
        QVERIFY(!session->isBeginUploadEnabled());
    }

    void walkErrorsAreSummedUpInOneAlert_data()
    {
        QTest::addColumn<int>("errors");
        QTest::addColumn<QString>("text");
        QTest::newRow("one") << 1
                             << QStringLiteral("1 error occurred when searching. Some files may not appear in "
                                               "the search results.");
        QTest::newRow("two") << 2
                             << QStringLiteral("2 errors occurred when searching. Some files may not appear in "
                                               "the search results.");
    }
    void walkErrorsAreSummedUpInOneAlert()
    {
        QFETCH(int, errors);
        QFETCH(QString, text);
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath(QStringLiteral("kept.mp3"))));
        for (int i = 0; i < errors; ++i) {
            QVERIFY(!makeTooDeepFolder(dir.path(), QStringLiteral("deep%1").arg(i)).isEmpty());
        }
        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        session->setSearchFolderPath({dir.path()});
        LogWatch log;
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));
        for (int i = 0; i < errors; ++i) {
            removeTree(dir.filePath(QStringLiteral("deep%1").arg(i)));
        }

        QCOMPARE(session->foundFiles().toList(), QStringList{dir.filePath(QStringLiteral("kept.mp3"))});
        QVERIFY(session->isBeginUploadEnabled());
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts.first().message, QStringLiteral("Scan Errors"));
        QCOMPARE(prompter.alerts.first().informative, text);
        QCOMPARE(prompter.alerts.first().first, QStringLiteral("OK"));
        QVERIFY(log.lines().contains(QStringLiteral("Scan complete. Found 1 files. %1 scan errors.").arg(errors)));
    }

    void dropsDependOnThePage()
    {
        const QString first = m_dir.filePath(QStringLiteral("drop/first.mp3"));
        const QString second = m_dir.filePath(QStringLiteral("drop/more/second.wav"));
        QVERIFY(writeFile(first));
        QVERIFY(writeFile(second));
        RecordingPrompter prompter;
        auto session = makeSession(&prompter);

        // On the Search page a drop is a new search of what was dropped.
        LogWatch log;
        session->filesDropped({first});
        QVERIFY(waitForScan(*session));
        QCOMPARE(session->searchFolderPath(), QStringList{first});
        QCOMPARE(session->foundFiles().toList(), QStringList{first});
        QCOMPARE(log.lines().mid(0, 2), (QStringList{QStringLiteral("Dropped: (\"%1\")").arg(first),
                                                     QStringLiteral("Scanning directory: (\"%1\")").arg(first)}));

        // On the List page it adds behind the list, without starting over.
        const QString more = m_dir.filePath(QStringLiteral("drop/more"));
        LogWatch appendLog;
        session->filesDropped({more, first});
        QVERIFY(!session->isFileSearchInProgress());
        QCOMPARE(session->searchFolderPath(), QStringList{first});
        QTRY_COMPARE_WITH_TIMEOUT(session->foundFiles().toList(), (QStringList{first, second}), 60000);
        QTRY_VERIFY_WITH_TIMEOUT(
            appendLog.lines().contains(QStringLiteral("Scan complete. Found 2 files. 0 scan errors.")), 60000);
        QCOMPARE(appendLog.lines().first(), QStringLiteral("Dropped: (\"%1\", \"%2\")").arg(more, first));
        QCOMPARE(session->fileCountLabelText(),
                 QStringLiteral("2 files were found. Click a filename to remove it from the list."));

        // On the Upload page the user is asked first.
        session->setMainPageType(MainPageTypeUpload);
        prompter.answer = kAlertSecondButtonReturn;
        session->filesDropped({more});
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts.first().message, QStringLiteral("Upload Files"));
        QCOMPARE(prompter.alerts.first().informative, QStringLiteral("This will abort the current upload, proceed?"));
        QCOMPARE(prompter.alerts.first().first, QStringLiteral("Upload"));
        QCOMPARE(prompter.alerts.first().second, QStringLiteral("Cancel"));
        QCOMPARE(session->mainPageType(), quint32(MainPageTypeUpload));
        QCOMPARE(session->searchFolderPath(), QStringList{first});

        prompter.answer = kAlertFirstButtonReturn;
        session->filesDropped({more});
        QCOMPARE(session->mainPageType(), quint32(MainPageTypeList));
        QCOMPARE(session->searchFolderPath(), QStringList{more});
        QVERIFY(waitForScan(*session));
        QCOMPARE(session->foundFiles().toList(), QStringList{second});
    }

    void cancelledScanLeavesNoTrace()
    {
        const QString big = m_dir.filePath(QStringLiteral("big"));
        for (int folder = 0; folder < 100; ++folder) {
            const QString path = big + QStringLiteral("/%1").arg(folder);
            QVERIFY(QDir().mkpath(path));
            for (int file = 0; file < 200; ++file) {
                QFile(path + QStringLiteral("/%1.mp3").arg(file)).open(QIODevice::WriteOnly);
            }
        }
        const QString small = m_dir.filePath(QStringLiteral("small"));
        QVERIFY(writeFile(small + QStringLiteral("/only.mp3")));

        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        session->setSearchFolderPath({big});
        LogWatch log;
        session->OnSearchFolder();
        session->setIsFileSearchCanceled(true); // as Start Over does
        QVERIFY(session->folderScanRunner().waitForDone(60000));
        QCoreApplication::processEvents();
        QVERIFY(session->foundFiles().size() < 20000);
        QVERIFY(session->isFileSearchInProgress()); // no completion ran
        QCOMPARE(session->fileCountLabelText(), QStringLiteral("Searching for files..."));
        for (const QString &line : log.lines()) {
            QVERIFY2(!line.startsWith(QStringLiteral("Scan complete")), qPrintable(line));
        }

        // A new search starts clean: nothing of the old one drifts in.
        session->setMainPageType(MainPageTypeSearch);
        session->setSearchFolderPath({small});
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));
        QCoreApplication::processEvents();
        QCOMPARE(session->foundFiles().toList(), QStringList{small + QStringLiteral("/only.mp3")});
    }

    void aSessionGoingAwayStopsItsScan()
    {
        const QString big = m_dir.filePath(QStringLiteral("big"));
        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        session->setSearchFolderPath({big});
        session->OnSearchFolder();
        session.reset(); // waits for the worker, which stops at its next entry
        QCoreApplication::processEvents();
    }

    void searchPageSetUp()
    {
        RecordingPrompter prompter;
        SessionModel session(&prompter);
        session.retryFiles() << QStringLiteral("/retry/me.mp3");
        session.completedFiles() << QStringLiteral("/done.mp3");
        session.erroredFiles() << QStringLiteral("/failed.mp3");
        session.foundFiles().append(QStringLiteral("/found.mp3"));
        session.setSearchFolderPath({m_dir.filePath(QStringLiteral("vanished"))});
        QSignalSpy texts(&session, &SessionModel::searchFolderPathTextChanged);
        QSignalSpy setUps(&session, &SessionModel::searchContainerViewSetUp);

        session.setMainPageType(MainPageTypeSearch);
        QVERIFY(session.foundFiles().isEmpty());
        QVERIFY(session.completedFiles().isEmpty());
        QVERIFY(session.erroredFiles().isEmpty());
        QCOMPARE(session.retryFiles(), QStringList{QStringLiteral("/retry/me.mp3")});
        // A first root that has gone gets the Music folder behind it.
        QCOMPARE(session.searchFolderPath(),
                 (QStringList{m_dir.filePath(QStringLiteral("vanished")), Paths::musicDirectory()}));
        QCOMPARE(texts.last().first().toString(), QStringLiteral("Multiple Folders"));
        QCOMPARE(setUps.size(), 1);

        // The path field and the folder chooser.
        session.OnPathChanged(QStringLiteral("/typed/by hand"));
        QCOMPARE(session.searchFolderPath(), QStringList{QStringLiteral("/typed/by hand")});
        session.chooseSearchFolders({QStringLiteral("/a"), QStringLiteral("/b")});
        QCOMPARE(session.searchFolderPath(), (QStringList{QStringLiteral("/a"), QStringLiteral("/b")}));
        QCOMPARE(Settings::string(kSettingsLastFolderPath), QStringLiteral("/b"));
        QCOMPARE(texts.last().first().toString(), QStringLiteral("Multiple Folders"));
        session.chooseSearchFolders({QStringLiteral("/c")});
        QCOMPARE(texts.last().first().toString(), QStringLiteral("/c"));
    }

    void discImagesAreFoundAndStartTheCDFlow()
    {
        QTemporaryDir dir;
        const DiscImage image =
            DiscImage::create(dir.path(), QStringLiteral("disc"), DiscImage::audioOptions({150, 150}));
        QVERIFY(image.isValid());
        RecordingPrompter prompter;
        auto session = makeSession(&prompter);
        QSignalSpy disks(session.get(), &SessionModel::foundDisksChanged);

        // Searching a disc image inserts it and hands over to the CD flow.
        session->setSearchFolderPath({image.cuePath()});
        LogWatch log;
        session->OnSearchFolder();
        QCOMPARE(session->mainPageType(), quint32(MainPageTypeSearch));
        QCOMPARE(session->foundDisks(), QStringList{image.cuePath()});
        QCOMPARE(disks.size(), 1);
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("Scanning directory: (\"%1\")").arg(image.cuePath()),
                              QStringLiteral("discoverAudioCDs: 1 CDs found"), QStringLiteral("Begin Uploading CD")}));

        // The watch looks only on the Search page and not under an alert,
        // and sees a change of the count only.
        DiscImages::eject(image.cuePath());
        prompter.alertShowing = true;
        session->discoverAudioCDs();
        QCOMPARE(session->foundDisks().size(), 1);
        prompter.alertShowing = false;
        session->setMainPageType(MainPageTypeList);
        session->discoverAudioCDs();
        QCOMPARE(session->foundDisks().size(), 1);
        session->setMainPageType(MainPageTypeSearch); // runs the watch once
        QVERIFY(session->foundDisks().isEmpty());
        QCOMPARE(disks.size(), 2);
        QVERIFY(disks.last().first().toStringList().isEmpty());
        QVERIFY(log.lines().contains(QStringLiteral("discoverAudioCDs: 0 CDs found")));
    }
};

QTEST_GUILESS_MAIN(TestScanSession)
#include "tst_scansession.moc"
