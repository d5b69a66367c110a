#pragma once

#include <QPalette>
#include <QPointer>
#include <QString>
#include <QStringList>

class QMessageBox;
class QWidget;

// The dark look of the program's windows and alerts.
QPalette darkPalette(QPalette palette = QPalette());

struct AlertText
{
    QString windowTitle;
    QString messageText;     // shown bold
    QString informativeText; // below it
    // Return presses the last, cautious button instead of the first: for
    // questions whose first answer throws work away.
    bool cautiousDefault = false;
};

// Runs a modal alert over parent with the buttons in the given order (an
// alert without titles gets a plain "OK") and answers 1000 + the index of the
// button pressed. Return presses the first button (or the last, see
// AlertText::cautiousDefault); closing the alert, or
// Escape, answers like the last one, the cautious one. While it runs,
// *visible (when given) points at it.
int runAlert(QWidget *parent, const AlertText &text, QStringList buttons, bool dark = true,
             QPointer<QMessageBox> *visible = nullptr);
