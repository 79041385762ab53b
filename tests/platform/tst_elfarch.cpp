// The platform-code reader: real ARM C libraries, the kit's stand-ins, other
// files, the attribute list's encoding rules, and broken input of every kind.
#include "platform/kavo_api.h"
#include "platform/sim/elfarch.h"
#include "tools/kit/armelf.h"

#include <QCoreApplication>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using platform::sim::cpuArchOfAttributes;
using platform::sim::elfCpuArch;
using platform::sim::elfCpuArchOfImage;

namespace {

const char kArmhfLibc[] = "/usr/arm-linux-gnueabihf/lib/libc.so.6";
const char kArmelLibc[] = "/usr/arm-linux-gnueabi/lib/libc.so.6";

// Offsets into the kit's image (see kit::armElfImageWithSection).
constexpr int kShoff = 32;
constexpr int kShentsize = 46;
constexpr int kShnum = 48;
constexpr int kShstrndx = 50;

QByteArray uleb(quint64 v)
{
    QByteArray out;
    do {
        char byte = char(v & 0x7f);
        v >>= 7;
        if (v != 0)
            byte = char(byte | 0x80);
        out.append(byte);
    } while (v != 0);
    return out;
}

QByteArray le32(quint32 v)
{
    QByteArray out;
    for (int i = 0; i < 4; ++i)
        out.append(char((v >> (8 * i)) & 0xff));
    return out;
}

QByteArray text(const QByteArray& t)
{
    return t + QByteArray(1, '\0');
}

QByteArray tag(quint64 number, const QByteArray& value)
{
    return uleb(number) + value;
}

// A scope (Tag_File 1, Tag_Section 2, Tag_Symbol 3) whose length counts its tag.
QByteArray scope(quint64 scopeTag, const QByteArray& body)
{
    const QByteArray t = uleb(scopeTag);
    return t + le32(quint32(t.size() + 4 + body.size())) + body;
}

QByteArray vendor(const QByteArray& name, const QByteArray& body)
{
    return le32(quint32(4 + name.size() + 1 + body.size())) + text(name) + body;
}

QByteArray attributes(const QByteArray& subsections)
{
    return QByteArray("A") + subsections;
}

QByteArray fileAttributes(const QByteArray& list)
{
    return attributes(vendor("aeabi", scope(1, list)));
}

void put16(QByteArray& image, int at, quint16 v)
{
    image[at] = char(v & 0xff);
    image[at + 1] = char(v >> 8);
}

void put32(QByteArray& image, int at, quint32 v)
{
    for (int i = 0; i < 4; ++i)
        image[at + i] = char((v >> (8 * i)) & 0xff);
}

quint32 get32(const QByteArray& image, int at)
{
    quint32 v = 0;
    for (int i = 3; i >= 0; --i)
        v = v << 8 | quint8(image.at(at + i));
    return v;
}

// Offset of field `field` of section header `index` in the kit's image.
int sectionField(const QByteArray& image, int index, int field)
{
    return int(get32(image, kShoff)) + 40 * index + field;
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size() && file.flush();
}

} // namespace

class tst_ElfArch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void files_data();
    void files();
    void attributeEncoding_data();
    void attributeEncoding();
    void damagedHeaders_data();
    void damagedHeaders();
    void sectionSizeLimit();
    void fifoDoesNotBlock();
    void everyTruncationOfKitImage();
    void truncatedRealLibrary();
    void everyByteOfKitImage();
    void randomFlipsOfKitImage();
    void randomFlipsOfRealLibrary();

private:
    QTemporaryDir m_dir;
};

void tst_ElfArch::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(QFile::exists(kArmhfLibc) && QFile::exists(kArmelLibc),
             "the ARM C libraries are missing: run tools/install-deps.sh");
}

