// The upload's routines without a screen: the project file extension, the
// chunked copy to the stick with its diagnostics, and the unpacking of good,
// broken, hostile and huge containers.
#include "upload/projectupload.h"

#include "download/accessfile.h"
#include "tools/kit/container.h"

#include "stderrcapture.h"
#include "testenv.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstring>

#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

namespace {

constexpr qint64 kMiB = 1024 * 1024;

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(generator.bounded(256));
    return bytes;
}

// The 16-byte container header with the given magic and words.
QByteArray header(const QByteArray& magic, quint32 word8, quint32 word12)
{
    QByteArray out = magic;
    for (quint32 word : {word8, word12})
        for (int i = 0; i < 4; ++i)
            out.append(char((word >> (8 * i)) & 0xff));
    return out;
}

// A zlib stream of `data` deflated against a preset dictionary.
QByteArray deflateWithDictionary(const QByteArray& data, const QByteArray& dictionary)
{
    z_stream stream;
    std::memset(&stream, 0, sizeof(stream));
    if (deflateInit(&stream, Z_DEFAULT_COMPRESSION) != Z_OK)
        return QByteArray();
    deflateSetDictionary(&stream, reinterpret_cast<const Bytef*>(dictionary.constData()), uInt(dictionary.size()));
    QByteArray out(int(deflateBound(&stream, uLong(data.size()))), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    stream.avail_in = uInt(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = uInt(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(int(stream.total_out));
    deflateEnd(&stream);
    return out;
}

// Writes a container of `zeros` zero bytes to `path` without ever holding them:
// the zeros are deflated one small buffer at a time.
bool writeZeroBomb(const QString& path, qint64 zeros)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(header("KAVOZIPE", kit::kContainerWord, kit::kContainerWord));
    z_stream stream;
    std::memset(&stream, 0, sizeof(stream));
    if (deflateInit(&stream, 9) != Z_OK)
        return false;
    static unsigned char in[65536];
    static unsigned char out[65536];
    std::memset(in, 0, sizeof(in));
    int result = Z_OK;
    while (result != Z_STREAM_END) {
        const qint64 chunk = qMin<qint64>(zeros, sizeof(in));
        zeros -= chunk;
        stream.next_in = in;
        stream.avail_in = uInt(chunk);
        const int flush = zeros == 0 ? Z_FINISH : Z_NO_FLUSH;
        do {
            stream.next_out = out;
            stream.avail_out = sizeof(out);
            result = deflate(&stream, flush);
            file.write(reinterpret_cast<const char*>(out), qint64(sizeof(out) - stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return file.error() == QFile::NoError;
}

long peakRssKiB()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

QString stickFile(const QTemporaryDir& stick)
{
    return stick.path() + QStringLiteral("/opxbackup/KavoBackupProject.bin");
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
    void copyFailure_data();
    void copyFailure();
    void copyWriteFailureAfterPartialWrite();

    void unpack_data();
    void unpack();
    void unpackOpenFailures();

private:
    QTemporaryDir* m_stick = nullptr;
    QString m_oldCwd;
};

void TestProjectUpload::init()
{
    m_stick = new QTemporaryDir;
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
    delete m_stick;
    m_stick = nullptr;
}

void TestProjectUpload::bombStreamsToTarget()
{
    constexpr qint64 kZeros = 50 * 1000 * 1000;
    const QString container = m_stick->path() + QStringLiteral("/bomb.bin");
    QVERIFY(writeZeroBomb(container, kZeros));
    QVERIFY(QFileInfo(container).size() < 100 * 1024);

    const long before = peakRssKiB();
    const QString target = QStringLiteral("./bomb.KVP");
    QVERIFY(projectupload::unpackProject(container, target, {}));
    QVERIFY2(peakRssKiB() - before < 16 * 1024, "the unpacking held the inflated data");

    QFile out(target);
    QCOMPARE(out.size(), kZeros);
    QVERIFY(out.open(QIODevice::ReadOnly));
    const QByteArray zeros(int(kMiB), '\0');
    qint64 seen = 0;
    while (!out.atEnd()) {
        const QByteArray chunk = out.read(kMiB);
        QVERIFY(chunk == zeros.left(chunk.size()));
        seen += chunk.size();
    }
    QCOMPARE(seen, kZeros);
}

void TestProjectUpload::suffix_data()
{
    QTest::addColumn<QByteArray>("setupIni");
    QTest::addColumn<QString>("suffix");

    QTest::newRow("no settings file") << QByteArray() << QStringLiteral(".KVP");
    QTest::newRow("key absent") << QByteArray("[PROJECTINFO]\nNAME=line\n") << QStringLiteral(".KVP");
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

    QCOMPARE(projectupload::projectSuffix(project.path()), suffix);
    QCOMPARE(projectupload::targetFileName(QStringLiteral("OPX上传工程"), project.path()),
             QStringLiteral("OPX上传工程") + suffix);
}

void TestProjectUpload::copy_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("staleTarget");
    QTest::addColumn<int>("chunks");
    QTest::addColumn<QByteArray>("diagnostics");

    const QByteArray none;
    QTest::newRow("empty file") << qint64(0) << false << 0
                                << QByteArray("real copy a empty file:opxbackup/KavoBackupProject.bin\n");
    QTest::newRow("one byte") << qint64(1) << false << 1 << none;
    QTest::newRow("exactly one buffer") << kMiB << false << 1 << none;
    QTest::newRow("one buffer and a byte") << kMiB + 1 << false << 2 << none;
    QTest::newRow("several buffers") << 2 * kMiB + kMiB / 2 + 7 << false << 3 << none;
    QTest::newRow("longer old copy truncated") << qint64(10) << true << 1 << none;
}

void TestProjectUpload::copy()
{
    QFETCH(qint64, size);
    QFETCH(bool, staleTarget);
    QFETCH(int, chunks);
    QFETCH(QByteArray, diagnostics);

    const QByteArray data = randomBytes(int(size), 7);
    const QString source = m_stick->path() + QStringLiteral("/source.bin");
    QVERIFY(testenv::writeFile(source, data));
    if (staleTarget)
        QVERIFY(testenv::writeFile(stickFile(*m_stick), QByteArray(int(3 * kMiB), 'x')));

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source, [&calls] { ++calls; });
    QCOMPARE(err.take(), diagnostics);
    QVERIFY(ok);
    QCOMPARE(calls, chunks);
    QVERIFY(testenv::readFile(stickFile(*m_stick)) == data);
    // The same file, as the unpacking finds it in the working directory.
    QCOMPARE(QFileInfo(projectupload::kLocalPackedPath).size(), size);

    QCOMPARE(AccessFile::_s_accessFile.size, AccessFile::kCopyBufferSize);
    QVERIFY(AccessFile::_s_accessFile.buffer != nullptr);
    projectupload::freeCopyBuffers();
    QVERIFY(AccessFile::_s_accessFile.buffer == nullptr);
    QCOMPARE(AccessFile::_s_accessFile.size, size_t(0));
    QVERIFY(AccessFile::_s_sumCodeBuf == nullptr);
}

void TestProjectUpload::copyFailure_data()
{
    QTest::addColumn<QString>("scenario");

    QTest::newRow("missing source") << QStringLiteral("missing");
    QTest::newRow("source is a directory") << QStringLiteral("directory");
    QTest::newRow("stick without opxbackup") << QStringLiteral("no backup dir");
}

void TestProjectUpload::copyFailure()
{
    QFETCH(QString, scenario);

    QString source = m_stick->path() + QStringLiteral("/source.bin");
    QTemporaryDir otherStick;
    QByteArray expected;
    if (scenario == QLatin1String("missing")) {
        expected = "stat src path:" + source.toUtf8() + " failed! No such file or directory\n";
    } else if (scenario == QLatin1String("directory")) {
        source = m_stick->path() + QStringLiteral("/a directory");
        QVERIFY(QDir().mkpath(source));
        struct stat info;
        QCOMPARE(stat(source.toUtf8().constData(), &info), 0);
        expected = "src file is not a regular file:" + QByteArray::number(int(info.st_mode)) + '\n';
    } else {
        QVERIFY(testenv::writeFile(source, "project"));
        qputenv("KAVO_UDISK_ROOT", QFile::encodeName(otherStick.path()));
        expected = "copy w open file:opxbackup/KavoBackupProject.bin failed:No such file or directory\n";
    }

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source, [&calls] { ++calls; });
    QCOMPARE(err.take(), expected);
    QVERIFY(!ok);
    QCOMPARE(calls, 0);
    QVERIFY(!QFileInfo::exists(stickFile(*m_stick)));
}

void TestProjectUpload::copyWriteFailureAfterPartialWrite()
{
    // A file size limit half-way into the second buffer: its write lands only
    // in part, the rest is tried again and then refused.
    const QByteArray data = randomBytes(int(2 * kMiB + 5), 11);
    const QString source = m_stick->path() + QStringLiteral("/source.bin");
    QVERIFY(testenv::writeFile(source, data));

    rlimit previous;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    rlimit limited = previous;
    limited.rlim_cur = rlim_t(kMiB + kMiB / 2);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);

    int calls = 0;
    StderrCapture err;
    const bool ok = projectupload::copyToUdisk(source, [&calls] { ++calls; });
    const QByteArray diagnostics = err.take();
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);

    QCOMPARE(diagnostics, QByteArray("error write failed!File too large\n"));
    QVERIFY(!ok);
    QCOMPARE(calls, 1);
    QVERIFY(testenv::readFile(stickFile(*m_stick)) == data.left(int(kMiB + kMiB / 2)));
}

void TestProjectUpload::unpack_data()
{
    QTest::addColumn<QByteArray>("container");
    QTest::addColumn<bool>("ok");
    // Success: the exact target. Failure: what the target holds, or, when
    // `partial` is set, the project the target is a true, non-empty prefix of.
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<bool>("partial");

    const QByteArray small("a small project\n");
    const QByteArray random = randomBytes(int(kMiB + kMiB / 2 + 123), 1);
    QByteArray text;
    while (text.size() < 3 * kMiB)
        text += "line " + QByteArray::number(text.size()) + " of a well compressible project\n";
    const QByteArray good = kit::kavoZipContainer(small);
    const QByteArray none("");

    QTest::newRow("small project") << good << true << small << false;
    QTest::newRow("empty project") << kit::kavoZipContainer(QByteArray("")) << true << none << false;
    QTest::newRow("incompressible, over 1 MiB") << kit::kavoZipContainer(random) << true << random << false;
    QTest::newRow("compressible, 3 MiB") << kit::kavoZipContainer(text, 9) << true << text << false;
    QTest::newRow("trailing garbage") << good + randomBytes(40000, 3) << true << small << false;
    QTest::newRow("second stream after the first")
        << good + kit::kavoZipContainer("other").mid(16) << true << small << false;

    QTest::newRow("empty file") << QByteArray("") << false << none << false;
    QTest::newRow("short header") << good.left(10) << false << none << false;
    QTest::newRow("header only") << good.left(16) << false << none << false;
    QTest::newRow("wrong magic") << QByteArray("KAVOZIPF") + good.mid(8) << false << none << false;
    QTest::newRow("lower-case magic") << QByteArray("kavozipe") + good.mid(8) << false << none << false;
    QTest::newRow("words differ") << header("KAVOZIPE", 0x100, 0x200) + good.mid(16) << false << none << false;
    QTest::newRow("byte 8 not 0") << header("KAVOZIPE", 0x101, 0x101) + good.mid(16) << false << none << false;
    QTest::newRow("stream cut after its zlib header") << good.left(18) << false << none << false;

    const QByteArray big = kit::kavoZipContainer(random);
    QTest::newRow("truncated stream") << big.left(big.size() - 1000) << false << random << true;
    QByteArray badCheck = big;
    badCheck[badCheck.size() - 1] = char(badCheck.at(badCheck.size() - 1) ^ 0x5a);
    QTest::newRow("wrong adler-32") << badCheck << false << random << true;
    QTest::newRow("preset dictionary")
        << header("KAVOZIPE", 0x100, 0x100) + deflateWithDictionary(small, "dictionary") << false << none << false;
    for (quint32 seed = 1; seed <= 4; ++seed) {
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

    const QByteArray written = testenv::readFile(targetPath);
    QVERIFY(QFileInfo::exists(targetPath));
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
