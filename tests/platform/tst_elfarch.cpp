// The platform-code reader: real ARM C libraries, the kit's stand-ins, other
// files, the attribute list's encoding rules, and broken input of every kind:
// -1, never a crash (the sanitizer build catches a read past the end).
#include "platform/kavo_api.h"
#include "platform/sim/elfarch.h"
#include "testenv.h"
#include "tools/kit/armelf.h"

#include <QCoreApplication>
#include <QRandomGenerator>
#include <QtEndian>
#include <QtTest>

#include <sys/stat.h>

using platform::sim::elfCpuArch;
using platform::sim::elfCpuArchOfImage;

namespace {

const char kArmhfLibc[] = "/usr/arm-linux-gnueabihf/lib/libc.so.6";
const char kArmelLibc[] = "/usr/arm-linux-gnueabi/lib/libc.so.6";

// Offsets into the ELF header.
constexpr int kShoff = 32;
constexpr int kShentsize = 46;
constexpr int kShnum = 48;
constexpr int kShstrndx = 50;

int fileArch(const QString& path)
{
    return elfCpuArch(QFile::encodeName(path).constData());
}

QByteArray uleb(quint64 v)
{
    QByteArray out;
    do {
        out.append(char((v & 0x7f) | (v > 0x7f ? 0x80 : 0)));
        v >>= 7;
    } while (v != 0);
    return out;
}

QByteArray le32(quint32 v)
{
    const char bytes[4] = {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
    return QByteArray(bytes, 4);
}

quint32 get32(const QByteArray& image, int at)
{
    return qFromLittleEndian<quint32>(image.constData() + at);
}

// The pieces of an attributes section: a text, a tag with its value, a scope
// (Tag_File 1, Tag_Section 2, Tag_Symbol 3) whose length counts its tag, a
// vendor subsection, the whole section.
QByteArray text(const QByteArray& t) { return t + QByteArray(1, '\0'); }
QByteArray tag(quint64 number, const QByteArray& value) { return uleb(number) + value; }
QByteArray scope(quint64 scopeTag, const QByteArray& body)
{
    return uleb(scopeTag) + le32(quint32(uleb(scopeTag).size() + 4 + body.size())) + body;
}
QByteArray vendor(const QByteArray& name, const QByteArray& body)
{
    return le32(quint32(4 + name.size() + 1 + body.size())) + text(name) + body;
}
QByteArray attributes(const QByteArray& subsections) { return QByteArray("A") + subsections; }
QByteArray fileAttributes(const QByteArray& list) { return attributes(vendor("aeabi", scope(1, list))); }

// Little-endian `bytes` bytes of `value` at `field` of section header `section`
// of the kit's image, or of the ELF header for section -1.
struct Patch { int section; int field; int bytes; quint32 value; };

QByteArray patched(QByteArray image, std::initializer_list<Patch> patches)
{
    for (const Patch& p : patches) {
        const int at = (p.section < 0 ? 0 : int(get32(image, kShoff)) + 40 * p.section) + p.field;
        for (int i = 0; i < p.bytes; ++i)
            image[at + i] = char(p.value >> (8 * i));
    }
    return image;
}

} // namespace

class tst_ElfArch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void files_data();
    void files();
    void sectionSizeLimit();
    void fifoDoesNotBlock();
    void damagedKitImage();
    void damagedRealLibrary_data();
    void damagedRealLibrary();

private:
    QTemporaryDir m_dir;
};

void tst_ElfArch::initTestCase()
{
    QVERIFY2(QFile::exists(kArmhfLibc) && QFile::exists(kArmelLibc),
             "the ARM C libraries are missing: run tools/install-deps.sh");
}