void tst_ElfArch::files_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("content"); // written to `path` unless empty
    QTest::addColumn<int>("expected");

    const QString dir = m_dir.path();
    QTest::newRow("armhf libc") << QString(kArmhfLibc) << QByteArray() << 10;
    QTest::newRow("armel libc") << QString(kArmelLibc) << QByteArray() << 4;
    QTest::newRow("kit ARMv5TEJ") << dir + "/v5.so" << kit::armElfImage(5) << 5;
    QTest::newRow("kit ARMv7") << dir + "/v7.so" << kit::armElfImage(10) << 10;
    QTest::newRow("kit pre-v4 (0)") << dir + "/v0.so" << kit::armElfImage(0) << 0;
    QTest::newRow("kit two-byte value 200") << dir + "/v200.so" << kit::armElfImage(200) << 200;
    QTest::newRow("found by name alone") << dir + "/byname.so"
                                         << kit::armElfImageWithSection(kit::armAttributesSection(10), 1) << 10;
    QTest::newRow("named but without file data") << dir + "/nobits.so"
                                                 << kit::armElfImageWithSection(kit::armAttributesSection(10), 8) << -1;
    QTest::newRow("x86-64 executable") << QString("/bin/true") << QByteArray() << -1;
    QTest::newRow("this test program") << QCoreApplication::applicationFilePath() << QByteArray() << -1;
    QTest::newRow("text file") << dir + "/text" << QByteArray("not an ELF file\n") << -1;
    QTest::newRow("only the magic") << dir + "/magic" << QByteArray("\x7f" "ELF") << -1;
    QTest::newRow("missing") << dir + "/missing.so" << QByteArray() << -1;
    QTest::newRow("directory") << dir << QByteArray() << -1;
    QTest::newRow("empty path") << QString() << QByteArray() << -1;
}

void tst_ElfArch::files()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, content);
    QFETCH(int, expected);
    if (!content.isEmpty())
        QVERIFY(writeFile(path, content));
    QCOMPARE(elfCpuArch(path.toUtf8().constData()), expected);
    QCOMPARE(Kavo_GetPlatform_Arch(path.toUtf8().constData()), expected);
    if (!content.isEmpty())
        QCOMPARE(elfCpuArchOfImage(content), expected);
}

