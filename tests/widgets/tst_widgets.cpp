#include "widgets/dragdropview.h"
#include "widgets/progressindicator.h"
#include "widgets/tabcolumnlabel.h"
#include "widgets/viewex.h"

#include <QApplication>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QVBoxLayout>

namespace {

// The colour the widget drew at its centre.
QColor centreColour(QWidget *widget)
{
    const QImage image = widget->grab().toImage();
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

} // namespace

class TestWidgets : public QObject
{
    Q_OBJECT

private slots:
    void progressIndicatorDrawsOnlyWhileAnimating()
    {
        QWidget back;
        back.setAutoFillBackground(true);
        QPalette palette = back.palette();
        palette.setColor(QPalette::Window, Qt::black);
        back.setPalette(palette);
        back.resize(48, 48);
        ProgressIndicator indicator(&back);
        indicator.setGeometry(0, 0, 48, 48);
        back.show();

        const QImage stopped = back.grab().toImage();
        QVERIFY(!indicator.isAnimating());
        QImage black(stopped.size(), stopped.format());
        black.fill(Qt::black);
        QCOMPARE(stopped, black);
        indicator.startAnimation();
        QVERIFY(indicator.isAnimating());
        const QImage spinning = back.grab().toImage();
        QVERIFY(spinning != stopped);
        // It turns: two frames some steps apart differ.
        QTest::qWait(250);
        QVERIFY(back.grab().toImage() != spinning);
        indicator.stopAnimation();
        QCOMPARE(back.grab().toImage(), stopped);
    }

    void viewExFillsAndBlocksClicksWhenAsked()
    {
        QWidget window;
        window.resize(200, 100);
        auto *button = new QPushButton(QStringLiteral("below"), &window);
        button->setGeometry(0, 0, 200, 100);
        auto *overlay = new ViewEx(&window);
        overlay->setGeometry(0, 0, 200, 100);
        overlay->setBackgroundColor(QColor(0x99, 0x99, 0x99, 0x70));
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QSignalSpy clicked(button, &QPushButton::clicked);

        // A translucent grey over the button: the grey shows blended, not opaque.
        const QColor drawn = centreColour(&window);
        QVERIFY(drawn != QColor(0x99, 0x99, 0x99));
        QCOMPARE(overlay->backgroundColor(), QColor(0x99, 0x99, 0x99, 0x70));

        overlay->setBlocksMouse(true);
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, QPoint(100, 50));
        QCOMPARE(clicked.size(), 0);
        overlay->hide();
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, QPoint(100, 50));
        QCOMPARE(clicked.size(), 1);
    }

    void dragDropViewHandsOverLocalPaths()
    {
        DragDropView view;
        view.resize(300, 200);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QVERIFY(view.acceptDrops());
        QVERIFY(view.label()->isHidden());

        QMimeData files;
        files.setUrls({QUrl::fromLocalFile(QStringLiteral("/music/a b")), QUrl::fromLocalFile(QStringLiteral("/x.mp3")),
                       QUrl(QStringLiteral("https://example.com/not-a-file"))});

        // Without a handler an entering drag changes nothing.
        QDragEnterEvent enterWithout(QPoint(10, 10), Qt::CopyAction | Qt::LinkAction, &files, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &enterWithout);
        QVERIFY(!view.isDragEntered());
        QVERIFY(view.label()->isHidden());

        QList<QStringList> dropped;
        view.setFolderDropped([&](const QStringList &paths) { dropped << paths; });
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction | Qt::LinkAction, &files, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &enter);
        QVERIFY(enter.isAccepted());
        QCOMPARE(enter.dropAction(), Qt::LinkAction);
        QVERIFY(view.isDragEntered());
        QVERIFY(view.label()->isVisible());
        // Darkened to 80 % black while the drag is over it.
        const QColor dark = centreColour(&view);
        QVERIFY2(dark.red() < 70 && dark.green() < 70 && dark.blue() < 70, qPrintable(dark.name()));

        QDragLeaveEvent leave;
        QApplication::sendEvent(&view, &leave);
        QVERIFY(!view.isDragEntered());
        QVERIFY(view.label()->isHidden());

        // A drop goes to the widget that took the drag, so the drag enters again first.
        QDragEnterEvent again(QPoint(10, 10), Qt::CopyAction | Qt::LinkAction, &files, Qt::LeftButton, {});
        QApplication::sendEvent(&view, &again);
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

        // A name wider than the column pushes its own value right, never
        // drawing over it.
        TabColumnLabel wide;
        wide.setText(QStringLiteral("A much longer name than the others:\t1"));
        wide.setColumn(10);
        QVERIFY(wide.sizeHint().width() >
                wide.fontMetrics().horizontalAdvance(QStringLiteral("A much longer name than the others:")));
    }
};

QTEST_MAIN(TestWidgets)
#include "tst_widgets.moc"
