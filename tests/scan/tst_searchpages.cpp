#include "scantree.h"

#include "platform/settings.h"
#include "service/lyraboxservice.h"
#include "session/ui/filelistitemview.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"
#include "widgets/dragdropview.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

using namespace ScanTree;

namespace {

// Drags paths over a widget and drops them, as a file manager would.
bool dropPaths(QWidget *target, const QStringList &paths, bool *enteredWhileOver = nullptr)
{
    QMimeData mime;
    QList<QUrl> urls;
    for (const QString &path : paths) {
        urls << QUrl::fromLocalFile(path);
    }
    mime.setUrls(urls);
    const QPoint centre = target->rect().center();
    QDragEnterEvent enter(centre, Qt::CopyAction | Qt::LinkAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    if (!enter.isAccepted()) {
        return false;
    }
    if (enteredWhileOver) {
        auto *area = qobject_cast<DragDropView *>(target);
        *enteredWhileOver = area && area->isDragEntered() && area->label()->isVisible();
    }
    QDropEvent drop(centre, Qt::CopyAction | Qt::LinkAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
    return drop.isAccepted() && drop.dropAction() == Qt::LinkAction;
}

} // namespace

class TestSearchPages : public QObject
{
    Q_OBJECT

private:
    DevServerProcess m_server;
    QTemporaryDir m_dir;
    QString m_library;

    static bool waitForScan(MainWindowController &window) { return ScanTree::waitForScan(*window.session()); }

    // The window up on the Search page, as after signing in.
    static bool showOnSearchPage(MainWindowController &window)
    {
        window.loadWindow();
        window.resize(800, 600);
        window.show();
        if (!QTest::qWaitForWindowExposed(&window)) {
            return false;
        }
        window.setMainPageType(MainPageTypeSearch);
        return true;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        LyraboxService &service = LyraboxService::sharedService();
        service.loginWithEmail(QString::fromLatin1(DevServerProcess::kDemoEmail),
                               QString::fromLatin1(DevServerProcess::kDemoPassword));
        QTRY_VERIFY_WITH_TIMEOUT(!service.getSupportedFormatList().isEmpty(), 60000);
        m_library = m_dir.filePath(QStringLiteral("library"));
        for (int i = 0; i < 30; ++i) {
            QVERIFY(writeFile(m_library + QStringLiteral("/album/%1 song.mp3").arg(i, 2, 10, QLatin1Char('0'))));
        }
        QVERIFY(writeFile(m_library + QStringLiteral("/album/cover.jpg")));
    }

    void cleanup() { Settings::remove(DontAskToRemoveFilesKey); }

    void dropFillsTheListWhereSelectedFilesAreRemoved()
    {
        MainWindowController window;
        QVERIFY(showOnSearchPage(window));
        Ui::MainWindowController *ui = window.ui();
        ui->uploadThreadCountField->setText(QStringLiteral("5"));

        bool darkened = false;
        QVERIFY(dropPaths(ui->dragDropView, {m_library}, &darkened));
        QVERIFY(darkened);
        QVERIFY(!ui->dragDropView->isDragEntered());
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeList));
        QCOMPARE(ui->fileCountLabel->text(), QStringLiteral("Searching for files..."));
        QVERIFY(!ui->beginUploadButton->isEnabled());
        QVERIFY(waitForScan(window));

        QCOMPARE(ui->fileCountLabel->text(),
                 QStringLiteral("30 files were found. Click a filename to remove it from the list."));
        QVERIFY(ui->beginUploadButton->isEnabled());
        QCOMPARE(ui->uploadThreadCountField->text(), QStringLiteral("3"));
        QTableView *table = ui->filesTableView;
        QCOMPARE(table->model()->rowCount(), 30);
        // Sorted by path, whatever order the disk gave.
        QStringList sorted = window.session()->foundFiles().toList();
        std::sort(sorted.begin(), sorted.end(), &FoundFilesTableModel::pathLessThan);
        QStringList shown;
        for (int row = 0; row < 30; ++row) {
            shown << table->model()->index(row, 0).data().toString();
        }
        QCOMPARE(shown, sorted);

        const auto clickRow = [table](int row, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
            QTest::mouseClick(table->viewport(), Qt::LeftButton, modifiers,
                              table->visualRect(table->model()->index(row, 0)).center());
        };

        // A click selects and asks nothing; Shift extends, Ctrl adds.
        clickRow(1);
        QVERIFY(!window.removeFilePrompt());
        QVERIFY(ui->removeFilesButton->isEnabled());
        clickRow(3, Qt::ShiftModifier);
        clickRow(6, Qt::ControlModifier);
        QCOMPARE(window.selectedFiles(), (QStringList{shown[1], shown[2], shown[3], shown[6]}));

        // Delete asks first; "No" keeps the files.
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        table->setFocus();
        QTest::keyClick(table, Qt::Key_Delete);
        QTRY_VERIFY(window.removeFilePrompt() && window.removeFilePrompt()->isVisible());
        window.removeFilePrompt()->noButton()->click();
        QTRY_VERIFY(!window.removeFilePrompt());
        QCOMPARE(table->model()->rowCount(), 30);

        // "Yes" takes them off the list and the count follows.
        QTest::keyClick(table, Qt::Key_Delete);
        QTRY_VERIFY(window.removeFilePrompt() && window.removeFilePrompt()->isVisible());
        window.removeFilePrompt()->rememberCheckbox()->setChecked(true);
        window.removeFilePrompt()->yesButton()->click();
        QTRY_VERIFY(!window.removeFilePrompt());
        for (int i : {1, 2, 3, 6}) {
            QVERIFY(!window.session()->foundFiles().contains(shown[i]));
        }
        QCOMPARE(table->model()->rowCount(), 26);
        QCOMPARE(ui->fileCountLabel->text(),
                 QStringLiteral("26 files were found. Click a filename to remove it from the list."));
        QVERIFY(Settings::boolean(DontAskToRemoveFilesKey));

        // Told not to ask, the button removes at once.
        clickRow(0);
        ui->removeFilesButton->click();
        QVERIFY(!window.removeFilePrompt());
        QVERIFY(!window.session()->foundFiles().contains(shown[0]));
        QCOMPARE(table->model()->rowCount(), 25);
        QCOMPARE(ui->fileCountLabel->text(),
                 QStringLiteral("25 files were found. Click a filename to remove it from the list."));
        QCOMPARE(table->model()->index(0, 0).data().toString(), shown[4]);

        // The folder dropped on the list again brings back what was taken
        // off, each file in its place.
        QVERIFY(dropPaths(ui->filesContainerView, {m_library}));
        QTRY_COMPARE(table->model()->rowCount(), 30);
        for (int row = 0; row < 30; ++row) {
            QCOMPARE(table->model()->index(row, 0).data().toString(), shown[row]);
        }

        // The page fits a small laptop's screen.
        QVERIFY2(window.minimumSizeHint().width() <= 640,
                 qPrintable(QString::number(window.minimumSizeHint().width())));
    }