void tst_ElfArch::attributeEncoding_data()
{
    QTest::addColumn<QByteArray>("section");
    QTest::addColumn<int>("expected");

    const QByteArray arch10 = tag(6, uleb(10));
    // Each text or number below holds bytes that a reader which skips the tag
    // wrongly takes for a Tag_CPU_arch of another value.
    QTest::newRow("plain") << fileAttributes(arch10) << 10;
    QTest::newRow("after Tag_CPU_raw_name") << fileAttributes(tag(4, text("a\x06\x03")) + arch10) << 10;
    QTest::newRow("after Tag_CPU_name") << fileAttributes(tag(5, text("a\x06\x02")) + arch10) << 10;
    QTest::newRow("after Tag_compatibility") << fileAttributes(tag(32, uleb(1) + text("\x06\x04")) + arch10) << 10;
    QTest::newRow("after Tag_also_compatible_with") << fileAttributes(tag(65, text("\x06\x05")) + arch10) << 10;
    QTest::newRow("after Tag_conformance") << fileAttributes(tag(67, text("\x06\x01")) + arch10) << 10;
    QTest::newRow("after unknown odd tag 69") << fileAttributes(tag(69, text("\x06\x07")) + arch10) << 10;
    QTest::newRow("after unknown even tag 68") << fileAttributes(tag(68, QByteArray("\x86\x06", 2)) + arch10) << 10;
    QTest::newRow("after unknown tag 25 below 32") << fileAttributes(tag(25, uleb(2)) + arch10) << 10;
    QTest::newRow("after known ULEB tags") << fileAttributes(tag(8, uleb(1)) + tag(9, uleb(2)) + arch10) << 10;
    QTest::newRow("tag number beyond 64 bits")
        << fileAttributes(QByteArray(11, '\xff') + QByteArray("\x01", 1) + text("x") + arch10) << 10;
    QTest::newRow("value in two bytes") << fileAttributes(tag(6, uleb(300))) << 300;
    QTest::newRow("value with redundant bytes") << fileAttributes(tag(6, QByteArray("\x8a\x80\x00", 3))) << 10;
    QTest::newRow("value above int") << fileAttributes(tag(6, uleb(quint64(1) << 31))) << -1;
    QTest::newRow("value beyond 64 bits") << fileAttributes(tag(6, QByteArray(12, '\xff') + QByteArray("\x01", 1))) << -1;
    QTest::newRow("section scope first")
        << attributes(vendor("aeabi", scope(2, le32(1) + QByteArray("\0", 1) + tag(6, uleb(3))) + scope(1, arch10))) << 10;
    QTest::newRow("symbol scope only") << attributes(vendor("aeabi", scope(3, le32(1) + QByteArray("\0", 1) + tag(6, uleb(3))))) << -1;
    QTest::newRow("second file scope") << attributes(vendor("aeabi", scope(1, tag(8, uleb(1))) + scope(1, arch10))) << 10;
    QTest::newRow("no Tag_CPU_arch") << fileAttributes(tag(5, text("7-A")) + tag(8, uleb(1))) << -1;
    QTest::newRow("empty file scope") << fileAttributes(QByteArray()) << -1;
    QTest::newRow("other vendor first") << attributes(vendor("gnu", scope(1, tag(6, uleb(3)))) + vendor("aeabi", scope(1, arch10))) << 10;
    QTest::newRow("other vendor only") << attributes(vendor("gnu", scope(1, tag(6, uleb(3))))) << -1;
    QTest::newRow("vendor aeabix") << attributes(vendor("aeabix", scope(1, arch10))) << -1;
    QTest::newRow("vendor aeab") << attributes(vendor("aeab", scope(1, arch10))) << -1;
    QTest::newRow("format version B") << QByteArray("B") + vendor("aeabi", scope(1, arch10)) << -1;
    QTest::newRow("empty section") << QByteArray() << -1;
    QTest::newRow("version byte only") << QByteArray("A") << -1;
    QTest::newRow("subsection length 0") << attributes(le32(0) + text("aeabi") + scope(1, arch10)) << -1;
    QTest::newRow("subsection length 3") << attributes(le32(3) + text("aeabi") + scope(1, arch10)) << -1;
    QTest::newRow("subsection length past end") << attributes(le32(200) + text("aeabi") + scope(1, arch10)) << -1;
    QTest::newRow("subsection length 0xffffffff") << attributes(le32(0xffffffff) + text("aeabi") + scope(1, arch10)) << -1;
    QTest::newRow("subsection length cut") << attributes(QByteArray("\x10\x00", 2)) << -1;
    QTest::newRow("vendor name unterminated") << attributes(le32(9) + QByteArray("aeabi")) << -1;
    QTest::newRow("scope length 0") << attributes(vendor("aeabi", uleb(1) + le32(0) + arch10)) << -1;
    QTest::newRow("scope length below its header") << attributes(vendor("aeabi", uleb(1) + le32(4) + arch10)) << -1;
    QTest::newRow("scope length past vendor") << attributes(vendor("aeabi", uleb(1) + le32(100) + arch10)) << -1;
    QTest::newRow("scope length cut") << attributes(vendor("aeabi", uleb(1) + QByteArray("\x09\x00", 2))) << -1;
    QTest::newRow("scope tag unterminated") << attributes(vendor("aeabi", QByteArray("\x81", 1))) << -1;
    QTest::newRow("value unterminated") << fileAttributes(tag(6, QByteArray("\x8a", 1))) << -1;
    QTest::newRow("value missing") << fileAttributes(uleb(6)) << -1;
    QTest::newRow("text unterminated") << fileAttributes(tag(5, QByteArray("7-A"))) << -1;
    QTest::newRow("compatibility name unterminated") << fileAttributes(tag(32, uleb(1) + QByteArray("gnu"))) << -1;
    QTest::newRow("attribute tag unterminated") << fileAttributes(QByteArray("\x88", 1)) << -1;
    QTest::newRow("corrupt after the value") << fileAttributes(arch10 + QByteArray("\x88", 1)) << 10;
}

void tst_ElfArch::attributeEncoding()
{
    QFETCH(QByteArray, section);
    QFETCH(int, expected);
    QCOMPARE(cpuArchOfAttributes(section), expected);
    const QByteArray image = kit::armElfImageWithSection(section);
    QCOMPARE(elfCpuArchOfImage(image), expected);
    const QString path = m_dir.path() + "/attributes.so";
    QVERIFY(writeFile(path, image));
    QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), expected);
}

