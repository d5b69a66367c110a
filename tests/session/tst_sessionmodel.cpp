#include "session/sessionmodel.h"
#include "support/sessiontesting.h"

#include <QSignalSpy>
#include <QTest>

class TestSessionModel : public QObject
{
    Q_OBJECT

private slots:
    void pageModelLogsAndAnnouncesKnownPagesOnly()
    {
        SessionModel model;
        QSignalSpy shown(&model, &SessionModel::mainPageTypeChanged);
        LogWatch log;
        for (quint32 page :
             {quint32(MainPageTypeLogin), quint32(MainPageTypeList), quint32(MainPageTypeResult), 7u, 5u}) {
            model.setMainPageType(page);
            QCOMPARE(model.mainPageType(), page);
        }
        QCOMPARE(log.lines(), (QStringList{"SetPage(Login)", "SetPage(List)", "SetPage(Result)"}));
        QCOMPARE(shown.size(), 3);
        QCOMPARE(shown.at(2).at(0).toUInt(), 4u);
    }

    // The moves a run makes keep every path in one list: a path already held
    // is not added twice, a retry goes before ready files, a pause puts the
    // files in flight back at the head in their order.
    void fileListsKeepEachPathInOneList()
    {
        SessionFileLists lists;
        QCOMPARE(lists.add(FileList::Found, QStringList{"/a", "/b", "/c", "/d"}), 4);
        QVERIFY(!lists.add(FileList::Ready, QStringLiteral("/a")));
        QVERIFY(lists.move(QStringLiteral("/a"), FileList::Found, FileList::Ready));
        QVERIFY(!lists.move(QStringLiteral("/a"), FileList::Found, FileList::Skipped));
        lists.moveAll(FileList::Found, FileList::Ready);
        QCOMPARE(lists.ready().toList(), (QStringList{"/a", "/b", "/c", "/d"}));

        const auto first = lists.takeNext();
        const auto second = lists.takeNext();
        QVERIFY(first && second && !first->isRetry);
        QVERIFY(lists.move(QStringLiteral("/a"), FileList::Uploading, FileList::Retry));
        const auto retried = lists.takeNext();
        QVERIFY(retried && retried->isRetry && retried->path == QStringLiteral("/a"));
        QCOMPARE(lists.uploading().toList(), (QStringList{"/b", "/a"}));

        lists.moveAll(FileList::Uploading, FileList::Ready, SessionFileLists::End::Front);
        QCOMPARE(lists.ready().toList(), (QStringList{"/b", "/a", "/c", "/d"}));
        lists.relocate(QStringLiteral("/c"), FileList::Completed);
        QCOMPARE(lists.listOf(QStringLiteral("/c")), std::optional<FileList>(FileList::Completed));
        QCOMPARE(lists.remaining(), 3);
        QCOMPARE(lists.remove(QStringLiteral("/a"), FileList::Ready), 1);
        QCOMPARE(lists.remove(QStringList{"/d", "/x", "/b"}, FileList::Ready), (QList<qsizetype>{0, 1}));
        QVERIFY(!lists.listOf(QStringLiteral("/d")) && lists.add(FileList::Found, QStringLiteral("/d")));
        QCOMPARE(lists.remove(QStringList{lists.completed().first(), QStringLiteral("/c")}, FileList::Completed),
                 QList<qsizetype>{0});
        QVERIFY(!lists.listOf(QStringLiteral("/c")));
        QVERIFY(lists.invariantViolation().isEmpty());
    }

    // The run's meter: speed over the last five seconds only, time left from
    // it, bytes that fall back (a file starting over) not counted as sent.
    void transferMeterAveragesOverRecentSeconds()
    {
        TransferMeter meter;
        meter.restart(0.0);
        meter.update(0, 10'000'000, 0.0);
        QCOMPARE(meter.speed(), -1.0);
        QCOMPARE(meter.secondsLeft(), qint64(-1));
        QCOMPARE(meter.percent(), 0);

        // 1 MB/s for ten seconds, then 3 MB/s for five: the speed is the last five seconds'.
        for (int second = 1; second <= 10; ++second) {
            meter.update(second * 1'000'000LL / 2, 10'000'000, second); // fills half of it
        }
        QCOMPARE(qint64(meter.speed()), qint64(500'000));
        meter.update(4'000'000, 10'000'000, 11.0); // fell back: a file starts over
        QCOMPARE(meter.doneBytes(), qint64(4'000'000));
        for (int second = 12; second <= 16; ++second) {
            meter.update(4'000'000 + (second - 11) * 1'000'000LL, 10'000'000, second);
        }
        QCOMPARE(qint64(meter.speed()), qint64(1'000'000));
        QCOMPARE(meter.percent(), 90);
        QCOMPARE(meter.secondsLeft(), qint64(1));

        // A pause forgets the history: no speed until a second has passed again.
        meter.restart(100.0);
        meter.update(9'000'000, 10'000'000, 100.5);
        QCOMPARE(meter.speed(), -1.0);

        QCOMPARE(TransferMeter::formatBytes(999), QStringLiteral("999 bytes"));
        QCOMPARE(TransferMeter::formatBytes(1'250'000), QStringLiteral("1.25 MB"));
        QCOMPARE(TransferMeter::formatBytes(125'000'000), QStringLiteral("125 MB"));
        QCOMPARE(TransferMeter::formatDuration(185), QStringLiteral("3 min 05 s"));
        QCOMPARE(TransferMeter::formatDuration(7620), QStringLiteral("2 h 07 min"));
    }
};

QTEST_GUILESS_MAIN(TestSessionModel)
#include "tst_sessionmodel.moc"
