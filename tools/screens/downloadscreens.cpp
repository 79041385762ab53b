// Renders the download dialog in four states (idle, running, failed, done) on a
// made-up stick and saves each as a PNG, once as the dialog alone and once as
// the whole screen.
//
//   download_screens OUTDIR
//
// Writes OUTDIR/download-{idle,running,failed,done}.png and
// OUTDIR/screen-{idle,running,failed,done}.png. The dialog takes the size class of
// the real screen, as on the panel.
#include "download/dlgdownload.h"
#include "text/multilingualmanager.h"
#include "tools/screens/screenframe.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>

#include <cstdio>

namespace {

bool makeProject(const QString& root, const QString& contextPath)
{
    const QString path = root + QLatin1Char('/') + contextPath;
    if (!QDir().mkpath(path.left(path.lastIndexOf(QLatin1Char('/')))))
        return false;
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

bool save(dlgDownLoad& dialog, const QString& outDir, const QString& state)
{
    screens::settle();
    const QString dialogFile = outDir + QStringLiteral("/download-") + state + QStringLiteral(".png");
    const QString screenFile = outDir + QStringLiteral("/screen-") + state + QStringLiteral(".png");
    return screens::savePicture(dialog.grab(), dialogFile, "download_screens")
           && screens::savePicture(dialog.screen()->grabWindow(0), screenFile, "download_screens");
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: download_screens OUTDIR\n");
        return 2;
    }
    const QString outDir = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    QDir().mkpath(outDir);

    if (!screens::prepare("download_screens"))
        return 1;

    QTemporaryDir stick;
    if (!stick.isValid() || !makeProject(stick.path(), QStringLiteral("生产线A/v7/context.dat"))
        || !makeProject(stick.path(), QStringLiteral("packing_line_2/context.dat"))
        || !makeProject(stick.path(), QStringLiteral("test-station-with-a-long-name/v5/context.dat"))
        || !makeProject(stick.path(), QStringLiteral("opxupdateu/context.dat"))) {
        std::fprintf(stderr, "download_screens: cannot build the stick\n");
        return 1;
    }

    dlgDownLoad dialog(QStringLiteral("/usr/kavo_app/project"), QStringLiteral("0"));
    dialog.setPackageRoot(stick.path());
    dialog.show();
    if (!save(dialog, outDir, QStringLiteral("idle")))
        return 1;

    dialog.setBntEnable(false, true, false);
    for (int id : {2011, 2021, 2112, 2114, 2117, 2118, 2022, 2028, 2035, 2039, 2044})
        dialog.setTextEditContent(msg(id));
    dialog.setWindowTitle(msg(2043).arg(dialog.m_projectName));
    if (!save(dialog, outDir, QStringLiteral("running")))
        return 1;

    dialog.setWindowTitle(dialog.m_projectName);
    dialog.findChild<QPushButton*>(QStringLiteral("btnRestart"))->setText(msg(2010));
    dialog.setTextEditContent(msg(2014));
    dialog.resetUpgrageUI(msg(2020));
    if (!save(dialog, outDir, QStringLiteral("failed")))
        return 1;
    dialog.close();

    // A download that went through, three seconds into the reboot countdown.
    dlgDownLoad done(QStringLiteral("/usr/kavo_app/project"), QStringLiteral("0"));
    done.setPackageRoot(stick.path());
    done.show();
    done.setBntEnable(false, true, false);
    for (int id : {2011, 2021, 2112, 2114, 2117, 2118, 2022, 2028, 2035, 2039, 2044, 2050, 2051, 2053, 2056, 2058})
        done.setTextEditContent(msg(id));
    done.resetUpgrageUI(msg(2059) + QLatin1Char('\n'));
    done.findChild<QPushButton*>(QStringLiteral("btnStart"))->setEnabled(false);
    for (int seconds = 10; seconds >= 8; --seconds)
        done.setTextEditContent(msg(2061).arg(seconds));
    if (!save(done, outDir, QStringLiteral("done")))
        return 1;
    return 0;
}
