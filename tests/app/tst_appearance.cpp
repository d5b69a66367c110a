// Every window and dialog of the program, drawn offscreen with the
// application's look: each text that shows must stand out from what is
// behind it by a contrast ratio of at least 4.5:1. Text is drawn without
// antialiasing here, so a glyph's pixels carry the text colour itself, and
// the colour most of a text's area has is taken as what is behind it.
#include "../library/librarytestsupport.h"

#include "app/splashwindowcontroller.h"
#include "library/ui/downloadlibrarycontroller.h"
#include "service/lyraboxservice.h"
#include "session/ui/filelistitemview.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "session/ui/uploadlistitemview.h"
#include "support/devserverprocess.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"
#include "widgets/alert.h"
#include "widgets/appearance.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QHash>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStyleOptionButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolButton>

#include <cmath>

namespace {

constexpr double kMinimumContrast = 4.5;
constexpr int kTimeout = 120000;

double channel(int value)
{
    const double c = value / 255.0;
    return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

double luminance(QRgb rgb)
{
    return 0.2126 * channel(qRed(rgb)) + 0.7152 * channel(qGreen(rgb)) + 0.0722 * channel(qBlue(rgb));
}

double contrast(QRgb a, QRgb b)
{
    const double la = luminance(a);
    const double lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// The contrast of the text in `area` of `image` against its background: the
// most frequent colour is the background, the pixel farthest from it the
// text. 1.0 when nothing but the background is drawn there.
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
    int most = -1;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        if (it.value() > most) {
            most = it.value();
            background = it.key();
        }
    }
    double best = 1.0;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        best = std::max(best, contrast(background, it.key()));
    }
    return best;
}

// Where each kind of widget draws its text, in its own coordinates.
QRect textArea(QWidget *widget)
{
    if (auto *checkBox = qobject_cast<QCheckBox *>(widget)) {
        QStyleOptionButton option;
        option.initFrom(checkBox);
        option.text = checkBox->text();
        return checkBox->style()->subElementRect(QStyle::SE_CheckBoxContents, &option, checkBox);
    }
    if (qobject_cast<QLabel *>(widget)) {
        return widget->contentsRect();
    }
    // Buttons, fields and boxes: inside their frames.
    return widget->rect().adjusted(4, 4, -4, -4);
}

QString shownText(QWidget *widget)
{
    if (auto *label = qobject_cast<QLabel *>(widget)) {
        return label->pixmap().isNull() ? label->text() : QString();
    }
    if (auto *button = qobject_cast<QAbstractButton *>(widget)) {
        return button->text();
    }
    if (auto *field = qobject_cast<QLineEdit *>(widget)) {
        return field->text().isEmpty() ? field->placeholderText() : field->text();
    }
    if (auto *box = qobject_cast<QComboBox *>(widget)) {
        return box->currentText();
    }
    if (auto *edit = qobject_cast<QPlainTextEdit *>(widget)) {
        return edit->toPlainText();
    }
    return {};
}

