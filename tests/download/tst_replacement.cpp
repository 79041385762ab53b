// Project replacement: deleting the old project and the fonts the new one does
// not bring, and copying the listed package files to the panel.
#include "download/projectdownload.h"
#include "testenv.h"
#include "text/multilingualmanager.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTimer>
#include <QtTest>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>
#include <zlib.h>

namespace {

// Records the reporting channels, in order, as "text:...", "fail:..." and
// "buttons:start,stop,restart" lines.
class Recorder : public ProjectDownload
{
public:
    explicit Recorder(const QString& dataDir)
        : ProjectDownload(dataDir, QStringLiteral("0000"))
    {
    }

    QStringList events;

protected:
    void setTextEditContent(const QString& text) override { events << QStringLiteral("text:") + text; }
    void resetUpgrageUI(const QString& text) override { events << QStringLiteral("fail:") + text; }
    void setBntEnable(bool start, bool stop, bool restart) override
    {
        events << QStringLiteral("buttons:%1,%2,%3").arg(int(start)).arg(int(stop)).arg(int(restart));
    }
    bool askYesNo(QuestionIcon, const QString&, const QString& text) override
    {
        events << QStringLiteral("ask:") + text;
        return false;
    }
};

QString text(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

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

// Every file and directory below `dir`, relative, sorted: "a/" for a directory.
QStringList tree(const QString& dir)
{
    QStringList entries;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        entries << QDir(dir).relativeFilePath(path) + (it.fileInfo().isDir() ? "/" : "");
    }
    entries.sort();
    return entries;
}

// Makes `path` (a directory, or with `bind` a file bound over itself) a mount
// point, which nobody can remove, root included. The mount lives in a mount
// namespace of this process only. Empty on success, else why it could not.
QString pinPath(const QString& path, bool bind)
{
    static QString namespaceError = [] {
        if (unshare(CLONE_NEWNS) != 0)
            return QStringLiteral("unshare: ") + QString::fromLocal8Bit(strerror(errno));
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return QStringLiteral("private mounts: ") + QString::fromLocal8Bit(strerror(errno));
        return QString();
    }();
    if (!namespaceError.isEmpty())
        return namespaceError;
    const QByteArray target = QFile::encodeName(path);
    const int rc = bind ? mount(target.constData(), target.constData(), nullptr, MS_BIND, nullptr)
                        : mount("none", target.constData(), "tmpfs", 0, nullptr);
    return rc == 0 ? QString() : QStringLiteral("mount: ") + QString::fromLocal8Bit(strerror(errno));
}

// A path nobody may delete, for the failure rows: a mount point as root; as
// another user a read-only directory (the file's parent, or the directory
// itself, which the caller fills). Empty on success, else why not.
QString makeUndeletable(const QString& path, bool isFile)
{
    if (geteuid() != 0) {
        const QString dir = isFile ? QFileInfo(path).absolutePath() : path;
        return chmod(QFile::encodeName(dir).constData(), 0555) == 0 ? QString() : QStringLiteral("chmod failed");
    }
    return pinPath(path, isFile);
}

void releaseUndeletable(const QString& path, bool isFile)
{
    if (geteuid() != 0)
        chmod(QFile::encodeName(isFile ? QFileInfo(path).absolutePath() : path).constData(), 0755);
    else
        umount2(QFile::encodeName(path).constData(), MNT_DETACH);
}

FILE_INFO makeInfo(const QString& name, const QString& crc, const QString& srcPath, const QString& desPath)
{
    FILE_INFO info;
    info.fileName = name;
    info.crc = crc;
    info.srcPath = srcPath;
    info.desPath = desPath;
    return info;
}

} // namespace

