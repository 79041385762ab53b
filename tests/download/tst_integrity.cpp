// Integrity verification: package files against size and CRC-32 before and
// after the copy, and runtime trees against their MD5 lists with the real md5sum.
#include "app/constants.h"
#include "download/qsettingsfactory.h"
#include "recordingdownload.h"
#include "testenv.h"

#include <QCryptographicHash>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <zlib.h>

namespace {

// Expected lines are written "text: 2018" or "fail: 2068|argument"; "$DIR" in
// an argument stands for the directory under test.
QStringList expand(const QStringList& expected, const QString& dir = QString())
{
    QStringList lines;
    for (const QString& line : expected) {
        const int space = line.indexOf(QLatin1Char(' '));
        const QStringList idAndArg = line.mid(space + 1).split(QLatin1Char('|'));
        QString text = msg(idAndArg.at(0).toInt());
        if (idAndArg.size() > 1)
            text = text.arg(QString(idAndArg.at(1)).replace(QStringLiteral("$DIR"), dir));
        lines << line.left(space + 1) + text;
    }
    return lines;
}

unsigned int crcOf(const QByteArray& data)
{
    return static_cast<unsigned int>(
        crc32(0, reinterpret_cast<const Bytef*>(data.constData()), static_cast<uInt>(data.size())));
}

QString crcTextOf(const QByteArray& data)
{
    return QString::number(crcOf(data), 16).toUpper();
}

// Content whose CRC-32 has four leading zero digits.
const QByteArray kZeroLed("lead18008");

// Listed package files of a checkFileCRC row; the test adds the paths.
using ListedFiles = QVector<FILE_INFO>;

FILE_INFO file(const QString& name, const QString& crc, quint32 size)
{
    return {name, crc, size, QString(), QString()};
}

FILE_INFO listed(const QString& name, const QByteArray& content)
{
    return file(name, crcTextOf(content), static_cast<quint32>(content.size()));
}

// The files on the side a checkFileCRC row checks: "lead.bin" has a checksum
// with leading zeros, "check.bin" the CRC-32 check value, "chunks.bin" is read
// in several chunks. User files lie under "DownLoadFile/" in the package and
// directly under their destination on the panel.
QMap<QString, QByteArray> sideFiles(bool package)
{
    QByteArray chunks(4096 * 2 + 17, '\0');
    for (int i = 0; i < chunks.size(); ++i)
        chunks[i] = char(i * 7 + i / 4096);
    return {{"a.bin", "first package file\n"},
            {"sub/b.txt", "second package file, in a subdirectory\n"},
            {"lead.bin", kZeroLed},
            {"check.bin", "123456789"},
            {"chunks.bin", chunks},
            {package ? "DownLoadFile/data/u.bin" : "data/u.bin", "user file\n"}};
}

// A runtime tree and its MD5 list in the format md5sum -c reads.
const QMap<QString, QByteArray> kRuntimeFiles = {
    {QStringLiteral("bin/kavo_app"), QByteArray("kavo runtime application\n")},
    {QStringLiteral("config/logger.ini"), QByteArray("[log]\nlevel=1\n")},
    {QStringLiteral("lib/libkavo.so"), QByteArray("kavo runtime library\n")},
};

QByteArray md5List()
{
    QByteArray list;
    for (auto it = kRuntimeFiles.cbegin(); it != kRuntimeFiles.cend(); ++it)
        list += QCryptographicHash::hash(it.value(), QCryptographicHash::Md5).toHex() + "  "
                + it.key().toUtf8() + '\n';
    return list;
}

} // namespace

Q_DECLARE_METATYPE(ListedFiles)

class tst_Integrity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void checkFileCRC_data();
    void checkFileCRC();
    void checkFileCRC_sizeOf4GiBNeverMatches();
    void checkAppIntegrity_data();
    void checkAppIntegrity();