void tst_ElfArch::files_data()
{
    QTest::addColumn<QString>("path");     // null: `image` is written to a file
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("expected");
    auto file = [](const char* name, const QString& path, int expected) { QTest::newRow(name) << path << QByteArray() << expected; };
    auto image = [](const char* name, const QByteArray& data, int expected) { QTest::newRow(name) << QString() << data << expected; };
    auto attrs = [&](const char* name, const QByteArray& section, int expected) { image(name, kit::armElfImageWithSection(section), expected); };

    file("armhf libc", kArmhfLibc, 10);
    file("armel libc", kArmelLibc, 4);
    file("x86-64 executable", "/bin/true", -1);
    file("this test program", QCoreApplication::applicationFilePath(), -1);
    file("missing", m_dir.path() + "/missing.so", -1);
    file("directory", m_dir.path(), -1);
    image("kit ARMv5TEJ", kit::armElfImage(5), 5);
    image("kit ARMv7", kit::armElfImage(10), 10);
    image("kit pre-v4 (0)", kit::armElfImage(0), 0);
    image("kit two-byte value 200", kit::armElfImage(200), 200);
    image("text file", "not an ELF file\n", -1);
    image("found by name alone", kit::armElfImageWithSection(kit::armAttributesSection(10), 1), 10);
    image("named but without file data", kit::armElfImageWithSection(kit::armAttributesSection(10), 8), -1);

    // The attribute list. Each skipped text or number holds bytes that a reader
    // which does not know the tag before takes for another Tag_CPU_arch.
    const QByteArray arch10 = tag(6, uleb(10));
    const QByteArray symbols = le32(1) + QByteArray(1, '\0') + tag(6, uleb(3)); // a symbol list, then a value
    attrs("plain", fileAttributes(arch10), 10);
    attrs("after Tag_CPU_raw_name", fileAttributes(tag(4, text("a\x06\x03")) + arch10), 10);
    attrs("after Tag_compatibility", fileAttributes(tag(32, uleb(1) + text("\x06\x04")) + arch10), 10);
    attrs("after Tag_also_compatible_with", fileAttributes(tag(65, text("\x06\x05")) + arch10), 10);
    attrs("after unknown odd tag 69", fileAttributes(tag(69, text("\x06\x07")) + arch10), 10);
    attrs("after unknown even tag 68", fileAttributes(tag(68, QByteArray("\x86\x06", 2)) + arch10), 10);
    attrs("after unknown tag 25 below 32", fileAttributes(tag(25, uleb(2)) + arch10), 10);
    attrs("tag number beyond 64 bits", fileAttributes(QByteArray(11, '\xff') + QByteArray("\x01", 1) + text("x") + arch10), 10);
    attrs("value with redundant bytes", fileAttributes(tag(6, QByteArray("\x8a\x80\x00", 3))), 10);
    attrs("value above int", fileAttributes(tag(6, uleb(quint64(1) << 31))), -1);
    attrs("value beyond 64 bits", fileAttributes(tag(6, QByteArray(12, '\xff') + QByteArray("\x01", 1))), -1);
    attrs("section scope first", attributes(vendor("aeabi", scope(2, symbols) + scope(1, arch10))), 10);
    attrs("symbol scope only", attributes(vendor("aeabi", scope(3, symbols))), -1);
    attrs("second file scope", attributes(vendor("aeabi", scope(1, tag(8, uleb(1))) + scope(1, arch10))), 10);
    attrs("other vendor first", attributes(vendor("gnu", scope(1, tag(6, uleb(3)))) + vendor("aeabi", scope(1, arch10))), 10);
    attrs("vendor aeabix", attributes(vendor("aeabix", scope(1, arch10))), -1);
    attrs("vendor aeab", attributes(vendor("aeab", scope(1, arch10))), -1);
    attrs("format version B", QByteArray("B") + vendor("aeabi", scope(1, arch10)), -1);
    attrs("subsection length 3", attributes(le32(3) + text("aeabi") + scope(1, arch10)), -1);
    attrs("subsection length past end", attributes(le32(200) + text("aeabi") + scope(1, arch10)), -1);
    attrs("subsection length 0xffffffff", attributes(le32(0xffffffff) + text("aeabi") + scope(1, arch10)), -1);
    attrs("vendor name unterminated", attributes(le32(9) + QByteArray("aeabi")), -1);
    attrs("scope length below its header", attributes(vendor("aeabi", uleb(1) + le32(4) + arch10)), -1);
    attrs("scope length past vendor", attributes(vendor("aeabi", uleb(1) + le32(100) + arch10)), -1);
    attrs("scope tag unterminated", attributes(vendor("aeabi", QByteArray("\x81", 1))), -1);
    attrs("value unterminated", fileAttributes(tag(6, QByteArray("\x8a", 1))), -1);
    attrs("text unterminated", fileAttributes(tag(5, QByteArray("7-A"))), -1);
    attrs("compatibility name unterminated", fileAttributes(tag(32, uleb(1) + QByteArray("gnu"))), -1);
    attrs("corrupt after the value", fileAttributes(arch10 + QByteArray("\x88", 1)), 10);

    // Headers. Section 0 is reserved, 1 holds the attributes, 2 the section names.
    const QByteArray good = kit::armElfImage(10);
    const QByteArray byName = kit::armElfImageWithSection(kit::armAttributesSection(10), 1);
    const int h = -1;
    image("64-bit class", patched(good, {{h, 4, 1, 2}}), -1);
    image("big-endian", patched(good, {{h, 5, 1, 2}}), -1);
    image("x86 machine", patched(good, {{h, 18, 2, 3}}), -1);
    image("table offset 0xffffffff", patched(good, {{h, kShoff, 4, 0xffffffff}}), -1);
    image("table runs past end", patched(good, {{h, kShoff, 4, quint32(good.size() - 40)}}), -1);
    image("entry size 39", patched(good, {{h, kShentsize, 2, 39}}), -1);
    image("entry size 0xffff", patched(good, {{h, kShentsize, 2, 0xffff}}), -1);
    image("count 0xfeff", patched(good, {{h, kShnum, 2, 0xfeff}}), -1);
    image("count 0, 3 in section 0", patched(good, {{0, 20, 4, 3}, {h, kShnum, 2, 0}}), 10);
    image("count 0, 0xffffffff in section 0", patched(good, {{0, 20, 4, 0xffffffff}, {h, kShnum, 2, 0}}), -1);
    image("names index in section 0", patched(byName, {{0, 24, 4, 2}, {h, kShstrndx, 2, 0xffff}}), 10);
    image("names index 0xffffffff in section 0", patched(byName, {{0, 24, 4, 0xffffffff}, {h, kShstrndx, 2, 0xffff}}), -1);
    image("names index out of range", patched(byName, {{h, kShstrndx, 2, 7}}), -1);
    image("names offset 0xfffffff0", patched(byName, {{2, 16, 4, 0xfffffff0}}), -1);
    image("names size 0xffffffff", patched(byName, {{2, 20, 4, 0xffffffff}}), -1);
    image("name offset 0xfffffff0", patched(byName, {{1, 0, 4, 0xfffffff0}}), -1);
    image("name cut by the names' end", patched(byName, {{2, 20, 4, 16}}), -1);
    image("neither type nor name", patched(byName, {{1, 0, 4, 17}}), -1);
    image("attributes type only in section 0",
          patched(good, {{0, 4, 4, kit::kShtArmAttributes}, {0, 16, 4, 52}, {0, 20, 4, 25}, {1, 4, 4, 1}, {1, 0, 4, 17}}), -1);
    image("attributes offset 0xfffffff0", patched(good, {{1, 16, 4, 0xfffffff0}}), -1);
    image("attributes size 0xffffffff", patched(good, {{1, 20, 4, 0xffffffff}}), -1);
    image("attributes past end", patched(good, {{1, 16, 4, quint32(good.size() - 10)}}), -1);
}

