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
#include <QMimeData>
#include <QPushButton>
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

    static bool waitForScan(MainWindowController &window)
    {
        QDeadlineTimer deadline(60000);
        while (window.session()->isFileSearchInProgress() && !deadline.hasExpired()) {
            QTest::qWait(10);
        }
        return !window.session()->isFileSearchInProgress() && window.session()->folderScanRunner().waitForDone(60000);
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
        window.loadWindow();
        window.resize(800, 600);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.setMainPageType(MainPageTypeSearch);
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

        // The page fits a small laptop's screen.
        QVERIFY2(window.minimumSizeHint().width() <= 640,
                 qPrintable(QString::number(window.minimumSizeHint().width())));
    }
};

QTEST_MAIN(TestSearchPages)
#include "tst_searchpages.moc"
