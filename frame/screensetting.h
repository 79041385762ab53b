// The screen whose device width decides the screen class (small up to 1024
// device pixels, large above): dialog sizes, fonts and layouts follow it.
#pragma once

class QScreen;

class ScreenSetting
{
public:
    // The screen in use, looked up once and cached for the life of the process.
    static QScreen* getTransformedScreen();

    // Width in device pixels before any rotation of that screen; the value set
    // by setDeviceWidthOverride() when there is one.
    static int deviceWidth();

    // Pretends a device of `width` pixels (0 asks the screen again). Lets the
    // 1024/1025 boundary be exercised on any display.
    static void setDeviceWidthOverride(int width);

    static bool isSmallScreen();

private:
    static QScreen* mTranformScreen;
    static int mWidthOverride;
};