private:
    QString stickPath() const { return QFileInfo(m_stick->path()).canonicalFilePath(); }

    QString m_previousDir;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_Integrity::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    QCOMPARE(crcOf(kZeroLed), 0xE859u);
}

void tst_Integrity::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    m_previousDir = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_stick->path()));
}

void tst_Integrity::cleanup()
{
    QDir::setCurrent(m_previousDir);
    m_stick.reset();
    m_panel.reset();
}

void tst_Integrity::checkFileCRC_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<ListedFiles>("entries");
    QTest::addColumn<bool>("stop");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("lines");

    const QMap<QString, QByteArray> files = sideFiles(true);
    const QByteArray a = files["a.bin"];
    const QByteArray b = files["sub/b.txt"];
    const QByteArray user = files["DownLoadFile/data/u.bin"];
    const QByteArray chunks = files["chunks.bin"];

    for (const int status : {1, 2}) {
        const bool pkg = status == 1;
        const QStringList missing{pkg ? QStringLiteral("text: 2018") : QStringLiteral("text: 2017")};
        const QStringList wrong{pkg ? QStringLiteral("text: 2019") : QStringLiteral("text: 2017")};
        const QStringList none;
        const auto row = [&](const char* name) -> QTestData& {
            return QTest::newRow(qPrintable((pkg ? "package: " : "panel: ") + QLatin1String(name))) << status;
        };

        row("all files sound") << ListedFiles{listed("a.bin", a), listed("sub/b.txt", b),
                                              file("check.bin", "CBF43926", 9), listed("chunks.bin", chunks)}
                               << false << true << none;
        row("checksum without leading zeros") << ListedFiles{listed("lead.bin", kZeroLed)} << false << true << none;
        row("zero-padded checksum") << ListedFiles{file("lead.bin", "0000E859", quint32(kZeroLed.size()))} << false
                                    << false << wrong;
        row("size differs")
            << ListedFiles{file("a.bin", crcTextOf(a), quint32(a.size() + 1))} << false << false << wrong;
        row("content differs at the same size")
            << ListedFiles{file("sub/b.txt", crcTextOf(b.toUpper()), quint32(b.size()))} << false << false << wrong;
        row("file missing, first failure ends the check") << ListedFiles{listed("c.bin", b), file("a.bin", "0", 1)}
                                                          << false << false << missing;
        row("empty checksum checks the size only")
            << ListedFiles{file("sub/b.txt", QString(), quint32(b.size()))} << false << true << none;
        row("stop requested") << ListedFiles{listed("a.bin", a)} << true << false << none;
        row("DownLoadFile level") << ListedFiles{listed("DownLoadFile/data/u.bin", user)} << false << true << none;
    }
    QTest::newRow("panel: DownLoadFile prefix is case-sensitive")
        << 2 << ListedFiles{listed("downloadfile/data/u.bin", user)} << false << false << QStringList{"text: 2017"};
    QTest::newRow("panel: bare DownLoadFile level skipped")
        << 2 << ListedFiles{file("DownLoadFile/", "BAD", 3)} << false << true << QStringList();
}

void tst_Integrity::checkFileCRC()
{
    QFETCH(int, status);
    QFETCH(ListedFiles, entries);
    QFETCH(bool, stop);
    QFETCH(bool, result);
    QFETCH(QStringList, lines);

    const QString desPath = m_panel->path(QStringLiteral("/data/userfile/"));
    const QMap<QString, QByteArray> files = sideFiles(status == 1);
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        QVERIFY(testenv::writeFile((status == 1 ? QStringLiteral("./proj/") : desPath) + it.key(), it.value()));
    RecordingDownload download;
    for (FILE_INFO entry : entries) {
        entry.srcPath = QStringLiteral("./proj/");
        entry.desPath = desPath;
        download.m_fileList << entry;
    }
    download.m_stop = stop;

    QCOMPARE(download.checkFileCRC(status == 1 ? BEFORE_DOWNLOAD : AFTER_DOWNLOAD), result);
    QCOMPARE(download.events, expand(lines));
}

