#include "session/ui/mainwindowcontroller.h"

#include "session/audiocdflow.h"

#include "core/logger.h"
#include "session/ui/mainwindowcdprompter.h"
#include "ui_MainWindowController.h"
#include "widgets/alert.h"

#include <QAction>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QShortcut>

namespace {

// The log is offered for clearing from this size on.
constexpr qint64 kClearLogThreshold = 20971520; // 20 MiB

// The overlay's grey: 0x99 with alpha 0x70 ("#99999970" as RGBA).
const QColor kMaskColor(0x99, 0x99, 0x99, 0x70);

const QColor kLogLinkColor(60, 60, 60);

void paintTitleWhite(QWidget *widget)
{
    QPalette palette = widget->palette();
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive}) {
        palette.setColor(group, QPalette::WindowText, Qt::white);
        palette.setColor(group, QPalette::ButtonText, Qt::white);
    }
    widget->setPalette(palette);
    // The window's style sheet draws the text, so it is told as well.
    widget->setStyleSheet(QStringLiteral("color: white;"));
}

// Keeps a button's text cut in the middle to the button's width, so the
// start and the end of a long path stay readable.
class MiddleElidedText : public QObject
{
public:
    explicit MiddleElidedText(QPushButton *button) : QObject(button), m_button(button)
    {
        button->installEventFilter(this);
    }

    void setText(const QString &text)
    {
        m_text = text;
        m_button->setText(text);
        m_wholeWidth = m_button->sizeHint().width();
        // What the style adds around the text.
        m_padding = m_wholeWidth - m_button->fontMetrics().horizontalAdvance(text);
        fit();
    }
    // The button's width with the whole text.
    int wholeWidth() const { return m_wholeWidth; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Resize || event->type() == QEvent::FontChange) {
            fit();
        }
        return QObject::eventFilter(watched, event);
    }

private:
    void fit()
    {
        m_button->setText(
            m_button->fontMetrics().elidedText(m_text, Qt::ElideMiddle, std::max(0, m_button->width() - m_padding)));
    }

    QPushButton *m_button;
    QString m_text;
    int m_padding = 0;
    int m_wholeWidth = 0;
};

} // namespace

MainWindowController::MainWindowController(QWidget *parent)
    : QMainWindow(parent), m_ui(std::make_unique<Ui::MainWindowController>()), m_session(new SessionModel(this, this))
{
    m_ui->setupUi(this);
    m_ui->maskContainerView->raise();
    paintTitleWhite(m_ui->rememberMeCheckbox);

    connect(m_session, &SessionModel::mainPageTypeChanged, this, &MainWindowController::showPageArea);
    // The log link is for the mouse: keyboard focus goes to the page's own controls.
    m_ui->logFileButton->setFocusPolicy(Qt::NoFocus);
    m_ui->clearLogFileButton->setFocusPolicy(Qt::NoFocus);
    auto *quit = new QAction(QStringLiteral("Quit"), this);
    quit->setShortcut(QKeySequence::Quit);
    quit->setShortcutContext(Qt::ApplicationShortcut);
    connect(quit, &QAction::triggered, this, &QWidget::close);
    addAction(quit);
    connect(m_ui->logFileButton, &QPushButton::clicked, this, &MainWindowController::OnLogClicked);
    connect(m_ui->clearLogFileButton, &QPushButton::clicked, this, &MainWindowController::OnClearLogClicked);
    // The disc watch rests while an alert is up, as the session expects.
    m_audioCDMonitorTimer.setInterval(1000);
    connect(&m_audioCDMonitorTimer, &QTimer::timeout, this, [this] {
        if (!hasVisibleAlert()) {
            m_session->discoverAudioCDs();
        }
    });

    connectLoginPage();
    connectSearchPages();
    connectUploadPages();
    connectLibraryPage();
    connectCDControls();
}

MainWindowController::~MainWindowController()
{
    m_audioCDMonitorTimer.stop();
    m_session->detachFromService();
    m_session->setPrompter(nullptr);
    m_session->cdFlow()->setPrompter(nullptr);
}

void MainWindowController::showWindow()
{
    loadWindow();
    show();
    raise();
    activateWindow();
}

void MainWindowController::loadWindow()
{
    if (m_windowLoaded) {
        return;
    }
    m_windowLoaded = true;
    windowDidLoad();
}

