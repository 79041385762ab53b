// Integrity verification: package files against size and CRC-32 before and
// after the copy, and runtime trees against their MD5 lists with the real md5sum.
#include "app/constants.h"
#include "download/projectdownload.h"
#include "download/qsettingsfactory.h"
#include "testenv.h"
#include "text/multilingualmanager.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <unistd.h>
#include <zlib.h>

namespace {

// Records the four reporting channels as "text:..." and "fail:..." lines.
class Recorder : public ProjectDownload
{
public:
    Recorder()
        : ProjectDownload(QString(), QStringLiteral("0000"))
    {
    }
    QStringList lines;

protected:
    void setTextEditContent(const QString& text) override { lines << QStringLiteral("text:") + text; }
    void resetUpgrageUI(const QString& text) override { lines << QStringLiteral("fail:") + text; }
    void setBntEnable(bool, bool, bool) override {}
    bool askYesNo(QuestionIcon, const QString&, const QString& text) override
    {
        lines << QStringLiteral("ask:") + text;
        return false;
    }
};

// Expected lines are written "text:2018" or "fail:2068|argument"; "$DIR" in an
// argument stands for the directory under test.
QStringList expand(const QStringList& expected, const QString& dir = QString())
{
    QStringList lines;
    for (const QString& line : expected) {
        const int colon = line.indexOf(QLatin1Char(':'));
        const QStringList idAndArg = line.mid(colon + 1).split(QLatin1Char('|'));
        QString text = MultilingualManager::GetInstance()->getMultilingualValue(idAndArg.at(0).toInt());
        if (idAndArg.size() > 1)
            text = text.arg(QString(idAndArg.at(1)).replace(QStringLiteral("$DIR"), dir));
        lines << line.left(colon + 1) + text;
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

// One listed package file of a checkFileCRC row.
struct Listed
{
    QString name;
    QString crc;
    quint32 size;
};
using ListedFiles = QVector<Listed>;
// Files to create: "src/NAME" in the package, "des/NAME" on the panel.
using Files = QMap<QString, QByteArray>;

Listed listed(const QString& name, const QByteArray& content)
{
    return {name, crcTextOf(content), static_cast<quint32>(content.size())};
}

// A runtime environment tree with files, update.ini and an MD5 list in the
// format md5sum -c reads.
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

bool anyFileNamed(const QString& root, const QString& name)
{
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (QFileInfo(it.next()).fileName() == name)
            return true;
    }
    return false;
}

} // namespace

Q_DECLARE_METATYPE(ListedFiles)
Q_DECLARE_METATYPE(Files)

class tst_Integrity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void calcFileCrc_data();
    void calcFileCrc();
    void checkFileCRC_data();
    void checkFileCRC();
    void checkFileCRC_sizeOf4GiBNeverMatches();
    void checkAppIntegrity_data();
    void checkAppIntegrity();

private:
    QString stickPath() const { return QFileInfo(m_stick->path()).canonicalFilePath(); }

    QByteArray m_zeroLed; // content whose CRC-32 has four leading zero digits
    QString m_previousDir;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
};

void tst_Integrity::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QCOMPARE(MultilingualManager::GetInstance()->getMultilingualValue(2017),
             QStringLiteral("校验OPX中新工程数据错误，下载失败！"));
    QCOMPARE(MultilingualManager::GetInstance()->getMultilingualValue(2068),
             QStringLiteral("运行环境校验:校验U盘包中的 %1 文件失败，不能升级，请检查后重试！"));

    for (int i = 0; m_zeroLed.isEmpty(); ++i) {
        const QByteArray candidate = "lead" + QByteArray::number(i);
        const unsigned int crc = crcOf(candidate);
        if (crc >= 0x1000 && crc <= 0xFFFF)
            m_zeroLed = candidate;
    }
    QCOMPARE(crcTextOf(m_zeroLed).size(), 4);
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

void tst_Integrity::calcFileCrc_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("present");
    QTest::addColumn<bool>("result");
    QTest::addColumn<uint>("crc");

    QTest::newRow("check value") << QByteArray("123456789") << true << true << 0xCBF43926u;
    QTest::newRow("empty file") << QByteArray() << true << true << 0u;
    QByteArray threeChunks(4096 * 2 + 17, '\0');
    for (int i = 0; i < threeChunks.size(); ++i)
        threeChunks[i] = char(i * 7 + i / 4096);
    QTest::newRow("three chunks") << threeChunks << true << true << crcOf(threeChunks);
    QTest::newRow("exactly one chunk") << threeChunks.left(4096) << true << true << crcOf(threeChunks.left(4096));
    QTest::newRow("missing file") << QByteArray() << false << false << 0u;
}

