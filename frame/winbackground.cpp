#include "frame/winbackground.h"

#include "ui_winbackground.h"

WinBackground::WinBackground(QWidget* /*parent*/)
    : QMainWindow(nullptr, Qt::WindowFlags())
    , ui(std::make_unique<Ui::WinBackground>())
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint);
    setWindowState(Qt::WindowFullScreen);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    setAttribute(Qt::WA_TranslucentBackground, true);
    setEnabled(false);
}

WinBackground::~WinBackground() = default;
