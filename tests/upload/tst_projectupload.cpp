// The upload's routines without a screen: the chunked copy to the stick with
// its diagnostics, and the unpacking of good, broken, hostile and huge
// containers.
#include "upload/projectupload.h"

#include "tools/kit/container.h"

#include "stderrcapture.h"
#include "testenv.h"

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr qint64 kMiB = 1024 * 1024;

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(int(size), '\0');
    for (char& byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

// The 16-byte container header with the given magic and little-endian words.
QByteArray header(const QByteArray& magic, quint32 word8, quint32 word12)
{
    QByteArray out = magic;
    for (quint32 word : {word8, word12})
        for (int i = 0; i < 4; ++i)
            out.append(char((word >> (8 * i)) & 0xff));
    return out;
}

long peakRssKiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

} // namespace

class TestProjectUpload : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // First, while the process is still small, so that its peak memory tells.
    void bombStreamsToTarget();
    void copy_data();
    void copy();
    void copyWriteFailureAfterPartialWrite();
    void unpack_data();
    void unpack();
    void unpackOpenFailures();

private:
    QString stickFile() const { return m_stick->path() + QStringLiteral("/opxbackup/KavoBackupProject.bin"); }
    QString source() const { return m_stick->path() + QStringLiteral("/source.bin"); }

    std::unique_ptr<QTemporaryDir> m_stick;
    QString m_oldCwd;
};

void TestProjectUpload::init()
{
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_stick->isValid());
    QVERIFY(QDir().mkpath(m_stick->path() + QStringLiteral("/opxbackup")));
    m_oldCwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_stick->path() + QStringLiteral("/opxbackup")));
    qputenv("KAVO_UDISK_ROOT", QFile::encodeName(m_stick->path()));
}

void TestProjectUpload::cleanup()
{
    projectupload::freeCopyBuffers();
    QDir::setCurrent(m_oldCwd);
    qunsetenv("KAVO_UDISK_ROOT");
    m_stick.reset();
}

void TestProjectUpload::bombStreamsToTarget()
{
    // Packed from a sparse file, so that the test itself never holds the zeros.
    constexpr qint64 kZeros = 50 * 1000 * 1000;
    QFile zeros(m_stick->path() + QStringLiteral("/zeros"));
    QVERIFY(zeros.open(QIODevice::WriteOnly) && zeros.resize(kZeros));
    zeros.close();
    const QString container = m_stick->path() + QStringLiteral("/bomb.bin");
    QVERIFY(kit::writeKavoZipContainer(zeros.fileName(), container, 9));
    QVERIFY(zeros.remove());
    QVERIFY(QFileInfo(container).size() < 100 * 1024);

    const long before = peakRssKiB();
    QVERIFY(projectupload::unpackProject(container, QStringLiteral("./bomb.KVP"), {}));
    QVERIFY2(peakRssKiB() - before < 16 * 1024, "the unpacking held the inflated data");

    QFile out(QStringLiteral("./bomb.KVP"));
    QCOMPARE(out.size(), kZeros);
    QVERIFY(out.open(QIODevice::ReadOnly));
    while (!out.atEnd()) {
        const QByteArray chunk = out.read(kMiB);
        QVERIFY(chunk == QByteArray(chunk.size(), '\0'));
    }
}

void TestProjectUpload::copy_data()
{
    QTest::addColumn<QByteArray>("data"); // null: the source is a directory
    QTest::addColumn<bool>("staleTarget");
    QTest::addColumn<int>("chunks"); // -1: the copy fails
    QTest::addColumn<QByteArray>("diagnostics"); // "%" stands for the source's mode

    const QByteArray none;
    QTest::newRow("empty file") << QByteArray("") << false << 0
                                << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    QTest::newRow("exactly one buffer") << randomBytes(kMiB, 7) << false << 1 << none;
    QTest::newRow("one buffer and a byte") << randomBytes(kMiB + 1, 7) << false << 2 << none;
    QTest::newRow("longer old copy truncated") << randomBytes(10, 7) << true << 1 << none;
    QTest::newRow("source is a directory") << none << false << -1
                                           << QByteArray("src file is not a regular file:%\n");
}

void TestProjectUpload::copy()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, staleTarget);
    QFETCH(int, chunks);
    QFETCH(QByteArray, diagnostics);

    QVERIFY(data.isNull() ? QDir().mkpath(source()) : testenv::writeFile(source(), data));
    if (staleTarget)
        QVERIFY(testenv::writeFile(stickFile(), QByteArray(int(3 * kMiB), 'x')));
    struct stat info;
    QCOMPARE(stat(source().toUtf8().constData(), &info), 0);

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source(), [&calls] { ++calls; });
    QCOMPARE(err.take(), diagnostics.replace('%', QByteArray::number(int(info.st_mode))));
    QCOMPARE(ok, chunks >= 0);
    QCOMPARE(calls, qMax(chunks, 0));
    if (ok)
        QVERIFY(testenv::readFile(projectupload::kLocalPackedPath) == data);
    else
        QVERIFY(!QFileInfo::exists(stickFile()));
}

