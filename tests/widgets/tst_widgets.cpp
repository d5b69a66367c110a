#include "widgets/alert.h"
#include "widgets/dragdropview.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QTest>
#include <QTimer>

class TestWidgets : public QObject
{
    Q_OBJECT

    // Runs an alert and acts on it once it shows.
    static int answerAlert(const QStringList &buttons, const std::function<void(QMessageBox *)> &act)
    {
        QPointer<QMessageBox> visible;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            if (visible && visible->isVisible()) {
                poll.stop();
                act(visible);
            }
        });
        poll.start(10);
        return runAlert(nullptr, {QStringLiteral("Pelicane"), QStringLiteral("Title"), QStringLiteral("Text")}, buttons,
                        true, &visible);
    }

private slots:
    // Escape and the close button answer like the last, cautious button;
    // Return like the first; a click like the button clicked.
    void alertAnswersByOneRule()
    {
        const QStringList retrySkipCancel{"Retry", "Skip", "Cancel"};
        const auto escape = [](QMessageBox *box) { QTest::keyClick(box, Qt::Key_Escape); };
        const auto close = [](QMessageBox *box) { box->close(); };
        QCOMPARE(answerAlert(retrySkipCancel, escape), 1002);
        QCOMPARE(answerAlert(retrySkipCancel, close), 1002);
        QCOMPARE(answerAlert({"Yes", "No"}, close), 1001);
        QCOMPARE(answerAlert({"OK"}, escape), 1000);
        QCOMPARE(answerAlert(retrySkipCancel, [](QMessageBox *box) { QTest::keyClick(box, Qt::Key_Return); }), 1000);
        QCOMPARE(answerAlert(retrySkipCancel,
                             [](QMessageBox *box) {
                                 for (QAbstractButton *button : box->buttons()) {
                                     if (button->text() == QLatin1String("Skip")) {
                                         button->click();
                                     }
                                 }
                             }),
                 1001);
        QCOMPARE(answerAlert({QString(), QString()}, close), 1000); // no titles: a plain "OK"
    }

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
};

QTEST_MAIN(TestWidgets)
#include "tst_widgets.moc"