void tst_Integrity::calcFileCrc()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, present);
    QFETCH(bool, result);
    QFETCH(uint, crc);

    const QString path = stickPath() + QStringLiteral("/file.bin");
    if (present)
        QVERIFY(testenv::writeFile(path, content));

    Recorder download;
    unsigned int computed = 0xDEADBEEF;
    QCOMPARE(download.CalcFileCrc(path.toStdString(), computed), result);
    QCOMPARE(computed, crc);
    QVERIFY(download.lines.isEmpty());
}

void tst_Integrity::checkFileCRC_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<Files>("files");
    QTest::addColumn<ListedFiles>("entries");
    QTest::addColumn<bool>("stop");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("lines");

    const QByteArray a("first package file\n");
    const QByteArray b("second package file, in a subdirectory\n");
    const QByteArray same("SECOND PACKAGE FILE, IN A SUBDIRECTORY\n");
    const QString unpadded = crcTextOf(m_zeroLed);
    const QString padded = QStringLiteral("0000") + unpadded;
    const Listed emptyName{QString(), QStringLiteral("BAD"), 7};

    for (const int status : {1, 2}) {
        const bool pkg = status == 1;
        const QString side = pkg ? QStringLiteral("src/") : QStringLiteral("des/");
        const QString where = pkg ? QStringLiteral("package: ") : QStringLiteral("panel: ");
        const QString missing = pkg ? QStringLiteral("text:2018") : QStringLiteral("text:2017");
        const QString wrong = pkg ? QStringLiteral("text:2019") : QStringLiteral("text:2017");
        const auto row = [&](const char* name) -> QTestData& {
            return QTest::newRow(qPrintable(where + QLatin1String(name))) << status;
        };

        row("all files sound") << Files{{side + "a.bin", a}, {side + "sub/b.txt", b}}
                               << ListedFiles{listed("a.bin", a), listed("sub/b.txt", b)} << false << true
                               << QStringList();
        row("checksum without leading zeros") << Files{{side + "lead.bin", m_zeroLed}}
                                              << ListedFiles{{"lead.bin", unpadded, quint32(m_zeroLed.size())}}
                                              << false << true << QStringList();
        row("zero-padded checksum") << Files{{side + "lead.bin", m_zeroLed}}
                                    << ListedFiles{{"lead.bin", padded, quint32(m_zeroLed.size())}} << false
                                    << false << QStringList{wrong};
        row("size differs") << Files{{side + "a.bin", a}}
                            << ListedFiles{{"a.bin", crcTextOf(a), quint32(a.size() + 1)}} << false << false
                            << QStringList{wrong};
        row("content differs at the same size") << Files{{side + "sub/b.txt", same}}
                                                << ListedFiles{listed("sub/b.txt", b)} << false << false
                                                << QStringList{wrong};
        row("file missing") << Files{{side + "a.bin", a}} << ListedFiles{listed("a.bin", a), listed("c.bin", b)}
                            << false << false << QStringList{missing};
        row("first failure ends the check") << Files{{side + "a.bin", a}}
                                            << ListedFiles{listed("c.bin", b), {"a.bin", "0", 1}} << false
                                            << false << QStringList{missing};
        row("empty name skipped") << Files{{side + "a.bin", a}} << ListedFiles{emptyName, listed("a.bin", a)}
                                  << false << true << QStringList();
        row("empty checksum checks the size only") << Files{{side + "sub/b.txt", same}}
                                                   << ListedFiles{{"sub/b.txt", QString(), quint32(b.size())}}
                                                   << false << true << QStringList();
        row("empty file with size 0 and checksum 0") << Files{{side + "empty", QByteArray()}}
                                                     << ListedFiles{{"empty", "0", 0}} << false << true
                                                     << QStringList();
        row("stop requested") << Files{{side + "a.bin", a}} << ListedFiles{listed("a.bin", a)} << true << false
                              << QStringList();
        row("stop requested, nothing listed") << Files() << ListedFiles() << true << false << QStringList();
    }

    const QByteArray user("user file\n");
    QTest::newRow("package: DownLoadFile name kept")
        << 1 << Files{{"src/DownLoadFile/data/a.bin", user}} << ListedFiles{listed("DownLoadFile/data/a.bin", user)}
        << false << true << QStringList();
    QTest::newRow("panel: DownLoadFile level dropped")
        << 2 << Files{{"des/data/a.bin", user}} << ListedFiles{listed("DownLoadFile/data/a.bin", user)} << false
        << true << QStringList();
    QTest::newRow("panel: DownLoadFile prefix is case-sensitive")
        << 2 << Files{{"des/data/a.bin", user}} << ListedFiles{listed("downloadfile/data/a.bin", user)} << false
        << false << QStringList{"text:2017"};
    QTest::newRow("panel: bare DownLoadFile level skipped")
        << 2 << Files() << ListedFiles{{"DownLoadFile/", "BAD", 3}} << false << true << QStringList();
}

