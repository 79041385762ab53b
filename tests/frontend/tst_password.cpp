// The access password: reading the stored digest under the configuration lock,
// and the dialog with its on-screen keyboard.
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
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
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

// Every text names its id, so that each caption and message shows where it came from.
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

QLineEdit* lineEdit(const PwdEntryDialog& dialog)
{
    return dialog.findChild<QLineEdit*>(QStringLiteral("lineEditPwd"));
}

QPushButton* key(const PwdEntryDialog& dialog, const QString& name)
{
    return dialog.findChild<QPushButton*>(QStringLiteral("keyBtn") + name);
}

void press(const PwdEntryDialog& dialog, const QString& name)
{
    QTest::mouseClick(key(dialog, name), Qt::LeftButton);
}

// Presses the key named by each character ("a" presses keyBtnA, whatever it shows).
void typeKeys(const PwdEntryDialog& dialog, const QString& keys)
{
    for (const QChar c : keys)
        press(dialog, c.toUpper());
}

// The 40 key names in table order: digits, letters, Cap, Del, Back, Confirm.
QStringList keyNames()
{
    return QStringLiteral("1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ").split(QString(), Qt::SkipEmptyParts)
           + QStringList{"Cap", "Del", "Back", "Confirm"};
}

QStringList captions(const PwdEntryDialog& dialog)
{
    QStringList texts;
    for (const QString& name : keyNames())
        texts << key(dialog, name)->text();
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

    void layout();
    void opensOnTheCompletingKey_data();
    void opensOnTheCompletingKey();
    void capTwice();
    void editingKeys_data();
    void editingKeys();
    void messages();
    void gateOpensWhenPasswordVanishes();

private:
    void writeConfig(const QByteArray& content) { QVERIFY(testenv::writeFile(m_panel->path(kConfig), content)); }
    // A dialog on screen, guarded by `license` as the stored digest.
    std::unique_ptr<PwdEntryDialog> openDialog(const QByteArray& license)
    {
        writeConfig(configWith(license));
        auto dialog = std::make_unique<PwdEntryDialog>(nullptr, idText);
        dialog->show();
        if (!QTest::qWaitForWindowExposed(dialog.get()))
            qFatal("password dialog not shown");
        return dialog;
    }

    std::unique_ptr<testenv::TempPanel> m_panel;
};

void PasswordTest::init()
{
    // A new panel per test: QSettings would otherwise serve a rewritten
    // configuration of equal size from its cache.
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
    QTest::addColumn<bool>("breakLock");
    QTest::addColumn<bool>("reads");
    QTest::addColumn<QByteArray>("digest"); // empty: CryptInit reports no password

    const QByteArray digest = md5Hex("AB1");
    QTest::newRow("no configuration file") << QByteArray() << false << false << QByteArray();
    QTest::newRow("empty license") << configWith(QByteArray()) << false << true << QByteArray();
    QTest::newRow("digest") << configWith(digest) << false << true << digest;
    QTest::newRow("lock file not creatable") << configWith(digest) << true << false << QByteArray();
}

void PasswordTest::cryptInit()
{
    QFETCH(QByteArray, config);
    QFETCH(bool, breakLock);
    QFETCH(bool, reads);
    QFETCH(QByteArray, digest);

    // A digest held beforehand tells a read from no read.
    md5_crypt_ctrl* crypt = md5_crypt_ctrl::GetInstance();
    writeConfig(configWith("0123"));
    QVERIFY(crypt->CryptInit());
    QVERIFY(QFile::remove(m_panel->path(kLock)));

    if (config.isEmpty())
        QVERIFY(QFile::remove(m_panel->path(kConfig)));
    else
        writeConfig(config);
    if (breakLock) { // the lock directory turned into a file
        QVERIFY(QDir(m_panel->path(QStringLiteral("/tmp"))).removeRecursively());
        QVERIFY(testenv::writeFile(m_panel->path(QStringLiteral("/tmp")), "not a directory"));
    }

    QCOMPARE(crypt->CryptInit(), !digest.isEmpty());
    QVERIFY(crypt->isInitialised());
    QCOMPARE(QByteArray::fromStdString(crypt->digest()), reads ? digest : QByteArray("0123"));
    QCOMPARE(QFile::exists(m_panel->path(kLock)), reads);
}

