// Renders the start note and the package's main window as the operator meets
// them, and saves the pictures as PNG.
//
//   note_screens OUTDIR
//
// Writes OUTDIR/startnote.png and OUTDIR/mainwindow.png (each window alone)
// and OUTDIR/screen-startnote.png, OUTDIR/screen-mainwindow.png (the whole
// screen, to check the centring). The windows take the size class of the real
// screen, as on the panel; run it under Xvfb with the panel's screen size. The
// note reads a made-up package in a temporary stick, the main window a made-up
// panel with a packed project to upload.
#include "frontend/dlgupnote.h"
#include "frontend/udiskupwin.h"
#include "text/multilingualmanager.h"
#include "tools/screens/screenframe.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QScreen>
#include <QTemporaryDir>

#include <cstdio>

namespace {

// The window alone and the whole screen around it.
bool capture(QWidget& window, const QString& outDir, const QString& name)
{
    window.show();
    screens::settle(400);
    return screens::savePicture(window.grab(), outDir + QLatin1Char('/') + name + QStringLiteral(".png"),
                                "note_screens")
           && screens::savePicture(window.screen()->grabWindow(0),
                                   outDir + QStringLiteral("/screen-") + name + QStringLiteral(".png"), "note_screens");
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: note_screens OUTDIR\n");
        return 2;
    }
    const QString outDir = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    QDir().mkpath(outDir);

    if (!screens::prepare("note_screens"))
        return 1;

    QTemporaryDir panel;
    QTemporaryDir stick;
    kit::PackageSpec package;
    package.languageNames = QStringList{QStringLiteral("中文"), QStringLiteral("English")};
    package.languageIds = QStringList{QStringLiteral("0000"), QStringLiteral("0001")};
    if (!panel.isValid() || !stick.isValid() || !kit::makePanel(panel.path(), kit::PanelSpec())
        || !kit::writePackage(stick.path(), package) || !QDir::setCurrent(stick.path())) {
        std::fprintf(stderr, "note_screens: cannot build the panel and the stick\n");
        return 1;
    }
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel.path()));

    dlgUpNote note(stick.path() + QStringLiteral("/opxupdateu"), QStringLiteral("0000"));
    if (!capture(note, outDir, QStringLiteral("startnote")))
        return 1;
    note.hide();

    UDiskUpWin mainWindow(QStringLiteral("0000"));
    if (!capture(mainWindow, outDir, QStringLiteral("mainwindow")))
        return 1;
    return 0;
}