void MainWindowController::windowDidLoad()
{
    try {
        m_session->attachToService();
        setupLogFileButtons();
        createUploadListState();

        m_session->loadSearchFolderPath();

        m_session->loadCredentials();
        m_ui->emailField->setText(m_session->email());
        m_ui->emailField->deselect();
        m_ui->emailField->setCursorPosition(int(m_ui->emailField->text().size()));
        m_ui->passwdField->setText(m_session->password());
        m_ui->rememberMeCheckbox->setChecked(m_session->rememberMe());
        connect(m_session, &SessionModel::passwordLoaded, this, [this](const QString &password) {
            if (m_ui->passwdField->text().isEmpty()) {
                m_ui->passwdField->setText(password);
            }
        });
        m_ui->emailField->setFocus(Qt::OtherFocusReason);

        centerOnScreen();

        setupMaskContainerView();
        m_session->setMainPageType(MainPageTypeLogin);

        m_session->setFoundDisks({});
        m_audioCDMonitorTimer.start();
    } catch (const std::exception &e) {
        showAlertWithMessageText(QStringLiteral("exception"), QString::fromUtf8(e.what()), QStringLiteral("okay"));
    }
    paintTitleWhite(m_ui->reuploadCheckbox);
}

void MainWindowController::centerOnScreen()
{
    const QScreen *screen = this->screen();
    if (!screen) {
        return;
    }
    const QRect area = screen->geometry();
    const QSize size = frameGeometry().size().isValid() ? frameGeometry().size() : this->size();
    move(area.x() + area.width() / 2 - size.width() / 2, area.y() + area.height() / 2 - size.height() / 2);
}

void MainWindowController::showPageArea(quint32 type)
{
    QWidget *pages[] = {m_ui->loginContainerView, m_ui->searchContainerView, m_ui->filesContainerView,
                        m_ui->uploadContainerView, m_ui->resultContainerView};
    if (type < std::size(pages)) {
        m_ui->pageStack->setCurrentWidget(pages[type]);
        focusPage(type);
    }
    updateWindowTitle();
}

void MainWindowController::focusPage(quint32 type)
{
    // Where the keyboard goes on each page: the control a user would reach
    // for first, never whatever happens to follow the hidden page.
    QWidget *target = nullptr;
    switch (type) {
    case MainPageTypeLogin:
        target = m_ui->emailField->text().isEmpty() ? m_ui->emailField : m_ui->passwdField;
        break;
    case MainPageTypeSearch:
        target = m_ui->searchFolderPathTextField;
        break;
    case MainPageTypeList:
        target = m_ui->filesTableView;
        break;
    case MainPageTypeUpload:
        target = m_ui->uploadButton;
        break;
    case MainPageTypeResult:
        target = m_ui->resultsStartOverButton;
        break;
    default:
        break;
    }
    if (target) {
        target->setFocus(Qt::OtherFocusReason);
    }
}

// --- Alerts and the waiting overlay ------------------------------------------

int MainWindowController::showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                                   const QString &defaultButton, const QString &alternateButton,
                                                   const QString &otherButton)
{
    // The window's title carries the run's progress; alerts keep the name.
    return runAlert(this, {QStringLiteral("Pelicane"), messageText, informativeText},
                    {defaultButton, alternateButton, otherButton}, true, &m_visibleAlert);
}

void MainWindowController::setupMaskContainerView()
{
    m_ui->maskContainerView->setBackgroundColor(kMaskColor);
    m_ui->maskContainerView->setBlocksMouse(true);
    stopWaitingAnimation();
}

void MainWindowController::startWaitingAnimation(const QString &reason)
{
    m_ui->waitingReasonLabel->setText(reason);
    m_ui->progressIndicator->startAnimation();
    m_ui->maskContainerView->show();
    // Cover the pages at once, not only when the layout next runs.
    m_ui->maskContainerView->setGeometry(m_ui->pageStack->geometry());
    m_ui->maskContainerView->raise();
    // Keys typed meanwhile must not reach the page below either.
    m_ui->maskContainerView->setFocusPolicy(Qt::StrongFocus);
    if (m_ui->waitingCancelButton->isVisibleTo(m_ui->maskContainerView)) {
        m_ui->waitingCancelButton->setFocus(Qt::OtherFocusReason);
    } else {
        m_ui->maskContainerView->setFocus(Qt::OtherFocusReason);
    }
}

void MainWindowController::stopWaitingAnimation()
{
    m_ui->progressIndicator->stopAnimation();
    m_ui->maskContainerView->hide();
}

void MainWindowController::resizeEvent(QResizeEvent *event)
{
    QMainWindow::resizeEvent(event);
    m_ui->maskContainerView->raise();
}

// --- Log link ------------------------------------------------------------------

