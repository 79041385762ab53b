// Project replacement: deleting the old project and the fonts the new one does
// not bring, and copying the listed package files to the panel.
#include "recordingdownload.h"
#include "testenv.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>
#include <zlib.h>

namespace {

// Also records the button states, as "buttons: start stop restart".
class Recorder : public RecordingDownload
{
protected:
    void setBntEnable(bool start, bool stop, bool restart) override
    {
        events << QStringLiteral("buttons: %1%2%3").arg(int(start)).arg(int(stop)).arg(int(restart));
    }
};

QString crcText(const QByteArray& data)
{
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(data.constData()), static_cast<uInt>(data.size()));
    return QString::number(static_cast<unsigned int>(crc), 16).toUpper();
}

QByteArray pattern(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    return data;
}

// Creates the files (or, ending in "/", directories) below `root`.
void populate(const QString& root, const QStringList& entries)
{
    for (const QString& entry : entries) {
        const QString path = root + QLatin1Char('/') + entry;
        QVERIFY(entry.endsWith(QLatin1Char('/')) ? QDir().mkpath(path) : testenv::writeFile(path, "x"));
    }
}

// Makes `dir` a directory nobody may delete, with a file "inside": as root a
// tmpfs mount point in a mount namespace of this process only, as another user
// a read-only directory. Empty on success, else why not.
QString makeUndeletable(const QString& dir)
{
    const QByteArray path = QFile::encodeName(dir);
    if (geteuid() != 0) {
        if (!testenv::writeFile(dir + QStringLiteral("/inside"), "x") || chmod(path.constData(), 0555) != 0)
            return QStringLiteral("cannot make a read-only directory");
        return QString();
    }
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
        || mount("none", path.constData(), "tmpfs", 0, nullptr) != 0)
        return QStringLiteral("cannot mount a tmpfs: ") + QString::fromLocal8Bit(strerror(errno));
    return testenv::writeFile(dir + QStringLiteral("/inside"), "x") ? QString() : QStringLiteral("tmpfs not writable");
}

void releaseUndeletable(const QString& dir)
{
    if (geteuid() != 0)
        chmod(QFile::encodeName(dir).constData(), 0755);
    else
        umount2(QFile::encodeName(dir).constData(), MNT_DETACH);
}

FILE_INFO makeInfo(const QString& name, const QString& crc, const QString& desPath)
{
    return {name, crc, 0, desPath, QStringLiteral("./proj/")};
}

} // namespace

class tst_Replacement : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void removeDir();
    void removalStopsAtUndeletable();
    void removeOldProjectFiles_data();
    void removeOldProjectFiles();

    void copy_data();
    void copy();
    void alreadyInPlace_data();
    void alreadyInPlace();
    void sourceIsDestination();
    void sourceMissing();
    void stopDuringCopy();

private:
    QString dataDir() const { return m_panel->path("/usr/kavo_app/project"); }
    QString fontDir() const { return m_panel->path("/usr/kavo_app/font"); }

    QString m_oldCwd;
    std::unique_ptr<testenv::TempPanel> m_panel;
    std::unique_ptr<QTemporaryDir> m_stick;
    std::unique_ptr<Recorder> m_download;
};

void tst_Replacement::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    m_oldCwd = QDir::currentPath();
}

void tst_Replacement::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<Recorder>();
    m_download->m_dataDir = dataDir();
}

void tst_Replacement::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

void tst_Replacement::removeDir()
{
    const QString dir = m_panel->path("/usr/kavo_app/old");
    populate(dir, {"a.bin", ".hidden", "sub/b.dat", "sub/.h/c", "sub/deep/er/d", "empty/", ".dir/x"});
    // A link to a directory outside the tree goes as a link, its target stays.
    const QString outside = m_panel->path("/data/outside");
    QVERIFY(testenv::writeFile(outside + "/survivor", "x"));
    QVERIFY(QFile::link(outside, dir + "/b-link"));

    QVERIFY(m_download->removeDir(dir));
    QVERIFY(!QFileInfo::exists(dir));
    QVERIFY(QFileInfo::exists(outside + "/survivor"));
    // Nothing to remove is no failure.
    QVERIFY(m_download->removeDir(dir));
    QVERIFY(m_download->events.isEmpty());
}

