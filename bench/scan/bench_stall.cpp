// The longest stall of the GUI thread's event loop while the main window's
// search scans a tree, against the same window idle for as long, and against
// the same scan run on the GUI thread itself (what the worker spares).
#include "service/lyraboxservice.h"
#include "session/folderscan.h"
#include "session/orderedpathset.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/devserverprocess.h"

#include <QApplication>
#include <QElapsedTimer>
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

} // namespace

int benchStall(const QString &dir, int files)
{
    const QString root = benchTree(dir, files);
    DevServerProcess server;
    if (!server.start()) {
        std::fprintf(stderr, "cannot start lyrabox-devserver: %s\n", qPrintable(server.errorString()));
        return 1;
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
        return 1;
    }

    MainWindowController window;
    window.loadWindow();
    window.resize(900, 650);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        std::fprintf(stderr, "the window did not show\n");
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
        QTest::qWait(int(elapsed * 1000) + 1);
        idleWorst = std::max(idleWorst, meter.stop());
    }

    // The scan alone on the GUI thread: the whole of it is one stall.
    QElapsedTimer inline_;
    inline_.start();
    OrderedPathSet set;
    FolderScan(service.getSupportedFormatList()).scan({root}, [&set](const QString &path) { set.append(path); });
    const double onGuiThread = double(inline_.nsecsElapsed()) / 1e6;

    std::printf("scan:    %lld files listed in %.3f s through the window (best of 3)\n", qint64(found), seconds);
    std::printf("stall:   %.1f ms longest event-loop gap while scanning (worst of 3; target < 50 ms)\n", worst);
    std::printf("idle:    %.1f ms longest gap of the idle window over as long\n", idleWorst);
    std::printf("inline:  %.1f ms if the scan ran on the GUI thread\n", onGuiThread);
    std::printf("ratio:   %.2f (GUI-thread scan stall / background scan stall)\n", onGuiThread / worst);
    return 0;
}
