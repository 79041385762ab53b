#include "frame/screensetting.h"

#include "frame/winsize.h"

#include <QGuiApplication>
#include <QScreen>

QScreen* ScreenSetting::mTranformScreen = nullptr;
int ScreenSetting::mWidthOverride = 0;

QScreen* ScreenSetting::getTransformedScreen()
{
    // Qt 5 gives every screen its transformation already; the primary screen is
    // the display's own screen, which the panel drives.
    if (mTranformScreen == nullptr)
        mTranformScreen = QGuiApplication::primaryScreen();
    return mTranformScreen;
}

int ScreenSetting::deviceWidth()
{
    if (mWidthOverride > 0)
        return mWidthOverride;
    const QScreen* screen = getTransformedScreen();
    if (screen == nullptr)
        return 0;
    QSize size = screen->geometry().size() * screen->devicePixelRatio();
    // A rotated panel reports its logical geometry turned by 90 degrees; the
    // device width is the one before the rotation.
    const int angle = screen->angleBetween(screen->nativeOrientation(), screen->orientation());
    if (angle == 90 || angle == 270)
        size.transpose();
    return size.width();
}

void ScreenSetting::setDeviceWidthOverride(int width)
{
    mWidthOverride = width;
}

bool ScreenSetting::isSmallScreen()
{
    return deviceWidth() <= kSmallScreenMaxWidth;
}
