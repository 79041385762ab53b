// Scrambled configuration files: the byte transform, the chunked conversion
// with its mark rule, and the producer side.
#include "download/qsettingsfactory.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return file.readAll();
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
}

QByteArray scramble(const QByteArray& clear)
{
    QByteArray out = clear;
    for (char& c : out)
        c = static_cast<char>(QSettingsFactory::encryptByte(static_cast<unsigned char>(c)));
    return out;
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray data(size, '\0');
    for (char& c : data)
        c = static_cast<char>(generator.bounded(256));
    return data;
}

// `size` bytes of INI-like text whose fourth byte is `fourth`.
QByteArray textWithFourth(int size, char fourth)
{
    QByteArray data = QByteArray("[GLOBAL]\nkey = value\n").repeated(size / 21 + 1).left(size);
    if (size > 3)
        data[3] = fourth;
    return data;
}

} // namespace

class TestScramble : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void byteTransform_data();
    void byteTransform();
    void byteTransformIsInvertible();

    void roundTrip_data();
    void roundTrip();
    void markRule_data();
    void markRule();
    void decryptingTwiceDoesNotRestore();
    void unopenableFiles_data();
    void unopenableFiles();

private:
    QString path(const QString& name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
};

void TestScramble::initTestCase()
{
    QVERIFY(m_dir.isValid());
}

void TestScramble::byteTransform_data()
{
    QTest::addColumn<int>("scrambled");
    QTest::addColumn<int>("clear");

    // Rotate left by 3, then XOR 0x6B, worked out by hand.
    QTest::newRow("00") << 0x00 << 0x6B;          // 00 -> 00 -> 6B
    QTest::newRow("01") << 0x01 << 0x63;          // 01 -> 08 -> 63
    QTest::newRow("20") << 0x20 << 0x6A;          // 20 -> 01 -> 6A
    QTest::newRow("80") << 0x80 << 0x6F;          // 80 -> 04 -> 6F
    QTest::newRow("FF") << 0xFF << 0x94;          // FF -> FF -> 94
    QTest::newRow("A5") << 0xA5 << 0x46;          // A5 -> 2D -> 46
}

void TestScramble::byteTransform()
{
    QFETCH(int, scrambled);
    QFETCH(int, clear);

    QCOMPARE(int(QSettingsFactory::decryptByte(static_cast<unsigned char>(scrambled))), clear);
    QCOMPARE(int(QSettingsFactory::encryptByte(static_cast<unsigned char>(clear))), scrambled);
}

void TestScramble::byteTransformIsInvertible()
{
    int selfInverse = 0;
    for (int b = 0; b < 256; ++b) {
        const auto byte = static_cast<unsigned char>(b);
        QCOMPARE(int(QSettingsFactory::encryptByte(QSettingsFactory::decryptByte(byte))), b);
        QCOMPARE(int(QSettingsFactory::decryptByte(QSettingsFactory::encryptByte(byte))), b);
        if (QSettingsFactory::decryptByte(QSettingsFactory::decryptByte(byte)) == byte)
            ++selfInverse;
    }
    QVERIFY(selfInverse < 256);
}

void TestScramble::roundTrip_data()
{
    QTest::addColumn<QByteArray>("clear");
    QTest::addColumn<int>("type");

    for (int size : {0, 1, 3, 4, 254, 255, 256, 300, 510, 511, 1000})
        QTest::addRow("random %d", size) << randomBytes(size, 4711u + quint32(size)) << int(CRYPT_NO_MARK);
    for (int size : {4, 255, 256, 300, 510, 511, 100000})
        QTest::addRow("marked %d", size) << textWithFourth(size, '#') << int(CRYPT_WITH_MARK);
}

void TestScramble::roundTrip()
{
    QFETCH(QByteArray, clear);
    QFETCH(int, type);

    const QString source = path(QStringLiteral("clear.in"));
    const QString scrambled = path(QStringLiteral("scrambled.ini"));
    const QString target = path(QStringLiteral("clear.out"));
    QVERIFY(writeFile(source, clear));

    QVERIFY(QSettingsFactory::encryptFile(source, scrambled));
    QCOMPARE(readFile(scrambled), scramble(clear));
    QVERIFY(QSettingsFactory::decryptFile(scrambled, target, static_cast<CRYPT_TYPE>(type)));
    QCOMPARE(readFile(target), clear);
}

