#pragma once

#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"

#include <QtTest>

// Shows the window at its usual size and signs in with the demo account
// through its fields and button; the window is on the Search page after.
inline void signInThroughTheWindow(MainWindowController &window)
{
    window.resize(900, 640);
    window.showWindow();
    window.ui()->emailField->setText(QString::fromLatin1(DevServerProcess::kDemoEmail));
    window.ui()->passwdField->setText(QString::fromLatin1(DevServerProcess::kDemoPassword));
    window.ui()->loginButton->click();
    QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), 30000);
}
