#include "frontend/app_exit_failed_dlg.h"

#include "ui_app_exit_failed_dlg.h"

#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QAbstractButton>
#include <QMessageBox>
#include <QShowEvent>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <utility>

#include <unistd.h>

namespace {

// The first look comes a second after the dialog shows, to give a runtime
// that is just going down the time to finish; after that the dialog follows
// the process service closely.
constexpr int kFirstCheckMs = 1000;
constexpr int kCheckMs = 100;

} // namespace

app_exit_failed_dlg::app_exit_failed_dlg(QWidget* parent, std::function<QString(int)> text)
    : QDialog(parent)
    , ui(std::make_unique<Ui::app_exit_failed_dlg>())
    , m_timer(std::make_unique<QTimer>())
    , m_text(std::move(text))
{
    ui->setupUi(this);
    connect(m_timer.get(), &QTimer::timeout, this, &app_exit_failed_dlg::checkAppStatus);

    setWindowFlags((windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    setFixedSize(370, 160);

    // Without a text callable the form's own captions stand.
    setWindowTitle(message(1000, QStringLiteral("警告")));
    if (m_text) {
        ui->label->setText(m_text(1015));
        ui->label_2->setText(m_text(1016));
        ui->forceExecBtn->setText(m_text(1017));
        ui->rebootBtn->setText(m_text(1018));
    }
}

app_exit_failed_dlg::~app_exit_failed_dlg() = default;

void app_exit_failed_dlg::setPromptText(const QString& prompt)
{
    ui->label->setText(prompt);
}

QString app_exit_failed_dlg::message(int id, const QString& literal) const
{
    return m_text ? m_text(id) : literal;
}

void app_exit_failed_dlg::showEvent(QShowEvent* event)
{
    QDialog::showEvent(event);
    m_timer->start(kFirstCheckMs);
}

void app_exit_failed_dlg::checkAppStatus()
{
    if ((!m_pollMode && __check_application_state(1) != 0) || __check_application_state(0) != 0) {
        m_retry = false;
        m_timer->stop();
        close();
        return;
    }
    if (m_timer->interval() != kCheckMs)
        m_timer->setInterval(kCheckMs);
}

void app_exit_failed_dlg::on_forceExecBtn_clicked()
{
    m_retry = false;
    close();
}

void app_exit_failed_dlg::on_rebootBtn_clicked()
{
    sync();
    if (platform::rebootPanel() != -1)
        return;
    const int error = errno;

    QMessageBox box(QMessageBox::Warning, message(1000, QStringLiteral("警告")),
                    message(1010, QStringLiteral("系统重启失败!%1")).arg(QString::fromLocal8Bit(std::strerror(error))),
                    QMessageBox::Ok, this,
                    (windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint);
    box.button(QMessageBox::Ok)->setText(message(1003, QStringLiteral("确认")));
    box.exec();
}
