// The access password: reading the stored digest under the configuration lock,
// the hex rendering, and the dialog with its on-screen keyboard (layout, typing,
// the function keys, the messages, acceptance while typing).
#include "frontend/md5_crypt_ctrl.h"
#include "frontend/pwdentrydialog.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDesktopWidget>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QVBoxLayout>
#include <QtTest>

#include <chrono>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const QString kConfig = QStringLiteral("/usr/kavo_app/config/kavo_app_conf.ini");
const QString kLock = QStringLiteral("/tmp/kavo_app_conf.lck");

// Texts by id, so that every caption and message shows which id it came from.
QString idText(int id)
{
    return QStringLiteral("#%1").arg(id);
}

QByteArray md5Hex(const QByteArray& password)
{
    return QCryptographicHash::hash(password, QCryptographicHash::Md5).toHex();
}

QByteArray configWith(const QByteArray& license)
{
    return "[SYSTEM]\nbrightness=80\n\n[SECURITY]\nlicense=" + license + "\n";
}

template <typename T>
T* child(const QWidget& parent, const QString& name)
{
    T* found = parent.findChild<T*>(name);
    if (found == nullptr)
        qFatal("no child %s", qPrintable(name));
    return found;
}

QLineEdit* lineEdit(const PwdEntryDialog& dialog)
{
    return child<QLineEdit>(dialog, QStringLiteral("lineEditPwd"));
}

void press(const PwdEntryDialog& dialog, const QString& keyName)
{
    QTest::mouseClick(child<QPushButton>(dialog, keyName), Qt::LeftButton);
}

// Types `keys` on the on-screen keyboard: each character names its key
// ("a" presses keyBtnA, whatever caption it shows).
void typeKeys(const PwdEntryDialog& dialog, const QString& keys)
{
    for (const QChar key : keys)
        press(dialog, QStringLiteral("keyBtn") + key.toUpper());
}

// The 40 keys as they are expected in table order.
QStringList expectedKeyNames()
{
    QStringList names;
    for (const char* caption : {"1", "2", "3", "4", "5", "6", "7", "8", "9", "0"})
        names << QStringLiteral("keyBtn") + QLatin1String(caption);
    for (char letter = 'A'; letter <= 'Z'; ++letter)
        names << QStringLiteral("keyBtn") + QLatin1Char(letter);
    names << QStringLiteral("keyBtnCap") << QStringLiteral("keyBtnDel") << QStringLiteral("keyBtnBack")
          << QStringLiteral("keyBtnConfirm");
    return names;
}

QStringList captions(const PwdEntryDialog& dialog)
{
    QStringList texts;
    for (const QString& name : expectedKeyNames())
        texts << child<QPushButton>(dialog, name)->text();
    return texts;
}

} // namespace

class PasswordTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void cryptInit_data();
    void cryptInit();
    void cryptInitWaitsForTheLock();
    void hexstr_data();
    void hexstr();
    void matches_data();
    void matches();

    void layout();
    void acceptsWhileTyping();
    void tooLongShowsBoxUntilShortenedAgain();
    void capFollowsCaptions();
    void delRemovesOnlyASelection_data();
    void delRemovesOnlyASelection();
    void backRemovesBeforeTheCursor_data();
    void backRemovesBeforeTheCursor();
    void upperCaseDigestNeverMatches();
    void confirmReportsWrongPassword();
    void gateOpensWhenPasswordVanishes_data();
    void gateOpensWhenPasswordVanishes();
    void closingClearsTheEntry();
    void literalsWithoutTextLookup();

private:
    void writeConfig(const QByteArray& content)
    {
        QVERIFY(testenv::writeFile(m_panel->path(kConfig), content));
    }
    // A dialog shown on screen, guarded by the stored digest of `password`.
    std::unique_ptr<PwdEntryDialog> openDialog(const QByteArray& password,
                                               std::function<QString(int)> text = idText)
    {
        writeConfig(configWith(md5Hex(password)));
        auto dialog = std::make_unique<PwdEntryDialog>(nullptr, std::move(text));
        dialog->show();
        if (!QTest::qWaitForWindowExposed(dialog.get()))
            qFatal("password dialog not shown");
        return dialog;
    }

    std::unique_ptr<testenv::TempPanel> m_panel;
};

