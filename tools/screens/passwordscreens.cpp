// Renders the access-password dialog and saves it as PNG pictures, for the
// documentation and for checking the keyboard's layout by eye (run it under
// Xvfb with the screen size of the panel in question).
//
//   password_screens OUTDIR
//
// Writes OUTDIR/password.png (the dialog with three characters typed),
// OUTDIR/password-lower.png (after "Cap": lower-case letters) and
// OUTDIR/screen-password-toolong.png (the whole screen while the 20-character
// message is up). The dialog checks what is typed against a made-up panel in
// a temporary directory, never against the machine's own configuration.
#include "frontend/pwdentrydialog.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/screens/screenframe.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

namespace {

bool saveDialog(QWidget& dialog, const QString& file)
{
    screens::settle();
    return screens::savePicture(dialog.grab(), file, "password_screens");
}

void press(const QWidget& dialog, const char* keyName)
{
    dialog.findChild<QPushButton*>(QLatin1String(keyName))->click();
}

// A panel whose configuration holds a password nobody types here, so that
// every key leaves the dialog open.
bool makePanel(const QTemporaryDir& panel)
{
    kit::PanelSpec spec;
    spec.passwordDigest =
        QString::fromLatin1(QCryptographicHash::hash("not-typed", QCryptographicHash::Md5).toHex());
    if (!panel.isValid() || !kit::makePanel(panel.path(), spec))
        return false;
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel.path()));
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: password_screens OUTDIR\n");
        return 2;
    }
    const QString outDir = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    QDir().mkpath(outDir);

    QTemporaryDir panel;
    if (!makePanel(panel)) {
        std::fprintf(stderr, "password_screens: cannot build the panel\n");
        return 1;
    }
    if (!screens::prepare("password_screens"))
        return 1;
    MultilingualManager* texts = MultilingualManager::GetInstance();

    PwdEntryDialog dialog(nullptr, [texts](int id) { return texts->getMultilingualValue(id); });
    dialog.show();
    for (const char* key : {"keyBtnA", "keyBtnB", "keyBtn1"})
        press(dialog, key);
    if (!saveDialog(dialog, outDir + QStringLiteral("/password.png")))
        return 1;

    press(dialog, "keyBtnCap");
    if (!saveDialog(dialog, outDir + QStringLiteral("/password-lower.png")))
        return 1;
    press(dialog, "keyBtnCap");

    // The box runs modally inside the key press: picture it from a timer,
    // then answer it.
    const QString boxFile = outDir + QStringLiteral("/screen-password-toolong.png");
    bool boxSaved = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr || !box->isVisible())
            return;
        poll.stop();
        screens::settle();
        boxSaved = screens::savePicture(box->screen()->grabWindow(0), boxFile, "password_screens");
        box->button(QMessageBox::Ok)->click();
    });
    poll.start(50);
    for (int i = 0; i < 18; ++i)
        press(dialog, "keyBtnZ");
    dialog.close();
    return boxSaved ? 0 : 1;
}