void tst_ElfArch::damagedHeaders_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("expected");

    const QByteArray good = kit::armElfImage(10);
    const QByteArray byName = kit::armElfImageWithSection(kit::armAttributesSection(10), 1);
    auto patched = [](QByteArray image, auto change) {
        change(image);
        return image;
    };

    QTest::newRow("intact") << good << 10;
    QTest::newRow("64-bit class") << patched(good, [](QByteArray& i) { i[4] = 2; }) << -1;
    QTest::newRow("big-endian") << patched(good, [](QByteArray& i) { i[5] = 2; }) << -1;
    QTest::newRow("x86 machine") << patched(good, [](QByteArray& i) { put16(i, 18, 3); }) << -1;
    QTest::newRow("bad magic") << patched(good, [](QByteArray& i) { i[1] = 'e'; }) << -1;
    QTest::newRow("no section table") << patched(good, [](QByteArray& i) { put32(i, kShoff, 0); }) << -1;
    QTest::newRow("table offset 0xffffffff") << patched(good, [](QByteArray& i) { put32(i, kShoff, 0xffffffff); }) << -1;
    QTest::newRow("table runs past end")
        << patched(good, [](QByteArray& i) { put32(i, kShoff, quint32(i.size() - 40)); }) << -1;
    QTest::newRow("entry size 0") << patched(good, [](QByteArray& i) { put16(i, kShentsize, 0); }) << -1;
    QTest::newRow("entry size 39") << patched(good, [](QByteArray& i) { put16(i, kShentsize, 39); }) << -1;
    QTest::newRow("entry size 0xffff") << patched(good, [](QByteArray& i) { put16(i, kShentsize, 0xffff); }) << -1;
    QTest::newRow("count 0xfeff") << patched(good, [](QByteArray& i) { put16(i, kShnum, 0xfeff); }) << -1;
    QTest::newRow("count 0, none in section 0") << patched(good, [](QByteArray& i) { put16(i, kShnum, 0); }) << -1;
    QTest::newRow("count 0, 3 in section 0") << patched(good, [](QByteArray& i) {
        put16(i, kShnum, 0);
        put32(i, sectionField(i, 0, 20), 3);
    }) << 10;
    QTest::newRow("count 0, 0xffffffff in section 0") << patched(good, [](QByteArray& i) {
        put16(i, kShnum, 0);
        put32(i, sectionField(i, 0, 20), 0xffffffff);
    }) << -1;
    QTest::newRow("names index in section 0") << patched(byName, [](QByteArray& i) {
        put16(i, kShstrndx, 0xffff);
        put32(i, sectionField(i, 0, 24), 2);
    }) << 10;
    QTest::newRow("names index 0xffffffff in section 0") << patched(byName, [](QByteArray& i) {
        put16(i, kShstrndx, 0xffff);
        put32(i, sectionField(i, 0, 24), 0xffffffff);
    }) << -1;
    QTest::newRow("names index out of range") << patched(byName, [](QByteArray& i) { put16(i, kShstrndx, 7); }) << -1;
    QTest::newRow("names index 0") << patched(byName, [](QByteArray& i) { put16(i, kShstrndx, 0); }) << -1;
    QTest::newRow("names offset 0xfffffff0")
        << patched(byName, [](QByteArray& i) { put32(i, sectionField(i, 2, 16), 0xfffffff0); }) << -1;
    QTest::newRow("names size 0xffffffff")
        << patched(byName, [](QByteArray& i) { put32(i, sectionField(i, 2, 20), 0xffffffff); }) << -1;
    QTest::newRow("name offset 0xfffffff0")
        << patched(byName, [](QByteArray& i) { put32(i, sectionField(i, 1, 0), 0xfffffff0); }) << -1;
    QTest::newRow("name cut by the names' end")
        << patched(byName, [](QByteArray& i) { put32(i, sectionField(i, 2, 20), 16); }) << -1;
    QTest::newRow("neither type nor name")
        << patched(byName, [](QByteArray& i) { put32(i, sectionField(i, 1, 0), 17); }) << -1;
    QTest::newRow("attributes type only in section 0") << patched(good, [](QByteArray& i) {
        put32(i, sectionField(i, 0, 4), 0x70000003);
        put32(i, sectionField(i, 0, 16), 52);
        put32(i, sectionField(i, 0, 20), 25);
        put32(i, sectionField(i, 1, 4), 1);
        put32(i, sectionField(i, 1, 0), 17);
    }) << -1;
    QTest::newRow("attributes offset 0xfffffff0")
        << patched(good, [](QByteArray& i) { put32(i, sectionField(i, 1, 16), 0xfffffff0); }) << -1;
    QTest::newRow("attributes size 0xffffffff")
        << patched(good, [](QByteArray& i) { put32(i, sectionField(i, 1, 20), 0xffffffff); }) << -1;
    QTest::newRow("attributes size 0") << patched(good, [](QByteArray& i) { put32(i, sectionField(i, 1, 20), 0); }) << -1;
    QTest::newRow("attributes past end")
        << patched(good, [](QByteArray& i) { put32(i, sectionField(i, 1, 16), quint32(i.size() - 10)); }) << -1;
}

