// Scrambled files: the byte transform, 255-byte chunks, the mark rule, the clear copy's target.
#include "download/qsettingsfactory.h"
#include "testenv.h"

#include <QtTest>

using testenv::readFile;

class TestScramble : public QObject
{
    Q_OBJECT

private slots:
    void convert_data();
    void convert();
};

void TestScramble::convert_data()
{
    QTest::addColumn<QByteArray>("clear");
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("target"); // "link": a link to the scrambled file planted there
    QTest::addColumn<bool>("converted");
    QByteArray all(100000, '\0'); // every value, "#" fourth
    for (int i = 0; i < all.size(); ++i)
        all[i] = char(i == 3 ? '#' : i * 7 + i / 256);
    for (int size : {0, 1, 3, 254, 255, 256, 510, 511, 100000})
        QTest::addRow("unmarked %d", size) << all.left(size) << 1 << "out" << true;
    for (int size : {4, 255, 256, 511})
        QTest::addRow("marked %d", size) << all.left(size) << 0 << "out" << true;
    QTest::newRow("marked, empty") << QByteArray() << 0 << "out" << false;
    QTest::newRow("marked, third is #") << QByteArray("###[GLOBAL]") << 0 << "out" << false;
    QTest::newRow("marked, # only in second chunk") << QByteArray(300, 'x').replace(258, 1, "#") << 0 << "out" << false;
    QTest::newRow("even type 2 checks") << QByteArray("abcd") << 2 << "out" << false;
    QTest::newRow("odd type 3 skips") << QByteArray("abcd") << 3 << "out" << true;
    // A link planted at the clear copy's path is not followed.
    QTest::newRow("link at the target") << all.left(10) << 1 << "link" << false;
}

void TestScramble::convert()
{
    QFETCH(QByteArray, clear);
    QFETCH(int, type);
    QFETCH(QString, target);
    QFETCH(bool, converted);
    QTemporaryDir dir;
    const auto path = [&dir](const QString& name) { return dir.filePath(name); };
    QByteArray scrambled = clear;
    for (char& c : scrambled)
        c = char(QSettingsFactory::encryptByte(uchar(c)));
    QCOMPARE(int(QSettingsFactory::encryptByte(0x6B)) * 256 + QSettingsFactory::encryptByte(0x46), 0x00A5); // worked out by hand
    QCOMPARE(int(QSettingsFactory::decryptByte(0x80)) * 256 + QSettingsFactory::decryptByte(0xFF), 0x6F94);
    QVERIFY(testenv::writeFile(path("clear.in"), clear) && QFile::link(path("scrambled.ini"), path("link")));
    QVERIFY(QSettingsFactory::encryptFile(path("clear.in"), path("scrambled.ini")));
    QCOMPARE(readFile(path("scrambled.ini")), scrambled);
    QVERIFY(testenv::writeFile(path("out"), QByteArray(600, 'z'))); // left over from an earlier run: truncated either way

    QCOMPARE(QSettingsFactory::decryptFile(path("scrambled.ini"), path(target), CRYPT_TYPE(type)), converted);
    QCOMPARE(readFile(path(target)), converted ? clear : target == "link" ? scrambled : QByteArray());
    QVERIFY(QFileInfo(path("link")).isSymLink());
    // A missing source leaves the target as it was.
    QVERIFY(!QSettingsFactory::decryptFile(path("absent"), path("out"), CRYPT_TYPE(type)));
    QCOMPARE(readFile(path("out")), target == "out" ? (converted ? clear : QByteArray()) : QByteArray(600, 'z'));
    QVERIFY(!QSettingsFactory::encryptFile(path("absent"), path("x")) && !QSettingsFactory::encryptFile(path("clear.in"), path("nodir/x")));
}

QTEST_GUILESS_MAIN(TestScramble)
#include "tst_scramble.moc"
