// Every window and dialog of the program, drawn offscreen with the
// application's look on a screen of twice the density (QT_SCALE_FACTOR=2).
// Each text that shows must stand out from what is behind it by a contrast
// ratio of at least 4.5:1 and fit its widget, and nothing may stick out of
// its window. Text is drawn without antialiasing, so a glyph's pixels carry
// the text colour itself, and the colour most of a text's area has is taken
// as what is behind it.
#include "../library/librarytestsupport.h"

#include "app/splashwindowcontroller.h"
#include "library/ui/downloadlibrarycontroller.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "session/ui/uploadlistitemview.h"
#include "support/devserverprocess.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"
#include "widgets/appearance.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStyleOptionButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <cmath>

namespace {

double luminance(QRgb rgb)
{
    const auto channel = [](int value) {
        const double c = value / 255.0;
        return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(qRed(rgb)) + 0.7152 * channel(qGreen(rgb)) + 0.0722 * channel(qBlue(rgb));
}

// The contrast of the text in `area` (in pixels) of `image`: the most
// frequent colour is the background, the pixel farthest from it the text.
double textContrast(const QImage &image, QRect area)
{
    area = area.intersected(image.rect());
    QHash<QRgb, int> counts;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            ++counts[image.pixel(x, y) | 0xff000000u];
        }
    }
    QRgb background = 0;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        background = it.value() > counts.value(background) ? it.key() : background;
    }
    double best = 1.0;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        const double a = luminance(background);
        const double b = luminance(it.key());
        best = std::max(best, (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05));
    }
    return best;
}

// Where the widget draws its text, in its own coordinates, and the text.
std::pair<QRect, QString> shownText(QWidget *widget)
{
    const QRect inside = widget->rect().adjusted(4, 4, -4, -4);
    if (auto *box = qobject_cast<QCheckBox *>(widget)) {
        QStyleOptionButton option;
        option.initFrom(box);
        option.text = box->text();
        return {box->style()->subElementRect(QStyle::SE_CheckBoxContents, &option, box), box->text()};
    }
    if (auto *label = qobject_cast<QLabel *>(widget)) {
        return {label->contentsRect(), label->pixmap().isNull() ? label->text() : QString()};
    }
    if (auto *button = qobject_cast<QAbstractButton *>(widget)) {
        return {inside, button->text()};
    }
    if (auto *field = qobject_cast<QLineEdit *>(widget)) {
        return {inside, field->text().isEmpty() ? field->placeholderText() : field->text()};
    }
    if (auto *box = qobject_cast<QComboBox *>(widget)) {
        return {inside, box->currentText()};
    }
    if (auto *edit = qobject_cast<QPlainTextEdit *>(widget)) {
        return {inside, edit->toPlainText()};
    }
    return {};
}

bool isScrolled(QWidget *widget, QWidget *window)
{
    for (QWidget *parent = widget->parentWidget(); parent && parent != window; parent = parent->parentWidget()) {
        if (auto *area = qobject_cast<QAbstractScrollArea *>(parent); area && area->viewport() != widget) {
            return true;
        }
    }
    return false;
}

// One line per text (of `window`, or only of `within`) below the contrast
// minimum, per text that does not fit, and per widget past the window's edge.
QStringList badTexts(QWidget *window, const QString &name, QWidget *within = nullptr)
{
    QCoreApplication::processEvents();
    const QImage image = window->grab().toImage();
    const qreal ratio = image.devicePixelRatio();
    QStringList failures;
    const auto fail = [&](QWidget *widget, const QString &what) {
        failures << QStringLiteral("%1: %2 %3").arg(name, widget->objectName(), what);
    };
    const auto check = [&](QWidget *widget, QRect area, const QString &text) {
        if (text.trimmed().isEmpty() || area.width() < 4 || area.height() < 4) {
            return;
        }
        area.moveTopLeft(widget->mapTo(window, area.topLeft()));
        const double contrast =
            textContrast(image, QRectF(QRectF(area).topLeft() * ratio, QSizeF(area.size()) * ratio).toRect());
        if (contrast < 4.5) {
            fail(widget, QStringLiteral("\"%1\" has %2:1").arg(text.left(60)).arg(contrast, 0, 'f', 2));
        }
    };
    if (!within && (window->width() < window->minimumSizeHint().width() ||
                    window->height() < window->minimumSizeHint().height())) {
        fail(window, QStringLiteral("is smaller than its contents need"));
    }
    for (QWidget *widget : (within ? within : window)->findChildren<QWidget *>()) {
        if (!widget->isVisibleTo(window) || widget->window() != window) {
            continue;
        }
        if (!within && !isScrolled(widget, window) &&
            !window->rect().contains(QRect(widget->mapTo(window, QPoint(0, 0)), widget->size()))) {
            fail(widget, QStringLiteral("reaches past the window's edge"));
        }
        if (!widget->isEnabled()) {
            continue;
        }
        if (auto *view = qobject_cast<QAbstractItemView *>(widget)) {
            for (int row = 0; view->model() && row < std::min(view->model()->rowCount(view->rootIndex()), 12); ++row) {
                const QModelIndex index = view->model()->index(row, 0, view->rootIndex());
                check(view->viewport(), view->visualRect(index).intersected(view->viewport()->rect()),
                      index.data().toString());
            }
            continue;
        }
        const auto [area, text] = shownText(widget);
        check(widget, area, text);
        // Whether the text fits: a wrapped label's height, else one line.
        const QFontMetrics metrics = widget->fontMetrics();
        auto *label = qobject_cast<QLabel *>(widget);
        const QRect room = label ? label->contentsRect() : widget->rect();
        const bool fits = label && label->wordWrap()
                              ? label->heightForWidth(label->width()) <= label->height()
                              : (qobject_cast<QLineEdit *>(widget) ||
                                 metrics.horizontalAdvance(QString(text).remove(QLatin1Char('&'))) <= room.width()) &&
                                    metrics.height() <= room.height();
        if (!text.isEmpty() && !fits && !isScrolled(widget, window) &&
            (label || qobject_cast<QAbstractButton *>(widget) || qobject_cast<QLineEdit *>(widget))) {
            fail(widget, QStringLiteral("cuts off \"%1\"").arg(text));
        }
    }
    return failures;
}

