// The longest stall of the GUI thread's event loop while the main window's
// search scans a tree, against the same window idle for as long, and against
// the same scan run on the GUI thread itself (what the worker spares); and
// the longest one while the List page takes a hundred thousand rows, selects
// them and removes half of them.
#include "benchtool.h"
#include "service/lyraboxservice.h"
#include "session/folderscan.h"
#include "session/orderedpathset.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "support/devserverprocess.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPushButton>
#include <QTableView>
#include <QTest>
#include <QTimer>

#include <cstdio>

QString benchTree(const QString &dir, int files);

namespace {

// Ticks every millisecond and keeps the longest gap between two ticks.
class StallMeter
{
public:
    StallMeter()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(1);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] {
            m_longest = std::max(m_longest, m_clock.nsecsElapsed());
            m_clock.restart();
        });
    }
    void start()
    {
        m_longest = 0;
        m_clock.start();
        m_timer.start();
    }
    double stop()
    {
        m_timer.stop();
        return double(std::max(m_longest, m_clock.nsecsElapsed())) / 1e6;
    }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_longest = 0;
};

// Signs in to a local service and shows the main window, as after a sign-in.
bool showSignedInWindow(DevServerProcess &server, MainWindowController &window)
{
    if (!server.start()) {
        std::fprintf(stderr, "cannot start lyrabox-devserver: %s\n", qPrintable(server.errorString()));
        return false;
    }
    LyraboxService &service = LyraboxService::sharedService();
    service.loginWithEmail(QString::fromLatin1(DevServerProcess::kDemoEmail),
                           QString::fromLatin1(DevServerProcess::kDemoPassword));
    QElapsedTimer waited;
    waited.start();
    while (service.getSupportedFormatList().isEmpty() && waited.elapsed() < 60000) {
        QTest::qWait(10);
    }
    if (service.getSupportedFormatList().isEmpty()) {
        std::fprintf(stderr, "sign-in to the local service failed\n");
        return false;
    }
    window.loadWindow();
    window.resize(900, 650);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        std::fprintf(stderr, "the window did not show\n");
        return false;
    }
    return true;
}

// Runs the event loop for `ms` milliseconds. (QTest::qWait sleeps 10 ms
// between its turns, which the meter would count as a stall.)
void runEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

// Runs the event loop until done() holds (or a minute passed), then a little
// longer so that the paint the change asked for is counted too.
template <typename Done> bool runUntil(Done done)
{
    QElapsedTimer waited;
    waited.start();
    while (!done() && waited.elapsed() < 60000) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    runEventLoop(150);
    return done();
}

} // namespace

int benchStall(const QString &dir, int files)
{
    const QString root = benchTree(dir, files);
    DevServerProcess server;
    MainWindowController window;
    if (!showSignedInWindow(server, window)) {
        return 1;
    }
    SessionModel *session = window.session();

    double worst = 0, idleWorst = 0, seconds = 0;
    qsizetype found = 0;
    StallMeter meter;
    for (int round = 0; round < 3; ++round) {
        session->setMainPageType(MainPageTypeSearch);
        session->setSearchFolderPath({root});
        QElapsedTimer scanClock;
        meter.start();
        scanClock.start();
        session->OnSearchFolder();
        while (session->isFileSearchInProgress()) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        }
        const double elapsed = double(scanClock.nsecsElapsed()) / 1e9;
        worst = std::max(worst, meter.stop());
        seconds = round == 0 ? elapsed : std::min(seconds, elapsed);
        found = session->foundFiles().size();

        // The same window, idle for as long.
        meter.start();
        runEventLoop(int(elapsed * 1000) + 1);
        idleWorst = std::max(idleWorst, meter.stop());
    }

    // The scan alone on the GUI thread: the whole of it is one stall.
    QElapsedTimer inline_;
    inline_.start();
    OrderedPathSet set;
    FolderScan(LyraboxService::sharedService().getSupportedFormatList()).scan({root}, [&set](const QString &path) {
        set.append(path);
    });
    const double onGuiThread = double(inline_.nsecsElapsed()) / 1e6;

    const double load = loadAverage();
    std::printf("scan:    %lld files listed in %.3f s through the window (best of 3)\n", qint64(found), seconds);
    std::printf("stall:   %.1f ms longest event-loop gap while scanning (worst of 3; target < 50 ms), load %.2f\n",
                worst, load);
    std::printf("idle:    %.1f ms longest gap of the idle window over as long, load %.2f\n", idleWorst, load);
    std::printf("inline:  %.1f ms if the scan ran on the GUI thread, load %.2f\n", onGuiThread, load);
    std::printf("ratio:   %.2f (GUI-thread scan stall / background scan stall), load %.2f\n", onGuiThread / worst,
                load);
    return 0;
}