void tst_Integrity::checkFileCRC()
{
    QFETCH(int, status);
    QFETCH(Files, files);
    QFETCH(ListedFiles, entries);
    QFETCH(bool, stop);
    QFETCH(bool, result);
    QFETCH(QStringList, lines);

    const QString srcPath = QStringLiteral("./proj/");
    const QString desPath = m_panel->path(QStringLiteral("/data/userfile/"));
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        const QString base = it.key().startsWith(QLatin1String("src/")) ? srcPath : desPath;
        QVERIFY(testenv::writeFile(base + it.key().mid(4), it.value()));
    }

    Recorder download;
    for (const Listed& entry : entries) {
        FILE_INFO info;
        info.fileName = entry.name;
        info.crc = entry.crc;
        info.size = entry.size;
        info.srcPath = srcPath;
        info.desPath = desPath;
        download.m_fileList << info;
    }
    download.m_stop = stop;

    QCOMPARE(download.checkFileCRC(status == 1 ? BEFORE_DOWNLOAD : AFTER_DOWNLOAD), result);
    QCOMPARE(download.lines, expand(lines));
}

void tst_Integrity::checkFileCRC_sizeOf4GiBNeverMatches()
{
    QFile big(QStringLiteral("proj/big.bin"));
    QVERIFY(QDir().mkpath(QStringLiteral("proj")));
    QVERIFY(big.open(QIODevice::WriteOnly));
    if (!big.resize((Q_INT64_C(1) << 32) + 3))
        QSKIP("the file system holding the stick cannot hold a sparse 4 GiB file");
    big.close();

    Recorder download;
    FILE_INFO info;
    info.fileName = QStringLiteral("big.bin");
    info.size = 3; // the real size modulo 4 GiB
    info.srcPath = QStringLiteral("./proj/");
    download.m_fileList << info;

    QCOMPARE(download.checkFileCRC(BEFORE_DOWNLOAD), false);
    QCOMPARE(download.lines, expand({"text:2019"}));
}