void MainWindowController::setupLogFileButtons()
{
    const QUrl url = Logger::logFileURL();
    const QString text =
        QStringLiteral("Log file: %1").arg(url.isValid() ? url.toLocalFile() : QStringLiteral("(null)"));
    QPushButton *button = m_ui->logFileButton;
    QPalette palette = button->palette();
    palette.setColor(QPalette::ButtonText, kLogLinkColor);
    button->setPalette(palette);
    button->setCursor(Qt::PointingHandCursor);
    // Its whole width where there is room, and no more; cut in the middle
    // where there is not: a long log path must not set the window's
    // narrowest width. The whole path stays in the tooltip.
    auto *elided = button->findChild<MiddleElidedText *>();
    if (!elided) {
        elided = new MiddleElidedText(button);
    }
    elided->setText(text);
    button->setToolTip(text);
    button->setMaximumWidth(elided->wholeWidth());
    button->setSizePolicy(QSizePolicy::Ignored, button->sizePolicy().verticalPolicy());
    m_ui->logBarLayout->setStretchFactor(button, 1);

    const qint64 size = Logger::logSize();
    if (size < kClearLogThreshold) {
        m_ui->clearLogFileButton->hide();
    } else {
        m_ui->clearLogFileButton->setText(QStringLiteral("%1MB, clear log").arg(size / 1048576));
        m_ui->clearLogFileButton->show();
    }
}

void MainWindowController::OnLogClicked()
{
    // File managers differ in how they select a file; opening its folder
    // works everywhere.
    const QUrl url = Logger::logFileURL();
    if (url.isValid()) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(url.toLocalFile()).absolutePath()));
    }
}

void MainWindowController::OnClearLogClicked()
{
    Logger::clearLog();
    m_ui->clearLogFileButton->hide();
}

// --- Sign-in -------------------------------------------------------------------

void MainWindowController::connectLoginPage()
{
    connect(m_ui->emailField, &QLineEdit::textChanged, m_session, &SessionModel::setEmail);
    connect(m_ui->passwdField, &QLineEdit::textChanged, m_session, &SessionModel::setPassword);
    connect(m_ui->emailField, &QLineEdit::returnPressed, this, [this] { OnEnterPressed(m_ui->emailField); });
    connect(m_ui->passwdField, &QLineEdit::returnPressed, this, [this] { OnEnterPressed(m_ui->passwdField); });
    connect(m_ui->loginButton, &QPushButton::clicked, this, &MainWindowController::OnLogin);
    // Return signs in from anywhere on the form, as it would in a dialog:
    // on the focused button, and after ticking Remember Me by keyboard.
    m_ui->loginButton->setAutoDefault(true);
    for (const int key : {Qt::Key_Return, Qt::Key_Enter}) {
        auto *returnOnCheckbox = new QShortcut(QKeySequence(key), m_ui->rememberMeCheckbox);
        returnOnCheckbox->setContext(Qt::WidgetShortcut);
        connect(returnOnCheckbox, &QShortcut::activated, this, &MainWindowController::OnLogin);
    }
    // Only the user's clicks count: loading the saved state must not store it again.
    connect(m_ui->rememberMeCheckbox, &QCheckBox::clicked, this, &MainWindowController::OnRememberMeChecked);
    connect(m_session, &SessionModel::loggingInChanged, this, [this](bool loggingIn) {
        if (loggingIn) {
            m_ui->loginProgressIndicator->startAnimation();
        } else {
            m_ui->loginProgressIndicator->stopAnimation();
        }
        m_ui->loginButton->setEnabled(!loggingIn);
    });
}

void MainWindowController::OnLogin()
{
    m_session->setEmail(m_ui->emailField->text());
    m_session->setPassword(m_ui->passwdField->text());
    m_session->OnLogin();
}

void MainWindowController::OnEnterPressed(QLineEdit *field)
{
    if (field == m_ui->emailField) {
        m_ui->passwdField->setFocus(Qt::TabFocusReason);
    } else if (field == m_ui->passwdField) {
        OnLogin();
    }
}

void MainWindowController::OnRememberMeChecked(bool checked)
{
    m_session->OnRememberMeChecked(checked);
}

// --- Closing -------------------------------------------------------------------

void MainWindowController::closeEvent(QCloseEvent *event)
{
    if (!confirmStoppingRun(QStringLiteral("Quit while uploading?"), QStringLiteral("Quit"))) {
        event->ignore();
        return;
    }
    QMainWindow::closeEvent(event);
    if (event->isAccepted()) {
        m_audioCDMonitorTimer.stop();
        m_session->detachFromService();
        tearDownUploadListState();
        emit windowWillClose();
    }
}
