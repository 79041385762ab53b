#include "download/dlgdownload.h"

#include "ui_dlgdownload.h"

#include "app/constants.h"
#include "frame/screensetting.h"
#include "frame/winbackground.h"
#include "frame/winsize.h"
#include "log/clogger.h"
#include "platform/platform.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopWidget>
#include <QDir>
#include <QFileInfo>
#include <QIcon>
#include <QMessageBox>
#include <QPushButton>
#include <QShowEvent>
#include <QStringListModel>
#include <QTextBlockFormat>
#include <QTextCursor>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kRestartSeconds = 10;
constexpr int kCountdownIntervalMs = 1000;
constexpr int kStartDelayMs = 200;
// Exit status of an unattended run whose reboot failed.
constexpr int kRebootFailedStatus = 1;

// Space under every line of the text pane, so that multi-line messages stay
// readable as separate steps.
constexpr qreal kParagraphBottomMargin = 3.0;

const QString kSmallListStyle = QStringLiteral(
    "QListView{font-size: 12px}QListView::item:indicator {width: 28px;height: 28px;}");
const QString kLargeListStyle = QStringLiteral(
    "QListView{font-size: 16px}QListView::item:indicator {width: 36px;height: 36px;}");

} // namespace

dlgDownLoad::dlgDownLoad(const QString& dataDir, const QString& lanId, QWidget* parent)
    : QDialog(parent)
    , ProjectDownload(dataDir, lanId)
    , m_restartTimer(std::make_unique<QTimer>())
    , m_startTimer(std::make_unique<QTimer>())
    , ui(std::make_unique<Ui::dlgDownLoad>())
    , m_background(std::make_unique<WinBackground>())
    , m_screen(ScreenSetting::getTransformedScreen())
{
    ui->setupUi(this);

    // Every line of the pane is appended as a paragraph in the format of the
    // pane's cursor block, so setting it once covers all later lines.
    QTextCursor cursor = ui->textEdit->textCursor();
    QTextBlockFormat paragraph = cursor.blockFormat();
    paragraph.setBottomMargin(kParagraphBottomMargin);
    cursor.setBlockFormat(paragraph);
    ui->textEdit->setTextCursor(cursor);

    m_restartTimer->setInterval(kCountdownIntervalMs);
    connect(ui->btnStart, &QPushButton::clicked, this, &dlgDownLoad::clickedStartBt);
    connect(ui->btnStop, &QPushButton::clicked, this, &dlgDownLoad::clickedStopBt);
    connect(ui->btnRestart, &QPushButton::clicked, this, &dlgDownLoad::clickedReStartBt);
    connect(ui->listView, &list_view::emitSelectInfo, this, &dlgDownLoad::getSelectProName);
    connect(m_restartTimer.get(), &QTimer::timeout, this, &dlgDownLoad::onTimer);
    connect(m_startTimer.get(), &QTimer::timeout, this, &dlgDownLoad::clickedStartBt);

    setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    setFixedSize(gwinSize[2][0], gwinSize[2][1]);

    const bool smallScreen = ScreenSetting::isSmallScreen();
    for (QPushButton* button : {ui->btnRestart, ui->btnStop, ui->btnStart}) {
        if (smallScreen) {
            // Three buttons at the form's minimum width of 100 do not fit beside
            // each other in the narrow dialog, and a minimum outweighs a maximum
            // in the layout: the minimum has to come down for the 80 to hold.
            button->setMinimumWidth(80);
            button->setMaximumWidth(80);
        } else {
            button->setMinimumHeight(45);
        }
    }
    // A small panel has more room in height than the size table grants.
    if (smallScreen)
        setFixedHeight(380);

    const QRect desktop = QApplication::desktop()->geometry();
    move((desktop.width() - width()) / 2, (desktop.height() - height()) / 2);

    ui->label_2->setText(msg(2100));
    ui->label->setText(msg(2101));
    ui->btnRestart->setText(msg(2007));
    ui->btnStop->setText(msg(2008));
    ui->btnStart->setText(msg(2009));

    m_projectModel = new QStringListModel(this);
    ui->listView->setModel(m_projectModel);
    ui->listView->setStyleSheet(smallScreen ? kSmallListStyle : kLargeListStyle);
    listProjects();

    setBntEnable(true, false, true);
}

dlgDownLoad::~dlgDownLoad() = default;

// The projects are those of the package root, not of the working directory:
// the main window has made the stick's "opxbackup" the working directory by
// the time this dialog is built, and a stick that holds one (every stick after
// its first upload) would otherwise offer nothing to download.
QStringList dlgDownLoad::findProjects(const QString& root)
{
    QStringList projects;
    const QStringList names = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Time);
    for (const QString& name : names) {
        if (name == s_opxupdateuDir)
            continue;
        // A package made for both processor generations carries one tree per
        // generation; the ARMv5 tree is the one that tells whether it is complete.
        const QString projectDir = root + QLatin1Char('/') + name;
        QString candidate = projectDir;
        if (QFileInfo(projectDir + QStringLiteral("/v5")).isDir())
            candidate = projectDir + QStringLiteral("/v5");
        else if (QFileInfo(projectDir + QStringLiteral("/v7")).isDir())
            candidate = projectDir + QStringLiteral("/v7");
        if (QDir(candidate).entryList(QDir::Files).contains(s_contextDat))
            projects.append(name);
    }
    return projects;
}

void dlgDownLoad::listProjects()
{
    const QStringList projects = findProjects(packageRoot());
    m_projectModel->setStringList(projects);
    if (!projects.isEmpty()) {
        ui->listView->setCurrentIndex(m_projectModel->index(0));
        m_projectName = projects.first();
    }
    setWindowTitle(m_projectName);
}