void tst_Replacement::removalStopsAtUndeletable()
{
    populate(dataDir(), {"a.bin", "m/", "z/2"});
    populate(fontDir(), {"old.ttf"});
    const QString why = makeUndeletable(dataDir() + "/m");
    if (!why.isEmpty())
        QSKIP(qPrintable(why));

    const bool removed = m_download->removeOldProjectFiles();
    const QStringList data = testenv::entriesWithSizes(dataDir());
    releaseUndeletable(dataDir() + "/m");

    QVERIFY(!removed);
    QCOMPARE(m_download->events, QStringList{"text: " + msg(2051)});
    // Directories first, by name: the first failure ends the removal and the
    // fonts are not looked at. A mount point is emptied before its own removal
    // fails; a read-only directory keeps its file.
    QStringList expected{"a.bin 1", "m -1", "z -1", "z/2 1"};
    if (geteuid() != 0)
        expected.insert(2, "m/inside 1");
    QCOMPARE(data, expected);
    QCOMPARE(testenv::entriesWithSizes(fontDir()), QStringList{"old.ttf 1"});
}

void tst_Replacement::removeOldProjectFiles_data()
{
    QTest::addColumn<bool>("dataDirExists");
    QTest::addColumn<QStringList>("fonts");  // empty: no font directory
    QTest::addColumn<QStringList>("listed"); // fileName entries of the file list
    QTest::addColumn<bool>("stop");
    QTest::addColumn<QStringList>("fontsLeft");

    const QStringList fonts{"simsun.ttf", "fontdir", "brought.ttf", "old.ttf", ".hidden.ttf", "Brought.TTF",
                            "sub/inner.ttf"};
    QTest::newRow("fonts the project does not bring go")
        << true << fonts << QStringList{"context.dat", "brought.ttf", "DownLoadFile/old.ttf"} << false
        << QStringList{"brought.ttf 1", "fontdir 1", "simsun.ttf 1", "sub -1", "sub/inner.ttf 1"};
    QTest::newRow("no old project, no font directory")
        << false << QStringList() << QStringList() << false << QStringList();
    QTest::newRow("stop requested") << true << QStringList{"old.ttf"} << QStringList() << true
                                    << QStringList{"old.ttf 1"};
}

void tst_Replacement::removeOldProjectFiles()
{
    QFETCH(bool, dataDirExists);
    QFETCH(QStringList, fonts);
    QFETCH(QStringList, listed);
    QFETCH(bool, stop);
    QFETCH(QStringList, fontsLeft);

    QVERIFY(QDir(dataDir()).removeRecursively());
    if (dataDirExists)
        populate(dataDir(), {"#BKCompreProj.bin", "res/.cache/img.png"});
    QVERIFY(QDir(fontDir()).removeRecursively());
    populate(fontDir(), fonts);
    for (const QString& name : listed)
        m_download->m_fileList << makeInfo(name, "0", dataDir() + "/");
    m_download->m_stop = stop;

    QCOMPARE(m_download->removeOldProjectFiles(), !stop);
    QCOMPARE(m_download->events, stop ? QStringList() : QStringList{"text: " + msg(2051)});
    QVERIFY(QFileInfo(dataDir()).isDir());
    QCOMPARE(testenv::entriesWithSizes(dataDir()).size(), stop ? 4 : 0);
    QCOMPARE(testenv::entriesWithSizes(fontDir()), fontsLeft);
}

void tst_Replacement::copy_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("desPath");     // panel-side
    QTest::addColumn<QString>("destination"); // panel-side
    QTest::addColumn<int>("size");

    QTest::newRow("many blocks") << "big.bin" << "/usr/kavo_app/project/res/" << "/usr/kavo_app/project/res/big.bin"
                                 << 5 * 1024 + 17;
    QTest::newRow("user file into a new subdirectory") << "DownLoadFile/x/y.dat" << "/d/" << "/d/x/y.dat" << 10;
    // A missing destination is never in place, though an unreadable file has
    // the empty file's checksum 0.
    QTest::newRow("empty file") << "empty.bin" << "/usr/kavo_app/project/" << "/usr/kavo_app/project/empty.bin" << 0;
    // Only the first twelve characters are compared, the next one is dropped.
    QTest::newRow("prefix without separator") << "DownLoadFileX.dat" << "/d/" << "/d/.dat" << 3;
}

