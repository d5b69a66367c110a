#include "platform/discimages.h"
#include "platform/dispatch.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

class TestPlatform : public QObject
{
    Q_OBJECT

private slots:
    void dispatchReachesTheMainThread()
    {
        QThread *mainThread = QThread::currentThread();
        QThread *seenAsync = nullptr;
        QThread *seenSync = nullptr;
        std::unique_ptr<QThread> worker(QThread::create([&] {
            dispatchSyncMain([&] { seenSync = QThread::currentThread(); });
            dispatchAsyncMain([&] { seenAsync = QThread::currentThread(); });
        }));
        worker->start();
        QTRY_VERIFY(worker->isFinished());
        QCOMPARE(seenSync, mainThread);
        QTRY_COMPARE(seenAsync, mainThread);
        bool ranAtOnce = false;
        dispatchSyncMain([&] { ranAtOnce = true; });
        QVERIFY(ranAtOnce);
    }

    // libcdio resolves a toc's names against the working folder: the copy
    // names each file absolutely, byte for byte (the folder's name is not
    // Latin-1), finding names as libcdio does (a name may start with a colon,
    // a comment is no name), and changes nothing else.
    void tocCopyNamesItsFilesAbsolutely()
    {
        QTemporaryDir root;
        const QString folder = root.filePath(QStringLiteral("Диски 音楽 ü"));
        QVERIFY(QDir().mkpath(folder));
        const QString toc = folder + QStringLiteral("/disc.toc");
        const QByteArray text = "CD_DA\r\n"
                                "// FILE \"commented.bin\" 0\r\n"
                                "TRACK AUDIO\r\n"
                                "FILE \":c.bin\" 0\r\n"
                                "TRACK AUDIO\r\n"
                                "AUDIOFILE\t\"caf\xc3\xa9 2.bin\" 0 // \"x.bin\"\r\n"
                                "TRACK MODE1\n"
                                "DATAFILE \"/elsewhere/d.bin\" 00:00:01\n";
        QFile file(toc);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
        file.close();

        const QString copies = root.filePath(QStringLiteral("copies"));
        const QString copy = DiscImages::openablePath(toc, copies);
        QCOMPARE(copy, copies + QStringLiteral("/disc.toc"));
        QFile written(copy);
        QVERIFY(written.open(QIODevice::ReadOnly));
        const QByteArray at = '"' + QFile::encodeName(folder) + '/';
        QCOMPARE(written.readAll(),
                 QByteArray(text).replace("\":c", QByteArray(at + ":c")).replace("\"caf", QByteArray(at + "caf")));

        // A cue's names are resolved against its own folder: handed over as it is.
        const QString cue = folder + QStringLiteral("/disc.cue");
        QVERIFY(QFile::copy(toc, cue));
        QCOMPARE(DiscImages::openablePath(cue, copies), cue);
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