void tst_ElfArch::damagedHeaders()
{
    QFETCH(QByteArray, image);
    QFETCH(int, expected);
    QCOMPARE(elfCpuArchOfImage(image), expected);
    const QString path = m_dir.path() + "/damaged.so";
    QVERIFY(writeFile(path, image));
    QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), expected);
}

// A section of exactly the limit is read; one byte more is refused, although
// it is well formed and lies inside the file. Likewise for the table.
void tst_ElfArch::sectionSizeLimit()
{
    const QByteArray head = attributes(vendor("aeabi", scope(1, QByteArray())));
    const int fill = int(platform::sim::kMaxElfSectionBytes) - head.size() - 2;
    QByteArray list;
    list.reserve(fill + 2);
    while (list.size() < fill)
        list.append(tag(8, uleb(1)));
    list.append(tag(6, uleb(10)));
    const QByteArray atLimit = fileAttributes(list);
    QCOMPARE(qint64(atLimit.size()), platform::sim::kMaxElfSectionBytes);
    const QByteArray aboveLimit = fileAttributes(tag(8, uleb(1)) + tag(8, uleb(1)) + list);
    QVERIFY(aboveLimit.size() > platform::sim::kMaxElfSectionBytes);

    QCOMPARE(elfCpuArchOfImage(kit::armElfImageWithSection(atLimit)), 10);
    QCOMPARE(elfCpuArchOfImage(kit::armElfImageWithSection(aboveLimit)), -1);
    const QString path = m_dir.path() + "/large.so";
    QVERIFY(writeFile(path, kit::armElfImageWithSection(aboveLimit)));
    QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), -1);

    // The same holds for the section header table: 0xffff entries of 40 bytes
    // fit in this file, and the three real ones lead them.
    QByteArray manySections = kit::armElfImage(10);
    manySections.append(QByteArray(0xffff * 40, '\0'));
    put16(manySections, kShnum, 0xffff);
    QCOMPARE(elfCpuArchOfImage(manySections), -1);
    put16(manySections, kShnum, 1024 * 1024 / 40);
    QCOMPARE(elfCpuArchOfImage(manySections), 10);
}

void tst_ElfArch::fifoDoesNotBlock()
{
    const QString path = m_dir.path() + "/fifo";
    QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), -1);
    QVERIFY(timer.elapsed() < 5000);
}

// The section header table closes the kit's image, so every shorter copy has
// lost part of it.
void tst_ElfArch::everyTruncationOfKitImage()
{
    for (int arch : {5, 10}) {
        const QByteArray image = kit::armElfImage(arch);
        for (int length = 0; length < image.size(); ++length) {
            if (elfCpuArchOfImage(image.left(length)) != -1)
                QFAIL(qPrintable(QString("length %1 of %2 gave a value").arg(length).arg(image.size())));
        }
        const QString path = m_dir.path() + "/cut.so";
        for (int length : {0, 1, 4, 51, 52, 53, 76, 77, image.size() - 41, image.size() - 40, image.size() - 1}) {
            QVERIFY(writeFile(path, image.left(length)));
            QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), -1);
        }
    }
}