// Runs `check` on the next modal dialog of type T, then closes it with `close`.
template <typename T>
void inspectNextModal(std::function<void(T *)> check, std::function<void(T *)> close, int attempts = 200)
{
    QTimer::singleShot(25, [check, close, attempts] {
        auto *dialog = qobject_cast<T *>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible()) {
            if (attempts > 0) {
                inspectNextModal<T>(check, close, attempts - 1);
            }
            return;
        }
        check(dialog);
        close(dialog);
    });
}

} // namespace

class TestAppearance : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

private slots:
    void initTestCase()
    {
        // Everything below means something only at twice the density.
        QCOMPARE(qApp->devicePixelRatio(), 2.0);
        applyApplicationAppearance(qApp);
        QFont font = QApplication::font();
        font.setStyleStrategy(QFont::NoAntialias);
        QApplication::setFont(font);
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    }

    // The measures themselves: grey on a light grey field fails, black on it
    // passes; a label too narrow for its text, or reaching out of the
    // window, fails.
    void measuresTellGoodFromBad()
    {
        QWidget window;
        window.setStyleSheet(QStringLiteral("background: #e8e8e8;"));
        const QList<std::tuple<const char *, const char *, QRect>> labels{{"#bdbdbd", "Look in:", {10, 10, 120, 24}},
                                                                          {"#202020", "Look in:", {10, 40, 120, 24}},
                                                                          {"#202020", "Directory:", {10, 70, 20, 24}},
                                                                          {"#202020", "Out", {150, 10, 80, 24}}};
        for (const auto &[colour, text, place] : labels) {
            auto *label = new QLabel(QString::fromLatin1(text), &window);
            label->setObjectName(QString::fromLatin1(colour));
            label->setStyleSheet(QStringLiteral("color: %1;").arg(QLatin1String(colour)));
            label->setGeometry(place);
        }
        window.resize(200, 100);
        window.show();
        const QStringList failures = badTexts(&window, QStringLiteral("sample"));
        QCOMPARE(failures.size(), 3);
        QVERIFY2(failures[0].startsWith(QStringLiteral("sample: #bdbdbd \"Look in:\" has ")), qPrintable(failures[0]));
        QCOMPARE(failures[1], QStringLiteral("sample: #202020 cuts off \"Directory:\""));
        QCOMPARE(failures[2], QStringLiteral("sample: #202020 reaches past the window's edge"));
    }

    // Every page of the main window, the waiting overlay, the remove prompt,
    // an alert, the folder chooser, an upload row and the splash window; the
    // file list draws each row where the row is.
    void mainWindowAndItsDialogs()
    {
        MainWindowController window;
        window.resize(900, 640);
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QStringList found;
        for (int i = 0; i < 8; ++i) {
            found << m_files.filePath(QStringLiteral("Artist/Album/%1 Song.mp3").arg(i));
        }
        window.session()->fileLists().add(FileList::Found, found);
        window.session()->setupListContainerView();
        window.session()->setupResultContainerView();
        window.ui()->resultsRetryErrorsButton->show();

        QStringList failures;
        for (int page = 0; page < window.ui()->pageStack->count(); ++page) {
            window.ui()->pageStack->setCurrentIndex(page);
            failures << badTexts(&window, QStringLiteral("page %1").arg(page));
        }
        window.startWaitingAnimation(QStringLiteral("Preparing upload..."));
        // What the overlay covers is dimmed on purpose; its own text must read.
        failures << badTexts(&window, QStringLiteral("overlay"), window.ui()->maskContainerView);
        window.stopWaitingAnimation();

        window.ui()->pageStack->setCurrentWidget(window.ui()->filesContainerView);
        QTableView *table = window.ui()->filesTableView;
        const QImage rows = table->viewport()->grab().toImage();
        const int ratio = int(rows.devicePixelRatio());
        for (int row = 0; row < 8; ++row) {
            const QRect band = table->visualRect(table->model()->index(row, 0));
            bool drawn = false;
            for (int y = band.top() * ratio; y <= band.bottom() * ratio && !drawn; ++y) {
                for (int x = band.left() * ratio; x < std::min(band.right() * ratio, rows.width()) && !drawn; ++x) {
                    drawn = qGray(rows.pixel(x, y)) > 160;
                }
            }
            QVERIFY2(drawn, qPrintable(QStringLiteral("row %1 is empty").arg(row)));
        }
        table->selectRow(0);
        window.removeSelectedFiles();
        QVERIFY(window.removeFilePrompt());
        failures << badTexts(window.removeFilePrompt(), QStringLiteral("remove prompt"));
        window.removeFilePrompt()->noClicked();

        int dialogs = 0;
        inspectNextModal<QMessageBox>(
            [&](QMessageBox *box) {
                failures << badTexts(box, QStringLiteral("alert"));
                ++dialogs;
            },
            [](QMessageBox *box) { box->buttons().first()->click(); });
        // The bold message is measured bold, so the alert is wide (or tall) enough for it.
        window.showAlertWithMessageText(QStringLiteral("Simultaneous upload count should be between 1 and 6."),
                                        QStringLiteral("2 errors occurred when searching. Some files may not appear "
                                                       "in the search results."),
                                        QStringLiteral("OK"));
        inspectNextModal<QFileDialog>(
            [&](QFileDialog *chooser) {
                failures << badTexts(chooser, QStringLiteral("folder chooser"));
                ++dialogs;
            },
            [](QFileDialog *chooser) { chooser->reject(); });
        window.session()->setSearchFolderPath({m_files.path()});
        window.OnBrowseFolder();
        QCOMPARE(dialogs, 2);

        UploadListItemView row;
        UploadListItem item;
        item.setupView();
        item.setPath(found.first());
        item.setFilePath(found.first());
        item.setUploadProgress(40, false);
        row.setItem(item);
        row.resize(600, UploadListItem::kRowHeight);
        row.show();
        failures << badTexts(&row, QStringLiteral("upload row"));

        SplashWindowController splash;
        splash.show();
        failures << badTexts(&splash, QStringLiteral("splash"));
        splash.stopSplashTimer();
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    }

    // The library window while it retries after an error, its error details,
    // and once it is done.
    void libraryWindow()
    {
        const DevServerProcess::Session identity = m_server.signInDemo();
        QCOMPARE(LibraryTest::seedTracks(m_server, 60, 4000).size(), 60);
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"status", 503}}));
        QTemporaryDir folder;
        DownloadLibraryController window(QUrl::fromLocalFile(folder.path()), identity.userId, identity.token);
        window.setFolderOpener([](const QUrl &) {});
        window.show();
        QStringList failures;
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->errorInfoTextField->isVisible(), 120000);
        failures << badTexts(&window, QStringLiteral("library window, retrying"));
        inspectNextModal<QMessageBox>(
            [&](QMessageBox *box) { failures << badTexts(box, QStringLiteral("download error details")); },
            [](QMessageBox *box) { box->buttons().first()->click(); });
        window.OnErrorInfo();
        QTRY_COMPARE_WITH_TIMEOUT(window.ui()->actionTextField->text(), QStringLiteral("Done!"), 120000);
        failures << badTexts(&window, QStringLiteral("library window, done"));
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    }
};

int main(int argc, char *argv[])
{
    // A screen of 2560x1600 pixels, 1280x800 at twice the density: dialogs
    // size themselves to the screen, and the offscreen one is small.
    QTemporaryDir screen;
    QFile config(screen.filePath(QStringLiteral("screen.json")));
    if (!config.open(QIODevice::WriteOnly) ||
        config.write(R"({"screens": [{"name": "wide", "x": 0, "y": 0, "width": 2560, "height": 1600,
                                      "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}]})") <= 0) {
        return 1;
    }
    config.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + QFile::encodeName(config.fileName()));
    QApplication application(argc, argv);
    application.setAttribute(Qt::AA_Use96Dpi, true);
    TestAppearance test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_appearance.moc"