void tst_Integrity::checkFileCRC_sizeOf4GiBNeverMatches()
{
    QVERIFY(QDir().mkpath(QStringLiteral("proj")));
    QFile big(QStringLiteral("proj/big.bin"));
    QVERIFY(big.open(QIODevice::WriteOnly));
    if (!big.resize((Q_INT64_C(1) << 32) + 3))
        QSKIP("the file system holding the stick cannot hold a sparse 4 GiB file");
    big.close();

    RecordingDownload download;
    // The listed size is the real one modulo 4 GiB; no checksum, so the size decides.
    download.m_fileList << FILE_INFO{QStringLiteral("big.bin"), QString(), 3, QString(), QStringLiteral("./proj/")};
    QCOMPARE(download.checkFileCRC(BEFORE_DOWNLOAD), false);
    QCOMPARE(download.events, expand({"text: 2019"}));
}

void tst_Integrity::checkAppIntegrity_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<QString>("version");  // [PREPARE] version as written in the INI
    QTest::addColumn<QString>("listFile"); // name the MD5 list is stored under; empty: none
    QTest::addColumn<QString>("damage");   // runtime file changed after the list was made
    // "noproduct", "emptyproduct": the INI's product key, otherwise "KavoStu";
    // "unmarked": clear update.ini without its "#" mark; "nodir"
    QTest::addColumn<QString>("setup");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("panelProduct");

    const QString v = QStringLiteral("7.2.1");
    const QString list = QStringLiteral("version.7.2.1");
    const QString pro = defaultProduct;
    const QStringList none;

    // The installed runtime: failures are silent, the caller asks about an update.
    QTest::newRow("installed: sound, product read") << 1 << v << list << "" << "" << true << none << "KavoStu";
    QTest::newRow("installed: no product key") << 1 << v << list << "" << "noproduct" << true << none << pro;
    QTest::newRow("installed: empty product") << 1 << v << list << "" << "emptyproduct" << false << none << pro;
    QTest::newRow("installed: list named by the version's first word")
        << 1 << "7.2.1 build3" << list << "" << "" << true << none << "KavoStu";
    // md5sum closes a failed check with a summary line: a failure counts only
    // when more output follows it, and logger.ini may differ.
    QTest::newRow("installed: damaged file") << 1 << v << list << "lib/libkavo.so" << "" << false << none << "KavoStu";
    QTest::newRow("installed: only logger.ini damaged") << 1 << v << list << "config/logger.ini" << ""
                                                        << true << none << "KavoStu";
    QTest::newRow("installed: list missing") << 1 << v << "version.7.2.0" << "" << "" << false << none << "KavoStu";
    QTest::newRow("installed: directory missing") << 1 << v << list << "" << "nodir" << false
                                                  << QStringList{"fail: 2064|$DIR"} << pro;

    // The package's runtime copy: every failure is reported, the product is not taken.
    QTest::newRow("package: sound") << 2 << v << list << "" << "" << true << none << pro;
    QTest::newRow("package: damaged file") << 2 << v << list << "lib/libkavo.so" << "" << false
                                           << QStringList{"fail: 2068|lib/libkavo.so: FAILED"} << pro;
    QTest::newRow("package: logger.ini damaged") << 2 << v << list << "config/logger.ini" << "" << false
                                                 << QStringList{"fail: 2068|config/logger.ini: FAILED"} << pro;
    QTest::newRow("package: list missing") << 2 << v << "" << "" << "" << false
                                           << QStringList{"fail: 2066|version.7.2.1"} << pro;
    QTest::newRow("package: description without mark") << 2 << v << list << "" << "unmarked" << false
                                                        << QStringList{"fail: 2065"} << pro;

    // Text from a description file never reaches the shell as a command; a list
    // so named is checked like any other.
    const QString semicolon = QStringLiteral("version.7.2.1;touch${IFS}pwned");
    const QString quoted = QStringLiteral("version.7.2.1'$(touch${IFS}pwned)'");
    QTest::newRow("installed: command after a semicolon, list present")
        << 1 << "\"7.2.1;touch${IFS}pwned\"" << semicolon << "" << "" << true << none << "KavoStu";
    QTest::newRow("package: quote and command substitution, list present")
        << 2 << "\"7.2.1'$(touch${IFS}pwned)'\"" << quoted << "" << "" << true << none << pro;
    QTest::newRow("package: quote and command substitution, damaged file")
        << 2 << "\"7.2.1'$(touch${IFS}pwned)'\"" << quoted << "bin/kavo_app" << "" << false
        << QStringList{"fail: 2068|bin/kavo_app: FAILED"} << pro;
    QTest::newRow("package: command after a semicolon, no such list")
        << 2 << "\"7.2.1;touch${IFS}pwned\"" << list << "" << "" << false
        << QStringList{"fail: 2066|" + semicolon} << pro;
}