void PasswordTest::init()
{
    // A new panel directory per test: QSettings would otherwise serve a
    // rewritten configuration of equal size from its cache.
    m_panel = std::make_unique<testenv::TempPanel>();
    QVERIFY(m_panel->isValid());
}

void PasswordTest::cleanup()
{
    m_panel.reset();
    for (QWidget* widget : QApplication::topLevelWidgets())
        QVERIFY2(!widget->isVisible(), qPrintable(widget->objectName()));
}

void PasswordTest::cryptInit_data()
{
    QTest::addColumn<QByteArray>("config"); // empty: no configuration file
    QTest::addColumn<bool>("lockDirIsAFile");
    QTest::addColumn<bool>("expected");
    QTest::addColumn<bool>("reads");
    QTest::addColumn<QByteArray>("digest");

    const QByteArray digest = md5Hex("AB1");
    QTest::newRow("no configuration file") << QByteArray() << false << false << false << QByteArray();
    QTest::newRow("no license key") << QByteArray("[SECURITY]\nowner=plant\n") << false << false << true
                                    << QByteArray();
    QTest::newRow("no SECURITY group") << QByteArray("[GENERAL]\nlicense=" + digest + "\n") << false << false
                                       << true << QByteArray();
    QTest::newRow("empty license") << configWith(QByteArray()) << false << false << true << QByteArray();
    QTest::newRow("digest") << configWith(digest) << false << true << true << digest;
    QTest::newRow("upper-case digest kept as written")
        << configWith(digest.toUpper()) << false << true << true << digest.toUpper();
    QTest::newRow("lock file not creatable") << configWith(digest) << true << false << false << QByteArray();
}

void PasswordTest::cryptInit()
{
    QFETCH(QByteArray, config);
    QFETCH(bool, lockDirIsAFile);
    QFETCH(bool, expected);
    QFETCH(bool, reads);
    QFETCH(QByteArray, digest);

    md5_crypt_ctrl* crypt = md5_crypt_ctrl::GetInstance();
    QCOMPARE(md5_crypt_ctrl::GetInstance(), crypt);
    // A digest held beforehand tells a read from no read.
    writeConfig(configWith("0123"));
    QVERIFY(crypt->CryptInit());
    QCOMPARE(QByteArray::fromStdString(crypt->digest()), QByteArray("0123"));
    QVERIFY(QFile::remove(m_panel->path(kLock)));

    if (config.isEmpty())
        QVERIFY(QFile::remove(m_panel->path(kConfig)));
    else
        writeConfig(config);
    if (lockDirIsAFile) {
        QVERIFY(QDir(m_panel->path(QStringLiteral("/tmp"))).removeRecursively());
        QVERIFY(testenv::writeFile(m_panel->path(QStringLiteral("/tmp")), "not a directory"));
    }

    QCOMPARE(crypt->CryptInit(), expected);
    QVERIFY(crypt->isInitialised());
    QCOMPARE(QByteArray::fromStdString(crypt->digest()), reads ? digest : QByteArray("0123"));
    QCOMPARE(QFile::exists(m_panel->path(kLock)), reads);
}

void PasswordTest::cryptInitWaitsForTheLock()
{
    writeConfig(configWith(md5Hex("AB1")));
    const QByteArray lockPath = QFile::encodeName(m_panel->path(kLock));
    const int fd = open(lockPath.constData(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    QVERIFY(fd >= 0);
    QCOMPARE(flock(fd, LOCK_EX), 0);

    // The settings program holds the lock for a while; the reader must wait.
    std::thread settingsProgram([fd] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        flock(fd, LOCK_UN);
    });
    QElapsedTimer clock;
    clock.start();
    const bool read = md5_crypt_ctrl::GetInstance()->CryptInit();
    const qint64 waited = clock.elapsed();
    settingsProgram.join();
    close(fd);

    QVERIFY(read);
    QVERIFY2(waited >= 250, qPrintable(QString::number(waited)));
    // Released again: another reader gets it at once.
    const int other = open(lockPath.constData(), O_RDWR | O_CLOEXEC);
    QVERIFY(other >= 0);
    QCOMPARE(flock(other, LOCK_EX | LOCK_NB), 0);
    close(other);
}

void PasswordTest::hexstr_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("md5 of abc") << QCryptographicHash::hash("abc", QCryptographicHash::Md5) << 16
                                << QByteArray("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("md5 of nothing") << QCryptographicHash::hash("", QCryptographicHash::Md5) << 16
                                    << QByteArray("d41d8cd98f00b204e9800998ecf8427e");
    QTest::newRow("high and low nibbles") << QByteArray("\x00\x0f\xf0\xff\xa5", 5) << 5
                                          << QByteArray("000ff0ffa5");
    QTest::newRow("first bytes only") << QByteArray("\x12\x34\x56", 3) << 2 << QByteArray("1234");
    QTest::newRow("zero length") << QByteArray("\x12", 1) << 0 << QByteArray();
    QTest::newRow("negative length") << QByteArray("\x12", 1) << -1 << QByteArray();
    QTest::newRow("longer than the buffer") << QByteArray(40, '\x11') << 40 << QByteArray(64, '1');
}

void PasswordTest::hexstr()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, length);
    QFETCH(QByteArray, expected);

    char* text = md5_crypt_ctrl::hexstr(reinterpret_cast<unsigned char*>(bytes.data()), length);
    QCOMPARE(QByteArray(text), expected);
    // One buffer for every call.
    unsigned char other[1] = {0xab};
    QCOMPARE(md5_crypt_ctrl::hexstr(other, 1), text);
    QCOMPARE(QByteArray(text), QByteArray("ab"));
}