// Checks every visible, enabled text of `window` (or only those inside
// `within`) and its item views; returns one line per text below the minimum.
QStringList lowContrastTexts(QWidget *window, const QString &name, QWidget *within = nullptr)
{
    QStringList failures;
    QCoreApplication::processEvents();
    const QImage image = window->grab().toImage();
    auto check = [&](QWidget *widget, QRect area, const QString &text) {
        if (text.trimmed().isEmpty() || area.width() < 4 || area.height() < 4) {
            return;
        }
        area.moveTopLeft(widget->mapTo(window, area.topLeft()));
        const double ratio = textContrast(image, area);
        if (ratio < kMinimumContrast) {
            failures << QStringLiteral("%1: %2 \"%3\" has %4:1")
                            .arg(name, widget->objectName(), text.left(60))
                            .arg(ratio, 0, 'f', 2);
        }
    };
    for (QWidget *widget : (within ? within : window)->findChildren<QWidget *>()) {
        if (!widget->isVisibleTo(window) || !widget->isEnabled() || widget->window() != window) {
            continue;
        }
        if (auto *view = qobject_cast<QAbstractItemView *>(widget)) {
            QAbstractItemModel *model = view->model();
            for (int row = 0; model && row < std::min(model->rowCount(view->rootIndex()), 12); ++row) {
                const QModelIndex index = model->index(row, 0, view->rootIndex());
                check(view->viewport(), view->visualRect(index).intersected(view->viewport()->rect()),
                      index.data().toString());
            }
            continue;
        }
        check(widget, textArea(widget), shownText(widget));
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
    QStringList m_failures;

private slots:
    void initTestCase()
    {
        applyApplicationAppearance(qApp);
        QFont font = QApplication::font();
        font.setStyleStrategy(QFont::NoAntialias);
        QApplication::setFont(font);
        QVERIFY(m_files.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    }

    // The measure itself: grey on a light grey field fails, black on it passes.
    void measureTellsReadableFromUnreadable()
    {
        QWidget window;
        window.setStyleSheet(QStringLiteral("background: #e8e8e8;"));
        auto *faint = new QLabel(QStringLiteral("Look in:"), &window);
        faint->setObjectName(QStringLiteral("faint"));
        faint->setStyleSheet(QStringLiteral("color: #bdbdbd;"));
        faint->setGeometry(10, 10, 120, 24);
        auto *clear = new QLabel(QStringLiteral("Directory:"), &window);
        clear->setObjectName(QStringLiteral("clear"));
        clear->setStyleSheet(QStringLiteral("color: #202020;"));
        clear->setGeometry(10, 40, 120, 24);
        window.resize(200, 80);
        window.show();
        const QStringList failures = lowContrastTexts(&window, QStringLiteral("sample"));
        QCOMPARE(failures.size(), 1);
        QVERIFY(failures.first().contains(QStringLiteral("faint")));
    }

    // Every page of the main window, the waiting overlay, the remove prompt,
    // an alert, the folder chooser and an upload row.
    void mainWindowAndItsDialogs()
    {
        MainWindowController window;
        window.resize(900, 640);
        window.showWindow();
        QStringList found;
        for (int i = 0; i < 5; ++i) {
            found << m_files.filePath(QStringLiteral("Artist/Album/%1 Song.mp3").arg(i));
        }
        window.session()->fileLists().add(FileList::Found, found);
        window.session()->setupListContainerView();
        window.session()->setupResultContainerView();
        window.ui()->resultsRetryErrorsButton->show();

        QStringList failures;
        for (int page = 0; page < window.ui()->pageStack->count(); ++page) {
            window.ui()->pageStack->setCurrentIndex(page);
            failures << lowContrastTexts(&window, QStringLiteral("page %1").arg(page));
        }
        window.startWaitingAnimation(QStringLiteral("Preparing upload..."));
        // What the overlay covers is dimmed on purpose; its own text must read.
        failures << lowContrastTexts(&window, QStringLiteral("overlay"), window.ui()->maskContainerView);
        window.stopWaitingAnimation();

        window.ui()->pageStack->setCurrentWidget(window.ui()->filesContainerView);
        window.ui()->filesTableView->selectRow(0);
        window.removeSelectedFiles();
        QVERIFY(window.removeFilePrompt());
        failures << lowContrastTexts(window.removeFilePrompt(), QStringLiteral("remove prompt"));
        window.removeFilePrompt()->noClicked();

        bool alertSeen = false;
        inspectNextModal<QMessageBox>(
            [&](QMessageBox *box) {
                alertSeen = true;
                failures << lowContrastTexts(box, QStringLiteral("alert"));
            },
            [](QMessageBox *box) { box->buttons().first()->click(); });
        window.showAlertWithMessageText(QStringLiteral("Scan Errors"),
                                        QStringLiteral("2 errors occurred when searching. Some files may not appear "
                                                       "in the search results."),
                                        QStringLiteral("OK"));
        QVERIFY(alertSeen);

        bool chooserSeen = false;
        inspectNextModal<QFileDialog>(
            [&](QFileDialog *chooser) {
                chooserSeen = true;
                failures << lowContrastTexts(chooser, QStringLiteral("folder chooser"));
            },
            [](QFileDialog *chooser) { chooser->reject(); });
        window.session()->setSearchFolderPath({m_files.path()});
        window.OnBrowseFolder();
        QVERIFY(chooserSeen);

        UploadListItemView row;
        UploadListItem item;
        item.setupView();
        item.setPath(found.first());
        item.setFilePath(found.first());
        item.setUploadProgress(40, false);
        row.setItem(item);
        row.resize(600, UploadListItem::kRowHeight);
        row.show();
        failures << lowContrastTexts(&row, QStringLiteral("upload row"));

        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    }

    // The library window while it retries after an error, its error details,
    // and once it is done.
    void libraryWindow()
    {
        const DevServerProcess::Session identity = m_server.signInDemo();
        QVERIFY(!identity.token.isEmpty());
        QCOMPARE(LibraryTest::seedTracks(m_server, 60, 4000).size(), 60);
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"status", 503}}));
        QTemporaryDir folder;
        DownloadLibraryController window(QUrl::fromLocalFile(folder.path()), identity.userId, identity.token);
        window.setFolderOpener([](const QUrl &) {});
        window.show();
        Ui::DownloadLibraryController *ui = window.ui();

        QStringList failures;
        QTRY_VERIFY_WITH_TIMEOUT(ui->errorInfoTextField->isVisible(), kTimeout);
        failures << lowContrastTexts(&window, QStringLiteral("library window, retrying"));
        inspectNextModal<QMessageBox>(
            [&](QMessageBox *box) { failures << lowContrastTexts(box, QStringLiteral("download error details")); },
            [](QMessageBox *box) { box->buttons().first()->click(); });
        window.OnErrorInfo();

        QTRY_COMPARE_WITH_TIMEOUT(ui->actionTextField->text(), QStringLiteral("Done!"), kTimeout);
        failures << lowContrastTexts(&window, QStringLiteral("library window, done"));
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    }

    void splashWindow()
    {
        SplashWindowController splash;
        splash.show();
        const QStringList failures = lowContrastTexts(&splash, QStringLiteral("splash"));
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
        splash.stopSplashTimer();
    }
};

QTEST_MAIN(TestAppearance)
#include "tst_appearance.moc"