// Real libraries end with their section header table as well; copies are cut
// from the full length downwards in place.
void tst_ElfArch::truncatedRealLibrary()
{
    for (const char* source : {kArmhfLibc, kArmelLibc}) {
        const QString path = m_dir.path() + "/libc-cut.so";
        QFile::remove(path);
        QVERIFY(QFile::copy(source, path));
        QFile file(path);
        const qint64 size = file.size();
        QVERIFY(size > 100000);
        QList<qint64> lengths = {size - 1, size - 40, size - 41, size - 1000, size - 5000, size / 2,
                                 4096, 53, 52, 51, 16, 4, 1, 0};
        for (qint64 length : lengths) {
            QVERIFY(file.resize(length));
            QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), -1);
        }
    }
}

// Every byte of the image set to a few telling values, one at a time.
void tst_ElfArch::everyByteOfKitImage()
{
    const QByteArray image = kit::armElfImage(10);
    int stillTen = 0;
    for (int at = 0; at < image.size(); ++at) {
        for (char value : {'\x00', '\x01', '\x7f', '\x80', '\xff', char(image.at(at) ^ 0x01)}) {
            QByteArray damaged = image;
            damaged[at] = value;
            const int result = elfCpuArchOfImage(damaged);
            QVERIFY2(result >= -1, qPrintable(QString("byte %1 set to %2").arg(at).arg(int(quint8(value)))));
            stillTen += result == 10 ? 1 : 0;
        }
    }
    // Padding, unused header fields and tags after the value change nothing.
    QVERIFY(stillTen > 0);
}

void tst_ElfArch::randomFlipsOfKitImage()
{
    QRandomGenerator random(20240611);
    const QByteArray image = kit::armElfImage(5);
    for (int round = 0; round < 20000; ++round) {
        QByteArray damaged = image;
        const int flips = 1 + random.bounded(4);
        for (int i = 0; i < flips; ++i) {
            const int at = random.bounded(damaged.size());
            damaged[at] = char(damaged.at(at) ^ (1 + random.bounded(255)));
        }
        const int result = elfCpuArchOfImage(damaged);
        QVERIFY2(result >= -1, qPrintable(QString("round %1").arg(round)));
    }
}

// Flips in the parts the reader looks at: the ELF header, the section header
// table and the attributes section (found by its vendor name).
void tst_ElfArch::randomFlipsOfRealLibrary()
{
    QRandomGenerator random(7);
    for (const char* source : {kArmhfLibc, kArmelLibc}) {
        const QString path = m_dir.path() + "/libc-flip.so";
        QFile::remove(path);
        QVERIFY(QFile::copy(source, path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        const qint64 size = file.size();
        const QByteArray header = file.read(52);
        const qint64 tableOffset = get32(header, kShoff);
        QVERIFY(tableOffset > 0 && tableOffset < size);
        const qint64 tailStart = qMax<qint64>(0, tableOffset - 16384);
        QVERIFY(file.seek(tailStart));
        const qint64 vendorAt = file.read(tableOffset - tailStart).lastIndexOf(QByteArray("aeabi", 6));
        QVERIFY(vendorAt > 5);
        const qint64 attributesAt = tailStart + vendorAt - 5;
        const QList<QPair<qint64, qint64>> regions = {{0, 52}, {tableOffset, size - tableOffset}, {attributesAt, 64}};

        for (int round = 0; round < 300; ++round) {
            QList<QPair<qint64, char>> saved;
            const int flips = 1 + random.bounded(3);
            for (int i = 0; i < flips; ++i) {
                const auto& region = regions.at(random.bounded(regions.size()));
                const qint64 at = region.first + random.bounded(int(region.second));
                QVERIFY(file.seek(at));
                char byte = 0;
                QVERIFY(file.getChar(&byte));
                saved.prepend({at, byte});
                QVERIFY(file.seek(at));
                QVERIFY(file.putChar(char(byte ^ (1 + random.bounded(255)))));
            }
            QVERIFY(file.flush());
            const int result = elfCpuArch(QFile::encodeName(path).constData());
            QVERIFY2(result >= -1, qPrintable(QString("round %1").arg(round)));
            for (const auto& s : saved) {
                QVERIFY(file.seek(s.first));
                QVERIFY(file.putChar(s.second));
            }
        }
        QVERIFY(file.flush());
        QCOMPARE(elfCpuArch(QFile::encodeName(path).constData()), source == kArmhfLibc ? 10 : 4);
    }
}

QTEST_GUILESS_MAIN(tst_ElfArch)
#include "tst_elfarch.moc"
