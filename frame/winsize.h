// The dialog size table in use: four (width, height) pairs chosen once at
// start-up by the screen's device width. Pair 0 start note, 1 main window,
// 2 download dialog, 3 upload dialog. All zero until selectWinSize() runs.
#pragma once

extern int gwinSize[4][2];

// Screens at most this many device pixels wide are small screens.
constexpr int kSmallScreenMaxWidth = 1024;

// Copies the row of arrayWinSize for a screen `deviceWidth` pixels wide.
void selectWinSize(int deviceWidth);
