#include "frame/winbackground.h"

#include "ui_winbackground.h"

#include <QGuiApplication>
#include <QScreen>

WinBackground::WinBackground(QWidget* /*parent*/)
    : QMainWindow(nullptr, Qt::WindowFlags())
    , ui(std::make_unique<Ui::WinBackground>())
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint);
    // Full-screen state is carried out by a window manager, and a panel's
    // display may have none: the backdrop takes the whole screen itself too,
    // so that no touch beside a dialog reaches what lies behind the package.
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        setGeometry(screen->geometry());
    setWindowState(Qt::WindowFullScreen);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    setAttribute(Qt::WA_TranslucentBackground, true);
    setEnabled(false);
}

WinBackground::~WinBackground() = default;
