// The library download window over the local service: the error line and its details, the
// abort question, the failures that end a run; and how the main window starts it (folder
// chooser, the button standing for the window) with its progress by bytes and Open Folder.
#include "../session/alertdriver.h"
#include "librarytestsupport.h"

#include "library/ui/downloadlibrarycontroller.h"
#include "service/lyraboxservice.h"
#include "session/ui/mainwindowcontroller.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QJsonObject>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

constexpr int kTimeout = 120000;

// Answers the next folder chooser with `folder`.
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
        // Inside the folder with nothing selected: the folder itself is chosen.
        chooser->setDirectory(folder);
        QMetaObject::invokeMethod(chooser, "accept");
    });
}

} // namespace

class TestLibraryWindow : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
    int m_willClose = 0;
    QList<QUrl> m_opened;

    std::unique_ptr<DownloadLibraryController> makeWindow(const QString &folder)
    {
        m_willClose = 0;
        m_opened.clear();
        auto window = std::make_unique<DownloadLibraryController>(QUrl::fromLocalFile(folder), m_identity.userId,
                                                                  m_identity.token);
        window->setWillClose([this] { ++m_willClose; });
        window->setFolderOpener([this](const QUrl &url) { m_opened.append(url); });
        window->show();
        return window;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_identity = m_server.signInDemo();
        QVERIFY(!m_identity.token.isEmpty());
        QCOMPARE(LibraryTest::seedTracks(m_server, 70, 6000).size(), 70);
        LyraboxService::sharedService().setUserId(m_identity.userId);
        LyraboxService::sharedService().setUserToken(m_identity.token);
    }

    void cleanup() { QVERIFY(m_server.clearFaults()); }

    // The first segment fails and the rest come slowly: the error line, its details, and
    // the abort question from Cancel and from the window manager's close.
    void errorLineDetailsAndAbort()
    {
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"status", 503}}));
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 3000}, {"count", 0}}));
        QTemporaryDir folder;
        auto window = makeWindow(folder.path());
        Ui::DownloadLibraryController *ui = window->ui();
        QVERIFY(ui->errorInfoTextField->isHidden() && ui->errorInfoButton->isHidden());
        QTRY_VERIFY_WITH_TIMEOUT(ui->errorInfoTextField->isVisible() && ui->errorInfoButton->isVisible(), kTimeout);
        QCOMPARE(ui->errorInfoTextField->text(),
                 QStringLiteral("An error occurred while downloading. Retrying library segment 1, attempt 1"));
        QCOMPARE(ui->actionTextField->text(), QStringLiteral("Downloading Library..."));
        QCOMPARE(ui->cancelButton->text(), QStringLiteral("Cancel"));

        AlertDriver driver;
        driver.answer(QStringLiteral("OK"));
        ui->errorInfoButton->click();
        QCOMPARE(driver.seen.size(), 1);
        QCOMPARE(driver.seen[0].text, QStringLiteral("Download Error"));
        QVERIFY(driver.seen[0].informativeText.contains(QStringLiteral("\n\nService Unavailable (503)\n\n")));
        QCOMPARE(driver.seen[0].buttons, QStringList{QStringLiteral("OK")});

        // Cancel asks; "No" keeps the download going. The window manager's close asks the same.
        driver.answer(QStringLiteral("No"));
        ui->cancelButton->click();
        QVERIFY(window->isVisible());
        // The error line goes once a segment arrives.
        QTRY_VERIFY_WITH_TIMEOUT(window->model()->downloadsCompleted() > 0, kTimeout);
        QVERIFY(ui->errorInfoTextField->isHidden() && ui->errorInfoButton->isHidden());
        driver.answer(QStringLiteral("Yes"));
        window->close();
        QCOMPARE(driver.seen.size(), 3);
        for (const AlertDriver::Seen &seen : driver.seen.mid(1)) {
            QCOMPARE(seen.text, QStringLiteral("Abort Download"));
            QCOMPARE(seen.informativeText, QStringLiteral("Are you sure you want to abort the download?"));
            QCOMPARE(seen.buttons, QStringList({"Yes", "No"}));
        }
        QVERIFY(!window->isVisible());
        QCOMPARE(m_willClose, 1);
        QVERIFY(m_opened.isEmpty() && !window->model()->isComplete());
    }

    void failuresThatEndTheRunStayOnScreen()
    {
        // The header request fails: no "Configuring" for ever, the reason is shown, Close
        // closes without asking.
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "header"}, {"drop_after_bytes", 0}, {"count", 0}}));
        QTemporaryDir folder;
        auto window = makeWindow(folder.path());
        QTRY_VERIFY_WITH_TIMEOUT(window->ui()->errorInfoTextField->isVisible(), kTimeout);
        QVERIFY2(!window->ui()->actionTextField->text().startsWith(QStringLiteral("Configuring")),
                 qPrintable(window->ui()->actionTextField->text()));
        QCOMPARE(window->ui()->errorInfoTextField->text(), QStringLiteral("The network connection was lost."));
        window->ui()->cancelButton->click();
        QCOMPARE(m_willClose, 1);

        // A file stands where the library's folder goes: stopped at once, with the cause.
        QTemporaryDir blocked;
        QVERIFY(QFile(QDir(blocked.path()).filePath(QStringLiteral("My Lyrabox Library"))).open(QIODevice::WriteOnly));
        window = makeWindow(blocked.path());
        QTRY_COMPARE_WITH_TIMEOUT(window->ui()->actionTextField->text(), QStringLiteral("Download Stopped"), 10000);
        QVERIFY(window->ui()->errorInfoTextField->isVisible());
        QVERIFY(
            window->ui()->errorInfoTextField->text().endsWith(QStringLiteral("My Lyrabox Library: Not a directory")));
    }

    void startedFromTheMainWindowWithProgressByBytes()
    {
        // A slow link, so the speed is measured; the 70 tracks of about the same size come
        // as a segment of 50 and one of 20.
        constexpr qint64 kRate = 120000;
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"bytes_per_second", kRate}, {"count", 0}}));
        QTemporaryDir folder;
        MainWindowController main;
        QPushButton *button = main.ui()->downloadLibraryButton;
        bool chooserSeen = false;
        answerChooser(folder.path(), &chooserSeen);
        button->click();
        QVERIFY(chooserSeen);
        QPointer<DownloadLibraryController> window = main.downloadLibraryWindow();
        QVERIFY(window && window->isVisible());
        QCOMPARE(window->URL(), QUrl::fromLocalFile(folder.path()));
        QVERIFY(!button->isEnabled());
        QCOMPARE(button->text(), QStringLiteral("Downloading..."));
        QList<QUrl> opened;
        window->setFolderOpener([&opened](const QUrl &url) { opened.append(url); });
        Ui::DownloadLibraryController *ui = window->ui();
        QStringList texts;
        int barAfterFirstSegment = -1;
        connect(window->model(), &DownloadLibraryModel::viewStateChanged, this,
                [&] { texts.append(ui->progressTextField->text()); });
        connect(window->model(), &DownloadLibraryModel::chunkDownloaded, this, [&](qint64 offset) {
            barAfterFirstSegment = offset == 0 ? ui->progressIndicator->value() : barAfterFirstSegment;
        });
        QTRY_COMPARE_WITH_TIMEOUT(ui->actionTextField->text(), QStringLiteral("Done!"), kTimeout);

        // 50 of 70 tracks' bytes, not one of two segments.
        QCOMPARE(ui->progressIndicator->maximum(), 1000);
        QVERIFY2(barAfterFirstSegment >= 690 && barAfterFirstSegment <= 740,
                 qPrintable(QString::number(barAfterFirstSegment)));
        // The line tells the speed, averaged, and the time left, which shrinks.
        const QRegularExpression figures(QStringLiteral(" — ([0-9.]+) KB/s — ([0-9]+) s left$"));
        QList<int> secondsLeft;
        for (const QString &text : std::as_const(texts)) {
            const QRegularExpressionMatch match = figures.match(text);
            if (match.hasMatch()) {
                const double speed = match.captured(1).toDouble() * 1000;
                QVERIFY2(speed > kRate * 0.5 && speed < kRate * 1.5, qPrintable(text));
                secondsLeft.append(match.captured(2).toInt());
            }
        }
        QVERIFY2(!secondsLeft.isEmpty() && (secondsLeft.first() > secondsLeft.last() || secondsLeft.size() == 1),
                 qPrintable(texts.join(QLatin1Char('\n'))));
        QVERIFY(texts.contains(QStringLiteral("All 2 segments downloaded")));
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, QDir(folder.path()).filePath("My Lyrabox Library")),
                 QStringList());

        // Done: the bar is full, not busy; Return presses Open Folder, which closes the
        // window unasked; the button comes back, and the window and its run go.
        QCOMPARE(ui->progressIndicator->value(), ui->progressIndicator->maximum());
        QCOMPARE(ui->cancelButton->text(), QStringLiteral("Open Folder"));
        QVERIFY(ui->cancelButton->isEnabled() && ui->cancelButton->isDefault());
        QTest::keyClick(window, Qt::Key_Return);
        QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(folder.path())});
        QVERIFY(button->isEnabled());
        QCOMPARE(button->text(), QStringLiteral("Start Download"));
        QTRY_VERIFY(window.isNull());
    }
};

QTEST_MAIN(TestLibraryWindow)
#include "tst_librarywindow.moc"
