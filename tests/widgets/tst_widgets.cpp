#include "widgets/dragdropview.h"
#include "widgets/tabcolumnlabel.h"

#include <QApplication>
#include <QMimeData>
#include <QTest>

class TestWidgets : public QObject
{
    Q_OBJECT

private slots:
    void dragDropViewHandsOverLocalPaths()
    {
        DragDropView view;
        view.resize(300, 200);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));

        QMimeData files;
        files.setUrls({QUrl::fromLocalFile(QStringLiteral("/music/a b")), QUrl::fromLocalFile(QStringLiteral("/x.mp3")),
                       QUrl(QStringLiteral("https://example.com/not-a-file"))});

        QList<QStringList> dropped;
        view.setFolderDropped([&](const QStringList &paths) { dropped << paths; });
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction | Qt::LinkAction, &files, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &enter);
        QVERIFY(enter.isAccepted());
        QCOMPARE(enter.dropAction(), Qt::LinkAction);
        QVERIFY(view.isDragEntered());
        QVERIFY(view.label()->isVisible());
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction | Qt::LinkAction, &files, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &drop);
        QVERIFY(!view.isDragEntered());
        QVERIFY(drop.isAccepted());
        QCOMPARE(dropped.size(), 1);
        QCOMPARE(dropped[0], (QStringList{QStringLiteral("/music/a b"), QStringLiteral("/x.mp3")}));

        // Something that is not a list of files is refused.
        QMimeData text;
        text.setText(QStringLiteral("/music"));
        QDragEnterEvent textEnter(QPoint(10, 10), Qt::CopyAction | Qt::LinkAction, &text, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &textEnter);
        QDropEvent refused(QPointF(10, 10), Qt::CopyAction | Qt::LinkAction, &text, Qt::LeftButton, {});
        refused.setAccepted(false);
        QApplication::sendEvent(&view, &refused);
        QVERIFY(!refused.isAccepted());
        QCOMPARE(dropped.size(), 1);
    }

    void tabColumnLabelsLineUpTheirValues()
    {
        // One tab after a long name, two after a short one: the value starts
        // at the same column either way, and the text stays as set.
        TabColumnLabel longName;
        TabColumnLabel shortName;
        longName.setText(QStringLiteral("Discovered: \t12 files"));
        shortName.setText(QStringLiteral("Errors: \t\t12 files"));
        for (TabColumnLabel *label : {&longName, &shortName}) {
            label->fitColumnTo({QStringLiteral("Discovered:"), QStringLiteral("Errors:")});
        }
        QCOMPARE(shortName.text(), QStringLiteral("Errors: \t\t12 files"));
        QCOMPARE(longName.column(), shortName.column());
        QVERIFY(longName.column() > longName.fontMetrics().horizontalAdvance(QStringLiteral("Discovered:")));
        QCOMPARE(longName.sizeHint().width(), shortName.sizeHint().width());
    }
};

QTEST_MAIN(TestWidgets)
#include "tst_widgets.moc"