void tst_Integrity::checkAppIntegrity()
{
    QFETCH(int, which);
    QFETCH(QString, version);
    QFETCH(QString, listFile);
    QFETCH(QString, damage);
    QFETCH(QString, setup);
    QFETCH(bool, result);
    QFETCH(QStringList, lines);
    QFETCH(QString, panelProduct);

    const QString runtime = which == 1 ? m_panel->path(QStringLiteral("/usr/kavo_app"))
                                       : stickPath() + QStringLiteral("/proj/KavoStu/v7/kavo_app/");
    for (auto it = kRuntimeFiles.cbegin(); it != kRuntimeFiles.cend(); ++it)
        QVERIFY(testenv::writeFile(runtime + QLatin1Char('/') + it.key(), it.value()));
    if (!listFile.isEmpty())
        QVERIFY(testenv::writeFile(runtime + QLatin1Char('/') + listFile, md5List()));
    if (!damage.isEmpty()) {
        QByteArray changed = kRuntimeFiles.value(damage);
        changed[0] = char(changed.at(0) ^ 0x20);
        QVERIFY(testenv::writeFile(runtime + QLatin1Char('/') + damage, changed));
    }

    QByteArray ini = setup == QLatin1String("unmarked") ? QByteArray() : QByteArray(";;;# runtime environment\n");
    ini += "[PREPARE]\nversion=" + version.toUtf8() + "\nminsetversion=7.0.0\n";
    if (setup != QLatin1String("noproduct"))
        ini += setup == QLatin1String("emptyproduct") ? "product=\n" : "product=KavoStu\n";
    const QString description = runtime + QStringLiteral("/update.ini");
    if (which == 2) {
        QVERIFY(testenv::writeFile(QStringLiteral("clear.ini"), ini));
        QVERIFY(QSettingsFactory::encryptFile(QStringLiteral("clear.ini"), description));
    } else {
        QVERIFY(testenv::writeFile(description, ini));
    }

    const QString dir = setup == QLatin1String("nodir") ? runtime + QStringLiteral("gone/") : runtime;
    RecordingDownload download;
    const bool sound = download.checkAppIntegrity(which == 1 ? INSTALLED_APP : PACKAGE_APP, dir.toUtf8().constData());
    // md5sum runs in the runtime directory.
    QVERIFY2(!QFile::exists(runtime + QStringLiteral("/pwned")), "a command from the description ran");
    QCOMPARE(sound, result);
    QCOMPARE(download.events, expand(lines, dir));
    QCOMPARE(download.m_panelProduct, panelProduct);
    QCOMPARE(QDir::currentPath(), stickPath());
    // The clear copy of the package's description does not outlive the check.
    if (which == 2 && setup.isEmpty())
        QVERIFY(!QFile::exists(m_panel->path(QStringLiteral("/tmp/update.ini"))));
}

QTEST_GUILESS_MAIN(tst_Integrity)
#include "tst_integrity.moc"