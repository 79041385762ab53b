// The full-screen backdrop under each of the package's dialogs.
//
// Every dialog floats in the middle of the panel's screen; the runtime's last
// picture stays visible around it through this frameless, see-through window.
// The backdrop is disabled, so a touch outside the dialog goes nowhere.
#pragma once

#include <QMainWindow>

#include <memory>

namespace Ui {
class WinBackground;
}

class WinBackground : public QMainWindow
{
    Q_OBJECT

public:
    // `parent` is not used: the backdrop is always a top-level window of its
    // own, below the dialog that owns it.
    explicit WinBackground(QWidget* parent = nullptr);
    ~WinBackground() override;

private:
    std::unique_ptr<Ui::WinBackground> ui;
};
