#pragma once

#include <QWidget>

#include <memory>

class QTimer;

namespace Ui {
class SplashWindowController;
}

// The splash window: borderless, black, above normal windows and centred. It
// closes itself after 3 seconds, or at once when clicked; closing it is what
// brings up the main window.
class SplashWindowController : public QWidget
{
    Q_OBJECT

public:
    explicit SplashWindowController(QWidget *parent = nullptr);
    ~SplashWindowController() override;

    static constexpr int kSplashMilliseconds = 3000;

    // The running one-shot timer, or null.
    QTimer *splashTimer() const { return m_splashTimer; }

    void startSplashTimer();
    void stopSplashTimer();
    void onSplashTimeUp();

signals:
    void windowWillClose();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void windowDidLoad();

    std::unique_ptr<Ui::SplashWindowController> m_ui;
    QTimer *m_splashTimer = nullptr;
    bool m_closed = false;
};
