// The platform layer on a simulated panel: path relocation, the closed functions, and the platform-code
// reader on real and stand-in ARM libraries, attribute encodings and damaged input (-1, never a read past the end).
#include "platform/kavo_api.h"
#include "platform/platform.h"
#include "platform/sim/elfarch.h"
#include "testenv.h"
#include "tools/kit/armelf.h"

#include <QtTest>

#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kArmelLibc[] = "/usr/arm-linux-gnueabi/lib/libc.so.6";
constexpr int kShoff = 32, kShentsize = 46, kShnum = 48, kShstrndx = 50; // offsets into the ELF header

QByteArray uleb(quint64 v)
{
    QByteArray out;
    do
        out.append(char((v & 0x7f) | (v > 0x7f ? 0x80 : 0)));
    while ((v >>= 7) != 0);
    return out;
}
QByteArray le32(quint32 v)
{
    const quint32 le = qToLittleEndian(v);
    return QByteArray(reinterpret_cast<const char*>(&le), 4);
}

// Attribute section pieces; a scope (1 file, 2 section, 3 symbol) counts its tag.
QByteArray text(const QByteArray& t) { return t + QByteArray(1, '\0'); }
QByteArray tag(quint64 number, const QByteArray& value) { return uleb(number) + value; }
QByteArray scope(quint64 s, const QByteArray& body) { return uleb(s) + le32(quint32(uleb(s).size() + 4 + body.size())) + body; }
QByteArray vendor(const QByteArray& name, const QByteArray& body) { return le32(quint32(5 + name.size() + body.size())) + text(name) + body; }
QByteArray fileAttributes(const QByteArray& list) { return "A" + vendor("aeabi", scope(1, list)); }

// `value` at `field` of section header `section` (-1: the ELF header).
struct Patch { int section, field, bytes; quint32 value; };
QByteArray patched(QByteArray image, std::initializer_list<Patch> patches)
{
    for (const Patch& p : patches) {
        const int at = (p.section < 0 ? 0 : qFromLittleEndian<qint32>(image.constData() + kShoff) + 40 * p.section) + p.field;
        for (int i = 0; i < p.bytes; ++i)
            image[at + i] = char(p.value >> (8 * i));
    }
    return image;
}

} // namespace

class tst_Platform : public QObject
{
    Q_OBJECT

private slots:
    void panelPaths_data();
    void panelPaths();
    void relativeRoot();
    void simulatedFunctions_data();
    void simulatedFunctions();
    void elfArch_data();
    void elfArch();

private:
    QProcess m_runtime; // the runtime application's stand-in
    QTemporaryDir m_dir;
};

void tst_Platform::panelPaths_data()
{
    QTest::addColumn<QString>("root"); // null: unset
    QTest::addColumn<QString>("path");    // "confine:" + path: confinedPanelPath
    QTest::addColumn<QString>("expected");
    const QString r = "/tmp/panel-root", ini = "/usr/kavo_app/update.ini";
    // ".." never climbs out; the refused form lies below a device file.
    const QString refused = "/dev/null/outside-panel-root";
    QTest::newRow("root is /") << "/" << ini << ini;
    QTest::newRow("root with trailing /, path with one") << r + "/" << "/usr/kavo_app/" << r + "/usr/kavo_app/";
    QTest::newRow("relative path") << r << "language/0000.lan" << "language/0000.lan";
    QTest::newRow("//proc/1/cmdline") << r << "//proc/1/cmdline" << "//proc/1/cmdline";
    QTest::newRow("/procfoo relocated") << r << "/procfoo" << r + "/procfoo";
    QTest::newRow(".. inside kept") << r << "/usr/../tmp/x" << r + "/usr/../tmp/x";
    QTest::newRow(".. out, trailing / kept") << r << "//tmp/./../../" << refused + "/";
    QTest::newRow(".. on the panel itself") << QString() << "/../x" << "/../x";
    QTest::newRow("UTF-8 root and path") << "/tmp/面板" << "/data/用户" << "/tmp/面板/data/用户";
    // A package file's name joined to its relocated destination stays inside.
    QTest::newRow("confined inside") << r << "confine:" + r + "/d/x/../y.dat" << r + "/d/x/../y.dat";
    QTest::newRow("confined, name climbs out") << r << "confine:" + r + "/d/x/../../../esc.dat" << refused;
    QTest::newRow("confined, beside the root") << r << "confine:" + r + "-other/d/y.dat" << refused;
    QTest::newRow("confined on the panel itself") << QString() << "confine:/d/../../e.dat" << "/d/../../e.dat";
}

