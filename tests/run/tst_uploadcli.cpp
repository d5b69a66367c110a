// pelicane-cli upload against the local service: a dry run that uploads
// nothing, a run with playlist and tag, a second run that skips everything,
// and a run stopped by 50 failures in a row.
#include "runsupport.h"

#include "scan/scantree.h"
#include "support/clitesting.h"
#include "support/devserverprocess.h"

#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>

class TestUploadCli : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

    static ProgramRun run(const QStringList &args,
                          const QString &email = QString::fromLatin1(DevServerProcess::kDemoEmail))
    {
        return runCli(QStringList{QStringLiteral("upload")} + args, accountEnvironment(email), 240000);
    }

    qint64 uploadRequests() const { return m_server.requestCounts().value(QStringLiteral("upload")).toInteger(); }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
    }

    void dryRunThenUploadThenSkip()
    {
        const QString email = QStringLiteral("cli@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("cli")), 8, 2000, 90000, 21);
        // Named like music but never read to an end: neither is found, and the runs end.
        QCOMPARE(::mkfifo(QFile::encodeName(music.root + QStringLiteral("/fifo.mp3")).constData(), 0644), 0);
        QVERIFY(ScanTree::makeLink(QStringLiteral("/dev/zero"), music.root + QStringLiteral("/zero.flac")));
        // Three of them are in the library already.
        QJsonArray seeded;
        for (int i = 0; i < 3; ++i) {
            seeded.append(QJsonObject{{"name", QFileInfo(music.paths[i]).fileName()}, {"path", music.paths[i]}});
        }
        QCOMPARE(m_server.seed(seeded, email).size(), 3);
        const qint64 requests = uploadRequests();

        const ProgramRun dry = run({QStringLiteral("--dry-run"), music.root}, email);
        QCOMPARE(dry.exitCode, 0);
        QVERIFY2(dry.standardOutput.contains(QStringLiteral("Would upload 5 of 8 files:")),
                 qPrintable(dry.standardOutput));
        for (int i = 0; i < 8; ++i) {
            QCOMPARE(dry.standardOutput.contains(QStringLiteral("  ") + music.paths[i] + QLatin1Char('\n')), i >= 3);
        }
        QVERIFY(dry.standardOutput.contains(QStringLiteral("Already in the library: 3 files")));
        QCOMPARE(uploadRequests(), requests);
        QCOMPARE(libraryField(m_server.library(email)).size(), 3);

        const ProgramRun upload =
            run({QStringLiteral("--playlist"), QStringLiteral("Road Trip"), QStringLiteral("--tag=cli"),
                 QStringLiteral("--threads"), QStringLiteral("2"), music.root},
                email);
        QCOMPARE(upload.exitCode, 0);
        QVERIFY2(upload.standardOutput.contains(
                     QStringLiteral("Discovered: \t8 files\nUploaded: \t5 files\n"
                                    "Skipped: \t3 files (already uploaded)\nErrors: \t\t0 files\n")),
                 qPrintable(upload.standardOutput));
        const QJsonArray files = m_server.library(email).value(QStringLiteral("files")).toArray();
        QCOMPARE(files.size(), 8);
        QSet<QString> uploadedPaths;
        for (const QJsonValue &value : files) {
            const QJsonObject file = value.toObject();
            if (file.value(QStringLiteral("playlist_name")).toString() == QLatin1String("Road Trip")) {
                QCOMPARE(file.value(QStringLiteral("tag_name")).toString(), QStringLiteral("cli"));
                uploadedPaths.insert(file.value(QStringLiteral("file_path")).toString());
            }
        }
        QCOMPARE(uploadedPaths, QSet<QString>(music.paths.begin() + 3, music.paths.end()));

        const ProgramRun again = run({music.root}, email);
        QCOMPARE(again.exitCode, 0);
        QVERIFY2(again.standardOutput.contains(
                     QStringLiteral("Uploaded: \t0 files\nSkipped: \t8 files (already uploaded)\n")),
                 qPrintable(again.standardOutput));
    }

    // A root that is there but cannot be used is not "missing" (checked
    // before signing in); a folder below a root that the search could not
    // read fails a run and a dry run, though the rest goes up.
    void unreadablePathsFailTheRun()
    {
        const QString email = QStringLiteral("scanerrors@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("scanerrors")), 2, 100, 400, 41);
        const QString overlong = ScanTree::makeTooDeepFolder(music.root, QStringLiteral("deep"));
        const auto remove = qScopeGuard([&] { ScanTree::removeTree(music.root + QStringLiteral("/deep")); });
        QVERIFY(overlong.toUtf8().size() > 4096);
        const ProgramRun root = run({overlong});
        QCOMPARE(root.exitCode, 2);
        QVERIFY2(root.standardError.contains(QString::fromLocal8Bit(strerror(ENAMETOOLONG))) &&
                     !root.standardError.contains(QStringLiteral("no such file")),
                 qPrintable(root.standardError));
        QVERIFY(run({m_files.filePath(QStringLiteral("not here"))})
                    .standardError.contains(QStringLiteral("no such file or folder")));
        for (const QStringList &extra : {QStringList{QStringLiteral("--dry-run")}, QStringList{}}) {
            const ProgramRun result = run(extra + QStringList{music.root}, email);
            QCOMPARE(result.exitCode, 1);
            QVERIFY2(
                result.standardError.contains(QStringLiteral("1 file or folder could not be read while searching")),
                qPrintable(result.standardError));
        }
        QCOMPARE(libraryField(m_server.library(email)).size(), 2);
    }

    void failuresEndTheRunWithAnError()
    {
        const QString email = QStringLiteral("failing@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("failing")), 55, 100, 400, 33);

        // A few failures: the run goes on to the end and reports them.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 2}, {"status", 500}, {"message", "Disk full"}}));
        const ProgramRun some = run({QStringLiteral("--threads"), QStringLiteral("1"), music.root}, email);
        QCOMPARE(some.exitCode, 1);
        QVERIFY2(some.standardOutput.contains(QStringLiteral("Uploaded: \t53 files\n")),
                 qPrintable(some.standardOutput));
        QVERIFY(some.standardOutput.contains(QStringLiteral("Errors: \t\t2 files\n")));
        QCOMPARE(some.standardError.count(QStringLiteral(": Disk full")), 2);
        QCOMPARE(libraryField(m_server.library(email)).size(), 53);

        // Every upload failing: 50 in a row stop the run with the message.
        const QString other = QStringLiteral("failing2@lyrabox.test");
        QVERIFY(m_server.createAccount(other, QStringLiteral("pw")));
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 0}, {"status", 500}}));
        const ProgramRun all = run({music.root}, other);
        QVERIFY(m_server.clearFaults());
        QCOMPARE(all.exitCode, 1);
        QVERIFY2(all.standardError.contains(QStringLiteral("10 files failed to upload in a row.")),
                 qPrintable(all.standardError));
        QVERIFY2(all.standardOutput.contains(QStringLiteral("Errors: \t\t50 files\n")), qPrintable(all.standardOutput));
        QVERIFY(all.standardOutput.contains(QStringLiteral("Not uploaded: \t5 files")));
        QCOMPARE(libraryField(m_server.library(other)).size(), 0);
    }

    // A session revoked mid-run stops the run with "session expired" and
    // exit 3, no file failed for it.
    void revokedSessionStopsWithSessionExpired()
    {
        const QString email = QStringLiteral("revoked-cli@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("revoked")), 60, 100, 400, 44);
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 100}}));
        QProcess process;
        process.setProcessEnvironment(accountEnvironment(email));
        process.setStandardInputFile(QProcess::nullDevice());
        process.start(cliPath(), {QStringLiteral("upload"), music.root});
        QTRY_VERIFY_WITH_TIMEOUT(libraryField(m_server.library(email)).size() >= 3, 20000);
        QVERIFY(m_server.revokeToken(email));
        QVERIFY(process.waitForFinished(20000));
        QVERIFY(m_server.clearFaults());
        const QString out = QString::fromUtf8(process.readAllStandardOutput());
        const QString err = QString::fromUtf8(process.readAllStandardError());
        QCOMPARE(process.exitCode(), 3);
        QVERIFY2(err.contains(QStringLiteral("session expired")), qPrintable(err));
        QVERIFY2(!err.contains(QStringLiteral("Failed:")) && !out.contains(QStringLiteral("failed:")), qPrintable(err));
    }

    // After a sign-in, an upload and a library download, the account's token
    // is nowhere in the log, though every download URL carries it, nor in
    // what --verbose echoes to standard error.
    void theLogNeverHoldsTheToken()
    {
        const QString email = QStringLiteral("secret@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("secret")), 3, 100, 400, 45);
        QCOMPARE(run({music.root}, email).exitCode, 0);
        const ProgramRun download = runCli({QStringLiteral("--verbose"), QStringLiteral("download-library"),
                                            m_files.filePath(QStringLiteral("secret-library"))},
                                           accountEnvironment(email));
        QCOMPARE(download.exitCode, 0);

        const QString token = m_server.library(email).value(QStringLiteral("token")).toString();
        QVERIFY(token.size() >= 16);
        QFile log(qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/com.lyrabox.pelicane/Pelicane.log"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        for (const QByteArray &lines : {log.readAll(), download.standardError.toUtf8()}) {
            QVERIFY(lines.contains("_token=<redacted>"));
            QVERIFY(!lines.contains(token.toLatin1()));
        }
    }

    // With no network at all the program says it is offline. Needs a network
    // namespace of its own (unshare, as root); the mapping has its own tests.
    void noNetworkSaysOffline()
    {
        QProcessEnvironment environment = accountEnvironment(QString::fromLatin1(DevServerProcess::kDemoEmail),
                                                             QString::fromLatin1(DevServerProcess::kDemoPassword));
        environment.insert(QStringLiteral("PELICANE_API_URL"), QStringLiteral("http://10.9.9.9:8080/s/JSON/"));
        environment.insert(QStringLiteral("PELICANE_UPLOAD_URL"), QStringLiteral("http://10.9.9.9:8080/upload/"));
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setStandardInputFile(QProcess::nullDevice());
        process.start(QStringLiteral("unshare"),
                      {QStringLiteral("-n"), cliPath(), QStringLiteral("upload"), m_files.path()});
        if (!process.waitForStarted()) {
            QSKIP("unshare is not available");
        }
        // A run that does not end is a failure, not a missing tool.
        QVERIFY2(process.waitForFinished(30000), "the run was still going after 30 s without a network");
        const QString err = QString::fromUtf8(process.readAllStandardError());
        if (err.startsWith(QStringLiteral("unshare:"))) {
            QSKIP(qPrintable(QStringLiteral("no network namespace here: ") + err.trimmed()));
        }
        QCOMPARE(process.exitCode(), 3);
        QVERIFY2(err.contains(QStringLiteral("The Internet connection appears to be offline.")), qPrintable(err));
    }
};

QTEST_GUILESS_MAIN(TestUploadCli)
#include "tst_uploadcli.moc"
