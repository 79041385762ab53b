#include "tools/screens/screenframe.h"

#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "text/multilingualmanager.h"

#include <QApplication>
#include <QEventLoop>
#include <QFont>
#include <QPixmap>
#include <QTimer>

#include <cstdio>

namespace screens {

bool prepare(const char* tool)
{
    initKavoResources();
    if (!MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile)) {
        std::fprintf(stderr, "%s: no text table\n", tool);
        return false;
    }
    selectWinSize(ScreenSetting::deviceWidth());
    QFont font(QStringLiteral("宋体"));
    font.setPixelSize(ScreenSetting::isSmallScreen() ? 12 : 16);
    QApplication::setFont(font);
    return true;
}

void settle(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

bool savePicture(const QPixmap& picture, const QString& file, const char* tool)
{
    if (!picture.save(file)) {
        std::fprintf(stderr, "%s: cannot write %s\n", tool, qPrintable(file));
        return false;
    }
    std::printf("%s\n", qPrintable(file));
    return true;
}

} // namespace screens