void tst_Platform::panelPaths()
{
    QFETCH(QString, root);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    root.isNull() ? qunsetenv("KAVO_PANEL_ROOT") : qputenv("KAVO_PANEL_ROOT", root.toUtf8());
    const auto restore = qScopeGuard([] { qunsetenv("KAVO_PANEL_ROOT"); });
    QCOMPARE(platform::panelRoot(), root.remove(QRegularExpression("/$")));
    if (path.startsWith("confine:"))
        QCOMPARE(platform::confinedPanelPath(path.mid(8)), expected);
    else
        QCOMPARE(platform::panelPath(path) + '|' + QString::fromStdString(platform::panelPath(path.toUtf8().constData())), expected + '|' + expected);
}

// A relative root keeps the place it named at first use.
void tst_Platform::relativeRoot()
{
    QTemporaryDir first, second;
    const QString start = QDir::currentPath(), root = first.path() + "/sim-panel";
    qputenv("KAVO_PANEL_ROOT", "sim-panel");
    const auto restore = qScopeGuard([start] { qunsetenv("KAVO_PANEL_ROOT"), QDir::setCurrent(start); });
    QVERIFY(QDir::setCurrent(first.path()) && platform::panelPath(QStringLiteral("/usr")) == root + "/usr" && QDir::setCurrent(second.path()));
    QCOMPARE(QString::fromStdString(platform::panelPath("/usr")) + platform::panelPath(static_cast<const char*>(nullptr)).c_str(), root + "/usr");
}

// Calls a line apart: dirs, create/delete PATH, exists PATH (below the root), stick PATH (writes "abc"),
// pid TEXT (then: runs?), stop, lock, reboot (fails). {R}: the root.
void tst_Platform::simulatedFunctions_data()
{
    QTest::addColumn<QString>("calls");
    QTest::addColumn<QString>("env");        // "NAME=value"
    QTest::addColumn<QString>("expected");   // what the calls gave, a blank apart
    auto row = [](const char* name, const QString& calls, const QString& env, const QString& expected) {
        QTest::newRow(name) << calls << env << expected;
    };
    row("directories", "dirs", "", "|{R}/usr/kavo_app||{R}/data|{R}/usr/kavo_app/project|{R}/usr/kavo_app/font|{R}/data/userfile|");
    row("create", "create {R}/new//deeper/\ncreate {R}/new\nexists new/deeper\ncreate {R}/tree/f/sub\ncreate \ndelete ",
        "", "0 0 1 -1 -1 -1 -1 -1");
    // Links go with the tree; what they point to stays.
    row("delete a tree", "delete {R}/tree/\ndelete {R}/missing/too\nexists tree\nexists data/f\nexists data/sub/f",
        "KAVO_SIM_DELETEDIR_FAIL=0", "0 0 0 1 1");
    // Without KAVO_UDISK_ROOT the stick is the parent of the executable's directory.
    row("stick of the executable", "stick " + QFileInfo(QCoreApplication::applicationDirPath()).fileName() + "/b.bin", "", "0");
    row("file lock", "lock", "", "1 0 0 -1 0 0");
    // A damaged pid file never names init or a process group.
    row("runtime by its pid file", "stop\npid {live}\npid  {live} \npid \npid {live} 1\npid -{live}\npid 1\npid 0\npid 99999999999", "", "0 0 1 1 0 0 0 0 0 0");
    row("reboot cannot record", "reboot", "RUN=file", QString::number(ENOTDIR));
}

