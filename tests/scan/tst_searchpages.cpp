#include "scantree.h"

#include "platform/settings.h"
#include "service/lyraboxservice.h"
#include "session/ui/filelistitemview.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"
#include "widgets/dragdropview.h"
#include "widgets/progressindicator.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

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

    void searchPageControls()
    {
        MainWindowController window;
        window.loadWindow();
        Ui::MainWindowController *ui = window.ui();
        ui->searchUploadCDButton->show();
        QVERIFY(!ui->dragDropView->folderDropped()); // no drops before the Search page
        window.session()->setSearchFolderPath({m_library});

        window.setMainPageType(MainPageTypeSearch);
        QVERIFY(ui->searchUploadCDButton->isHidden());
        QCOMPARE(ui->searchFolderPathTextField->text(), m_library);
        QVERIFY(ui->dragDropView->folderDropped());

        // Typing replaces the roots with the text, as it stands.
        ui->searchFolderPathTextField->clear();
        QTest::keyClicks(ui->searchFolderPathTextField, QStringLiteral("/music/x "));
        QCOMPARE(window.session()->searchFolderPath(), QStringList{QStringLiteral("/music/x ")});
        window.session()->chooseSearchFolders({m_library, m_dir.path()});
        QCOMPARE(ui->searchFolderPathTextField->text(), QStringLiteral("Multiple Folders"));
        QTest::keyClick(ui->searchFolderPathTextField, Qt::Key_End);
        QTest::keyClicks(ui->searchFolderPathTextField, QStringLiteral("!"));
        QCOMPARE(window.session()->searchFolderPath(), QStringList{QStringLiteral("Multiple Folders!")});
    }

    void folderChooserTakesSeveralFolders()
    {
        MainWindowController window;
        window.loadWindow();
        window.setMainPageType(MainPageTypeSearch);
        const QString a = m_dir.filePath(QStringLiteral("pick/a"));
        const QString b = m_dir.filePath(QStringLiteral("pick/b"));
        QVERIFY(QDir().mkpath(a));
        QVERIFY(QDir().mkpath(b));
        window.session()->setSearchFolderPath({m_library, m_dir.filePath(QStringLiteral("pick"))});

        QFileDialog *seen = nullptr;
        QString startDirectory;
        bool canCreateFolders = false;
        QTimer::singleShot(0, &window, [&] {
            seen = window.findChild<QFileDialog *>();
            if (!seen) {
                return;
            }
            startDirectory = seen->directory().absolutePath();
            canCreateFolders = !seen->testOption(QFileDialog::ReadOnly) && seen->fileMode() == QFileDialog::Directory;
            seen->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"))->setText(QStringLiteral("\"b\" \"a\""));
            static_cast<QDialog *>(seen)->accept(); // QFileDialog::accept() checks the names
        });
        window.OnBrowseFolder();
        QVERIFY(seen);
        QCOMPARE(startDirectory, m_dir.filePath(QStringLiteral("pick")));
        QVERIFY(canCreateFolders);
        QCOMPARE(window.session()->searchFolderPath(), (QStringList{b, a}));
        QCOMPARE(window.ui()->searchFolderPathTextField->text(), QStringLiteral("Multiple Folders"));
        QCOMPARE(Settings::string(kSettingsLastFolderPath), a);
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeSearch)); // no scan yet

        // Cancelling changes nothing.
        QTimer::singleShot(0, &window, [&] { window.findChild<QFileDialog *>()->reject(); });
        window.OnBrowseFolder();
        QCOMPARE(window.session()->searchFolderPath(), (QStringList{b, a}));
    }

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
        QVERIFY(ui->filesContainerView->isVisible());
        QVERIFY(ui->fileSearchProgressIndicator->isAnimating());
        QCOMPARE(ui->fileCountLabel->text(), QStringLiteral("Searching for files..."));
        QVERIFY(!ui->beginUploadButton->isEnabled());
        QVERIFY(waitForScan(window));

        QCOMPARE(ui->fileCountLabel->text(),
                 QStringLiteral("30 files were found. Click a filename to remove it from the list."));
        QVERIFY(!ui->fileSearchProgressIndicator->isAnimating());
        QVERIFY(ui->beginUploadButton->isEnabled());
        QCOMPARE(ui->uploadThreadCountField->text(), QStringLiteral("3"));
        QTableView *table = ui->filesTableView;
        QCOMPARE(table->model()->rowCount(), 30);
        QCOMPARE(table->rowHeight(0), 22);
        QCOMPARE(table->model()->index(0, 0).data().toString(), window.session()->foundFiles().at(0));

        // The rows are drawn with the row view: the path in white, grey when highlighted.
        FileListItemView *row = window.filesTableDelegate()->itemView();
        row->setHighlighted(true);
        QCOMPARE(row->pathLabel()->palette().color(QPalette::WindowText), QColor(0xa1, 0xa1, 0xa1));
        row->setHighlighted(false);
        QCOMPARE(row->pathLabel()->palette().color(QPalette::WindowText), QColor(Qt::white));
        const QImage shot = table->viewport()->grab().toImage();
        int lightPixelsInFirstRow = 0;
        for (int y = 0; y < 22; ++y) {
            for (int x = 0; x < shot.width() / 2; ++x) {
                lightPixelsInFirstRow += qGray(shot.pixel(x, y)) > 200;
            }
        }
        QVERIFY2(lightPixelsInFirstRow > 20, "the first row shows no text");

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
        QCOMPARE(window.removeFilePrompt()->windowModality(), Qt::WindowModal);
        QCOMPARE(window.removeFilePrompt()->parentWidget(), &window);
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

        // A drop on the list adds behind it.
        const QString extra = m_dir.filePath(QStringLiteral("extra.flac"));
        QVERIFY(writeFile(extra));
        QVERIFY(dropPaths(ui->filesContainerView, {extra}));
        QTRY_COMPARE_WITH_TIMEOUT(window.session()->foundFiles().size(), 29, 60000);
        QCOMPARE(window.session()->foundFiles().last(), extra);
        QTRY_COMPARE_WITH_TIMEOUT(table->model()->rowCount(), 29, 60000);
    }
};

QTEST_MAIN(TestSearchPages)
#include "tst_searchpages.moc"