void PasswordTest::matches_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QByteArray>("typed");
    QTest::addColumn<bool>("expected");

    QTest::newRow("same password") << md5Hex("AB1") << QByteArray("AB1") << true;
    QTest::newRow("other case") << md5Hex("AB1") << QByteArray("ab1") << false;
    QTest::newRow("prefix") << md5Hex("AB1") << QByteArray("AB") << false;
    QTest::newRow("longer") << md5Hex("AB1") << QByteArray("AB12") << false;
    QTest::newRow("twenty characters") << md5Hex("1234567890ABCDEFGHIJ") << QByteArray("1234567890ABCDEFGHIJ")
                                       << true;
    QTest::newRow("upper-case digest") << md5Hex("AB1").toUpper() << QByteArray("AB1") << false;
    QTest::newRow("digest with a trailing character") << md5Hex("AB1") + "0" << QByteArray("AB1") << false;
    QTest::newRow("truncated digest") << md5Hex("AB1").left(31) << QByteArray("AB1") << false;
}

void PasswordTest::matches()
{
    QFETCH(QByteArray, stored);
    QFETCH(QByteArray, typed);
    QFETCH(bool, expected);

    writeConfig(configWith(stored));
    md5_crypt_ctrl* crypt = md5_crypt_ctrl::GetInstance();
    QVERIFY(crypt->CryptInit());
    QCOMPARE(crypt->matches(typed), expected);
}