void tst_Platform::simulatedFunctions()
{
    QFETCH(QString, calls);
    QFETCH(QString, env);
    QFETCH(QString, expected);
    testenv::TempPanel panel;
    const QString r = panel.root();
    for (const char* dir : {"/tree", "/data"})
        QVERIFY(testenv::writeFile(r + dir + "/f", "f") && testenv::writeFile(r + dir + "/sub/f", "f"));
    QVERIFY(QFile::link(r + "/data", r + "/tree/dirlink") && QFile::link(r + "/data/f", r + "/tree/sub/link"));
    QVERIFY(mkfifo(QFile::encodeName(r + "/tree/fifo").constData(), 0600) == 0);
    QVERIFY(env != "RUN=file" || (QDir(r + "/var").removeRecursively() && testenv::writeFile(r + "/var/run", "x")));
    const QByteArray name = env.section('=', 0, 0).toUtf8();
    qputenv(name.constData(), QString(env.section('=', 1)).replace("{R}", r).toUtf8());
    const auto restore = qScopeGuard([name] { qunsetenv(name.constData()); });
    if (m_runtime.state() == QProcess::NotRunning)
        m_runtime.start("sleep", {"30"});
    QVERIFY(m_runtime.waitForStarted());

    QStringList result;
    const auto put = [&result](int value) { result << QString::number(value); };
    for (const QString& call : calls.split('\n')) {
        const QString verb = call.section(' ', 0, 0);
        const QByteArray arg = call.section(' ', 1).replace("{R}", r).replace("{live}", QString::number(m_runtime.processId())).toUtf8();
        if (verb == "dirs") {
            const char* kept[] = {Kavo_GetDirectory(-1), Kavo_GetDirectory(0), Kavo_GetDirectory(1), Kavo_GetDirectory(2), Kavo_GetDirectory(3),
                                  Kavo_GetDirectory(7), Kavo_GetDirectory(8), Kavo_GetDirectory(9)}; // a caller may keep several at once
            result << QStringList(std::begin(kept), std::end(kept)).join('|');
        } else if (verb == "create" || verb == "delete") {
            const auto function = verb == "create" ? Kavo_CreateDirectory : Kavo_DeleteDirectory;
            put(function(arg.isEmpty() ? nullptr : arg.constData()));
            if (arg.isEmpty())
                put(function(""));
        } else if (verb == "stick") {
            const int fd = Kavo_udisk_open(arg.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            put(fd >= 0 && write(fd, "abc", 3) == 3 && close(fd) == 0 ? 0 : -1);
            QVERIFY(QFile::remove(QCoreApplication::applicationDirPath() + "/b.bin"));
        } else if (verb == "pid") {
            QVERIFY(testenv::writeFile(r + "/var/run/kavo_app.pid", arg));
            put(__check_application_state(0) == 0 ? 1 : 0);
            QCOMPARE(__check_application_state(1), __check_application_state(0));
        } else if (verb == "stop") { // polled as the package polls: sleeping, without reaping
            put(__notify_stop_application(0));
            for (int i = 0; i < 50 && __check_application_state(0) == 0; ++i)
                QThread::msleep(20);
            put(__check_application_state(0) == 0 ? 1 : 0);
        } else if (verb == "lock") { // held while a locker lives, never inherited; none without a file
            TOOL::COMMON::FileLock lock(QFile::encodeName(r + "/tmp/kavo_app_conf.lck").constData()), missing(QFile::encodeName(r + "/no/x").constData());
            const int other = open(QFile::encodeName(r + "/tmp/kavo_app_conf.lck").constData(), O_RDONLY | O_CLOEXEC);
            put((fcntl(lock.fd(), F_GETFD) & FD_CLOEXEC) != 0), put(flock(other, LOCK_SH | LOCK_NB)), put(flock(other, LOCK_UN));
            auto locker = std::make_unique<TOOL::COMMON::FileLocker>(lock);
            put(flock(other, LOCK_EX | LOCK_NB)), locker.reset(), put(flock(other, LOCK_EX | LOCK_NB));
            put(TOOL::COMMON::FileLocker(missing).locked() || TOOL::COMMON::FileLock(nullptr).fd() != -1);
            close(other);
        } else if (verb == "exists") { // a link counts, even one whose target is gone
            put(QFileInfo::exists(r + '/' + arg) || QFileInfo(r + '/' + arg).isSymLink());
        } else if (verb == "reboot") {
            put(platform::rebootPanel() == -1 ? errno : 0);
        }
    }
    QCOMPARE(result.join(' '), expected.replace("{R}", r));
}

void tst_Platform::elfArch_data()
{
    QTest::addColumn<QString>("path"); // null: `image` is written to a file
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("expected");
    auto file = [](const char* name, const QString& path, int expected) { QTest::newRow(name) << path << QByteArray() << expected; };
    auto image = [](const char* name, const QByteArray& data, int expected) { QTest::newRow(name) << QString() << data << expected; };
    auto attrs = [&](const char* name, const QByteArray& section, int expected) { image(name, kit::armElfImageWithSection(section), expected); };
    QVERIFY2(QFile::exists(kArmelLibc), "the ARM C libraries are missing: run tools/install-deps.sh");
    QCOMPARE(mkfifo(QFile::encodeName(m_dir.path() + "/fifo").constData(), 0600), 0);

    file("armel libc", kArmelLibc, 4);
    // A file past 2 GiB (here a hole after the library) in a 32-bit build.
    const QString big = m_dir.path() + "/big.so";
    QVERIFY(QFile::copy(kArmelLibc, big) && QFile(big).resize((qint64(1) << 31) + 4096));
    file("armel libc beyond 2 GiB", big, 4);
    file("this build's own executable", QCoreApplication::applicationFilePath(), OPX_OWN_PLATFORM);
    file("x86-64 executable", "/bin/true", -1);
    file("missing", m_dir.path() + "/missing.so", -1);
    file("fifo, not waited for", m_dir.path() + "/fifo", -1);
    image("text file", "not an ELF file\n", -1);
    image("named but without file data", kit::armElfImageWithSection(kit::armAttributesSection(10), 8), -1);

    // Each skipped value holds bytes that look like another Tag_CPU_arch.
    const QByteArray arch10 = tag(6, uleb(10));
    const QByteArray symbols = le32(1) + QByteArray(1, '\0') + tag(6, uleb(3)); // a symbol list, then a value
    attrs("after Tag_CPU_raw_name", fileAttributes(tag(4, text("a\x06\x03")) + arch10), 10);
    attrs("after Tag_compatibility", fileAttributes(tag(32, uleb(1) + text("\x06\x04")) + arch10), 10);
    attrs("after unknown odd tag 69", fileAttributes(tag(69, text("\x06\x07")) + arch10), 10);
    attrs("after unknown even tag 68", fileAttributes(tag(68, QByteArray("\x86\x06", 2)) + arch10), 10);
    attrs("scope tag unterminated", "A" + vendor("aeabi", QByteArray("\x81", 1)), -1);
    attrs("value with redundant bytes", fileAttributes(tag(6, QByteArray("\x8a\x80\x00", 3))), 10);
    attrs("value above int", fileAttributes(tag(6, uleb(quint64(1) << 31))), -1);
    attrs("value beyond 64 bits", fileAttributes(tag(6, QByteArray(12, '\xff') + QByteArray("\x01", 1))), -1);
    attrs("symbol scope only", "A" + vendor("aeabi", scope(3, symbols)), -1);
    attrs("second file scope", "A" + vendor("aeabi", scope(1, tag(8, uleb(1))) + scope(1, arch10)), 10);
    attrs("other vendor first", "A" + vendor("gnu", scope(1, tag(6, uleb(3)))) + vendor("aeabi", scope(1, arch10)), 10);
    attrs("vendor aeabix", "A" + vendor("aeabix", scope(1, arch10)), -1);
    attrs("format version B", "B" + vendor("aeabi", scope(1, arch10)), -1);
    attrs("subsection length 3", "A" + le32(3) + text("aeabi") + scope(1, arch10), -1);
    attrs("subsection length past end", "A" + le32(200) + text("aeabi") + scope(1, arch10), -1);
    attrs("vendor name unterminated", "A" + le32(9) + QByteArray("aeabi"), -1);
    attrs("scope length below its header", "A" + vendor("aeabi", uleb(1) + le32(4) + arch10), -1);
    attrs("scope length past vendor", "A" + vendor("aeabi", uleb(1) + le32(100) + arch10), -1);
    attrs("value unterminated", fileAttributes(tag(6, QByteArray("\x8a", 1))), -1);
    attrs("compatibility name unterminated", fileAttributes(tag(32, uleb(1) + QByteArray("gnu"))), -1);

    // Damaged headers. Section 0 is reserved, 1 holds the attributes, 2 the section names.
    const QByteArray good = kit::armElfImage(10);
    const QByteArray byName = kit::armElfImageWithSection(kit::armAttributesSection(10), 1);
    const int h = -1;
    image("big-endian", patched(good, {{h, 5, 1, 2}}), -1);
    image("x86 machine", patched(good, {{h, 18, 2, 3}}), -1);
    image("entry size 39", patched(good, {{h, kShentsize, 2, 39}}), -1);
    image("count 0, 3 in section 0", patched(good, {{0, 20, 4, 3}, {h, kShnum, 2, 0}}), 10);
    image("count 0, 0xffffffff in section 0", patched(good, {{0, 20, 4, 0xffffffff}, {h, kShnum, 2, 0}}), -1);
    image("names index in section 0", patched(byName, {{0, 24, 4, 2}, {h, kShstrndx, 2, 0xffff}}), 10);
    image("names index out of range", patched(byName, {{h, kShstrndx, 2, 7}}), -1);
    image("names offset 0xfffffff0", patched(byName, {{2, 16, 4, 0xfffffff0}}), -1);
    image("name cut by the names' end", patched(byName, {{2, 20, 4, 16}}), -1);
    image("attributes type only in section 0",
          patched(good, {{0, 4, 4, kit::kShtArmAttributes}, {0, 16, 4, 52}, {0, 20, 4, 25}, {1, 4, 4, 1}, {1, 0, 4, 17}}), -1);
    image("attributes size 0xffffffff", patched(good, {{1, 20, 4, 0xffffffff}}), -1);

    // Exactly the limit is read; one byte more is refused.
    QByteArray list;
    while (list.size() < int(platform::sim::kMaxElfSectionBytes) - fileAttributes(QByteArray()).size() - 2)
        list.append(tag(8, uleb(1)));
    attrs("attributes at the size limit", fileAttributes(list + arch10), 10);
    attrs("attributes above the size limit", fileAttributes(tag(8, uleb(1)) + list + arch10), -1);
    const QByteArray manySections = good + QByteArray(0xffff * 40, '\0');
    image("0xffff sections", patched(manySections, {{h, kShnum, 2, 0xffff}}), -1);
    image("1 MiB of section headers", patched(manySections, {{h, kShnum, 2, 1024 * 1024 / 40}}), 10);
}

void tst_Platform::elfArch()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, image);
    QFETCH(int, expected);
    if (path.isNull()) {
        QCOMPARE(platform::sim::elfCpuArchOfImage(image), expected);
        path = m_dir.path() + "/image.so";
        QVERIFY(testenv::writeFile(path, image));
    }
    QCOMPARE(platform::sim::elfCpuArch(QFile::encodeName(path).constData()), expected);
    QCOMPARE(Kavo_GetPlatform_Arch(QFile::encodeName(path).constData()), expected);
}

QTEST_GUILESS_MAIN(tst_Platform)
#include "tst_platform.moc"