void TestScramble::markRule_data()
{
    QTest::addColumn<QByteArray>("clear");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("converted");

    QTest::newRow("marked, empty") << QByteArray() << 0 << false;
    QTest::newRow("marked, 1 byte") << QByteArray("#") << 0 << false;
    QTest::newRow("marked, 3 bytes") << QByteArray("##[") << 0 << false;
    QTest::newRow("marked, fourth not #") << QByteArray("###[GLOBAL]") << 0 << false;
    QTest::newRow("marked, 4 bytes") << QByteArray("abc#") << 0 << true;
    QTest::newRow("marked, # only in second chunk") << textWithFourth(300, 'x').replace(258, 1, "#") << 0 << false;
    QTest::newRow("marked, no # in second chunk") << textWithFourth(300, '#').replace(258, 1, "x") << 0 << true;
    QTest::newRow("even type 2 checks") << QByteArray("abcd") << 2 << false;
    QTest::newRow("unmarked, empty") << QByteArray() << 1 << true;
    QTest::newRow("unmarked, 3 bytes") << QByteArray("abc") << 1 << true;
    QTest::newRow("unmarked, fourth not #") << QByteArray("abcd") << 1 << true;
    QTest::newRow("odd type 3 skips") << QByteArray("abcd") << 3 << true;
}

void TestScramble::markRule()
{
    QFETCH(QByteArray, clear);
    QFETCH(int, type);
    QFETCH(bool, converted);

    const QString source = path(QStringLiteral("mark.ini"));
    const QString target = path(QStringLiteral("mark.out"));
    QVERIFY(writeFile(source, scramble(clear)));
    // Left over from an earlier conversion: it must be truncated either way.
    QVERIFY(writeFile(target, QByteArray(600, 'z')));

    QCOMPARE(QSettingsFactory::decryptFile(source, target, static_cast<CRYPT_TYPE>(type)), converted);
    QVERIFY(QFile::exists(target));
    QCOMPARE(readFile(target), converted ? clear : QByteArray());
}

void TestScramble::decryptingTwiceDoesNotRestore()
{
    const QByteArray clear = textWithFourth(400, '#');
    QVERIFY(writeFile(path(QStringLiteral("twice.ini")), scramble(clear)));

    QVERIFY(QSettingsFactory::decryptFile(path(QStringLiteral("twice.ini")), path(QStringLiteral("once.out")), CRYPT_NO_MARK));
    QCOMPARE(readFile(path(QStringLiteral("once.out"))), clear);
    QVERIFY(QSettingsFactory::decryptFile(path(QStringLiteral("once.out")), path(QStringLiteral("twice.out")), CRYPT_NO_MARK));
    const QByteArray twice = readFile(path(QStringLiteral("twice.out")));
    QCOMPARE(twice.size(), clear.size());
    QVERIFY(twice != clear);
    QVERIFY(twice != scramble(clear));
}

void TestScramble::unopenableFiles_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("target");

    QTest::newRow("missing source") << path(QStringLiteral("absent.ini")) << path(QStringLiteral("absent.out"));
    QTest::newRow("target directory missing") << path(QStringLiteral("present.ini"))
                                              << path(QStringLiteral("no/such/dir/present.out"));
}

void TestScramble::unopenableFiles()
{
    QFETCH(QString, source);
    QFETCH(QString, target);

    QVERIFY(writeFile(path(QStringLiteral("present.ini")), scramble("abc#def")));
    QVERIFY(!QSettingsFactory::decryptFile(source, target, CRYPT_WITH_MARK));
    QVERIFY(!QSettingsFactory::decryptFile(source, target, CRYPT_NO_MARK));
    QVERIFY(!QSettingsFactory::encryptFile(source, target));
}

QTEST_GUILESS_MAIN(TestScramble)
#include "tst_scramble.moc"