void TestProjectUpload::copyWriteFailureAfterPartialWrite()
{
    // A file size limit half-way into the second buffer: its write lands only
    // in part, the rest is tried again and then refused.
    const QByteArray data = randomBytes(2 * kMiB + 5, 11);
    QVERIFY(testenv::writeFile(source(), data));
    rlimit previous;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    rlimit limited = previous;
    limited.rlim_cur = rlim_t(kMiB + kMiB / 2);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source(), [&calls] { ++calls; });
    const QByteArray diagnostics = err.take();
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);

    QCOMPARE(diagnostics, QByteArray("error write failed!File too large\n"));
    QVERIFY(!ok);
    QCOMPARE(calls, 1);
    QVERIFY(testenv::readFile(stickFile()) == data.left(int(kMiB + kMiB / 2)));
}

void TestProjectUpload::unpack_data()
{
    QTest::addColumn<QByteArray>("container");
    QTest::addColumn<bool>("ok");
    // The exact target; with `partial`, the project the target is a true,
    // non-empty prefix of (null: anything may be written).
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<bool>("partial");

    const QByteArray small("a small project\n");
    const QByteArray random = randomBytes(kMiB + kMiB / 2 + 123, 1);
    const QByteArray good = kit::kavoZipContainer(small);
    const QByteArray big = kit::kavoZipContainer(random);
    const QByteArray none("");

    QTest::newRow("empty project") << kit::kavoZipContainer(none) << true << none << false;
    QTest::newRow("trailing garbage") << good + randomBytes(40000, 3) << true << small << false;

    QTest::newRow("empty file") << none << false << none << false;
    QTest::newRow("short header") << good.left(10) << false << none << false;
    QTest::newRow("words differ") << header("KAVOZIPE", 0x100, 0x200) + good.mid(16) << false << none << false;
    // The magic is compared with its terminating zero.
    QTest::newRow("byte 8 not 0") << header("KAVOZIPE", 0x101, 0x101) + good.mid(16) << false << none << false;
    QTest::newRow("truncated stream") << big.left(big.size() - 1000) << false << random << true;
    QByteArray badCheck = big;
    badCheck[badCheck.size() - 1] = char(badCheck.at(badCheck.size() - 1) ^ 0x5a);
    QTest::newRow("wrong adler-32") << badCheck << false << random << true;
    for (quint32 seed = 1; seed <= 2; ++seed) {
        const QByteArray body = randomBytes(64 * 1024, seed);
        QTest::addRow("random body, seed %u", seed) << header("KAVOZIPE", 0x100, 0x100) + body << false << none
                                                    << false;
        QTest::addRow("random deflate data, seed %u", seed)
            << header("KAVOZIPE", 0x100, 0x100) + QByteArray("\x78\x9c") + body << false << QByteArray() << true;
    }
}

void TestProjectUpload::unpack()
{
    QFETCH(QByteArray, container);
    QFETCH(bool, ok);
    QFETCH(QByteArray, target);
    QFETCH(bool, partial);

    QVERIFY(testenv::writeFile(projectupload::kLocalPackedPath, container));
    const QString targetPath = QStringLiteral("./OPX上传工程.KVP");
    int inflating = 0;
    QCOMPARE(projectupload::unpackProject(projectupload::kLocalPackedPath, targetPath, [&inflating] { ++inflating; }),
             ok);
    QCOMPARE(inflating, 1);

    QVERIFY(QFileInfo::exists(targetPath));
    const QByteArray written = testenv::readFile(targetPath);
    if (!partial) {
        QCOMPARE(written.size(), target.size());
        QVERIFY(written == target);
    } else if (!target.isNull()) {
        QVERIFY(!written.isEmpty());
        QVERIFY(written.size() < target.size());
        QVERIFY(target.startsWith(written));
    }
    // Nothing is written anywhere but the target.
    QCOMPARE(QDir(QStringLiteral(".")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             QStringList({QStringLiteral("KavoBackupProject.bin"), QStringLiteral("OPX上传工程.KVP")}));
}

void TestProjectUpload::unpackOpenFailures()
{
    const auto never = [] { QFAIL("inflating without both files"); };
    QVERIFY(!projectupload::unpackProject(QStringLiteral("./missing.bin"), QStringLiteral("./out.KVP"), never));
    QVERIFY(!QFileInfo::exists(QStringLiteral("./out.KVP")));
    QVERIFY(testenv::writeFile(projectupload::kLocalPackedPath, kit::kavoZipContainer("project")));
    QVERIFY(!projectupload::unpackProject(projectupload::kLocalPackedPath, QStringLiteral("./no/such/dir.KVP"), never));
}

QTEST_GUILESS_MAIN(TestProjectUpload)
#include "tst_projectupload.moc"
