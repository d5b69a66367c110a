#include "scantree.h"

#include "platform/settings.h"
#include "service/lyraboxservice.h"
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

    void dropFillsTheListWhereClicksRemoveFiles()
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
        QCOMPARE(table->model()->index(0, 0).data().toString(), window.session()->foundFiles().at(0));

        // Clicking a row asks before removing it.
        const QString label = ui->fileCountLabel->text();
        const auto clickRow = [table](int row) {
            QTest::mouseClick(table->viewport(), Qt::LeftButton, Qt::NoModifier,
                              table->visualRect(table->model()->index(row, 0)).center());
        };

        // "No" keeps the file.
        const QString second = window.session()->foundFiles().at(1);
        clickRow(1);
        QTRY_VERIFY(window.removeFilePrompt() && window.removeFilePrompt()->isVisible());
        window.removeFilePrompt()->noButton()->click();
        QTRY_VERIFY(!window.removeFilePrompt());
        QCOMPARE(window.session()->foundFiles().at(1), second);
        QCOMPARE(table->model()->rowCount(), 30);

        // "Yes" takes it off; with "Don't ask again" later clicks do at once.
        clickRow(1);
        QTRY_VERIFY(window.removeFilePrompt() && window.removeFilePrompt()->isVisible());
        window.removeFilePrompt()->rememberCheckbox()->setChecked(true);
        window.removeFilePrompt()->yesButton()->click();
        QTRY_VERIFY(!window.removeFilePrompt());
        QVERIFY(!window.session()->foundFiles().contains(second));
        QCOMPARE(table->model()->rowCount(), 29);
        QVERIFY(Settings::boolean(DontAskToRemoveFilesKey));

        const QString first = window.session()->foundFiles().at(0);
        clickRow(0);
        QVERIFY(!window.removeFilePrompt());
        QVERIFY(!window.session()->foundFiles().contains(first));
        QCOMPARE(table->model()->rowCount(), 28);
        QCOMPARE(table->model()->index(0, 0).data().toString(), window.session()->foundFiles().at(0));
        // The count stays as the scan left it.
        QCOMPARE(window.ui()->fileCountLabel->text(), label);
    }
};

QTEST_MAIN(TestSearchPages)
#include "tst_searchpages.moc"
