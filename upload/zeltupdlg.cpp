#include "upload/zeltupdlg.h"

#include "ui_zeltupdlg.h"

#include "frame/screensetting.h"
#include "frame/winsize.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "upload/projectupload.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopWidget>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QTextEdit>

#include <unistd.h>

zeltUpDlg::zeltUpDlg(QWidget* mainWindow, const QString& sourcePath)
    : QDialog(mainWindow)
    , ui(std::make_unique<Ui::zeltUpDlg>())
    , m_mainWindow(mainWindow)
    , m_sourcePath(sourcePath)
{
    ui->setupUi(this);

    setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    // Unlike the other dialogs this one may be resized: the size table only
    // gives its first size, the form's minimum keeps the pane and buttons whole.
    resize(gwinSize[3][0], gwinSize[3][1]);
    // Fingers are no smaller on a large panel: its buttons grow with its font.
    if (!ScreenSetting::isSmallScreen()) {
        ui->startup_bt->setMinimumHeight(45);
        ui->back_bt->setMinimumHeight(45);
    }
    const QRect desktop = QApplication::desktop()->geometry();
    move((desktop.width() - width()) / 2, (desktop.height() - height()) / 2);

    setWindowTitle(msg(2104));
    ui->startup_bt->setText(msg(2102));
    ui->back_bt->setText(msg(2103));
    ui->textEdit->append(msg(2090));

    connect(ui->startup_bt, &QPushButton::clicked, this, &zeltUpDlg::clickedStartUpBt);
    connect(ui->back_bt, &QPushButton::clicked, this, &zeltUpDlg::close);
}

zeltUpDlg::~zeltUpDlg() = default;

void zeltUpDlg::clickedStartUpBt()
{
    ui->startup_bt->setEnabled(false);
    ui->back_bt->setEnabled(false);

    m_targetName = projectupload::targetFileName(msg(2119), QString::fromUtf8(Kavo_GetDirectory(3)));
    const QString targetPath = QStringLiteral("./") + m_targetName;

    if (QFileInfo::exists(targetPath)) {
        switch (askOverwrite(m_targetName)) {
        case QMessageBox::Yes:
            QFile::remove(targetPath);
            sync();
            break;
        case QMessageBox::No:
            ui->startup_bt->setEnabled(true);
            ui->back_bt->setEnabled(true);
            return;
        default:
            // Neither answer: the unpacking truncates the old file anyway.
            break;
        }
    }

    m_uploading = true;
    appendLine(msg(2092));

    const bool copied = projectupload::copyToUdisk(m_sourcePath, [this] {
        repaint();
        QCoreApplication::processEvents();
    });
    if (!copied) {
        appendLine(msg(2095));
    } else {
        appendLine(msg(2093));
        appendLine(msg(2094));
        const bool unpacked = projectupload::unpackProject(projectupload::kLocalPackedPath, targetPath,
                                                           [this] { appendLine(msg(2099)); });
        if (unpacked) {
            appendLine(msg(2097));
            appendLine(msg(2098).arg(m_targetName));
        } else {
            appendLine(msg(2096));
        }
    }

    projectupload::freeCopyBuffers();
    QFile::remove(projectupload::kLocalPackedPath);
    // One upload per opening: a second one would only ask to replace the first.
    ui->back_bt->setEnabled(true);
    m_uploading = false;
    sync();
}

QMessageBox::StandardButton zeltUpDlg::askOverwrite(const QString& name)
{
    QMessageBox box(QMessageBox::Warning, msg(2030), msg(2091).arg(name), QMessageBox::Yes | QMessageBox::No,
                    nullptr, Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);
    box.setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    box.button(QMessageBox::Yes)->setText(msg(1004));
    box.button(QMessageBox::No)->setText(msg(1005));
    return QMessageBox::StandardButton(box.exec());
}

void zeltUpDlg::appendLine(const QString& text)
{
    ui->textEdit->append(text);
    // The unpacking keeps the event loop waiting; painting now still shows
    // the operator which step it is at.
    ui->textEdit->repaint();
}

void zeltUpDlg::reject()
{
    // QDialog's own reject only hides the dialog: the close rules below would
    // be skipped and the main window left disabled behind nothing.
    close();
}

void zeltUpDlg::closeEvent(QCloseEvent* event)
{
    // The copy lets events through between chunks, a close request among
    // them; the upload runs further up this call stack and must end first.
    if (m_uploading) {
        event->ignore();
        return;
    }
    if (m_mainWindow != nullptr)
        m_mainWindow->setEnabled(true);
    event->accept();
}
