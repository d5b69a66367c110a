// Quitting while uploads are under way, as closing the main window does: the
// application's event loop ends with transfers in flight. Every transfer must
// end and the process with it within two seconds, with the digest cache and
// the log saved. The run happens in a child process (this program, run again
// with --child), so the test can watch it go.
#include "runsupport.h"

#include "fingerprint/md5cache.h"
#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <cstdio>

namespace {

// The child: signs in, starts a run and quits the application once uploads
// are in flight, the way the desktop program's quit does.
int runChild(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString folder = QString::fromLocal8Bit(argv[2]);
    auto *model = new SessionModel();
    model->attachToService();
    model->setEmail(QString::fromLatin1(DevServerProcess::kDemoEmail));
    model->setPassword(QString::fromLatin1(DevServerProcess::kDemoPassword));
    QObject::connect(&app, &QCoreApplication::aboutToQuit, [model] {
        model->detachFromService();
        LyraboxService::sharedService().shutdown();
        delete model;
    });
    QObject::connect(model, &SessionModel::mainPageTypeChanged, model, [model, folder](quint32 page) {
        if (page == MainPageTypeSearch) {
            model->setSearchFolderPath({folder});
            model->OnSearchFolder();
        }
    });
    QObject::connect(model, &SessionModel::beginUploadEnabledChanged, model, [model](bool enabled) {
        if (enabled && !model->isFileSearchInProgress()) {
            model->OnReuploadChecked(true);
            model->OnUploadFiles(QStringLiteral("4"), QString(), QString());
        }
    });
    QTimer poll;
    int inFlightTicks = 0;
    QObject::connect(&poll, &QTimer::timeout, &app, [model, &inFlightTicks] {
        // Some time with uploads in flight, so their requests are out.
        inFlightTicks = model->uploadingFiles().size() >= 2 ? inFlightTicks + 1 : 0;
        if (inFlightTicks == 50) {
            std::printf("quitting\n");
            std::fflush(stdout);
            QCoreApplication::quit();
        }
    });
    poll.start(10);
    model->OnLogin();
    return app.exec();
}

} // namespace

class TestQuitMidRun : public QObject
{
    Q_OBJECT

private slots:
    void quitEndsEveryTransferAndTheProcess()
    {
        DevServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        QTemporaryDir files;
        const MusicFolder music = MusicFolder::make(files.filePath(QStringLiteral("music")), 30, 100, 400, 3);
        // Slow answers keep uploads in flight when the quit comes.
        QVERIFY(server.addFault({{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 20000}}));

        QProcess child;
        child.setProcessChannelMode(QProcess::SeparateChannels);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--child"), music.root});
        QVERIFY(child.waitForStarted());
        QByteArray output;
        QTRY_VERIFY_WITH_TIMEOUT((output += child.readAllStandardOutput()).contains("quitting") ||
                                     child.state() == QProcess::NotRunning,
                                 30000);
        QVERIFY2(output.contains("quitting"), child.readAllStandardError().right(2000).constData());
        QElapsedTimer sinceQuit;
        sinceQuit.start();
        // waitForFinished answers false for a process that has already ended.
        const bool ended = child.state() == QProcess::NotRunning || child.waitForFinished(2000);
        const qint64 took = sinceQuit.elapsed();
        if (!ended) {
            child.kill();
            child.waitForFinished();
        }
        QVERIFY2(ended, "the process was still there 2 s after the quit");
        qInfo("the process ended %lld ms after the quit", took);
        QCOMPARE(child.exitStatus(), QProcess::NormalExit);

        // The fresh digests of the files sent are in the saved cache.
        const MD5Cache saved(MD5Cache::locateCacheFile());
        qsizetype cached = 0;
        for (const QString &path : music.paths) {
            cached += saved.cache().contains(path) ? 1 : 0;
        }
        QVERIFY2(cached >= 2, qPrintable(QString::number(cached)));
    }
};

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--child") == 0) {
        return runChild(argc, argv);
    }
    QCoreApplication app(argc, argv);
    TestQuitMidRun test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_quitmidrun.moc"
