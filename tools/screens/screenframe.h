// What every screen renderer does before it builds a dialog, and while it
// waits for one to be painted: the pictures show the dialogs as the package
// shows them on a screen of the renderer's size.
#pragma once

class QPixmap;
class QString;

namespace screens {

// Loads the built-in text table, chooses the size class of the screen the
// renderer runs on and sets the application font the package would choose
// there. False, with a message on standard error naming `tool`, when the text
// table cannot be loaded.
bool prepare(const char* tool);

// Lets the window system show and paint what changed.
void settle(int milliseconds = 300);

// Saves `picture` as `file` and prints the file's path on standard output, so
// that a caller can collect what was written. False, with a message naming
// `tool` on standard error, when the file cannot be written.
bool savePicture(const QPixmap& picture, const QString& file, const char* tool);

} // namespace screens
