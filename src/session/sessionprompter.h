#pragma once

#include <QString>

// Answers of a modal alert: the first, second and third button given.
inline constexpr int kAlertFirstButtonReturn = 1000;
inline constexpr int kAlertSecondButtonReturn = 1001;
inline constexpr int kAlertThirdButtonReturn = 1002;

// How the session asks its user something and shows that it is busy. The
// main window answers with modal alerts and its waiting overlay; pelicane-cli
// answers by fixed defaults on the terminal.
class SessionPrompter
{
public:
    virtual ~SessionPrompter() = default;

    // Blocks until a button is pressed. Empty texts are left out, and so are
    // empty button titles; the answer is 1000 + the index of the pressed
    // button among those given.
    virtual int showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                         const QString &defaultButton, const QString &alternateButton,
                                         const QString &otherButton) = 0;

    // True while an alert of showAlertWithMessageText() is up, so that a
    // second one is not stacked on it.
    virtual bool hasVisibleAlert() const = 0;

    // The waiting overlay: shows the reason and blocks the page below.
    virtual void startWaitingAnimation(const QString &reason) = 0;
    virtual void stopWaitingAnimation() = 0;
};
