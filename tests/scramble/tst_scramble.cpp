// Scrambled configuration files: the byte transform, the chunked conversion
// (255-byte chunks) with its mark rule, and the producer side.
#include "download/qsettingsfactory.h"
#include "testenv.h"

#include <QRandomGenerator>
#include <QtTest>

using testenv::readFile;
using testenv::writeFile;

namespace {

QByteArray scramble(QByteArray data)
{
    for (char& c : data)
        c = char(QSettingsFactory::encryptByte(uchar(c)));
    return data;
}

QByteArray randomBytes(int size)
{
    QRandomGenerator generator(4711u + quint32(size));
    QByteArray data(size, '\0');
    for (char& c : data)
        c = char(generator.bounded(256));
    return data;
}

// `size` bytes of INI-like text whose fourth byte is `fourth`.
QByteArray textWithFourth(int size, char fourth)
{
    QByteArray data = QByteArray("[GLOBAL]\nkey = value\n").repeated(size / 21 + 1).left(size);
    data[3] = fourth;
    return data;
}

} // namespace

class TestScramble : public QObject
{
    Q_OBJECT

private slots:
    void byteTransform_data();
    void byteTransform();
    void roundTrip_data();
    void roundTrip();
    void markRule_data();
    void markRule();
    void unopenableFiles();

private:
    QString path(const char* name) const { return m_dir.filePath(QLatin1String(name)); }
    QTemporaryDir m_dir;
};

void TestScramble::byteTransform_data()
{
    QTest::addColumn<int>("scrambled");
    QTest::addColumn<int>("clear");
    // Rotate left by 3, then XOR 0x6B, worked out by hand.
    QTest::newRow("00") << 0x00 << 0x6B;
    QTest::newRow("01") << 0x01 << 0x63; // 01 -> 08 -> 63
    QTest::newRow("80") << 0x80 << 0x6F; // 80 -> 04 -> 6F
    QTest::newRow("FF") << 0xFF << 0x94;
    QTest::newRow("A5") << 0xA5 << 0x46; // A5 -> 2D -> 46
}

void TestScramble::byteTransform()
{
    QFETCH(int, scrambled);
    QFETCH(int, clear);
    QCOMPARE(int(QSettingsFactory::decryptByte(uchar(scrambled))), clear);
    QCOMPARE(int(QSettingsFactory::encryptByte(uchar(clear))), scrambled);
}

void TestScramble::roundTrip_data()
{
    QTest::addColumn<QByteArray>("clear");
    QTest::addColumn<int>("type");
    for (int size : {0, 1, 3, 254, 255, 256, 510, 511, 1000})
        QTest::addRow("random %d", size) << randomBytes(size) << int(CRYPT_NO_MARK);
    for (int size : {4, 255, 256, 511, 100000})
        QTest::addRow("marked %d", size) << textWithFourth(size, '#') << int(CRYPT_WITH_MARK);
}

void TestScramble::roundTrip()
{
    QFETCH(QByteArray, clear);
    QFETCH(int, type);
    QVERIFY(writeFile(path("clear.in"), clear));
    QVERIFY(QSettingsFactory::encryptFile(path("clear.in"), path("scrambled.ini")));
    QCOMPARE(readFile(path("scrambled.ini")), scramble(clear));
    QVERIFY(QSettingsFactory::decryptFile(path("scrambled.ini"), path("clear.out"), CRYPT_TYPE(type)));
    QCOMPARE(readFile(path("clear.out")), clear);
}

void TestScramble::markRule_data()
{
    QTest::addColumn<QByteArray>("clear");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("converted");

    QTest::newRow("marked, empty") << QByteArray() << 0 << false;
    QTest::newRow("marked, 3 bytes") << QByteArray("##[") << 0 << false;
    QTest::newRow("marked, fourth not #") << QByteArray("###[GLOBAL]") << 0 << false;
    QTest::newRow("marked, 4 bytes") << QByteArray("abc#") << 0 << true;
    QTest::newRow("marked, # only in second chunk") << textWithFourth(300, 'x').replace(258, 1, "#") << 0 << false;
    QTest::newRow("marked, no # in second chunk") << textWithFourth(300, '#').replace(258, 1, "x") << 0 << true;
    QTest::newRow("even type 2 checks") << QByteArray("abcd") << 2 << false;
    QTest::newRow("unmarked, empty") << QByteArray() << 1 << true;
    QTest::newRow("unmarked, fourth not #") << QByteArray("abcd") << 1 << true;
    QTest::newRow("odd type 3 skips") << QByteArray("abcd") << 3 << true;
}

void TestScramble::markRule()
{
    QFETCH(QByteArray, clear);
    QFETCH(int, type);
    QFETCH(bool, converted);
    QVERIFY(writeFile(path("mark.ini"), scramble(clear)));
    // Left over from an earlier conversion: it must be truncated either way.
    QVERIFY(writeFile(path("mark.out"), QByteArray(600, 'z')));

    QCOMPARE(QSettingsFactory::decryptFile(path("mark.ini"), path("mark.out"), CRYPT_TYPE(type)), converted);
    QVERIFY(QFile::exists(path("mark.out")));
    QCOMPARE(readFile(path("mark.out")), converted ? clear : QByteArray());
}

void TestScramble::unopenableFiles()
{
    QVERIFY(writeFile(path("present.ini"), scramble("abc#def")));
    const QList<QPair<QString, QString>> cases = {
        {path("absent.ini"), path("absent.out")},                // missing source
        {path("present.ini"), path("no/such/dir/present.out")}, // target directory missing
    };
    for (const auto& c : cases) {
        QVERIFY(!QSettingsFactory::decryptFile(c.first, c.second, CRYPT_WITH_MARK));
        QVERIFY(!QSettingsFactory::decryptFile(c.first, c.second, CRYPT_NO_MARK));
        QVERIFY(!QSettingsFactory::encryptFile(c.first, c.second));
    }
    QVERIFY(!QFile::exists(path("no/such/dir")));

    // A link planted at the target is not followed, whether its file exists or not.
    QVERIFY(writeFile(path("victim"), "kept"));
    QVERIFY(QFile::link(path("victim"), path("link.out")) && QFile::link(path("planted"), path("dangling.out")));
    for (const char* link : {"link.out", "dangling.out"}) {
        QVERIFY(!QSettingsFactory::decryptFile(path("present.ini"), path(link), CRYPT_NO_MARK));
        QVERIFY(QFileInfo(path(link)).isSymLink());
    }
    QCOMPARE(readFile(path("victim")), QByteArray("kept"));
    QVERIFY(!QFile::exists(path("planted")));
}

QTEST_GUILESS_MAIN(TestScramble)
#include "tst_scramble.moc"
