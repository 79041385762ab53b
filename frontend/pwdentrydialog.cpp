#include "frontend/pwdentrydialog.h"

#include "app/constants.h"
#include "frontend/md5_crypt_ctrl.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopWidget>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QShowEvent>
#include <QSignalMapper>
#include <QVBoxLayout>

#include <utility>

namespace {

constexpr int kCharacterKeys = 36;
constexpr int kFirstLetter = 10;
constexpr int kLastLetter = 35;

// Object names of the function keys; their captions come from keyText,
// except the confirm key, which is captioned from the text table.
const char* const kFunctionKeyNames[4] = {"keyBtnCap", "keyBtnDel", "keyBtnBack", "keyBtnConfirm"};

} // namespace

PwdEntryDialog::PwdEntryDialog(QWidget* parent, std::function<QString(int)> text)
    : QDialog(parent)
    , m_text(std::move(text))
{
    m_font.setFamily(QStringLiteral("宋体"));
    m_font.setPixelSize(12);
    buildLayout();
}

PwdEntryDialog::~PwdEntryDialog() = default;

QString PwdEntryDialog::text(int id, const QString& fallback) const
{
    return m_text ? m_text(id) : fallback;
}

Qt::WindowFlags PwdEntryDialog::boxFlags() const
{
    return (windowFlags() & ~Qt::WindowContextHelpButtonHint) | Qt::WindowStaysOnTopHint;
}

void PwdEntryDialog::buildLayout()
{
    setObjectName(QStringLiteral("PwdEntryDialog"));
    setFixedSize(480, 280);
    // The form's design size; the fixed size above wins over it.
    resize(400, 300);
    setFont(m_font);
    setWindowTitle(text(1011, QStringLiteral("OPX密码输入")));
    setWindowIcon(QIcon(QStringLiteral(" ")));
    setWindowFlags(boxFlags());

    auto* gridLayout = new QGridLayout(this);
    gridLayout->setObjectName(QStringLiteral("gridLayout"));
    gridLayout->setSpacing(6);
    gridLayout->setContentsMargins(11, 11, 11, 11);

    auto* verticalLayout = new QVBoxLayout();
    verticalLayout->setObjectName(QStringLiteral("verticalLayout"));
    verticalLayout->setSpacing(3);
    verticalLayout->setContentsMargins(10, 0, 10, 10);

    auto* horizontalLayout = new QHBoxLayout();
    horizontalLayout->setObjectName(QStringLiteral("horizontalLayout_exp"));
    m_label = new QLabel(this);
    m_label->setObjectName(QStringLiteral("label"));
    m_label->setFont(m_font);
    m_label->setMinimumSize(40, 32);
    m_label->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_label->setText(text(1014, QStringLiteral("请输入密码:")));
    horizontalLayout->addWidget(m_label);
    m_lineEditPwd = new QLineEdit(this);
    m_lineEditPwd->setObjectName(QStringLiteral("lineEditPwd"));
    m_lineEditPwd->setFont(m_font);
    m_lineEditPwd->setMinimumSize(0, 32);
    m_lineEditPwd->setEchoMode(QLineEdit::Password);
    horizontalLayout->addWidget(m_lineEditPwd);
    verticalLayout->addLayout(horizontalLayout);

    m_mapper = new QSignalMapper(this);
    for (int row = 0; row < kRows; ++row) {
        m_rowLayouts[row] = new QHBoxLayout();
        m_rowLayouts[row]->setObjectName(QStringLiteral("horiLayoutsName%1").arg(row));
        for (int column = 0; column < kColumns; ++column) {
            const int index = row * kColumns + column;
            auto* key = new QPushButton(this);
            key->setFont(m_font);
            // The line edit keeps the focus and with it the cursor the keys type at.
            key->setFocusPolicy(Qt::NoFocus);
            key->setMinimumSize(30, 30);
            if (index < kCharacterKeys) {
                key->setObjectName(QStringLiteral("keyBtn") + QString::fromUtf8(keyText[index]));
                key->setText(QString::fromUtf8(keyText[index]));
                connect(key, &QPushButton::clicked, m_mapper, qOverload<>(&QSignalMapper::map));
                m_mapper->setMapping(key, index);
            } else {
                key->setObjectName(QString::fromLatin1(kFunctionKeyNames[index - kCharacterKeys]));
                key->setText(QString::fromUtf8(keyText[index]));
            }
            m_keys[row][column] = key;
            m_rowLayouts[row]->addWidget(key);
        }
        verticalLayout->addLayout(m_rowLayouts[row]);
    }
    m_keyBtnCap = m_keys[4][4];
    m_keyBtnDel = m_keys[4][5];
    m_keyBtnBack = m_keys[4][6];
    m_keyBtnConfirm = m_keys[4][7];
    m_keyBtnConfirm->setText(text(1003, QStringLiteral("确认")));

    gridLayout->addLayout(verticalLayout, 0, 0, 1, 1);

    connect(m_lineEditPwd, &QLineEdit::textChanged, this, &PwdEntryDialog::valueChanged);
    // By name: mapped(int) is the mapper's signal the keyboard has always used;
    // the pointer form is marked deprecated in favour of mappedInt(int).
    connect(m_mapper, SIGNAL(mapped(int)), this, SLOT(doClicked(int)));
    QMetaObject::connectSlotsByName(this);
}

