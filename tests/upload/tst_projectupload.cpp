// The upload's routines without a screen: the project file extension, the
// chunked copy to the stick with its diagnostics, and the unpacking of good,
// broken, hostile and huge containers.
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
#include <zlib.h>

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

// Writes a container of `zeros` zero bytes to `path` without ever holding them,
// so that the test's own memory does not hide what the unpacking holds.
bool writeZeroBomb(const QString& path, qint64 zeros)
{
    QFile file(path);
    z_stream stream{};
    if (!file.open(QIODevice::WriteOnly) || deflateInit(&stream, 9) != Z_OK)
        return false;
    file.write(header("KAVOZIPE", kit::kContainerWord, kit::kContainerWord));
    static unsigned char in[65536];
    static unsigned char out[65536];
    for (int result = Z_OK; result != Z_STREAM_END;) {
        const qint64 chunk = qMin<qint64>(zeros, sizeof(in));
        zeros -= chunk;
        stream.next_in = in;
        stream.avail_in = uInt(chunk);
        do {
            stream.next_out = out;
            stream.avail_out = sizeof(out);
            result = deflate(&stream, zeros == 0 ? Z_FINISH : Z_NO_FLUSH);
            file.write(reinterpret_cast<const char*>(out), qint64(sizeof(out) - stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return file.error() == QFile::NoError;
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
    void suffix_data();
    void suffix();
    void copy_data();
    void copy();
    void copyRefusesDirectory();
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
    constexpr qint64 kZeros = 50 * 1000 * 1000;
    const QString container = m_stick->path() + QStringLiteral("/bomb.bin");
    QVERIFY(writeZeroBomb(container, kZeros));
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

void TestProjectUpload::suffix_data()
{
    QTest::addColumn<QByteArray>("setupIni"); // project_setup.ini; null: none
    QTest::addColumn<QString>("suffix");

    QTest::newRow("no settings file") << QByteArray() << QStringLiteral(".KVP");
    QTest::newRow("empty value") << QByteArray("[PROJECTINFO]\nSUFFIX_NAME=\n") << QStringLiteral(".KVP");
    QTest::newRow("three letters") << QByteArray("[PROJECTINFO]\nSUFFIX_NAME=opx\n") << QStringLiteral(".opx");
    QTest::newRow("utf-8 value") << QByteArray("[PROJECTINFO]\nSUFFIX_NAME=工程\n") << QStringLiteral(".工程");
}

void TestProjectUpload::suffix()
{
    QFETCH(QByteArray, setupIni);
    QFETCH(QString, suffix);

    QTemporaryDir project;
    QVERIFY(project.isValid());
    if (!setupIni.isNull())
        QVERIFY(testenv::writeFile(project.path() + QStringLiteral("/project_setup.ini"), setupIni));
    QCOMPARE(projectupload::targetFileName(QStringLiteral("OPX上传工程"), project.path()),
             QStringLiteral("OPX上传工程") + suffix);
}

void TestProjectUpload::copy_data()
{
    QTest::addColumn<QByteArray>("data"); // null: no source file
    QTest::addColumn<bool>("staleTarget");
    QTest::addColumn<bool>("stickHasBackupDir");
    QTest::addColumn<int>("chunks"); // -1: the copy fails
    QTest::addColumn<QByteArray>("diagnostics"); // "@" stands for the source path

    const QByteArray none;
    QTest::newRow("empty file") << QByteArray("") << false << true << 0
                                << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    QTest::newRow("exactly one buffer") << randomBytes(kMiB, 7) << false << true << 1 << none;
    QTest::newRow("one buffer and a byte") << randomBytes(kMiB + 1, 7) << false << true << 2 << none;
    QTest::newRow("longer old copy truncated") << randomBytes(10, 7) << true << true << 1 << none;
    QTest::newRow("missing source") << none << false << true << -1
                                    << QByteArray("stat src path:@ failed! No such file or directory\n");
    QTest::newRow("stick without opxbackup")
        << QByteArray("project") << false << false << -1
        << QByteArray("copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n");
}

void TestProjectUpload::copy()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, staleTarget);
    QFETCH(bool, stickHasBackupDir);
    QFETCH(int, chunks);
    QFETCH(QByteArray, diagnostics);

    if (!data.isNull())
        QVERIFY(testenv::writeFile(source(), data));
    if (staleTarget)
        QVERIFY(testenv::writeFile(stickFile(), QByteArray(int(3 * kMiB), 'x')));
    QTemporaryDir otherStick;
    if (!stickHasBackupDir)
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source(), [&calls] { ++calls; });
    QCOMPARE(err.take(), diagnostics.replace('@', source().toUtf8()));
    QCOMPARE(ok, chunks >= 0);
    QCOMPARE(calls, qMax(chunks, 0));
    if (ok)
        QVERIFY(testenv::readFile(projectupload::kLocalPackedPath) == data);
    else
        QVERIFY(!QFileInfo::exists(stickFile()));
}

void TestProjectUpload::copyRefusesDirectory()
{
    QVERIFY(QDir().mkpath(source()));
    struct stat info;
    QCOMPARE(stat(source().toUtf8().constData(), &info), 0);

    StderrCapture err;
    QVERIFY(!projectupload::copyToUdisk(source(), {}));
    QCOMPARE(err.take(), "src file is not a regular file:" + QByteArray::number(int(info.st_mode)) + '\n');
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

    QTest::newRow("small project") << good << true << small << false;
    QTest::newRow("empty project") << kit::kavoZipContainer(none) << true << none << false;
    QTest::newRow("many input chunks") << big << true << random << false;
    QTest::newRow("trailing garbage") << good + randomBytes(40000, 3) << true << small << false;

    QTest::newRow("empty file") << none << false << none << false;
    QTest::newRow("short header") << good.left(10) << false << none << false;
    QTest::newRow("wrong magic") << QByteArray("KAVOZIPF") + good.mid(8) << false << none << false;
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
    int inflating = 0;
    const auto count = [&inflating] { ++inflating; };
    QVERIFY(!projectupload::unpackProject(QStringLiteral("./missing.bin"), QStringLiteral("./out.KVP"), count));
    QVERIFY(!QFileInfo::exists(QStringLiteral("./out.KVP")));

    QVERIFY(testenv::writeFile(projectupload::kLocalPackedPath, kit::kavoZipContainer("project")));
    QVERIFY(!projectupload::unpackProject(projectupload::kLocalPackedPath, QStringLiteral("./no/such/dir.KVP"), count));
    QCOMPARE(inflating, 0);
}

QTEST_GUILESS_MAIN(TestProjectUpload)
#include "tst_projectupload.moc"