void tst_ElfArch::files()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, image);
    QFETCH(int, expected);
    if (path.isNull()) {
        QCOMPARE(elfCpuArchOfImage(image), expected);
        path = m_dir.path() + "/image.so";
        QVERIFY(testenv::writeFile(path, image));
    }
    QCOMPARE(fileArch(path), expected);
    QCOMPARE(Kavo_GetPlatform_Arch(QFile::encodeName(path).constData()), expected);
}

// A section or section header table of exactly the limit is read; one byte
// more is refused, although it is well formed and lies inside the file.
void tst_ElfArch::sectionSizeLimit()
{
    const int fill = int(platform::sim::kMaxElfSectionBytes) - fileAttributes(QByteArray()).size() - 2;
    QByteArray list;
    while (list.size() < fill)
        list.append(tag(8, uleb(1)));
    list.append(tag(6, uleb(10)));
    const QByteArray atLimit = fileAttributes(list);
    QCOMPARE(qint64(atLimit.size()), platform::sim::kMaxElfSectionBytes);
    QCOMPARE(elfCpuArchOfImage(kit::armElfImageWithSection(atLimit)), 10);
    const QByteArray aboveLimit = kit::armElfImageWithSection(fileAttributes(tag(8, uleb(1)) + list));
    QCOMPARE(elfCpuArchOfImage(aboveLimit), -1);
    QVERIFY(testenv::writeFile(m_dir.path() + "/large.so", aboveLimit));
    QCOMPARE(fileArch(m_dir.path() + "/large.so"), -1);

    // 0xffff entries of 40 bytes fit in this file; the three real ones lead them.
    QByteArray manySections = kit::armElfImage(10) + QByteArray(0xffff * 40, '\0');
    QCOMPARE(elfCpuArchOfImage(patched(manySections, {{-1, kShnum, 2, 0xffff}})), -1);
    QCOMPARE(elfCpuArchOfImage(patched(manySections, {{-1, kShnum, 2, 1024 * 1024 / 40}})), 10);
}