void PasswordTest::layout()
{
    const auto dialog = openDialog("AB1");

    QCOMPARE(dialog->objectName(), QStringLiteral("PwdEntryDialog"));
    QCOMPARE(dialog->size(), QSize(480, 280));
    QCOMPARE(dialog->minimumSize(), QSize(480, 280));
    QCOMPARE(dialog->maximumSize(), QSize(480, 280));
    QCOMPARE(dialog->windowTitle(), QStringLiteral("#1011"));
    QVERIFY(dialog->windowIcon().pixmap(16).isNull());
    QVERIFY(!(dialog->windowFlags() & Qt::WindowContextHelpButtonHint));
    QVERIFY(dialog->windowFlags() & Qt::WindowStaysOnTopHint);
    const QRect desktop = QApplication::desktop()->geometry();
    QCOMPARE(dialog->pos(), QPoint((desktop.width() - 480) / 2, (desktop.height() - 280) / 2));

    const auto* label = child<QLabel>(*dialog, QStringLiteral("label"));
    QCOMPARE(label->text(), QStringLiteral("#1014"));
    QCOMPARE(label->alignment(), Qt::AlignLeft | Qt::AlignVCenter);
    QCOMPARE(label->minimumSize(), QSize(40, 32));
    QCOMPARE(lineEdit(*dialog)->echoMode(), QLineEdit::Password);
    QCOMPARE(lineEdit(*dialog)->minimumHeight(), 32);
    QVERIFY(lineEdit(*dialog)->text().isEmpty());

    const auto* grid = child<QGridLayout>(*dialog, QStringLiteral("gridLayout"));
    QCOMPARE(dialog->layout(), grid);
    QCOMPARE(grid->spacing(), 6);
    QCOMPARE(grid->contentsMargins(), QMargins(11, 11, 11, 11));
    auto* vertical = child<QVBoxLayout>(*dialog, QStringLiteral("verticalLayout"));
    QCOMPARE(grid->itemAtPosition(0, 0)->layout(), vertical);
    QCOMPARE(vertical->spacing(), 3);
    QCOMPARE(vertical->contentsMargins(), QMargins(10, 0, 10, 10));
    QCOMPARE(vertical->count(), 6);
    auto* top = child<QHBoxLayout>(*dialog, QStringLiteral("horizontalLayout_exp"));
    QCOMPARE(vertical->itemAt(0)->layout(), top);
    QCOMPARE(top->itemAt(0)->widget(), label);
    QCOMPARE(top->itemAt(1)->widget(), lineEdit(*dialog));

    // Keys row by row, in table order, each in its own row layout.
    const QStringList names = expectedKeyNames();
    QStringList laidOut;
    for (int row = 0; row < 5; ++row) {
        auto* rowLayout = child<QHBoxLayout>(*dialog, QStringLiteral("horiLayoutsName%1").arg(row));
        QCOMPARE(vertical->itemAt(row + 1)->layout(), rowLayout);
        QCOMPARE(rowLayout->count(), 8);
        for (int column = 0; column < 8; ++column)
            laidOut << rowLayout->itemAt(column)->widget()->objectName();
    }
    QCOMPARE(laidOut, names);

    QStringList expectedCaptions;
    for (int i = 0; i < 36; ++i)
        expectedCaptions << names.at(i).mid(6);
    expectedCaptions << QStringLiteral("Cap") << QStringLiteral("Del") << QStringLiteral("<--")
                     << QStringLiteral("#1003");
    QCOMPARE(captions(*dialog), expectedCaptions);

    for (const QString& name : names) {
        const auto* key = child<QPushButton>(*dialog, name);
        QCOMPARE(key->focusPolicy(), Qt::NoFocus);
        QCOMPARE(key->minimumSize(), QSize(30, 30));
    }
    for (const QWidget* widget : dialog->findChildren<QWidget*>()) {
        QCOMPARE(widget->font().family(), QStringLiteral("宋体"));
        QCOMPARE(widget->font().pixelSize(), 12);
    }
}