class tst_Replacement : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void removeDir_data();
    void removeDir();
    void removeDirStopsAtUndeletable();
    void removeOldProjectFiles_data();
    void removeOldProjectFiles();
    void removeOldProjectFilesStopped();
    void removeOldProjectFilesUndeletable_data();
    void removeOldProjectFilesUndeletable();

    void copy_data();
    void copy();
    void alreadyInPlace_data();
    void alreadyInPlace();
    void sourceIsDestination();
    void sourceMissing();
    void stopDuringCopy();
    void stoppedAtEntry();
    void progressLines();

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
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QVERIFY(!text(2054).isEmpty());
    m_oldCwd = QDir::currentPath();
}

void tst_Replacement::init()
{
    m_panel = std::make_unique<testenv::TempPanel>();
    m_stick = std::make_unique<QTemporaryDir>();
    QVERIFY(m_panel->isValid() && m_stick->isValid());
    QVERIFY(QDir::setCurrent(m_stick->path()));
    m_download = std::make_unique<Recorder>(dataDir());
}

void tst_Replacement::cleanup()
{
    QDir::setCurrent(m_oldCwd);
    m_download.reset();
    m_stick.reset();
    m_panel.reset();
}

// --- removeDir ---------------------------------------------------------------

void tst_Replacement::removeDir_data()
{
    QTest::addColumn<QStringList>("files"); // below the directory; "name/" makes an empty directory
    QTest::addColumn<bool>("exists");

    QTest::newRow("nested tree with hidden entries")
        << QStringList{"a.bin", ".hidden", "sub/b.dat", "sub/.h/c", "sub/deep/er/d", "empty/", ".dir/x"} << true;
    QTest::newRow("empty directory") << QStringList() << true;
    QTest::newRow("missing directory") << QStringList() << false;
}

void tst_Replacement::removeDir()
{
    QFETCH(QStringList, files);
    QFETCH(bool, exists);

    const QString dir = m_panel->path("/usr/kavo_app/old");
    if (exists)
        QVERIFY(QDir().mkpath(dir));
    for (const QString& file : files) {
        if (file.endsWith('/'))
            QVERIFY(QDir().mkpath(dir + "/" + file));
        else
            QVERIFY(testenv::writeFile(dir + "/" + file, "x"));
    }

    QVERIFY(m_download->removeDir(dir));
    QVERIFY(!QFileInfo::exists(dir));
    QVERIFY(QFileInfo::exists(m_panel->path("/usr/kavo_app")));
    QVERIFY(m_download->events.isEmpty());
}

void tst_Replacement::removeDirStopsAtUndeletable()
{
    const QString dir = m_panel->path("/usr/kavo_app/old");
    for (const char* file : {"a/1", "z/2", "top"})
        QVERIFY(testenv::writeFile(dir + "/" + file, "x"));
    // A link to a directory outside the tree goes as a link, its target stays.
    const QString outside = m_panel->path("/data/outside");
    QVERIFY(testenv::writeFile(outside + "/survivor", "x"));
    QVERIFY(QFile::link(outside, dir + "/b-link"));

    const QString pinned = dir + "/m";
    QVERIFY(QDir().mkpath(pinned));
    const QString why = makeUndeletable(pinned, false);
    if (!why.isEmpty())
        QSKIP(qPrintable("cannot make an undeletable directory: " + why));
    const bool filled = testenv::writeFile(pinned + "/inside", "x");

    const bool removed = m_download->removeDir(dir);
    const QStringList left = tree(dir);
    releaseUndeletable(pinned, false);

    QVERIFY(filled);
    QVERIFY(!removed);
    // Directories first, by name: "a" and the link went before "m" failed;
    // nothing after it was touched. A mount point is emptied before its own
    // removal fails; a read-only directory keeps its file.
    QStringList expected{"m/", "top", "z/", "z/2"};
    if (geteuid() != 0)
        expected.insert(1, "m/inside");
    QCOMPARE(left, expected);
    QVERIFY(QFileInfo::exists(outside + "/survivor"));
}

// --- removeOldProjectFiles ---------------------------------------------------

