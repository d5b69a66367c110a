// The windows on a screen of twice the density (the test runs with
// QT_SCALE_FACTOR=2): no text is cut off and nothing sticks out of its
// window, and the file list draws each row where the row is.
#include "app/splashwindowcontroller.h"
#include "library/ui/downloadlibrarycontroller.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"
#include "widgets/appearance.h"

#include <QAbstractButton>
#include <QAbstractScrollArea>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>

namespace {

// True for the insides of scroll areas, which scroll rather than fit.
bool isScrolled(QWidget *widget, QWidget *window)
{
    for (QWidget *parent = widget->parentWidget(); parent && parent != window; parent = parent->parentWidget()) {
        if (auto *area = qobject_cast<QAbstractScrollArea *>(parent); area && area->viewport() != widget) {
            return true;
        }
    }
    return false;
}

// One line per text that does not fit its widget and per widget that
// reaches past its window's edge.
QStringList cutOff(QWidget *window, const QString &name)
{
    QCoreApplication::processEvents();
    QStringList failures;
    const auto fail = [&](QWidget *widget, const QString &what) {
        failures << QStringLiteral("%1: %2 %3").arg(name, widget->objectName(), what);
    };
    if (window->width() < window->minimumSizeHint().width() || window->height() < window->minimumSizeHint().height()) {
        fail(window, QStringLiteral("is smaller than its contents need"));
    }
    for (QWidget *widget : window->findChildren<QWidget *>()) {
        if (!widget->isVisibleTo(window) || widget->window() != window || isScrolled(widget, window)) {
            continue;
        }
        const QRect inWindow(widget->mapTo(window, QPoint(0, 0)), widget->size());
        if (!window->rect().contains(inWindow)) {
            fail(widget, QStringLiteral("reaches past the window's edge"));
        }
        const QFontMetrics metrics = widget->fontMetrics();
        if (auto *label = qobject_cast<QLabel *>(widget); label && !label->text().isEmpty()) {
            const QRect room = label->contentsRect();
            const bool fits = label->wordWrap() ? label->heightForWidth(label->width()) <= label->height()
                                                : metrics.horizontalAdvance(label->text()) <= room.width() &&
                                                      metrics.height() <= room.height();
            if (!fits) {
                fail(widget, QStringLiteral("cuts off \"%1\"").arg(label->text()));
            }
        } else if (auto *button = qobject_cast<QAbstractButton *>(widget); button && !button->text().isEmpty()) {
            QString text = button->text();
            text.remove(QLatin1Char('&'));
            if (metrics.horizontalAdvance(text) > button->width() || metrics.height() > button->height()) {
                fail(widget, QStringLiteral("cuts off \"%1\"").arg(text));
            }
        } else if (auto *field = qobject_cast<QLineEdit *>(widget); field && metrics.height() > field->height()) {
            fail(widget, QStringLiteral("is lower than its text"));
        }
    }
    return failures;
}

// The rows of `rows` in the viewport drawn on `image` (at its own density)
// that show nothing brighter than the background.
QList<int> emptyRows(const QImage &image, QAbstractItemView *view, int rows)
{
    QList<int> empty;
    const qreal ratio = image.devicePixelRatio();
    for (int row = 0; row < rows; ++row) {
        const QRect band = view->visualRect(view->model()->index(row, 0));
        const QRect pixels((QRectF(band).topLeft() * ratio).toPoint(), (QSizeF(band.size()) * ratio).toSize());
        bool text = false;
        for (int y = pixels.top(); y <= pixels.bottom() && !text; ++y) {
            for (int x = pixels.left(); x <= std::min(pixels.right(), image.width() - 1) && !text; ++x) {
                text = qGray(image.pixel(x, y)) > 160;
            }
        }
        if (!text) {
            empty << row;
        }
    }
    return empty;
}

} // namespace

class TestHighDpi : public QObject
{
    Q_OBJECT

    QTemporaryDir m_files;

private slots:
    void initTestCase()
    {
        applyApplicationAppearance(qApp);
        // Everything below means something only at twice the density.
        QCOMPARE(qApp->devicePixelRatio(), 2.0);
        // A port nothing listens on: the library window shows its failure at once.
        qputenv("PELICANE_DOWNLOAD_URL", "http://127.0.0.1:9/download/");
    }

    void mainWindowPagesFit()
    {
        MainWindowController window;
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QStringList found;
        for (int i = 0; i < 8; ++i) {
            found << m_files.filePath(QStringLiteral("Artist/Album/%1 Song.mp3").arg(i));
        }
        window.session()->fileLists().add(FileList::Found, found);
        window.session()->setupListContainerView();
        window.session()->setupResultContainerView();

        QStringList failures;
        for (int page = 0; page < window.ui()->pageStack->count(); ++page) {
            window.ui()->pageStack->setCurrentIndex(page);
            failures << cutOff(&window, QStringLiteral("page %1").arg(page));
        }
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));

        // Each row of the file list in its own place, not only the first.
        window.ui()->pageStack->setCurrentWidget(window.ui()->filesContainerView);
        QTableView *table = window.ui()->filesTableView;
        QCOMPARE(table->model()->rowCount(), 8);
        const QImage image = table->viewport()->grab().toImage();
        QCOMPARE(image.devicePixelRatio(), 2.0);
        QCOMPARE(emptyRows(image, table, 8), QList<int>());

        window.ui()->filesTableView->selectRow(0);
        window.removeSelectedFiles();
        QVERIFY(window.removeFilePrompt());
        failures << cutOff(window.removeFilePrompt(), QStringLiteral("remove prompt"));
        window.removeFilePrompt()->noClicked();
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    }

    void splashAndLibraryWindowFit()
    {
        SplashWindowController splash;
        splash.show();
        QVERIFY(QTest::qWaitForWindowExposed(&splash));
        QStringList failures = cutOff(&splash, QStringLiteral("splash"));
        splash.stopSplashTimer();

        QTemporaryDir folder;
        DownloadLibraryController library(QUrl::fromLocalFile(folder.path()), QStringLiteral("1"),
                                          QStringLiteral("token"));
        library.setFolderOpener([](const QUrl &) {});
        library.show();
        QTRY_VERIFY_WITH_TIMEOUT(library.ui()->errorInfoTextField->isVisible(), 30000);
        failures << cutOff(&library, QStringLiteral("library window"));
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
        library.setWillClose({});
    }
};

QTEST_MAIN(TestHighDpi)
#include "tst_highdpi.moc"