void PasswordTest::acceptsWhileTyping()
{
    const auto dialog = openDialog("AB1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer boxes;

    typeKeys(*dialog, QStringLiteral("AB"));
    QCOMPARE(lineEdit(*dialog)->text(), QStringLiteral("AB"));
    QCOMPARE(allowed.count(), 0);
    QVERIFY(dialog->isVisible());

    typeKeys(*dialog, QStringLiteral("1"));
    QCOMPARE(allowed.count(), 1);
    QVERIFY(dialog->isAccessAllowed());
    QVERIFY(!dialog->isVisible());
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QVERIFY(boxes.seen().isEmpty());
}

void PasswordTest::tooLongShowsBoxUntilShortenedAgain()
{
    const auto dialog = openDialog("AB1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer boxes;

    typeKeys(*dialog, QStringLiteral("Z").repeated(20));
    QCOMPARE(lineEdit(*dialog)->text().length(), 20);
    QVERIFY(boxes.seen().isEmpty());

    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(boxes.seen().size(), 1);
    const testenv::SeenBox box = boxes.seen().first();
    QCOMPARE(box.title, QStringLiteral("#1001"));
    QCOMPARE(box.text, QStringLiteral("#1012"));
    QCOMPARE(box.buttons, QStringList{QStringLiteral("#1003")});
    QCOMPARE(box.icon, QMessageBox::Information);
    QVERIFY(!(box.flags & Qt::WindowContextHelpButtonHint));
    QVERIFY(box.flags & Qt::WindowStaysOnTopHint);
    QCOMPARE(box.fontFamily, QStringLiteral("宋体"));
    QCOMPARE(box.fontPixelSize, 12);
    QVERIFY(!box.windowIconHasPixmap);
    QCOMPARE(box.parent, dialog.get());
    // Not cut: the next key reports again.
    QCOMPARE(lineEdit(*dialog)->text().length(), 21);
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(boxes.seen().size(), 2);

    for (int i = 0; i < 22; ++i)
        press(*dialog, QStringLiteral("keyBtnBack"));
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QCOMPARE(boxes.seen().size(), 3);
    QCOMPARE(allowed.count(), 0);

    typeKeys(*dialog, QStringLiteral("AB1"));
    QCOMPARE(allowed.count(), 1);
    QVERIFY(!dialog->isVisible());
    QCOMPARE(boxes.seen().size(), 3);
}

void PasswordTest::capFollowsCaptions()
{
    const auto dialog = openDialog("ab1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    const QStringList upper = captions(*dialog);

    // Upper case typed against a lower-case password does not open.
    typeKeys(*dialog, QStringLiteral("AB1"));
    QCOMPARE(lineEdit(*dialog)->text(), QStringLiteral("AB1"));
    QCOMPARE(allowed.count(), 0);
    lineEdit(*dialog)->clear();

    press(*dialog, QStringLiteral("keyBtnCap"));
    QStringList lower = upper;
    for (int i = 10; i < 36; ++i)
        lower[i] = lower[i].toLower();
    QCOMPARE(captions(*dialog), lower);
    press(*dialog, QStringLiteral("keyBtnCap"));
    QCOMPARE(captions(*dialog), upper);

    press(*dialog, QStringLiteral("keyBtnCap"));
    typeKeys(*dialog, QStringLiteral("AB"));
    QCOMPARE(lineEdit(*dialog)->text(), QStringLiteral("ab"));
    typeKeys(*dialog, QStringLiteral("1"));
    QCOMPARE(allowed.count(), 1);
    QVERIFY(!dialog->isVisible());
}

void PasswordTest::delRemovesOnlyASelection_data()
{
    QTest::addColumn<int>("cursor");
    QTest::addColumn<int>("selectionStart");
    QTest::addColumn<int>("selectionLength"); // 0: no selection
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("expectedCursor");

    QTest::newRow("no selection, cursor inside") << 2 << 0 << 0 << "ZYXW" << 2;
    QTest::newRow("no selection, cursor at start") << 0 << 0 << 0 << "ZYXW" << 0;
    QTest::newRow("selection forwards") << 0 << 1 << 2 << "ZW" << 1;
    QTest::newRow("selection backwards") << 0 << 3 << -2 << "ZW" << 1;
    QTest::newRow("everything selected") << 0 << 0 << 4 << "" << 0;
}

void PasswordTest::delRemovesOnlyASelection()
{
    QFETCH(int, cursor);
    QFETCH(int, selectionStart);
    QFETCH(int, selectionLength);
    QFETCH(QString, expected);
    QFETCH(int, expectedCursor);

    const auto dialog = openDialog("AB1");
    QLineEdit* edit = lineEdit(*dialog);
    edit->setText(QStringLiteral("ZYXW"));
    edit->setCursorPosition(cursor);
    if (selectionLength != 0)
        edit->setSelection(selectionStart, selectionLength);

    press(*dialog, QStringLiteral("keyBtnDel"));
    QCOMPARE(edit->text(), expected);
    QCOMPARE(edit->cursorPosition(), expectedCursor);
    QVERIFY(dialog->isVisible());
}

void PasswordTest::backRemovesBeforeTheCursor_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("cursor");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("expectedCursor");

    QTest::newRow("at the end") << "ZYXW" << 4 << "ZYX" << 3;
    QTest::newRow("inside") << "ZYXW" << 2 << "ZXW" << 1;
    QTest::newRow("at position 0") << "ZYXW" << 0 << "ZYXW" << 0;
    QTest::newRow("empty") << "" << 0 << "" << 0;
}

void PasswordTest::backRemovesBeforeTheCursor()
{
    QFETCH(QString, text);
    QFETCH(int, cursor);
    QFETCH(QString, expected);
    QFETCH(int, expectedCursor);

    const auto dialog = openDialog("AB1");
    QLineEdit* edit = lineEdit(*dialog);
    edit->setText(text);
    edit->setCursorPosition(cursor);

    press(*dialog, QStringLiteral("keyBtnBack"));
    QCOMPARE(edit->text(), expected);
    QCOMPARE(edit->cursorPosition(), expectedCursor);

    // Typing goes in at the cursor.
    typeKeys(*dialog, QStringLiteral("Q"));
    QCOMPARE(edit->text(), QString(expected).insert(expectedCursor, QLatin1Char('Q')));
}

void PasswordTest::upperCaseDigestNeverMatches()
{
    writeConfig(configWith(md5Hex("AB1").toUpper()));
    PwdEntryDialog dialog(nullptr, idText);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QSignalSpy allowed(&dialog, &PwdEntryDialog::allowedAccess);

    typeKeys(dialog, QStringLiteral("AB1"));
    QCOMPARE(allowed.count(), 0);
    QCOMPARE(lineEdit(dialog)->text(), QStringLiteral("AB1"));
    QVERIFY(dialog.isVisible());
    dialog.close();
}

void PasswordTest::confirmReportsWrongPassword()
{
    const auto dialog = openDialog("AB1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer boxes;

    typeKeys(*dialog, QStringLiteral("AB2"));
    press(*dialog, QStringLiteral("keyBtnConfirm"));
    QCOMPARE(boxes.seen().size(), 1);
    QCOMPARE(boxes.seen().first().title, QStringLiteral("#1001"));
    QCOMPARE(boxes.seen().first().text, QStringLiteral("#1013"));
    QCOMPARE(boxes.seen().first().buttons, QStringList{QStringLiteral("#1003")});
    QCOMPARE(boxes.seen().first().icon, QMessageBox::Information);
    QCOMPARE(boxes.seen().first().parent, dialog.get());
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QVERIFY(dialog->isVisible());

    // Also with nothing typed: the key always reports.
    press(*dialog, QStringLiteral("keyBtnConfirm"));
    QCOMPARE(boxes.seen().size(), 2);
    QCOMPARE(allowed.count(), 0);
    dialog->close();
}

void PasswordTest::gateOpensWhenPasswordVanishes_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("configuration removed") << "remove";
    QTest::newRow("license emptied") << "empty";
    QTest::newRow("lock file not creatable") << "lock";
}

void PasswordTest::gateOpensWhenPasswordVanishes()
{
    QFETCH(QString, change);

    const auto dialog = openDialog("AB1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(allowed.count(), 0);

    if (change == QLatin1String("remove")) {
        QVERIFY(QFile::remove(m_panel->path(kConfig)));
    } else if (change == QLatin1String("empty")) {
        writeConfig(configWith(QByteArray()));
    } else {
        QVERIFY(QDir(m_panel->path(QStringLiteral("/tmp"))).removeRecursively());
        QVERIFY(testenv::writeFile(m_panel->path(QStringLiteral("/tmp")), "not a directory"));
    }
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(allowed.count(), 1);
    QVERIFY(!dialog->isVisible());
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
}

void PasswordTest::closingClearsTheEntry()
{
    const auto dialog = openDialog("AB1");
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    typeKeys(*dialog, QStringLiteral("AB"));
    dialog->close();
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QCOMPARE(allowed.count(), 0);
    QVERIFY(!dialog->isAccessAllowed());
}

void PasswordTest::literalsWithoutTextLookup()
{
    const auto dialog = openDialog("AB1", std::function<QString(int)>());
    testenv::BoxAnswerer boxes;

    QCOMPARE(dialog->windowTitle(), QStringLiteral("OPX密码输入"));
    QCOMPARE(child<QLabel>(*dialog, QStringLiteral("label"))->text(), QStringLiteral("请输入密码:"));
    QCOMPARE(child<QPushButton>(*dialog, QStringLiteral("keyBtnConfirm"))->text(), QStringLiteral("确认"));

    press(*dialog, QStringLiteral("keyBtnConfirm"));
    typeKeys(*dialog, QStringLiteral("Z").repeated(21));
    QCOMPARE(boxes.seen().size(), 2);
    QCOMPARE(boxes.seen().at(0).title, QStringLiteral("提示"));
    QCOMPARE(boxes.seen().at(0).text, QStringLiteral("密码输入错误!"));
    QCOMPARE(boxes.seen().at(0).buttons, QStringList{QStringLiteral("确认")});
    QCOMPARE(boxes.seen().at(1).title, QStringLiteral("提示"));
    QCOMPARE(boxes.seen().at(1).text, QStringLiteral("密码最大长度为20个字符!"));
    QCOMPARE(boxes.seen().at(1).buttons, QStringList{QStringLiteral("确认")});
    dialog->close();
}

QTEST_MAIN(PasswordTest)
#include "tst_password.moc"
