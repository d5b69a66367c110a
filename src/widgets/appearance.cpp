#include "widgets/appearance.h"

#include "widgets/alert.h"

#include <QApplication>
#include <QStyle>
#include <QStyleFactory>

const char *applicationStyleSheet()
{
    // Fields take their text colours from the palette: a style-sheet colour
    // would make the placeholder a half-transparent copy of it, too faint.
    // Check boxes keep the style's own indicator, which draws the tick in the
    // palette's colours; a styled indicator would have to draw it itself.
    return "QLabel { color: #e6e6e6; }"
           "QLineEdit { background: #1b1b1b; border: 1px solid #6a6a6a; border-radius: 4px;"
           "  padding: 4px 6px; selection-background-color: #2f9be0; }"
           "QLineEdit:focus { border-color: #2f9be0; }"
           "QPushButton { background: #3a3a3a; color: white; border: 1px solid #6a6a6a; border-radius: 4px;"
           "  padding: 5px 14px; }"
           "QPushButton:hover { background: #474747; }"
           "QPushButton:pressed { background: #2f2f2f; }"
           "QPushButton:default { border-color: #2f9be0; }"
           "QPushButton:focus { border-color: #5cb3ea; }"
           "QPushButton:disabled { color: #9a9a9a; border-color: #4a4a4a; }"
           "QAbstractItemView { background: #1b1b1b; color: white; alternate-background-color: #242424;"
           "  selection-background-color: #1f6fa3; selection-color: white; }"
           "QTableView { border: 1px solid #4a4a4a; }"
           "QToolTip { background: #3a3a3a; color: white; border: 1px solid #6a6a6a; }"
           "#logBarView { background-color: #d9d9d9; }"
           "#logBarView QPushButton { background: transparent; border: none; color: rgb(60, 60, 60);"
           "  padding: 2px; }"
           "#logBarView QPushButton:hover { text-decoration: underline; }";
}

void applyApplicationAppearance(QApplication *application)
{
    if (!application) {
        return;
    }
    // Fusion draws with the palette everywhere; a desktop style may keep
    // light backgrounds of its own behind the palette's light text.
    if (QStyle *fusion = QStyleFactory::create(QStringLiteral("Fusion"))) {
        QApplication::setStyle(fusion);
    }
    QApplication::setPalette(darkPalette(QApplication::style()->standardPalette()));
    application->setStyleSheet(QString::fromLatin1(applicationStyleSheet()));
}