void PwdEntryDialog::inform(const QString& message)
{
    QMessageBox box(QMessageBox::Information, text(1001, QStringLiteral("提示")), message, QMessageBox::Ok, this,
                    boxFlags());
    box.setFont(m_font);
    box.setWindowIcon(QIcon(QStringLiteral(" ")));
    box.button(QMessageBox::Ok)->setText(text(1003, QStringLiteral("确认")));
    box.exec();
}

void PwdEntryDialog::valueChanged(const QString& typed)
{
    // The text is left as it is: the operator sees the box again on every
    // further key until the extra characters are removed.
    if (typed.length() > kMaxPasswordLength) {
        inform(text(1012, QStringLiteral("密码最大长度为20个字符!")));
        return;
    }
    if (typed.isEmpty())
        return;

    const QByteArray bytes = typed.toLatin1();
    md5_crypt_ctrl* crypt = md5_crypt_ctrl::GetInstance();
    // Read again on every key: a password changed meanwhile by the settings
    // program counts at once, and one removed meanwhile opens the gate.
    const bool guarded = crypt->CryptInit() && !crypt->digest().empty();
    if (guarded && !crypt->matches(bytes))
        return;

    m_lineEditPwd->clear();
    close();
    m_accessAllowed = true;
    emit allowedAccess();
}

void PwdEntryDialog::doClicked(int index)
{
    m_lineEditPwd->insert(m_keys[index / kColumns][index % kColumns]->text());
    m_lineEditPwd->setFocus(Qt::OtherFocusReason);
}

void PwdEntryDialog::on_keyBtnCap_clicked()
{
    for (int index = kFirstLetter; index <= kLastLetter; ++index) {
        QPushButton* key = m_keys[index / kColumns][index % kColumns];
        key->setText(m_capsOn ? key->text().toLower() : key->text().toUpper());
    }
    m_capsOn = !m_capsOn;
}

void PwdEntryDialog::on_keyBtnBack_clicked()
{
    const int position = m_lineEditPwd->cursorPosition();
    if (m_lineEditPwd->text().isEmpty() || position == 0)
        return;
    QString remaining = m_lineEditPwd->text();
    remaining.remove(position - 1, 1);
    m_lineEditPwd->setText(remaining);
    m_lineEditPwd->setCursorPosition(position - 1);
}

void PwdEntryDialog::on_keyBtnDel_clicked()
{
    // Only a selection is deleted: without one the key does nothing, so a
    // stray press never eats the character after the cursor.
    if (!m_lineEditPwd->hasSelectedText())
        return;
    const int start = m_lineEditPwd->selectionStart();
    QString remaining = m_lineEditPwd->text();
    remaining.remove(start, m_lineEditPwd->selectedText().length());
    m_lineEditPwd->setText(remaining);
    m_lineEditPwd->setCursorPosition(start);
}

void PwdEntryDialog::on_keyBtnConfirm_clicked()
{
    // A correct password was accepted while it was typed, so whatever is
    // still in the line edit is wrong.
    inform(text(1013, QStringLiteral("密码输入错误!")));
    m_lineEditPwd->clear();
}

void PwdEntryDialog::showEvent(QShowEvent* event)
{
    const QRect desktop = QApplication::desktop()->geometry();
    move((desktop.width() - width()) / 2, (desktop.height() - height()) / 2);
    QDialog::showEvent(event);
}

void PwdEntryDialog::closeEvent(QCloseEvent* event)
{
    m_lineEditPwd->clear();
    QDialog::closeEvent(event);
}