int benchWindow(const QString &dir, int rows)
{
    // Seven files in ten are of a listed type: a tree that lists `rows` files.
    const QString root = benchTree(dir, rows / 7 * 10 + rows % 7);
    DevServerProcess server;
    MainWindowController window;
    if (!showSignedInWindow(server, window)) {
        return 1;
    }
    SessionModel *session = window.session();
    auto *table = window.findChild<QTableView *>(QStringLiteral("filesTableView"));
    const int half = rows / 2;

    double arrive = 0, reload = 0, selectAll = 0, selectHalf = 0, remove = 0, idle = 0;
    StallMeter meter;
    for (int round = 0; round < 3; ++round) {
        // The scan hands its files over while it walks; the page lists them
        // sorted at its end.
        session->setMainPageType(MainPageTypeSearch);
        session->setSearchFolderPath({root});
        QElapsedTimer clock;
        clock.start();
        meter.start();
        session->OnSearchFolder();
        if (!runUntil([&] { return !session->isFileSearchInProgress(); }) || table->model()->rowCount() != rows) {
            std::fprintf(stderr, "the list shows %d rows, not %d\n", table->model()->rowCount(), rows);
            return 1;
        }
        arrive = std::max(arrive, meter.stop());
        const int elapsed = int(clock.elapsed());

        // The page set up again over the same files.
        meter.start();
        session->setMainPageType(MainPageTypeList);
        runUntil([] { return true; });
        reload = std::max(reload, meter.stop());

        window.activateWindow();
        table->setFocus();
        meter.start();
        QTest::keyClick(table, Qt::Key_A, Qt::ControlModifier);
        runUntil([] { return true; });
        selectAll = std::max(selectAll, meter.stop());

        // The first half: a click on the first row, a Shift-click on the
        // last of them.
        table->scrollToTop();
        runEventLoop(50);
        meter.start();
        QTest::mouseClick(table->viewport(), Qt::LeftButton, Qt::NoModifier,
                          table->visualRect(table->model()->index(0, 0)).center());
        table->scrollTo(table->model()->index(half - 1, 0));
        QTest::mouseClick(table->viewport(), Qt::LeftButton, Qt::ShiftModifier,
                          table->visualRect(table->model()->index(half - 1, 0)).center());
        runUntil([] { return true; });
        selectHalf = std::max(selectHalf, meter.stop());
        if (window.selectedFiles().size() != half) {
            std::fprintf(stderr, "%lld rows selected, not %d\n", qint64(window.selectedFiles().size()), half);
            return 1;
        }

        // Delete, and Yes in the prompt as soon as it shows.
        meter.start();
        QTest::keyClick(table, Qt::Key_Delete);
        runUntil([&] { return window.removeFilePrompt() && window.removeFilePrompt()->isVisible(); });
        if (!window.removeFilePrompt()) {
            std::fprintf(stderr, "Delete asked nothing\n");
            return 1;
        }
        window.removeFilePrompt()->yesButton()->click();
        if (!runUntil([&] { return !window.removeFilePrompt() && table->model()->rowCount() == rows - half; }) ||
            session->foundFiles().size() != rows - half) {
            std::fprintf(stderr, "%d rows left, not %d\n", table->model()->rowCount(), rows - half);
            return 1;
        }
        remove = std::max(remove, meter.stop());

        // The same window, idle for as long as the scan took.
        meter.start();
        runEventLoop(elapsed + 1);
        idle = std::max(idle, meter.stop());
    }

    const double load = loadAverage();
    std::printf("Longest main-thread slice with %d rows (worst of 3 rounds; target < 50 ms):\n", rows);
    std::printf("arrive:  %7.1f ms  scan, rows handed over and sorted into the list, load %.2f\n", arrive, load);
    std::printf("reload:  %7.1f ms  List page set up again over the same rows, load %.2f\n", reload, load);
    std::printf("all:     %7.1f ms  Ctrl+A selects every row, load %.2f\n", selectAll, load);
    std::printf("half:    %7.1f ms  click and Shift-click select %d rows, load %.2f\n", selectHalf, half, load);
    std::printf("delete:  %7.1f ms  Delete on %d selected rows, prompt answered Yes, load %.2f\n", remove, half, load);
    std::printf("idle:    %7.1f ms  the idle window over as long as a scan, load %.2f\n", idle, load);
    return 0;
}