void tst_ElfArch::fifoDoesNotBlock()
{
    const QString path = m_dir.path() + "/fifo";
    QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(fileArch(path), -1);
    QVERIFY(timer.elapsed() < 5000);
}

// Every shorter copy of the kit's image has lost part of its section header
// table, which closes the file (files on disk are cut in damagedRealLibrary).
// Every byte set to a few telling values, one at a time, gives -1 or still 10
// (padding, unused fields, tags after the value), unless it is the value itself.
void tst_ElfArch::damagedKitImage()
{
    const QByteArray image = kit::armElfImage(10);
    for (int length = 0; length < image.size(); ++length)
        QVERIFY2(elfCpuArchOfImage(image.left(length)) == -1, qPrintable(QString("length %1").arg(length)));

    const int valueAt = 52 + kit::armAttributesSection(10).indexOf(QByteArray("\x06\x0a", 2)) + 1;
    QCOMPARE(image.at(valueAt), '\x0a');
    int stillTen = 0;
    for (int at = 0; at < image.size(); ++at) {
        for (char value : {'\x00', '\x01', '\x7f', '\x80', '\xff', char(image.at(at) ^ 0x01)}) {
            QByteArray damaged = image;
            damaged[at] = value;
            const int result = elfCpuArchOfImage(damaged);
            const bool allowed = result == -1 || result == 10 || (at == valueAt && result >= 0);
            QVERIFY2(allowed, qPrintable(QString("byte %1 set to %2 gave %3").arg(at).arg(int(quint8(value))).arg(result)));
            stillTen += result == 10 ? 1 : 0;
        }
    }
    QVERIFY(stillTen > 0);
}

void tst_ElfArch::damagedRealLibrary_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("expected");
    QTest::newRow("armhf") << QString(kArmhfLibc) << 10;
    QTest::newRow("armel") << QString(kArmelLibc) << 4;
}

// A copy gets random flips in the parts the reader looks at: the ELF header,
// the section header table and the attributes section (found by its vendor
// name); only a flip in the attributes may give another value than -1 or the
// true one. Then the copy is cut from the full length downwards: real
// libraries end with their section header table as well.
void tst_ElfArch::damagedRealLibrary()
{
    QFETCH(QString, source);
    QFETCH(int, expected);
    const QString path = m_dir.path() + "/libc.so";
    QFile::remove(path);
    QVERIFY(QFile::copy(source, path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    const QByteArray all = file.readAll();
    const int size = all.size();
    const int tableOffset = int(get32(all, kShoff));
    const int attributesAt = all.lastIndexOf(QByteArray("aeabi", 6), tableOffset) - 5;
    QVERIFY(tableOffset > 0 && tableOffset < size && attributesAt > tableOffset - 16384);
    const QList<QPair<int, int>> regions = {{0, 52}, {tableOffset, size - tableOffset}, {attributesAt, 64}};
    QRandomGenerator random(7);
    for (int round = 0; round < 300; ++round) {
        QByteArray damaged = all;
        QList<int> touched;
        bool inAttributes = false;
        for (int flips = 1 + random.bounded(3); flips > 0; --flips) {
            const int region = random.bounded(regions.size());
            touched << regions.at(region).first + random.bounded(regions.at(region).second);
            damaged[touched.last()] = char(damaged.at(touched.last()) ^ (1 + random.bounded(255)));
            inAttributes = inAttributes || region == 2;
        }
        for (int at : qAsConst(touched))
            QVERIFY(file.seek(at) && file.putChar(damaged.at(at)) && file.flush());
        const int result = fileArch(path);
        QVERIFY2(result == -1 || result == expected || (inAttributes && result >= 0),
                 qPrintable(QString("round %1 gave %2").arg(round).arg(result)));
        for (int at : qAsConst(touched))
            QVERIFY(file.seek(at) && file.putChar(all.at(at)) && file.flush());
    }
    QCOMPARE(fileArch(path), expected);

    for (int length : {size - 1, size - 40, size - 41, size - 1000, size / 2, 4096, 53, 52, 51, 4, 0}) {
        QVERIFY(file.resize(length));
        QCOMPARE(fileArch(path), -1);
    }
}

QTEST_GUILESS_MAIN(tst_ElfArch)
#include "tst_elfarch.moc"