void tst_Replacement::copy()
{
    QFETCH(QString, fileName);
    QFETCH(QString, desPath);
    QFETCH(QString, destination);
    QFETCH(int, size);

    const QByteArray content = pattern(size);
    QVERIFY(testenv::writeFile("proj/" + fileName, content));
    m_download->m_fileList << makeInfo(fileName, crcText(content), m_panel->path(desPath));

    QVERIFY(m_download->updateProjectFile());
    QVERIFY(m_download->events.isEmpty());
    QVERIFY(QFileInfo(m_panel->path(destination)).isFile());
    QCOMPARE(testenv::readFile(m_panel->path(destination)), content);
}

void tst_Replacement::alreadyInPlace_data()
{
    QTest::addColumn<QByteArray>("existing");
    QTest::addColumn<QString>("listedCrc");
    QTest::addColumn<bool>("untouched");

    const QByteArray content = pattern(3000);
    QTest::newRow("same content") << content << crcText(content) << true;
    // The listed checksum decides, not the source's content.
    QTest::newRow("listed checksum matches the destination") << QByteArray("other") << crcText("other") << true;
    QTest::newRow("different content") << QByteArray("other") << crcText(content) << false;
}

void tst_Replacement::alreadyInPlace()
{
    QFETCH(QByteArray, existing);
    QFETCH(QString, listedCrc);
    QFETCH(bool, untouched);

    const QByteArray content = pattern(3000);
    QVERIFY(testenv::writeFile("proj/a.bin", content));
    const QString destination = dataDir() + "/a.bin";
    QVERIFY(testenv::writeFile(destination, existing));
    const utimbuf past = {1000000000, 1000000000};
    QCOMPARE(utime(QFile::encodeName(destination).constData(), &past), 0);
    m_download->m_fileList << makeInfo("a.bin", listedCrc, dataDir() + "/");

    QVERIFY(m_download->updateProjectFile());

    QCOMPARE(QFileInfo(destination).lastModified().toSecsSinceEpoch() == 1000000000, untouched);
    QCOMPARE(testenv::readFile(destination), untouched ? existing : content);
}

void tst_Replacement::sourceIsDestination()
{
    const QByteArray content = pattern(2500);
    QVERIFY(testenv::writeFile("proj/a.bin", content));
    // The listed checksum does not match, so only the path test keeps the file
    // from being truncated and copied onto itself.
    m_download->m_fileList << makeInfo("a.bin", "1", m_stick->path() + "/proj/");

    QVERIFY(m_download->updateProjectFile());
    QCOMPARE(testenv::readFile("proj/a.bin"), content);
}

void tst_Replacement::sourceMissing()
{
    QVERIFY(testenv::writeFile("proj/first.bin", "first"));
    QVERIFY(testenv::writeFile("proj/third.bin", "third"));
    QVERIFY(testenv::writeFile(dataDir() + "/second.bin", "old second"));
    for (const char* name : {"first", "second", "third"})
        m_download->m_fileList << makeInfo(QString(name) + ".bin", crcText(name), dataDir() + "/");

    QVERIFY(!m_download->updateProjectFile());
    QCOMPARE(m_download->events, (QStringList{"buttons: 001", "text: " + msg(2054)}));
    // The stick was pulled: what is on the panel stays as it was.
    QCOMPARE(testenv::entriesWithSizes(dataDir()), (QStringList{"first.bin 5", "second.bin 10"}));
    QCOMPARE(testenv::readFile(dataDir() + "/first.bin"), QByteArray("first"));
}

void tst_Replacement::stopDuringCopy()
{
    const QByteArray big = pattern(64 * 1024);
    QVERIFY(testenv::writeFile("proj/big.bin", big));
    QVERIFY(testenv::writeFile("proj/next.bin", "next"));
    m_download->m_fileList << makeInfo("big.bin", crcText(big), dataDir() + "/")
                           << makeInfo("next.bin", crcText("next"), dataDir() + "/");

    // The stop button's press, as the event processing after the first block
    // delivers it: the copy ends there.
    Recorder* download = m_download.get();
    QMetaObject::invokeMethod(
        qApp, [download] { download->m_stop = true; }, Qt::QueuedConnection);

    QVERIFY(!m_download->updateProjectFile());
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(testenv::readFile(dataDir() + "/big.bin"), big.left(1024));
    QVERIFY(!QFileInfo::exists(dataDir() + "/next.bin"));
}

QTEST_GUILESS_MAIN(tst_Replacement)
#include "tst_replacement.moc"