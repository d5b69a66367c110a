#pragma once

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QTimer>

#include <functional>

// Answers the next modal alert from inside its own event loop: waits for a
// QMessageBox to become the active modal widget, hands it to `inspect`, then
// presses the button titled `answer`.
class AlertDriver : public QObject
{
public:
    struct Seen
    {
        QString text, informativeText;
        QStringList buttons;
    };

    explicit AlertDriver(QObject *parent = nullptr) : QObject(parent)
    {
        m_timer.setInterval(20);
        connect(&m_timer, &QTimer::timeout, this, &AlertDriver::poll);
    }

    void answer(const QString &button, std::function<void(QMessageBox *)> inspect = {})
    {
        m_button = button;
        m_inspect = std::move(inspect);
        m_timer.start();
    }

    QList<Seen> seen;

private:
    void poll()
    {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box || !box->isVisible()) {
            return;
        }
        m_timer.stop();
        Seen s{box->text(), box->informativeText(), {}};
        QAbstractButton *target = nullptr;
        for (QAbstractButton *b : box->buttons()) {
            s.buttons << b->text();
            if (b->text() == m_button) {
                target = b;
            }
        }
        seen << s;
        if (m_inspect) {
            m_inspect(box);
        }
        if (target) {
            target->click();
        }
    }

    QTimer m_timer;
    QString m_button;
    std::function<void(QMessageBox *)> m_inspect;
};
