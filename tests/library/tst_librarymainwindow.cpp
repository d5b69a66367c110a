// The library download started from the main window: the folder chooser, the download
// window, and the button standing for it while it is open.
#include "librarytestsupport.h"

#include "library/ui/downloadlibrarycontroller.h"
#include "service/lyraboxservice.h"
#include "session/ui/mainwindowcontroller.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

constexpr int kTimeout = 120000;

// Answers the next folder chooser with `folder`, or cancels it when empty.
void answerChooser(const QString &folder, bool *seen)
{
    QTimer::singleShot(50, [folder, seen] {
        auto *chooser = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!chooser) {
            answerChooser(folder, seen);
            return;
        }
        *seen = chooser->fileMode() == QFileDialog::Directory && chooser->testOption(QFileDialog::ShowDirsOnly) &&
                !chooser->testOption(QFileDialog::ReadOnly);
        if (folder.isEmpty()) {
            chooser->reject();
            return;
        }
        // Inside the folder with nothing selected: the folder itself is chosen.
        chooser->setDirectory(folder);
        QMetaObject::invokeMethod(chooser, "accept");
    });
}

} // namespace

class TestLibraryMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void downloadFromTheFolderPage();

private:
    DevServerProcess m_server;
};

void TestLibraryMainWindow::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    const LibraryTest::Identity identity = LibraryTest::signIn(m_server);
    QVERIFY(!identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 55, 5000).size(), 55);
    LyraboxService::sharedService().setUserId(identity.userId);
    LyraboxService::sharedService().setUserToken(identity.token);
}

void TestLibraryMainWindow::downloadFromTheFolderPage()
{
    QTemporaryDir folder;
    MainWindowController main;
    QPushButton *button = main.ui()->downloadLibraryButton;
    // A cancelled chooser changes nothing.
    bool chooserSeen = false;
    answerChooser(QString(), &chooserSeen);
    main.OnDownloadLibrary();
    QVERIFY(chooserSeen);
    QVERIFY(!main.downloadLibraryWindow());
    QVERIFY(button->isEnabled());
    QCOMPARE(button->text(), QStringLiteral("Start Download"));

    chooserSeen = false;
    answerChooser(folder.path(), &chooserSeen);
    button->click();
    QVERIFY(chooserSeen);

    QPointer<DownloadLibraryController> window = main.downloadLibraryWindow();
    QVERIFY(window);
    QVERIFY(window->isVisible());
    QCOMPARE(window->URL(), QUrl::fromLocalFile(folder.path()));
    QVERIFY(!button->isEnabled());
    QCOMPARE(button->text(), QStringLiteral("Downloading..."));
    QList<QUrl> opened;
    window->setFolderOpener([&opened](const QUrl &url) { opened.append(url); });

    QTRY_COMPARE_WITH_TIMEOUT(window->ui()->actionTextField->text(), QStringLiteral("Done!"), kTimeout);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, QDir(folder.path()).filePath("My Lyrabox Library")),
             QStringList());
    window->ui()->cancelButton->click();
    QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(folder.path())});
    QVERIFY(button->isEnabled());
    QCOMPARE(button->text(), QStringLiteral("Start Download"));
    // The window and its run go away once closed.
    QTRY_VERIFY(window.isNull());
}

QTEST_MAIN(TestLibraryMainWindow)
#include "tst_librarymainwindow.moc"
