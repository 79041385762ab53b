// Renders the wait dialog shown while the panel's runtime application does not
// stop, as kavo_process::backToDovik opens it, and saves it as a PNG.
//
//   appexit_screens OUTFILE
//
// The texts come from the built-in text table and the application font is the
// one the package chooses for the screen the tool runs on.
#include "frontend/app_exit_failed_dlg.h"
#include "text/multilingualmanager.h"
#include "tools/screens/screenframe.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <functional>

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: appexit_screens OUTFILE\n");
        return 2;
    }
    const QString outFile = QFileInfo(QString::fromLocal8Bit(argv[1])).absoluteFilePath();
    QDir().mkpath(QFileInfo(outFile).absolutePath());

    if (!screens::prepare("appexit_screens"))
        return 1;
    MultilingualManager* table = MultilingualManager::GetInstance();
    kavo_process::setMulLanguage(std::bind(&MultilingualManager::getMultilingualValue, table, std::placeholders::_1));

    app_exit_failed_dlg dialog(nullptr, kavo_process::_func);
    dialog.setPollMode(false);
    dialog.setPromptText(kavo_process::_func(1008));
    dialog.show();
    screens::settle();
    return screens::savePicture(dialog.grab(), outFile, "appexit_screens") ? 0 : 1;
}