void PasswordTest::cryptInitWaitsForTheLock()
{
    // The settings program holds the lock for a while; the reader must wait.
    writeConfig(configWith(md5Hex("AB1")));
    const QByteArray lockPath = QFile::encodeName(m_panel->path(kLock));
    const int fd = open(lockPath.constData(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    QVERIFY(fd >= 0 && flock(fd, LOCK_EX) == 0);
    std::thread settingsProgram([fd] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        flock(fd, LOCK_UN);
    });
    QElapsedTimer clock;
    clock.start();
    const bool read = md5_crypt_ctrl::GetInstance()->CryptInit();
    const qint64 waited = clock.elapsed();
    settingsProgram.join();
    QVERIFY(read);
    QVERIFY2(waited >= 250, qPrintable(QString::number(waited)));
    // Released again: the settings program gets it at once.
    QCOMPARE(flock(fd, LOCK_EX | LOCK_NB), 0);
    close(fd);
}

void PasswordTest::layout()
{
    const auto dialog = openDialog(md5Hex("AB1"));

    QCOMPARE(dialog->windowTitle(), QStringLiteral("#1011"));
    QCOMPARE(dialog->findChild<QLabel*>(QStringLiteral("label"))->text(), QStringLiteral("#1014"));
    QCOMPARE(lineEdit(*dialog)->echoMode(), QLineEdit::Password);
    QCOMPARE(dialog->size(), QSize(480, 280));
    const QRect desktop = QApplication::desktop()->geometry();
    QCOMPARE(dialog->pos(), QPoint((desktop.width() - 480) / 2, (desktop.height() - 280) / 2));

    // The 40 keys, eight to a row in table order, by the names the panel's tools know them by.
    QStringList laidOut;
    for (int row = 0; row < 5; ++row) {
        auto* rowLayout = dialog->findChild<QHBoxLayout*>(QStringLiteral("horiLayoutsName%1").arg(row));
        QVERIFY(rowLayout != nullptr);
        for (int column = 0; column < rowLayout->count(); ++column)
            laidOut << rowLayout->itemAt(column)->widget()->objectName();
    }
    QStringList names = keyNames();
    for (QString& name : names)
        name.prepend(QStringLiteral("keyBtn"));
    QCOMPARE(laidOut, names);
    QCOMPARE(key(*dialog, QStringLiteral("Confirm"))->text(), QStringLiteral("#1003"));
}

void PasswordTest::opensOnTheCompletingKey_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<bool>("opens");
    QTest::newRow("lower-case digest") << md5Hex("AB1") << true;
    // The settings program writes lower case only.
    QTest::newRow("upper-case digest never matches") << md5Hex("AB1").toUpper() << false;
    QTest::newRow("digest with a trailing character") << md5Hex("AB1") + "0" << false;
    QTest::newRow("truncated digest") << md5Hex("AB1").left(31) << false;
}

void PasswordTest::opensOnTheCompletingKey()
{
    QFETCH(QByteArray, stored);
    QFETCH(bool, opens);

    const auto dialog = openDialog(stored);
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer boxes;

    typeKeys(*dialog, QStringLiteral("AB"));
    QCOMPARE(lineEdit(*dialog)->text(), QStringLiteral("AB"));
    QCOMPARE(allowed.count(), 0);

    typeKeys(*dialog, QStringLiteral("1"));
    QCOMPARE(allowed.count(), opens ? 1 : 0);
    QCOMPARE(dialog->isAccessAllowed(), opens);
    QCOMPARE(dialog->isVisible(), !opens);
    QCOMPARE(lineEdit(*dialog)->text(), opens ? QString() : QStringLiteral("AB1"));
    QVERIFY(boxes.seen().isEmpty());
    dialog->close();
}

void PasswordTest::capTwice()
{
    const auto dialog = openDialog(md5Hex("ab1"));
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    const QStringList upper = captions(*dialog);

    typeKeys(*dialog, QStringLiteral("AB1"));
    QCOMPARE(allowed.count(), 0);
    lineEdit(*dialog)->clear();

    press(*dialog, QStringLiteral("Cap"));
    QStringList lower = upper;
    for (int i = 10; i < 36; ++i)
        lower[i] = lower[i].toLower();
    QCOMPARE(captions(*dialog), lower);
    press(*dialog, QStringLiteral("Cap"));
    QCOMPARE(captions(*dialog), upper);

    // What is typed follows the captions.
    press(*dialog, QStringLiteral("Cap"));
    typeKeys(*dialog, QStringLiteral("AB"));
    QCOMPARE(lineEdit(*dialog)->text(), QStringLiteral("ab"));
    typeKeys(*dialog, QStringLiteral("1"));
    QCOMPARE(allowed.count(), 1);
}

