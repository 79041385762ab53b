// The access password: reading the stored digest under the configuration lock,
// and the dialog with its on-screen keyboard, one row a sequence of presses.
#include "frontend/md5_crypt_ctrl.h"
#include "frontend/pwdentrydialog.h"

#include "boxanswerer.h"
#include "dialogprobe.h"
#include "testenv.h"

#include <QCryptographicHash>
#include <QDesktopWidget>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QtTest>

#include <memory>
#include <thread>

#include <sys/file.h>

namespace {

const QString kConfig = QStringLiteral("/usr/kavo_app/config/kavo_app_conf.ini");
const QString kLock = QStringLiteral("/tmp/kavo_app_conf.lck");

QByteArray md5Hex(const QByteArray& password)
{
    return QCryptographicHash::hash(password, QCryptographicHash::Md5).toHex();
}

} // namespace

class PasswordTest : public QObject
{
    Q_OBJECT

private slots:
    // A new panel per test: QSettings would otherwise serve a rewritten
    // configuration of equal size from its cache.
    void init() { m_panel = std::make_unique<testenv::TempPanel>(); }
    void cleanup() { m_panel.reset(); }
    void cryptInit_data();
    void cryptInit();
    void dialog_data();
    void dialog();

private:
    bool writeConfig(const QByteArray& license)
    {
        return testenv::writeFile(m_panel->path(kConfig), "[SYSTEM]\nbrightness=80\n[SECURITY]\nlicense=" + license + '\n');
    }

    std::unique_ptr<testenv::TempPanel> m_panel;
};

void PasswordTest::cryptInit_data()
{
    QTest::addColumn<QByteArray>("license"); // the stored digest; null: no configuration file
    QTest::addColumn<bool>("breakLock");    // the lock directory turned into a file
    QTest::addColumn<bool>("holdLock");     // the settings program holds the lock for 300 ms
    QTest::addColumn<QByteArray>("digest"); // read; null: none read, empty: no password

    const QByteArray digest = md5Hex("AB1");
    QTest::newRow("no configuration file") << QByteArray() << false << false << QByteArray();
    QTest::newRow("empty license") << QByteArray("") << false << false << QByteArray("");
    QTest::newRow("digest") << digest << false << false << digest;
    QTest::newRow("lock file not creatable") << digest << true << false << QByteArray();
    QTest::newRow("waits for the lock") << digest << false << true << digest;
}

void PasswordTest::cryptInit()
{
    QFETCH(QByteArray, license);
    QFETCH(bool, breakLock);
    QFETCH(bool, holdLock);
    QFETCH(QByteArray, digest);

    // A digest held beforehand tells a read from no read.
    md5_crypt_ctrl* crypt = md5_crypt_ctrl::GetInstance();
    QVERIFY(writeConfig("0123") && crypt->CryptInit());
    QVERIFY(QFile::remove(m_panel->path(kLock)) && QFile::remove(m_panel->path(kConfig)));
    QVERIFY(license.isNull() || writeConfig(license));
    if (breakLock)
        QVERIFY(QDir(m_panel->path("/tmp")).removeRecursively() && testenv::writeFile(m_panel->path("/tmp"), "x"));
    QFile lock(m_panel->path(kLock));
    QVERIFY(!holdLock || (lock.open(QIODevice::WriteOnly) && flock(lock.handle(), LOCK_EX) == 0));
    std::thread settingsProgram([&lock, holdLock] {
        if (holdLock) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            flock(lock.handle(), LOCK_UN);
        }
    });
    QElapsedTimer clock;
    clock.start();
    const bool read = crypt->CryptInit();
    const qint64 waited = clock.elapsed();
    settingsProgram.join();

    QCOMPARE(read, !digest.isEmpty());
    QVERIFY(crypt->isInitialised());
    QCOMPARE(QByteArray::fromStdString(crypt->digest()), digest.isNull() ? QByteArray("0123") : digest);
    QCOMPARE(QFile::exists(m_panel->path(kLock)), !digest.isNull());
    QVERIFY2(!holdLock || waited >= 250, qPrintable(QString::number(waited)));
    // Released again: the settings program gets it at once.
    QVERIFY(!holdLock || flock(lock.handle(), LOCK_EX | LOCK_NB) == 0);
}

