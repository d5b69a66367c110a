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
        QVERIFY(lists.invariantViolation().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSessionModel)
#include "tst_sessionmodel.moc"