    void scanCountsAsItGoesAndCancels()
    {
        // Many more files than one hand-over carries, so the count has steps
        // to show and a scan is still walking when Cancel comes.
        constexpr int kFolders = 150;
        constexpr int kFilesPerFolder = 1000;
        constexpr qint64 kTotal = kFolders * kFilesPerFolder;
        const QString big = m_dir.filePath(QStringLiteral("big"));
        QCOMPARE(makeWideTree(big, kFolders, kFilesPerFolder), kTotal);

        MainWindowController window;
        QVERIFY(showOnSearchPage(window));
        Ui::MainWindowController *ui = window.ui();
        SessionModel *session = window.session();
        session->setSearchFolderPath({big});
        session->updateSearchFolderPath();

        // A whole scan: the count beside the spinner grows, and goes with it.
        QStringList shown;
        auto recordCount = connect(session, &SessionModel::fileSearchCountChanged, this, [&] {
            shown << ui->fileSearchCountLabel->text();
            QVERIFY(ui->fileSearchCountLabel->isVisible() && ui->cancelSearchButton->isVisible());
        });
        ui->searchButton->click();
        QVERIFY(waitForScan(window));
        disconnect(recordCount);
        QVERIFY2(shown.size() >= 4, qPrintable(shown.join(QLatin1Char('|'))));
        QCOMPARE(shown.first(), QStringLiteral("0 files found so far"));
        QCOMPARE(shown.last(), QStringLiteral("150,000 files found so far"));
        qint64 previous = -1;
        for (const QString &text : shown) {
            const qint64 count = text.section(QLatin1Char(' '), 0, 0).remove(QLatin1Char(',')).toLongLong();
            QVERIFY2(count > previous, qPrintable(shown.join(QLatin1Char('|'))));
            previous = count;
        }
        QVERIFY(ui->fileSearchCountLabel->isHidden() && ui->cancelSearchButton->isHidden());
        QCOMPARE(session->foundFiles().size(), kTotal);

        // Again, cancelled as soon as the first files are counted: the walk
        // stops on its thread well before its end, and the folder page comes
        // back with the folder still chosen.
        window.setMainPageType(MainPageTypeSearch);
        QSignalSpy abandoned(session, &SessionModel::fileSearchAbandoned);
        QElapsedTimer sinceCancel;
        auto cancelEarly = connect(session, &SessionModel::fileSearchCountChanged, this, [&](qint64 count) {
            if (count > 0 && !sinceCancel.isValid()) {
                sinceCancel.start();
                ui->cancelSearchButton->click();
            }
        });
        LogWatch log;
        ui->searchButton->click();
        QTRY_COMPARE_WITH_TIMEOUT(abandoned.size(), 1, 10000);
        const qint64 stoppedAfterMs = sinceCancel.elapsed();
        disconnect(cancelEarly);
        QVERIFY2(stoppedAfterMs < 1000, qPrintable(QString::number(stoppedAfterMs)));
        QVERIFY2(abandoned.first().first().toLongLong() < kTotal, qPrintable(abandoned.first().first().toString()));
        QVERIFY(session->folderScanRunner().waitForDone(10000));
        QCoreApplication::processEvents();
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeSearch));
        QVERIFY(ui->searchContainerView->isVisible());
        QCOMPARE(session->searchFolderPath(), QStringList{big});
        QCOMPARE(ui->searchFolderPathTextField->text(), big);
        QVERIFY(!session->isFileSearchInProgress());
        QVERIFY(session->foundFiles().isEmpty());
        QCOMPARE(log.lines().filter(QStringLiteral("Scan cancelled")).size(), 1);
        QVERIFY(log.lines().filter(QStringLiteral("Scan complete")).isEmpty());
        ScanTree::removeTree(big);
    }
};

QTEST_MAIN(TestSearchPages)
#include "tst_searchpages.moc"
