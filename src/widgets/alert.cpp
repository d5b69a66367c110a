#include "widgets/alert.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

#include <algorithm>

QPalette darkPalette(QPalette palette)
{
    palette.setColor(QPalette::Window, QColor(0x26, 0x26, 0x26));
    palette.setColor(QPalette::WindowText, QColor(0xe6, 0xe6, 0xe6));
    palette.setColor(QPalette::Base, QColor(0x1b, 0x1b, 0x1b));
    palette.setColor(QPalette::AlternateBase, QColor(0x2e, 0x2e, 0x2e));
    palette.setColor(QPalette::Text, Qt::white);
    palette.setColor(QPalette::PlaceholderText, QColor(0x9a, 0x9a, 0x9a));
    palette.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3a));
    palette.setColor(QPalette::ButtonText, Qt::white);
    palette.setColor(QPalette::Highlight, QColor(0x2f, 0x9b, 0xe0));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, QColor(0x3a, 0x3a, 0x3a));
    palette.setColor(QPalette::ToolTipText, Qt::white);
    palette.setColor(QPalette::BrightText, Qt::white);
    palette.setColor(QPalette::Link, QColor(0x5c, 0xb3, 0xea));
    palette.setColor(QPalette::LinkVisited, QColor(0xa8, 0x8b, 0xe0));
    // The shades the style draws frames and bevels with.
    palette.setColor(QPalette::Light, QColor(0x4a, 0x4a, 0x4a));
    palette.setColor(QPalette::Midlight, QColor(0x3e, 0x3e, 0x3e));
    palette.setColor(QPalette::Mid, QColor(0x30, 0x30, 0x30));
    palette.setColor(QPalette::Dark, QColor(0x1e, 0x1e, 0x1e));
    palette.setColor(QPalette::Shadow, QColor(0x10, 0x10, 0x10));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x9a, 0x9a, 0x9a));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x9a, 0x9a, 0x9a));
    palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0x9a, 0x9a, 0x9a));
    return palette;
}

int runAlert(QWidget *parent, const AlertText &text, QStringList buttons, bool dark, QPointer<QMessageBox> *visible)
{
    // Parented to the window, so it is centred on it and looks like it.
    QMessageBox alert(parent);
    if (dark) {
        alert.setPalette(darkPalette(alert.palette()));
    }
    // The message is bold through the label's own font, not a style sheet:
    // the box measures its labels with their fonts before a style sheet would
    // apply, and a bolder text than measured is cut off at the right.
    alert.setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 300px; }"));
    alert.setWindowModality(Qt::ApplicationModal);
    alert.setWindowTitle(text.windowTitle);
    alert.setIcon(QMessageBox::NoIcon);
    if (!text.messageText.isEmpty()) {
        alert.setText(text.messageText);
    }
    if (!text.informativeText.isEmpty()) {
        alert.setInformativeText(text.informativeText);
    }
    if (auto *label = alert.findChild<QLabel *>(QStringLiteral("qt_msgbox_label"))) {
        QFont bold = label->font();
        bold.setBold(true);
        label->setFont(bold);
        // As wide as the message up to a readable measure, wrapping beyond it.
        label->setWordWrap(true);
        const int width = QFontMetrics(bold).horizontalAdvance(text.messageText) + 4;
        label->setMinimumWidth(std::clamp(width, 300, 480));
    }
    buttons.removeAll(QString());
    if (buttons.isEmpty()) {
        buttons.append(QStringLiteral("OK"));
    }
    QList<QAbstractButton *> added;
    for (const QString &title : std::as_const(buttons)) {
        added.append(alert.addButton(title, added.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::ActionRole));
    }
    alert.setDefaultButton(qobject_cast<QPushButton *>(text.cautiousDefault ? added.last() : added.first()));
    alert.setEscapeButton(added.last());

    if (visible) {
        *visible = &alert;
    }
    alert.exec();
    if (visible) {
        *visible = nullptr;
    }
    const qsizetype index = added.indexOf(alert.clickedButton());
    return 1000 + int(index < 0 ? added.size() - 1 : index);
}