void tst_Integrity::checkAppIntegrity_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<QString>("version");   // [PREPARE] version as written in the INI
    QTest::addColumn<QVariant>("product");  // null: no key
    QTest::addColumn<QString>("listFile");  // name the MD5 list is stored under; empty: none
    QTest::addColumn<QString>("damage");    // runtime file changed after the list was made
    QTest::addColumn<bool>("marked");       // clear update.ini carries "#" as its fourth byte
    QTest::addColumn<bool>("dirMissing");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("panelProduct");

    const QString v = QStringLiteral("7.2.1");
    const QString list = QStringLiteral("version.7.2.1");
    const QVariant stu(QStringLiteral("KavoStu"));
    const QVariant none;
    const QString pro = defaultProduct;

    // The installed runtime: failures are silent, the caller asks about an update.
    QTest::newRow("installed: sound, product read") << 1 << v << stu << list << "" << true << false << true
                                                    << QStringList() << "KavoStu";
    QTest::newRow("installed: no product key") << 1 << v << none << list << "" << true << false << true
                                               << QStringList() << pro;
    QTest::newRow("installed: empty product") << 1 << v << QVariant(QString("")) << list << "" << true << false
                                              << false << QStringList() << pro;
    QTest::newRow("installed: list named by the version's first word")
        << 1 << "7.2.1 build3" << stu << list << "" << true << false << true << QStringList() << "KavoStu";
    QTest::newRow("installed: damaged file") << 1 << v << stu << list << "lib/libkavo.so" << true << false
                                             << false << QStringList() << "KavoStu";
    QTest::newRow("installed: only logger.ini damaged") << 1 << v << stu << list << "config/logger.ini" << true
                                                        << false << true << QStringList() << "KavoStu";
    QTest::newRow("installed: list missing") << 1 << v << stu << "" << "" << true << false << false
                                             << QStringList() << "KavoStu";
    QTest::newRow("installed: list of another version") << 1 << v << stu << "version.7.2.0" << "" << true << false
                                                        << false << QStringList() << "KavoStu";
    QTest::newRow("installed: directory missing") << 1 << v << stu << list << "" << true << true << false
                                                  << QStringList{"fail:2064|$DIR"} << pro;

    // The package's runtime copy: every failure is reported.
    QTest::newRow("package: sound, product not taken") << 2 << v << stu << list << "" << true << false << true
                                                       << QStringList() << pro;
    QTest::newRow("package: list named by the version's first word")
        << 2 << "7.2.1 build3" << stu << list << "" << true << false << true << QStringList() << pro;
    QTest::newRow("package: damaged file")
        << 2 << v << stu << list << "lib/libkavo.so" << true << false << false
        << QStringList{"fail:2068|lib/libkavo.so: FAILED"} << pro;
    QTest::newRow("package: logger.ini damaged")
        << 2 << v << stu << list << "config/logger.ini" << true << false << false
        << QStringList{"fail:2068|config/logger.ini: FAILED"} << pro;
    QTest::newRow("package: list missing") << 2 << v << stu << "" << "" << true << false << false
                                           << QStringList{"fail:2066|version.7.2.1"} << pro;
    QTest::newRow("package: description without mark") << 2 << v << stu << list << "" << false << false << false
                                                        << QStringList{"fail:2065"} << pro;
    QTest::newRow("package: directory missing") << 2 << v << stu << list << "" << true << true << false
                                                << QStringList{"fail:2064|$DIR"} << pro;

    // Text from a description file never reaches the shell as a command.
    const QString semicolon = QStringLiteral("version.7.2.1;touch${IFS}pwned");
    const QString substitution = QStringLiteral("version.7.2.1'$(touch${IFS}pwned)'");
    QTest::newRow("installed: command after a semicolon, list present")
        << 1 << "\"7.2.1;touch${IFS}pwned\"" << stu << semicolon << "" << true << false << true << QStringList()
        << "KavoStu";
    QTest::newRow("installed: command after a semicolon, no such list")
        << 1 << "\"7.2.1;touch${IFS}pwned\"" << stu << list << "" << true << false << false << QStringList()
        << "KavoStu";
    QTest::newRow("package: command substitution, list present")
        << 2 << "\"7.2.1$(touch${IFS}pwned)\"" << stu << "version.7.2.1$(touch${IFS}pwned)" << "" << true << false
        << true << QStringList() << pro;
    QTest::newRow("package: quote and command substitution, list present")
        << 2 << "\"7.2.1'$(touch${IFS}pwned)'\"" << stu << substitution << "" << true << false << true
        << QStringList() << pro;
    QTest::newRow("package: quote and command substitution, damaged file")
        << 2 << "\"7.2.1'$(touch${IFS}pwned)'\"" << stu << substitution << "bin/kavo_app" << true << false
        << false << QStringList{"fail:2068|bin/kavo_app: FAILED"} << pro;
    QTest::newRow("package: command after a semicolon, no such list")
        << 2 << "\"7.2.1;touch${IFS}pwned\"" << stu << list << "" << true << false << false
        << QStringList{"fail:2066|" + semicolon} << pro;
}

void tst_Integrity::checkAppIntegrity()
{
    QFETCH(int, which);
    QFETCH(QString, version);
    QFETCH(QVariant, product);
    QFETCH(QString, listFile);
    QFETCH(QString, damage);
    QFETCH(bool, marked);
    QFETCH(bool, dirMissing);
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

    QByteArray ini = marked ? QByteArray(";;;# runtime environment\n") : QByteArray();
    ini += "[PREPARE]\nversion=" + version.toUtf8() + "\nminsetversion=7.0.0\n";
    if (!product.isNull())
        ini += "product=" + product.toString().toUtf8() + '\n';
    const QString description = runtime + QStringLiteral("/update.ini");
    if (which == 2) {
        QVERIFY(testenv::writeFile(m_stick->path() + QStringLiteral("/clear.ini"), ini));
        QVERIFY(QSettingsFactory::encryptFile(m_stick->path() + QStringLiteral("/clear.ini"), description));
    } else {
        QVERIFY(testenv::writeFile(description, ini));
    }

    const QString dir = dirMissing ? runtime + QStringLiteral("gone/") : runtime;
    Recorder download;
    const bool sound = download.checkAppIntegrity(which == 1 ? INSTALLED_APP : PACKAGE_APP, dir.toUtf8().constData());
    QVERIFY2(!anyFileNamed(m_stick->path(), QStringLiteral("pwned")), "a command from the description ran");
    QVERIFY2(!anyFileNamed(m_panel->root(), QStringLiteral("pwned")), "a command from the description ran");
    QCOMPARE(sound, result);
    QCOMPARE(download.lines, expand(lines, dir));
    QCOMPARE(download.m_panelProduct, panelProduct);
    QCOMPARE(QDir::currentPath(), stickPath());
    if (which == 2 && marked && !dirMissing)
        QVERIFY(QFile::exists(m_panel->path(QStringLiteral("/tmp/update.ini"))));

}

QTEST_GUILESS_MAIN(tst_Integrity)
#include "tst_integrity.moc"
