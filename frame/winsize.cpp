#include "frame/winsize.h"

#include "app/constants.h"

int gwinSize[4][2] = {};

void selectWinSize(int deviceWidth)
{
    const int row = deviceWidth <= kSmallScreenMaxWidth ? 0 : 1;
    for (int pair = 0; pair < 4; ++pair) {
        gwinSize[pair][0] = arrayWinSize[row][pair][0];
        gwinSize[pair][1] = arrayWinSize[row][pair][1];
    }
}