void dlgDownLoad::setDirectMode(bool on)
{
    m_directMode = on;
}

void dlgDownLoad::setResumeMode(bool on)
{
    m_resumeMode = on;
}

void dlgDownLoad::setProjectName(const QString& name)
{
    m_projectName = name;
    setWindowTitle(name);
}

void dlgDownLoad::selectProject(const QString& name)
{
    setProjectName(name);
    // A new choice undoes the quit button left by an earlier failure.
    ui->btnRestart->setText(msg(2007));
}

void dlgDownLoad::clickedStartBt()
{
    // The text pane lets button presses through while the sequence runs, and
    // after a stop the start button is offered again before the running
    // sequence has seen the stop: a press then must not start a second
    // download inside the first.
    if (m_loadState == 1)
        return;
    runSequence();
}

void dlgDownLoad::clickedStopBt()
{
    m_stop = true;
    setTextEditContent(msg(2060));
    setBntEnable(true, false, true);
}

void dlgDownLoad::clickedReStartBt()
{
    // A reboot in the middle of the replacement would leave the panel with
    // half a project; the button is offered again after a stop, before the
    // copy has seen the stop.
    if (m_replacing)
        return;
    if (ui->btnRestart->text() == msg(2007))
        rebootOrReport();
    else
        close();
}

void dlgDownLoad::rebootOrReport()
{
    if (platform::rebootPanel() == 0)
        return;
    const QString reason = QString::fromLocal8Bit(std::strerror(errno));
    if (!m_directMode) {
        QMessageBox::about(this, msg(2030), reason);
        return;
    }
    // Nobody answers a box in an unattended run: it would wait forever. The
    // report keeps the download's own outcome marker, since the project is in
    // place, and gains the reboot's failure; the exit status tells the caller.
    const QString line = msg(1010).arg(reason);
    CLogger* logger = CLogger::GetInstance();
    if (logger->reopen()) {
        logger->write(line + QLatin1Char('\n'));
        logger->close();
    }
    std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
    QCoreApplication::exit(kRebootFailedStatus);
}

void dlgDownLoad::onTimer()
{
    setTextEditContent(msg(2061).arg(m_restartCount));
    if (m_restartCount == 0) {
        m_restartTimer->stop();
        m_restartCount = kRestartSeconds;
        clickedReStartBt();
    }
    --m_restartCount;
}

void dlgDownLoad::on_listView_clicked(const QModelIndex& index)
{
    selectProject(index.data(Qt::DisplayRole).toString());
}

void dlgDownLoad::getSelectProName(const QString& name)
{
    selectProject(name);
}

void dlgDownLoad::setBntEnable(bool start, bool stop, bool restart)
{
    ui->btnStart->setEnabled(m_stop || start);
    ui->btnStop->setEnabled(stop);
    ui->btnRestart->setEnabled(restart);
}

void dlgDownLoad::setTextEditContent(const QString& text)
{
    ui->textEdit->append(text);
    ui->textEdit->update();
    QCoreApplication::processEvents();
    if (m_directMode)
        CLogger::GetInstance()->write(text + QLatin1Char('\n'));
}

void dlgDownLoad::resetUpgrageUI(const QString& text)
{
    setBntEnable(false, false, true);
    ui->btnStart->setEnabled(true);
    ui->textEdit->append(text);
    if (m_directMode)
        CLogger::GetInstance()->write(text + QLatin1Char('\n'));
}

void dlgDownLoad::updateFinish(bool ok)
{
    m_loadState = 2;
    if (!m_directMode)
        return;
    CLogger::GetInstance()->writeReport(msg(ok ? 2106 : 2107));
    CLogger::GetInstance()->close();
    close();
}

bool dlgDownLoad::askYesNo(QuestionIcon icon, const QString& title, const QString& text)
{
    Qt::WindowFlags flags = windowFlags() & ~Qt::WindowContextHelpButtonHint;
    if (icon == QuestionIcon::Question)
        flags &= ~Qt::WindowMaximizeButtonHint;
    QMessageBox box(icon == QuestionIcon::Question ? QMessageBox::Question : QMessageBox::Information, title, text,
                    QMessageBox::Yes | QMessageBox::No, this, flags | Qt::WindowStaysOnTopHint);
    box.setWindowIcon(QIcon());
    box.button(QMessageBox::Yes)->setText(msg(1004));
    box.button(QMessageBox::No)->setText(msg(1005));
    return box.exec() == QMessageBox::Yes;
}

void dlgDownLoad::showEvent(QShowEvent* event)
{
    m_background->show();
    if (m_directMode || m_resumeMode)
        m_startTimer->start(kStartDelayMs);
    QDialog::showEvent(event);
}

void dlgDownLoad::reject()
{
    close();
}

void dlgDownLoad::closeEvent(QCloseEvent* event)
{
    // The sequence runs inside this call stack; closing now would pull the
    // dialog away under it.
    if (m_loadState == 1) {
        event->ignore();
        return;
    }
    if (m_resumeMode) {
        // The runtime has just been replaced: the panel must not go on with the
        // old one in memory.
        QMessageBox box(QMessageBox::Information, msg(2030), msg(2062), QMessageBox::Ok, this, windowFlags());
        box.setWindowIcon(QIcon());
        box.button(QMessageBox::Ok)->setText(msg(2063));
        box.exec();
        rebootOrReport();
    }
    event->accept();
    if (m_restartTimer->isActive())
        m_restartTimer->stop();
    m_background->close();
}
