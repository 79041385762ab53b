#include "frontend/udiskupwin.h"

#include "ui_udiskupwin.h"

#include "download/accessfile.h"
#include "download/dlgdownload.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "upload/zeltupdlg.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopWidget>
#include <QDir>
#include <QFile>
#include <QPushButton>
#include <QShowEvent>

#include <unistd.h>

UDiskUpWin::UDiskUpWin(const QString& lanId, QWidget* parent)
    : QDialog(parent)
    , ui(std::make_unique<Ui::UDiskUpWin>())
    , m_lanId(lanId)
{
    ui->setupUi(this);
    m_background = std::make_unique<WinBackground>();

    setFixedSize(gwinSize[1][0], gwinSize[1][1]);
    setWindowTitle(msg(2000));
    setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    const QRect desktop = QApplication::desktop()->geometry();
    move((desktop.width() - width()) / 2, (desktop.height() - height()) / 2);

    // The upload writes into the stick's backup directory; without one the
    // package stays where it was started until an upload creates it.
    m_inBackupDir = changeWorkingDir(m_backupDir.toLocal8Bit().constData());

    m_panelDir = QString::fromUtf8(Kavo_GetDirectory(3));
    m_backupFile = m_panelDir + QStringLiteral("/#BKCompreProj.bin");
    // Nothing to upload from a panel without a packed project.
    if (m_panelDir.isEmpty() || !QFile::exists(m_backupFile))
        ui->btnUpToUdisk->setEnabled(false);

    ui->btnProUpToNew->setText(msg(2005));
    ui->btnUpToUdisk->setText(msg(2006));

    connect(ui->btnProUpToNew, &QPushButton::clicked, this, &UDiskUpWin::showUpToNew);
    connect(ui->btnUpToUdisk, &QPushButton::clicked, this, &UDiskUpWin::showUpToDisk);
}

UDiskUpWin::~UDiskUpWin() = default;

bool UDiskUpWin::changeWorkingDir(const char* dir)
{
    return AccessFile::changeWorkingDir(dir);
}

void UDiskUpWin::showUpToNew()
{
    // A second press while the download dialog is being built must not start
    // another one.
    disconnect(ui->btnProUpToNew, &QPushButton::clicked, this, &UDiskUpWin::showUpToNew);
    hide();
    repaint();

    auto download = std::make_unique<dlgDownLoad>(m_panelDir, m_lanId, nullptr);
    download->exec();
    close();
}

void UDiskUpWin::showUpToDisk()
{
    setEnabled(false);
    // A new stick has no backup directory yet. The upload's copy and its
    // unpacked project both go into it, so it is made here, on the stick the
    // package was started from, rather than failing the copy.
    if (!m_inBackupDir) {
        QDir().mkdir(m_backupDir);
        sync();
        m_inBackupDir = changeWorkingDir(m_backupDir.toLocal8Bit().constData());
    }
    // A child of this window: it lives as long as the window does and enables
    // it again when it closes.
    auto* upload = new zeltUpDlg(this, m_backupFile);
    upload->show();
}

void UDiskUpWin::showEvent(QShowEvent* event)
{
    m_background->show();
    QDialog::showEvent(event);
}

void UDiskUpWin::closeEvent(QCloseEvent* event)
{
    m_background->close();
    // The window closes itself as well; while this close is under way that
    // call adds nothing, so a close from outside and one of its own end alike.
    close();
    QDialog::closeEvent(event);
}