void tst_Replacement::removeOldProjectFiles_data()
{
    QTest::addColumn<bool>("dataDirExists");
    QTest::addColumn<QStringList>("fonts");  // "name" a file, "name/" a directory; empty list: no font directory
    QTest::addColumn<QStringList>("listed"); // fileName entries of the file list
    QTest::addColumn<QStringList>("fontsLeft");

    QTest::newRow("old project, no font directory") << true << QStringList() << QStringList() << QStringList();
    QTest::newRow("no old project") << false << QStringList{"simsun.ttf"} << QStringList()
                                    << QStringList{"simsun.ttf"};
    QTest::newRow("fonts")
        << true
        << QStringList{"simsun.ttf", "fontdir", "brought.ttf", "old.ttf", ".hidden.ttf", "Brought.TTF", "sub/",
                       "sub/inner.ttf"}
        << QStringList{"context.dat", "brought.ttf", "DownLoadFile/old.ttf"}
        << QStringList{"brought.ttf", "fontdir", "simsun.ttf", "sub/", "sub/inner.ttf"};
}

void tst_Replacement::removeOldProjectFiles()
{
    QFETCH(bool, dataDirExists);
    QFETCH(QStringList, fonts);
    QFETCH(QStringList, listed);
    QFETCH(QStringList, fontsLeft);

    QVERIFY(QDir(dataDir()).removeRecursively());
    if (dataDirExists) {
        QVERIFY(testenv::writeFile(dataDir() + "/#BKCompreProj.bin", "old"));
        QVERIFY(testenv::writeFile(dataDir() + "/res/.cache/img.png", "old"));
    }
    QVERIFY(QDir(fontDir()).removeRecursively());
    for (const QString& font : fonts) {
        if (font.endsWith('/'))
            QVERIFY(QDir().mkpath(fontDir() + "/" + font));
        else
            QVERIFY(testenv::writeFile(fontDir() + "/" + font, "font"));
    }
    for (const QString& name : listed)
        m_download->m_fileList << makeInfo(name, "0", "./proj/", dataDir() + "/");

    QVERIFY(m_download->removeOldProjectFiles());
    QCOMPARE(m_download->events, QStringList{"text:" + text(2051)});
    QVERIFY(QFileInfo(dataDir()).isDir());
    QCOMPARE(tree(dataDir()), QStringList());
    QCOMPARE(tree(fontDir()), fontsLeft);
}

void tst_Replacement::removeOldProjectFilesStopped()
{
    QVERIFY(testenv::writeFile(dataDir() + "/#BKCompreProj.bin", "old"));
    QVERIFY(testenv::writeFile(fontDir() + "/old.ttf", "font"));
    m_download->m_stop = true;

    QVERIFY(!m_download->removeOldProjectFiles());
    QVERIFY(m_download->events.isEmpty());
    QCOMPARE(tree(dataDir()), QStringList{"#BKCompreProj.bin"});
    QCOMPARE(tree(fontDir()), QStringList{"old.ttf"});
}

void tst_Replacement::removeOldProjectFilesUndeletable_data()
{
    QTest::addColumn<bool>("inFonts");
    QTest::addColumn<QStringList>("dataLeft");

    // The fonts are not looked at when the project could not be deleted.
    QTest::newRow("project directory") << false << QStringList{"a.bin", "m/"};
    // The project is gone and its directory is not created again.
    QTest::newRow("font file") << true << QStringList();
}

