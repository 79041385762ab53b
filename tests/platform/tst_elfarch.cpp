// The platform-code reader: real ARM C libraries, the kit's stand-ins, other
// files, the attribute list's encoding rules, and damaged input: -1, never a
// crash (the sanitizer build catches a read past the end).
#include "platform/kavo_api.h"
#include "platform/sim/elfarch.h"
#include "testenv.h"
#include "tools/kit/armelf.h"

#include <QtEndian>
#include <QtTest>

#include <sys/stat.h>

namespace {

const char kArmhfLibc[] = "/usr/arm-linux-gnueabihf/lib/libc.so.6";
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

// The pieces of an attributes section: a text, a tag with its value, a scope
// (Tag_File 1, Tag_Section 2, Tag_Symbol 3) whose length counts its tag, a
// vendor subsection, the whole section with the file scope of "aeabi".
QByteArray text(const QByteArray& t) { return t + QByteArray(1, '\0'); }
QByteArray tag(quint64 number, const QByteArray& value) { return uleb(number) + value; }
QByteArray scope(quint64 s, const QByteArray& body) { return uleb(s) + le32(quint32(uleb(s).size() + 4 + body.size())) + body; }
QByteArray vendor(const QByteArray& name, const QByteArray& body) { return le32(quint32(5 + name.size() + body.size())) + text(name) + body; }
QByteArray fileAttributes(const QByteArray& list) { return "A" + vendor("aeabi", scope(1, list)); }

// `bytes` little-endian bytes of `value` at `field` of section header
// `section` of the image, or of the ELF header for section -1.
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

class tst_ElfArch : public QObject
{
    Q_OBJECT

private slots:
    void files_data();
    void files();

private:
    QTemporaryDir m_dir;
};

void tst_ElfArch::files_data()
{
    QTest::addColumn<QString>("path"); // null: `image` is written to a file
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("expected");
    auto file = [](const char* name, const QString& path, int expected) { QTest::newRow(name) << path << QByteArray() << expected; };
    auto image = [](const char* name, const QByteArray& data, int expected) { QTest::newRow(name) << QString() << data << expected; };
    auto attrs = [&](const char* name, const QByteArray& section, int expected) { image(name, kit::armElfImageWithSection(section), expected); };
    QVERIFY2(QFile::exists(kArmhfLibc) && QFile::exists(kArmelLibc), "the ARM C libraries are missing: run tools/install-deps.sh");
    QCOMPARE(mkfifo(QFile::encodeName(m_dir.path() + "/fifo").constData(), 0600), 0);

    file("armhf libc", kArmhfLibc, 10);
    file("armel libc", kArmelLibc, 4);
    file("x86-64 executable", "/bin/true", -1);
    file("missing", m_dir.path() + "/missing.so", -1);
    file("directory", m_dir.path(), -1);
    file("fifo, not waited for", m_dir.path() + "/fifo", -1);
    image("kit ARMv5TEJ", kit::armElfImage(5), 5);
    image("kit two-byte value 200", kit::armElfImage(200), 200);
    image("text file", "not an ELF file\n", -1);
    image("found by name alone", kit::armElfImageWithSection(kit::armAttributesSection(10), 1), 10);
    image("named but without file data", kit::armElfImageWithSection(kit::armAttributesSection(10), 8), -1);

    // The attribute list. Each skipped text or number holds bytes that a reader
    // which does not know the tag before takes for another Tag_CPU_arch.
    const QByteArray arch10 = tag(6, uleb(10));
    const QByteArray symbols = le32(1) + QByteArray(1, '\0') + tag(6, uleb(3)); // a symbol list, then a value
    attrs("after Tag_CPU_raw_name", fileAttributes(tag(4, text("a\x06\x03")) + arch10), 10);
    attrs("after Tag_compatibility", fileAttributes(tag(32, uleb(1) + text("\x06\x04")) + arch10), 10);
    attrs("after Tag_also_compatible_with", fileAttributes(tag(65, text("\x06\x05")) + arch10), 10);
    attrs("after unknown odd tag 69", fileAttributes(tag(69, text("\x06\x07")) + arch10), 10);
    attrs("after unknown even tag 68", fileAttributes(tag(68, QByteArray("\x86\x06", 2)) + arch10), 10);
    attrs("tag number beyond 64 bits", fileAttributes(QByteArray(11, '\xff') + QByteArray("\x01", 1) + text("x") + arch10), 10);
    attrs("scope tag unterminated", "A" + vendor("aeabi", QByteArray("\x81", 1)), -1);
    attrs("value with redundant bytes", fileAttributes(tag(6, QByteArray("\x8a\x80\x00", 3))), 10);
    attrs("value above int", fileAttributes(tag(6, uleb(quint64(1) << 31))), -1);
    attrs("value beyond 64 bits", fileAttributes(tag(6, QByteArray(12, '\xff') + QByteArray("\x01", 1))), -1);
    attrs("section scope first", "A" + vendor("aeabi", scope(2, symbols) + scope(1, arch10)), 10);
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
    attrs("text unterminated", fileAttributes(tag(5, QByteArray("7-A"))), -1);
    attrs("compatibility name unterminated", fileAttributes(tag(32, uleb(1) + QByteArray("gnu"))), -1);

    // Damaged headers. Section 0 is reserved, 1 holds the attributes, 2 the section names.
    const QByteArray good = kit::armElfImage(10);
    const QByteArray byName = kit::armElfImageWithSection(kit::armAttributesSection(10), 1);
    const int h = -1;
    image("64-bit class", patched(good, {{h, 4, 1, 2}}), -1);
    image("big-endian", patched(good, {{h, 5, 1, 2}}), -1);
    image("x86 machine", patched(good, {{h, 18, 2, 3}}), -1);
    image("table offset 0xffffffff", patched(good, {{h, kShoff, 4, 0xffffffff}}), -1);
    image("entry size 39", patched(good, {{h, kShentsize, 2, 39}}), -1);
    image("count 0, 3 in section 0", patched(good, {{0, 20, 4, 3}, {h, kShnum, 2, 0}}), 10);
    image("count 0, 0xffffffff in section 0", patched(good, {{0, 20, 4, 0xffffffff}, {h, kShnum, 2, 0}}), -1);
    image("names index in section 0", patched(byName, {{0, 24, 4, 2}, {h, kShstrndx, 2, 0xffff}}), 10);
    image("names index out of range", patched(byName, {{h, kShstrndx, 2, 7}}), -1);
    image("names offset 0xfffffff0", patched(byName, {{2, 16, 4, 0xfffffff0}}), -1);
    image("name offset 0xfffffff0", patched(byName, {{1, 0, 4, 0xfffffff0}}), -1);
    image("name cut by the names' end", patched(byName, {{2, 20, 4, 16}}), -1);
    image("attributes type only in section 0",
          patched(good, {{0, 4, 4, kit::kShtArmAttributes}, {0, 16, 4, 52}, {0, 20, 4, 25}, {1, 4, 4, 1}, {1, 0, 4, 17}}), -1);
    image("attributes size 0xffffffff", patched(good, {{1, 20, 4, 0xffffffff}}), -1);
    image("attributes past end", patched(good, {{1, 16, 4, quint32(good.size() - 10)}}), -1);
    // Real libraries end with their section header table as well.
    image("armhf libc less 41 bytes", testenv::readFile(kArmhfLibc).chopped(41), -1);

    // A section or section header table of exactly the limit is read; one byte
    // more is refused, although it is well formed and lies inside the file.
    QByteArray list;
    while (list.size() < int(platform::sim::kMaxElfSectionBytes) - fileAttributes(QByteArray()).size() - 2)
        list.append(tag(8, uleb(1)));
    attrs("attributes at the size limit", fileAttributes(list + arch10), 10);
    attrs("attributes above the size limit", fileAttributes(tag(8, uleb(1)) + list + arch10), -1);
    const QByteArray manySections = good + QByteArray(0xffff * 40, '\0');
    image("0xffff sections", patched(manySections, {{h, kShnum, 2, 0xffff}}), -1);
    image("1 MiB of section headers", patched(manySections, {{h, kShnum, 2, 1024 * 1024 / 40}}), 10);
}

void tst_ElfArch::files()
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

QTEST_GUILESS_MAIN(tst_ElfArch)
#include "tst_elfarch.moc"
