#include "frontend/dlgupnote.h"

#include "ui_dlgupnote.h"

#include "app/startup.h"
#include "download/qsettingsfactory.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"
#include "frontend/kavo_process.h"
#include "frontend/md5_crypt_ctrl.h"
#include "frontend/pwdentrydialog.h"
#include "frontend/udiskupwin.h"
#include "text/multilingualmanager.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopWidget>
#include <QEvent>
#include <QFile>
#include <QPushButton>
#include <QSettings>
#include <QShowEvent>
#include <QStyledItemDelegate>

#include <functional>
#include <unistd.h>

namespace {

// Tells the process service who hands the panel back; the start note is the
// package's only caller.
constexpr unsigned int kBackToDovikCaller = 0;

const QString kDescriptionFile = QStringLiteral("/config/proUpdate.ini");
const QString kDescriptionClearCopy = QStringLiteral("/config/proUpdateTmp.ini");

} // namespace

dlgUpNote::dlgUpNote(const QString& appDir, const QString& lanId, QWidget* parent)
    : QDialog(parent)
    , ui(std::make_unique<Ui::dlgUpNote>())
    , m_lanId(lanId)
    , m_appDir(appDir)
{
    m_background = std::make_unique<WinBackground>();
    ui->setupUi(this);
    // The list's item height in the style sheet only holds for items drawn by
    // a styled delegate.
    ui->comboBox->setItemDelegate(new QStyledItemDelegate(ui->comboBox));
    setObjectName(QStringLiteral("kavotoolwnd"));
    setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    setWindowState(Qt::WindowActive);
    setFixedSize(gwinSize[0][0], gwinSize[0][1]);
    moveToCentre();

    readPackageDescription();
    initPage();

    // Selecting the entry of the language already in use loads nothing: the
    // note is not initialised yet.
    const int entry = m_languageIds.indexOf(m_lanId);
    ui->comboBox->setCurrentIndex(entry < 0 ? 0 : entry);
    m_initialised = true;

    connect(ui->upBtnCancel, &QPushButton::clicked, this, &dlgUpNote::close);
    connect(ui->upBtnOk, &QPushButton::clicked, this, &dlgUpNote::clickedBtOk);
}

dlgUpNote::~dlgUpNote() = default;

void dlgUpNote::readPackageDescription()
{
    const QString clearCopy = m_appDir + kDescriptionClearCopy;
    QSettingsFactory::decryptFile(m_appDir + kDescriptionFile, clearCopy, CRYPT_WITH_MARK);
    {
        QSettings description(clearCopy, QSettings::IniFormat);
        description.setIniCodec("UTF-8");
        m_version = description.value(QStringLiteral("/prepare/version")).toString();
        if (description.contains(QStringLiteral("/language_conf/list"))) {
            ui->comboBox->clear();
            ui->comboBox->addItems(description.value(QStringLiteral("/language_conf/list")).toStringList());
        }
        if (description.contains(QStringLiteral("/language_conf/id")))
            m_languageIds = description.value(QStringLiteral("/language_conf/id")).toStringList();
    }
    // The clear description must not stay on the stick.
    QFile::remove(clearCopy);
    sync();
}

void dlgUpNote::initPage()
{
    setWindowTitle(msg(2000) + QLatin1Char(' ') + m_version);
    // The closing span tags without opening ones are part of the note as the
    // panel's tools have always shown it.
    ui->upNoteLbl->setText(QStringLiteral("<html><head/><body><p align='center' style='margin:3px'>")
                           + msg(2001).arg(m_version)
                           + QStringLiteral("</span></p><p align='center' style='margin:3px'> ") + msg(2002)
                           + QStringLiteral("</span></p></body></html>"));
    ui->upBtnOk->setText(msg(1004));
    ui->upBtnCancel->setText(msg(1005));
}

void dlgUpNote::on_comboBox_currentIndexChanged(int index)
{
    // While the constructor fills and selects the list, the language loaded at
    // start-up stays. An emptied list reports index -1.
    if (!m_initialised || index < 0 || index >= m_languageIds.size())
        return;

    const QString& code = m_languageIds.at(index);
    QString languageFile = startup::languageFilePath(m_appDir, code);
    if (!QFile::exists(languageFile))
        languageFile = startup::languageFilePath(m_appDir, startup::toolLanguageCode(m_appDir));
    MultilingualManager::GetInstance()->loadMultilingualFile(languageFile, kBuiltinLanguageFile);
    // The chosen code is handed on even when its file was missing and the tool
    // language was loaded instead.
    m_lanId = code;
    initPage();
}

void dlgUpNote::clickedBtOk()
{
    if (!md5_crypt_ctrl::GetInstance()->CryptInit()) {
        doAllowedAccess();
        return;
    }

    hide();
    MultilingualManager* texts = MultilingualManager::GetInstance();
    PwdEntryDialog password(this, std::bind(&MultilingualManager::getMultilingualValue, texts,
                                            std::placeholders::_1));
    connect(&password, &PwdEntryDialog::allowedAccess, this, &dlgUpNote::doAllowedAccess);
    password.exec();
    // Everything after a correct password has already run inside the signal.
    close();
}

void dlgUpNote::doAllowedAccess()
{
    if (!kavo_process::backToDovik(kBackToDovikCaller, this))
        return;

    disconnect(ui->upBtnOk, &QPushButton::clicked, this, &dlgUpNote::clickedBtOk);
    hide();
    repaint();

    auto mainWindow = std::make_unique<UDiskUpWin>(m_lanId);
    mainWindow->exec();
    close();
}

void dlgUpNote::moveToCentre()
{
    const QRect desktop = QApplication::desktop()->geometry();
    move((desktop.width() - width()) / 2, (desktop.height() - height()) / 2);
}

bool dlgUpNote::event(QEvent* event)
{
    if (event->type() == QEvent::NonClientAreaMouseButtonDblClick)
        moveToCentre();
    return QDialog::event(event);
}

void dlgUpNote::showEvent(QShowEvent* event)
{
    m_background->show();
    QDialog::showEvent(event);
}

void dlgUpNote::closeEvent(QCloseEvent* event)
{
    m_background->close();
    QDialog::closeEvent(event);
}