void tst_Replacement::removeOldProjectFilesUndeletable()
{
    QFETCH(bool, inFonts);
    QFETCH(QStringList, dataLeft);

    QVERIFY(testenv::writeFile(dataDir() + "/a.bin", "old"));
    QVERIFY(QDir().mkpath(dataDir() + "/m"));
    QVERIFY(testenv::writeFile(fontDir() + "/a-stuck.ttf", "font"));
    QVERIFY(testenv::writeFile(fontDir() + "/old.ttf", "font"));

    const QString pinned = inFonts ? fontDir() + "/a-stuck.ttf" : dataDir() + "/m";
    const QString why = makeUndeletable(pinned, inFonts);
    if (!why.isEmpty())
        QSKIP(qPrintable("cannot make an undeletable entry: " + why));
    const bool filled = inFonts || testenv::writeFile(pinned + "/inside", "x");

    const bool removed = m_download->removeOldProjectFiles();
    const bool dataExists = QFileInfo::exists(dataDir());
    const QStringList data = tree(dataDir());
    const QStringList fonts = tree(fontDir());
    releaseUndeletable(pinned, inFonts);

    QVERIFY(filled);
    QVERIFY(!removed);
    QCOMPARE(m_download->events, QStringList{"text:" + text(2051)});
    QCOMPARE(dataExists, !dataLeft.isEmpty());
    if (!inFonts && geteuid() != 0)
        dataLeft << "m/inside";
    QCOMPARE(data, dataLeft);
    // The first failure ends the clean-up: the font behind it stays.
    QCOMPARE(fonts, (QStringList{"a-stuck.ttf", "old.ttf"}));
}

// --- updateProjectFile -------------------------------------------------------

void tst_Replacement::copy_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("desPath");     // panel-side
    QTest::addColumn<QString>("destination"); // panel-side
    QTest::addColumn<int>("size");

    QTest::newRow("plain file") << "project.bin" << "/usr/kavo_app/project/" << "/usr/kavo_app/project/project.bin"
                                << 100;
    QTest::newRow("user file") << "DownLoadFile/x/y.dat" << "/d/" << "/d/x/y.dat" << 10;
    QTest::newRow("many blocks") << "big.bin" << "/usr/kavo_app/project/res/" << "/usr/kavo_app/project/res/big.bin"
                                 << 5 * 1024 + 17;
    QTest::newRow("exactly one block") << "one.bin" << "/new/dir/" << "/new/dir/one.bin" << 1024;
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
    m_download->m_fileList << makeInfo(fileName, crcText(content), "./proj/", m_panel->path(desPath));

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
    QTest::newRow("truncated copy") << content.left(2048) << crcText(content) << false;
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
    const QByteArray path = QFile::encodeName(destination);
    struct utimbuf past = {1000000000, 1000000000};
    QCOMPARE(utime(path.constData(), &past), 0);
    struct stat before = {};
    QCOMPARE(stat(path.constData(), &before), 0);
    m_download->m_fileList << makeInfo("a.bin", listedCrc, "./proj/", dataDir() + "/");

    QVERIFY(m_download->updateProjectFile());

    struct stat after = {};
    QCOMPARE(stat(path.constData(), &after), 0);
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_mtime == before.st_mtime, untouched);
    QCOMPARE(testenv::readFile(destination), untouched ? existing : content);
}

void tst_Replacement::sourceIsDestination()
{
    const QByteArray content = pattern(2500);
    QVERIFY(testenv::writeFile("proj/a.bin", content));
    // The listed checksum does not match, so only the path test keeps the file
    // from being truncated and copied onto itself.
    m_download->m_fileList << makeInfo("a.bin", "1", "./proj/", m_stick->path() + "/proj/");

    QVERIFY(m_download->updateProjectFile());
    QCOMPARE(testenv::readFile("proj/a.bin"), content);
}

void tst_Replacement::sourceMissing()
{
    QVERIFY(testenv::writeFile("proj/first.bin", "first"));
    QVERIFY(testenv::writeFile("proj/third.bin", "third"));
    QVERIFY(testenv::writeFile(dataDir() + "/second.bin", "old second"));
    for (const char* name : {"first", "second", "third"})
        m_download->m_fileList << makeInfo(QString(name) + ".bin", crcText(name), "./proj/", dataDir() + "/");

    QVERIFY(!m_download->updateProjectFile());
    QCOMPARE(m_download->events, (QStringList{"buttons:0,0,1", "text:" + text(2054)}));
    QCOMPARE(tree(dataDir()), (QStringList{"first.bin", "second.bin"}));
    QCOMPARE(testenv::readFile(dataDir() + "/first.bin"), QByteArray("first"));
    // The stick was pulled: what is on the panel stays as it was.
    QCOMPARE(testenv::readFile(dataDir() + "/second.bin"), QByteArray("old second"));
}

