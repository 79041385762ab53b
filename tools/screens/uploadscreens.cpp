// Renders the upload dialog before and after a successful upload of a made-up
// panel project to a made-up stick, and saves the pictures as PNG.
//
//   upload_screens OUTDIR
//
// Writes OUTDIR/upload-idle.png, OUTDIR/upload-done.png (the dialog alone) and
// OUTDIR/upload.png (both side by side). The dialog takes the size class of the
// real screen, as on the panel.
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/screens/screenframe.h"
#include "tools/kit/panel.h"
#include "upload/zeltupdlg.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QTemporaryDir>
#include <QWidget>

#include <cstdio>

namespace {

QImage capture(zeltUpDlg& dialog, const QString& file)
{
    screens::settle();
    const QPixmap picture = dialog.grab();
    return screens::savePicture(picture, file, "upload_screens") ? picture.toImage() : QImage();
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: upload_screens OUTDIR\n");
        return 2;
    }
    const QString outDir = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    QDir().mkpath(outDir);

    if (!screens::prepare("upload_screens"))
        return 1;

    // A simulated panel with a project to upload, and a stick whose "opxbackup"
    // is the working directory, as the main window leaves it.
    QTemporaryDir panel;
    QTemporaryDir stick;
    kit::PanelSpec spec;
    spec.backupProject = QByteArray(200000, 'p');
    if (!panel.isValid() || !stick.isValid() || !kit::makePanel(panel.path(), spec)
        || !QDir().mkpath(stick.path() + QStringLiteral("/opxbackup"))
        || !QDir::setCurrent(stick.path() + QStringLiteral("/opxbackup"))) {
        std::fprintf(stderr, "upload_screens: cannot build the panel and the stick\n");
        return 1;
    }
    qputenv("KAVO_PANEL_ROOT", QFile::encodeName(panel.path()));
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(stick.path()));

    QWidget mainWindow;
    mainWindow.setEnabled(false);
    zeltUpDlg dialog(&mainWindow, QString::fromUtf8(Kavo_GetDirectory(3)) + QStringLiteral("/#BKCompreProj.bin"));
    dialog.show();
    const QImage idle = capture(dialog, outDir + QStringLiteral("/upload-idle.png"));
    if (idle.isNull())
        return 1;

    dialog.clickedStartUpBt();
    const QImage done = capture(dialog, outDir + QStringLiteral("/upload-done.png"));
    if (done.isNull())
        return 1;

    constexpr int kGap = 16;
    QImage both(idle.width() + kGap + done.width(), qMax(idle.height(), done.height()), QImage::Format_RGB32);
    both.fill(Qt::white);
    QPainter painter(&both);
    painter.drawImage(0, 0, idle);
    painter.drawImage(idle.width() + kGap, 0, done);
    painter.end();
    if (!screens::savePicture(QPixmap::fromImage(both), outDir + QStringLiteral("/upload.png"), "upload_screens"))
        return 1;
    return 0;
}
