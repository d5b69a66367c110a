#include "scantree.h"

#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"
#include "support/discimage.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace ScanTree;

class TestScanSession : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_dir;

    // A session on the Search page, as after signing in.
    static std::unique_ptr<SessionModel> makeSession(ScriptedPrompter *prompter)
    {
        auto session = std::make_unique<SessionModel>(prompter);
        session->setMainPageType(MainPageTypeSearch);
        return session;
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
        QTRY_VERIFY_WITH_TIMEOUT(service.getSupportedFormatList().contains(QStringLiteral("aiff")), 60000);
    }

    void cleanup() { DiscImages::clear(); }

    void searchFindsFilesAndFillsTheListPage()
    {
        const QString root = m_dir.filePath(QStringLiteral("library"));
        for (const char *name : {"/A/one.mp3", "/A/two.FLAC", "/B/three.m4a", "/B/cover.jpg"}) {
            QVERIFY(writeFile(root + QString::fromUtf8(name)));
        }
        const QString single = m_dir.filePath(QStringLiteral("single.ogg"));
        QVERIFY(writeFile(single));

        ScriptedPrompter prompter;
        auto session = makeSession(&prompter);
        session->fileLists().add(FileList::Found, QStringLiteral("/left/over.mp3"));
        session->setSearchFolderPath({root, single});

        LogWatch log;
        // The List page while it searches is checked on the window in tst_searchpages.
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));

        QCOMPARE(sorted(session->foundFiles().toList()),
                 sorted({root + QStringLiteral("/A/one.mp3"), root + QStringLiteral("/A/two.FLAC"),
                         root + QStringLiteral("/B/three.m4a"), single}));
        QCOMPARE(session->foundFiles().last(), single); // the second root comes after the first
        QVERIFY(prompter.alerts.isEmpty());
        QCOMPARE(log.lines(), (QStringList{QStringLiteral("Scanning directory: (\"%1\", \"%2\")").arg(root, single),
                                           QStringLiteral("SetPage(List)"),
                                           QStringLiteral("Scan complete. Found 4 files. 0 scan errors.")}));

        // Nothing found leaves the button off; large counts are grouped.
        const QString empty = m_dir.filePath(QStringLiteral("empty"));
        QVERIFY(writeFile(empty + QStringLiteral("/readme.txt")));
        session->setMainPageType(MainPageTypeSearch);
        session->setSearchFolderPath({empty});
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));
        QCOMPARE(session->fileCountLabelText(), QStringLiteral("0 files were found. "));
        QVERIFY(!session->isBeginUploadEnabled());
        for (int i = 0; i < 12345; ++i) {
            session->fileLists().add(FileList::Found, QStringLiteral("/m/%1.mp3").arg(i));
        }
        session->setupListContainerView();
        QCOMPARE(session->fileCountLabelText(),
                 QStringLiteral("12,345 files were found. Click a filename to remove it from the list."));
    }

    void walkErrorsAreSummedUpInOneAlert()
    {
        for (int errors : {1, 2}) {
            QTemporaryDir dir;
            QVERIFY(writeFile(dir.filePath(QStringLiteral("kept.mp3"))));
            for (int i = 0; i < errors; ++i) {
                QVERIFY(!makeTooDeepFolder(dir.path(), QStringLiteral("deep%1").arg(i)).isEmpty());
            }
            ScriptedPrompter prompter;
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
            QCOMPARE(prompter.alerts[0].message, QStringLiteral("Scan Errors"));
            QCOMPARE(prompter.alerts[0].informative,
                     QStringLiteral("%1 occurred when searching. Some files may not appear in the search results.")
                         .arg(errors == 1 ? QStringLiteral("1 error") : QStringLiteral("2 errors")));
            QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
            QVERIFY(log.lines().contains(QStringLiteral("Scan complete. Found 1 files. %1 scan errors.").arg(errors)));
        }
    }

    void dropsDependOnThePage()
    {
        const QString first = m_dir.filePath(QStringLiteral("drop/first.mp3"));
        const QString second = m_dir.filePath(QStringLiteral("drop/more/second.wav"));
        const QString more = m_dir.filePath(QStringLiteral("drop/more"));
        QVERIFY(writeFile(first));
        QVERIFY(writeFile(second));
        ScriptedPrompter prompter;
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

        ScriptedPrompter prompter;
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
        QVERIFY(log.lines().filter(QStringLiteral("Scan complete")).isEmpty());

        // A new search starts clean: nothing of the old one drifts in.
        session->setMainPageType(MainPageTypeSearch);
        session->setSearchFolderPath({small});
        session->OnSearchFolder();
        QVERIFY(waitForScan(*session));
        QCoreApplication::processEvents();
        QCOMPARE(session->foundFiles().toList(), QStringList{small + QStringLiteral("/only.mp3")});
    }

    void discImagesAreFoundAndStartTheCDFlow()
    {
        QTemporaryDir dir;
        const DiscImage image =
            DiscImage::create(dir.path(), QStringLiteral("disc"), DiscImage::audioOptions({150, 150}));
        QVERIFY(image.isValid());
        ScriptedPrompter prompter;
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
    }
};

QTEST_GUILESS_MAIN(TestScanSession)
#include "tst_scansession.moc"
