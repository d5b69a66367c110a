// The service client's single-request library download: the whole library as one zip, its
// progress, and its one outcome.
#include "librarytestsupport.h"

#include "service/lyraboxservice.h"

#include <QDir>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <zip.h>

namespace {

constexpr int kTimeout = 60000;

struct Outcome
{
    int completions = 0;
    std::optional<QUrl> file;
    OptionalError error;
    QList<double> fractions;
    QList<qint64> speeds;
};

void download(LyraboxService &service, const QString &folder, Outcome &outcome)
{
    service.downloadLibraryWithURL(
        QUrl::fromLocalFile(folder),
        [&outcome](double fraction, qint64 speed) {
            outcome.fractions.append(fraction);
            outcome.speeds.append(speed);
        },
        [&outcome](const std::optional<QUrl> &file, const OptionalError &error) {
            ++outcome.completions;
            outcome.file = file;
            outcome.error = error;
        });
}

} // namespace

class TestLibraryServiceDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void wholeLibraryInOneArchive();
    void failuresAndCancellation();

private:
    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
};

void TestLibraryServiceDownload::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_identity = LibraryTest::signIn(m_server);
    QVERIFY(!m_identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 60, 40000).size(), 60);
}

void TestLibraryServiceDownload::wholeLibraryInOneArchive()
{
    LyraboxService service;
    service.setUserId(m_identity.userId);
    service.setUserToken(m_identity.token);
    QTemporaryDir folder;
    Outcome outcome;
    download(service, folder.path(), outcome);
    QTRY_COMPARE_WITH_TIMEOUT(outcome.completions, 1, kTimeout);
    QVERIFY(!outcome.error);
    QVERIFY(outcome.file);

    const QString path = outcome.file->toLocalFile();
    QCOMPARE(QFileInfo(path).fileName(), QStringLiteral("Library.zip"));
    QVERIFY(QFileInfo(path).dir().dirName().startsWith(QStringLiteral("LyraboxLibrary-")));
    QCOMPARE(QFileInfo(path).size(), service.downloadLibraryEstimatedBytes());
    QCOMPARE(LibraryTest::filesUnder(folder.path()).size(), 1); // no temporary file left
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
    QVERIFY(archive);
    QCOMPARE(zip_get_num_entries(archive, 0), 60);
    zip_discard(archive);

    QVERIFY(!outcome.fractions.isEmpty());
    QCOMPARE(outcome.fractions.last(), 1.0);
    QCOMPARE(outcome.speeds.first(), -1); // the first second has no sample yet
    QVERIFY(std::is_sorted(outcome.fractions.cbegin(), outcome.fractions.cend()));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("&mode=downloadlibrary&container_type=library\n")));
}

void TestLibraryServiceDownload::failuresAndCancellation()
{
    LyraboxService service;
    service.setUserId(m_identity.userId);
    service.setUserToken(QStringLiteral("wrong"));
    QTemporaryDir folder;
    {
        Outcome outcome;
        download(service, folder.path(), outcome);
        QTRY_COMPARE_WITH_TIMEOUT(outcome.completions, 1, kTimeout);
        QCOMPARE(outcome.error->localizedDescription(), QStringLiteral("Unauthorized (401)"));
        QVERIFY(!outcome.file);
    }

    // Cancelled, or replaced by a second download: one report each.
    service.setUserToken(m_identity.token);
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 2}}));
    Outcome first;
    Outcome second;
    download(service, folder.path(), first);
    QTest::qWait(200);
    download(service, folder.path(), second);
    QCOMPARE(first.completions, 1);
    QCOMPARE(first.error->code(), -999);
    QTest::qWait(200);
    service.cancelDownloadLibrary();
    service.cancelDownloadLibrary();
    QCOMPARE(second.completions, 1);
    QCOMPARE(second.error->code(), -999);
    QTest::qWait(2500);
    QCOMPARE(first.completions, 1);
    QCOMPARE(second.completions, 1);
    QVERIFY(LibraryTest::filesUnder(folder.path()).isEmpty());
    QVERIFY(m_server.clearFaults());
}

QTEST_GUILESS_MAIN(TestLibraryServiceDownload)
#include "tst_libraryservicedownload.moc"
