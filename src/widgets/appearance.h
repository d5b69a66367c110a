#pragma once

class QApplication;

// One look for every window of the program: the Fusion style, the dark
// palette and the shared style sheet, set on the application so that alerts,
// prompts, the folder chooser and the library window all take them, not only
// the main window. Safe to call more than once.
void applyApplicationAppearance(QApplication *application);

// The style sheet the application carries.
const char *applicationStyleSheet();