void tst_Replacement::stopDuringCopy()
{
    const QByteArray big = pattern(6 * 1024 * 1024);
    QVERIFY(testenv::writeFile("proj/big.bin", big));
    QVERIFY(testenv::writeFile("proj/next.bin", "next"));
    m_download->m_fileList << makeInfo("big.bin", crcText(big), "./proj/", dataDir() + "/")
                           << makeInfo("next.bin", crcText("next"), "./proj/", dataDir() + "/");

    // The stop button's press, as the event processing of the copy delivers it.
    Recorder* download = m_download.get();
    QTimer::singleShot(0, [download] { download->m_stop = true; });

    QVERIFY(!m_download->updateProjectFile());
    QVERIFY(m_download->events.isEmpty());
    const QByteArray partial = testenv::readFile(dataDir() + "/big.bin");
    QVERIFY2(partial.size() > 0 && partial.size() < big.size(), qPrintable(QString::number(partial.size())));
    QCOMPARE(partial, big.left(partial.size()));
    QVERIFY(!QFileInfo::exists(dataDir() + "/next.bin"));
}

void tst_Replacement::stoppedAtEntry()
{
    QVERIFY(testenv::writeFile("proj/a.bin", "a"));
    m_download->m_fileList << makeInfo("a.bin", crcText("a"), "./proj/", m_panel->path("/new/"));
    m_download->m_stop = true;

    QVERIFY(!m_download->updateProjectFile());
    QVERIFY(m_download->events.isEmpty());
    QVERIFY(!QFileInfo::exists(m_panel->path("/new")));
}

void tst_Replacement::progressLines()
{
    QVERIFY(testenv::writeFile("proj/DownLoadFile/u/v.txt", "user"));
    QVERIFY(testenv::writeFile("proj/same.bin", "same"));
    QVERIFY(testenv::writeFile(dataDir() + "/same.bin", "same"));
    const QString des = dataDir() + "/";
    const QString userDes = m_panel->path("/data/userfile/");
    m_download->m_fileList << makeInfo("DownLoadFile/u/v.txt", crcText("user"), "./proj/", userDes)
                           << makeInfo("", "0", "./proj/", m_panel->path("/made/for/nothing/"))
                           << makeInfo("same.bin", crcText("same"), "./proj/", des);

    QTemporaryFile capture;
    QVERIFY(capture.open());
    fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    QVERIFY(savedStdout >= 0);
    dup2(capture.handle(), STDOUT_FILENO);
    const bool copied = m_download->updateProjectFile();
    fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    close(savedStdout);

    QVERIFY(copied);
    const QByteArray expected = "src:./proj/DownLoadFile/u/v.txt dst:" + QFile::encodeName(userDes)
                                + "u/v.txt-------------------------\n"
                                + "src:./proj/ dst:" + QFile::encodeName(m_panel->path("/made/for/nothing/"))
                                + "-------------------------\n"
                                + "src:./proj/same.bin dst:" + QFile::encodeName(des)
                                + "same.bin-------------------------\n";
    capture.seek(0);
    QCOMPARE(capture.readAll(), expected);
    // The destination directory is made even for an entry without a name.
    QVERIFY(QFileInfo(m_panel->path("/made/for/nothing")).isDir());
    QCOMPARE(testenv::readFile(userDes + "u/v.txt"), QByteArray("user"));
}

QTEST_GUILESS_MAIN(tst_Replacement)
#include "tst_replacement.moc"