void PasswordTest::editingKeys_data()
{
    QTest::addColumn<QString>("keyName");
    QTest::addColumn<int>("cursor");
    QTest::addColumn<int>("selectionLength"); // from the cursor; 0: no selection
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("expectedCursor");

    // Del removes a selection only, never the character after the cursor.
    QTest::newRow("Del without a selection") << "Del" << 2 << 0 << "ZYXW" << 2;
    QTest::newRow("Del, selection forwards") << "Del" << 1 << 2 << "ZW" << 1;
    QTest::newRow("Del, selection backwards") << "Del" << 3 << -2 << "ZW" << 1;
    QTest::newRow("Back inside") << "Back" << 2 << 0 << "ZXW" << 1;
    QTest::newRow("Back at position 0") << "Back" << 0 << 0 << "ZYXW" << 0;
}

void PasswordTest::editingKeys()
{
    QFETCH(QString, keyName);
    QFETCH(int, cursor);
    QFETCH(int, selectionLength);
    QFETCH(QString, expected);
    QFETCH(int, expectedCursor);

    const auto dialog = openDialog(md5Hex("AB1"));
    QLineEdit* edit = lineEdit(*dialog);
    edit->setText(QStringLiteral("ZYXW"));
    edit->setCursorPosition(cursor);
    if (selectionLength != 0)
        edit->setSelection(cursor, selectionLength);

    press(*dialog, keyName);
    QCOMPARE(edit->text(), expected);
    QCOMPARE(edit->cursorPosition(), expectedCursor);
    // Typing goes in at the cursor.
    typeKeys(*dialog, QStringLiteral("Q"));
    QCOMPARE(edit->text(), QString(expected).insert(expectedCursor, QLatin1Char('Q')));
    dialog->close();
}

void PasswordTest::messages()
{
    const auto dialog = openDialog(md5Hex("AB1"));
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer boxes;

    typeKeys(*dialog, QStringLiteral("Z").repeated(20));
    QVERIFY(boxes.seen().isEmpty());
    // The 21st character brings the box.
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(boxes.seen().size(), 1);
    const testenv::SeenBox box = boxes.seen().first();
    QCOMPARE(box.title, QStringLiteral("#1001"));
    QCOMPARE(box.text, QStringLiteral("#1012"));
    QCOMPARE(box.buttons, QStringList{QStringLiteral("#1003")});
    QCOMPARE(box.icon, QMessageBox::Information);
    QCOMPARE(box.parent, dialog.get());
    // Nothing is cut: every key brings it again until the text is short enough.
    QCOMPARE(lineEdit(*dialog)->text().length(), 21);
    typeKeys(*dialog, QStringLiteral("Z"));
    press(*dialog, QStringLiteral("Back"));
    press(*dialog, QStringLiteral("Back"));
    QCOMPARE(lineEdit(*dialog)->text().length(), 20);
    QCOMPARE(boxes.seen().size(), 3);

    // A right password opens on its last key, so Confirm always reports a wrong one.
    press(*dialog, QStringLiteral("Confirm"));
    QCOMPARE(boxes.seen().size(), 4);
    QCOMPARE(boxes.seen().last().text, QStringLiteral("#1013"));
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QVERIFY(dialog->isVisible());

    // Closing forgets what was typed.
    typeKeys(*dialog, QStringLiteral("AB"));
    dialog->close();
    QVERIFY(lineEdit(*dialog)->text().isEmpty());
    QCOMPARE(allowed.count(), 0);
    QVERIFY(!dialog->isAccessAllowed());
}

void PasswordTest::gateOpensWhenPasswordVanishes()
{
    const auto dialog = openDialog(md5Hex("AB1"));
    QSignalSpy allowed(dialog.get(), &PwdEntryDialog::allowedAccess);
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(allowed.count(), 0);

    // Read again on every key: the settings program removed the password meanwhile.
    QVERIFY(QFile::remove(m_panel->path(kConfig)));
    typeKeys(*dialog, QStringLiteral("Z"));
    QCOMPARE(allowed.count(), 1);
    QVERIFY(!dialog->isVisible());
}

QTEST_MAIN(PasswordTest)
#include "tst_password.moc"
