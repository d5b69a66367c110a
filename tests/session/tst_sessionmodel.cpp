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
};

QTEST_GUILESS_MAIN(TestSessionModel)
#include "tst_sessionmodel.moc"