void PasswordTest::dialog_data()
{
    QTest::addColumn<QByteArray>("license");
    QTest::addColumn<QString>("start");    // in the line edit, the cursor at "|" (else at the end)
    QTest::addColumn<int>("selection");    // selected from the cursor on
    QTest::addColumn<QString>("keys");     // key names; "~": the settings program removes the password
    QTest::addColumn<QString>("typed");    // in the line edit afterwards
    QTest::addColumn<QList<int>>("boxes"); // the messages of the boxes shown
    QTest::addColumn<bool>("opens");
    QTest::addColumn<bool>("lower");       // the letter keys show lower case

    const QByteArray ab1 = md5Hex("AB1"), abLower = md5Hex("ab1");
    const QList<int> none;
    QTest::newRow("opens on the completing key") << ab1 << "" << 0 << "A B 1" << "" << none << true << false;
    // The settings program writes lower case only.
    QTest::newRow("upper-case digest") << ab1.toUpper() << "" << 0 << "A B 1" << "AB1" << none
                                       << false << false;
    QTest::newRow("digest with a trailing character") << ab1 + "0" << "" << 0 << "A B 1" << "AB1"
                                                      << none << false << false;
    QTest::newRow("truncated digest") << ab1.left(31) << "" << 0 << "A B 1" << "AB1" << none
                                      << false << false;
    QTest::newRow("Cap twice") << abLower << "" << 0 << "Cap Cap A B 1" << "AB1" << none << false << false;
    QTest::newRow("Cap types lower case") << abLower << "" << 0 << "Cap A B" << "ab" << none << false << true;
    QTest::newRow("Cap, lower-case password") << abLower << "" << 0 << "Cap A B 1" << "" << none << true << true;
    // Del removes a selection only, never the character after the cursor.
    QTest::newRow("Del without a selection") << ab1 << "ZY|XW" << 0 << "Del Q" << "ZYQXW" << none << false << false;
    QTest::newRow("Del, selection forwards") << ab1 << "Z|YXW" << 2 << "Del Q" << "ZQW" << none << false << false;
    QTest::newRow("Del, selection backwards") << ab1 << "ZYX|W" << -2 << "Del Q" << "ZQW" << none << false << false;
    QTest::newRow("Back inside") << ab1 << "ZY|XW" << 0 << "Back Q" << "ZQXW" << none << false << false;
    QTest::newRow("Back at position 0") << ab1 << "|ZYXW" << 0 << "Back Q" << "QZYXW" << none << false << false;
    // Nothing is cut: every key brings the box again until the text is short
    // enough. A right password opens on its last key, so Confirm always
    // reports a wrong one.
    QTest::newRow("too long, then Confirm") << ab1 << QString(20, 'Z') << 0 << "Z Z Back Back Confirm" << ""
                                            << QList<int>{1012, 1012, 1012, 1013} << false << false;
    QTest::newRow("20 characters") << ab1 << QString(19, 'Z') << 0 << "Z" << QString(20, 'Z') << none << false
                                   << false;
    // Read again on every key.
    QTest::newRow("password removed meanwhile") << ab1 << "" << 0 << "Z ~ Z" << "" << none << true << false;
}

void PasswordTest::dialog()
{
    QFETCH(QByteArray, license);
    QFETCH(QString, start);
    QFETCH(int, selection);
    QFETCH(QString, keys);
    QFETCH(QString, typed);
    QFETCH(QList<int>, boxes);
    QFETCH(bool, opens);
    QFETCH(bool, lower);

    QVERIFY(writeConfig(license));
    // Every text names its id, so that each caption and message shows where it came from.
    PwdEntryDialog dialog(nullptr, [](int id) { return QStringLiteral("#%1").arg(id); });
    dialog.show();
    auto* edit = testenv::child<QLineEdit>(dialog, "lineEditPwd");
    QCOMPARE(QStringList({dialog.windowTitle(), testenv::child<QLabel>(dialog, "label")->text()}),
             QStringList({"#1011", "#1014"}));
    QCOMPARE(edit->echoMode(), QLineEdit::Password);
    const QRect desktop = QApplication::desktop()->geometry();
    QCOMPARE(QRect(dialog.pos(), dialog.size()), QRect((desktop.width() - 480) / 2, (desktop.height() - 280) / 2, 480, 280));
    // The 40 keys, eight to a row in table order, by the names the panel's
    // tools know them by.
    const QStringList names = QStringLiteral("1 2 3 4 5 6 7 8 9 0 A B C D E F G H I J K L M N O P Q R S T U V W X Y Z "
                                             "Cap Del Back Confirm").split(QLatin1Char(' '));
    QStringList laidOut, captions;
    for (int row = 0; row < 5; ++row) {
        auto* rowLayout = dialog.findChild<QHBoxLayout*>(QStringLiteral("horiLayoutsName%1").arg(row));
        for (int column = 0; column < rowLayout->count(); ++column)
            laidOut << rowLayout->itemAt(column)->widget()->objectName().mid(6);
    }
    QCOMPARE(laidOut, names);
    const auto caption = [&](int key) { return dialog.findChild<QPushButton*>("keyBtn" + names.at(key))->text(); };
    for (int key = 0; key < 40; ++key)
        captions << caption(key);
    QCOMPARE(captions.mid(0, 36) + captions.mid(39), names.mid(0, 36) + QStringList{"#1003"});

    const int cursor = start.indexOf(QLatin1Char('|'));
    edit->setText(QString(start).remove(QLatin1Char('|')));
    if (cursor >= 0)
        edit->setCursorPosition(cursor);
    if (selection != 0)
        edit->setSelection(cursor, selection);
    QSignalSpy allowed(&dialog, &PwdEntryDialog::allowedAccess);
    testenv::BoxAnswerer answerer;
    for (const QString& key : keys.split(QLatin1Char(' '))) {
        if (key == QLatin1String("~"))
            QVERIFY(QFile::remove(m_panel->path(kConfig)));
        else
            QTest::mouseClick(dialog.findChild<QPushButton*>(QStringLiteral("keyBtn") + key), Qt::LeftButton);
    }

    QCOMPARE(edit->text(), typed);
    QStringList shown, wanted;
    for (const testenv::SeenBox& box : answerer.seen()) {
        shown << QStringList{box.title, box.text, box.buttons.join(QLatin1Char('/'))}.join(QLatin1Char(' '));
        QVERIFY(box.icon == QMessageBox::Information && box.parent == &dialog);
    }
    for (int id : boxes)
        wanted << QStringLiteral("#1001 #%1 #1003").arg(id);
    QCOMPARE(shown, wanted);
    QCOMPARE(QList<bool>({allowed.count() == 1, dialog.isAccessAllowed(), !dialog.isVisible()}),
             QList<bool>({opens, opens, opens}));
    for (int key = 10; key < 36 && lower; ++key)
        captions[key] = captions[key].toLower();
    for (int key = 0; key < 40; ++key)
        QCOMPARE(caption(key), captions.at(key));
    // Closing forgets what was typed.
    dialog.close();
    QVERIFY(edit->text().isEmpty());
}

QTEST_MAIN(PasswordTest)
#include "tst_password.moc"
