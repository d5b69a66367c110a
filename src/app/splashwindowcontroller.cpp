#include "app/splashwindowcontroller.h"

#include "core/appinfo.h"
#include "ui_SplashWindowController.h"

#include <QCloseEvent>
#include <QMouseEvent>
#include <QScreen>
#include <QSvgWidget>
#include <QTimer>

SplashWindowController::SplashWindowController(QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::SplashWindowController>())
{
    m_ui->setupUi(this);
    // Borderless, not movable, and kept above normal windows like a modal panel.
    setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_DeleteOnClose, false);
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, Qt::black);
    setPalette(palette);
    setAutoFillBackground(true);
    m_ui->iconView->load(QStringLiteral(":/icons/com.lyrabox.pelicane.svg"));
    m_ui->versionLabel->setText(QStringLiteral("Version %1 (%2)").arg(AppInfo::shortVersion(), AppInfo::buildNumber()));
    windowDidLoad();
}

SplashWindowController::~SplashWindowController() = default;

void SplashWindowController::windowDidLoad()
{
    if (const QScreen *screen = this->screen()) {
        const QRect area = screen->geometry();
        move(area.x() + area.width() / 2 - width() / 2, area.y() + area.height() / 2 - height() / 2);
    }
    startSplashTimer();
}

void SplashWindowController::startSplashTimer()
{
    if (m_splashTimer) {
        return;
    }
    // Qt timers keep firing inside modal loops, so an alert at start-up does
    // not hold the splash up.
    m_splashTimer = new QTimer(this);
    m_splashTimer->setSingleShot(true);
    // A coarse timer may fire up to 5 % early; the splash stays its full 3 seconds.
    m_splashTimer->setTimerType(Qt::PreciseTimer);
    m_splashTimer->setInterval(kSplashMilliseconds);
    connect(m_splashTimer, &QTimer::timeout, this, &SplashWindowController::onSplashTimeUp);
    m_splashTimer->start();
}

void SplashWindowController::stopSplashTimer()
{
    if (m_splashTimer) {
        m_splashTimer->stop();
        m_splashTimer->deleteLater();
        m_splashTimer = nullptr;
    }
}

void SplashWindowController::onSplashTimeUp()
{
    stopSplashTimer();
    close();
}

void SplashWindowController::mousePressEvent(QMouseEvent *event)
{
    event->accept();
    onSplashTimeUp();
}

void SplashWindowController::closeEvent(QCloseEvent *event)
{
    QWidget::closeEvent(event);
    if (event->isAccepted() && !m_closed) {
        m_closed = true;
        emit windowWillClose();
    }
}
