// The text table: the built-in language file as stored and read back, and a language file laid over it.
#include "testenv.h"
#include "text/multilingualmanager.h"

#include <QtTest>

namespace {

// Every default text that the package's documents quote, as the operator sees
// it: line breaks resolved, one backslash in 2098, no trailing blank in 2006.
const QMap<int, QString> kQuotedTexts = {
    {1000, "警告"}, {1001, "提示"}, {1003, "确认"}, {1004, "是"}, {1005, "否"}, {1008, "正在退出到系统设置界面，请稍候..."}, {1010, "系统重启失败!%1"}, {1011, "OPX密码输入"}, {1012, "密码最大长度为20个字符!"}, {1013, "密码输入错误!"},
    {1014, "请输入密码:"}, {1015, "正在退出应用程序，请稍候..."}, {1016, "若长时间无退出可强制执行或继续等待"}, {1017, "强制执行"}, {1018, "重启OPX"}, {2000, "kavoOpx U盘综合功能包"}, {2001, "您正在使用 kavoOpx U盘综合功能包 %1，"},
    {2002, "点击“是”返回到系统设置界面并启动综合功能包，点击“否”退出!"}, {2005, "用户工程下载"}, {2006, "上传工程到U盘"}, {2007, "重启OPX"}, {2008, "终止下载"}, {2009, "开始下载"}, {2010, "退出下载"}, {2011, "正在校验工程数据的完整性..."},
    {2012, "获取下位机平台校验文件失败！"}, {2013, "获取下位机平台信息失败！"}, {2014, "工程配置文件缺失，不能下载，可能原因：\n1.所选工程与触摸屏的平台不匹配。\n2.当前操作程序对应的U盘中工程数据文件不完整。\n建议：重新制作U盘综合功能包。\n3.当前操作程序对应的U盘松动或被拔出。\n"},
    {2015, "平台不兼容，%1的工程只能运行在%1的屏上！"}, {2016, "没有需要下载的文件！"}, {2017, "校验OPX中新工程数据错误，下载失败！"}, {2018, "不能下载，可能原因：\n1.当前操作程序对应的U盘中工程数据文件不完整。\n建议：重新制作U盘综合功能包。\n2.当前操作程序对应的U盘松动或被拔出。"},
    {2019, "U盘综合功能包中工程数据文件不正确，不能下载！"}, {2020, "工程数据完整性校验不通过!\n不能升级！"}, {2021, "工程数据完整性校验通过!"}, {2022, "正在校验工程与下位机系列..."}, {2023, "工程文件配置对应系列有误，请重新做包后重试！"}, {2026, "升级已取消。"},
    {2028, "工程与下位机系列校验通过!"}, {2030, "提示"}, {2031, "U盘包中运行环境有误，是否忽略升级运行环境直接升级工程？\n若需要升级运行环境，请重新做包后重试！"}, {2032, "当前下位机运行环境损坏，是否需要升级运行环境到%1？请确认！"},
    {2033, "当前下位机运行环境版本为：%1，低于当前所选工程附带的运行环境，是否需要升级运行环境到%2？请确认！"}, {2034, "升级运行环境确认"}, {2035, "正在校验工程与运行环境环境版本兼容性..."}, {2036, "工程版本和运行环境版本不兼容！\n不能升级！"}, {2037, "组态环境版本不匹配，请升级组态环境至%1.%2.%3版本！"},
    {2038, "运行环境版本不匹配，请升级运行环境至%1.%2.%3版本！"}, {2039, "工程与运行环境环境版本兼容性校验通过!"}, {2040, "U盘包中运行环境不完整，请重新做包后重试！"}, {2041, "U盘包中运行环境有误，请重新做包后重试！"}, {2042, "U盘包中运行环境系列与工程对应系列不一致，请重新做包后重试！"},
    {2043, "正在升级工程：%1"}, {2044, "正在检测磁盘空间..."}, {2045, "OPX磁盘空间不足!\n升级工程失败!"}, {2046, "正在删除用户文件区数据..."}, {2047, "删除用户文件区数据成功..."}, {2048, "删除用户文件区数据失败!"}, {2049, "用户文件区磁盘空间不足!\n升级工程失败!"},
    {2050, "磁盘空间检查通过!"}, {2051, "正在删除旧工程数据..."}, {2052, "删除旧工程数据失败!\n升级工程失败!"}, {2053, "旧工程数据删除结束!\n正在拷贝新工程数据..."}, {2054, "下载失败：U盘连接已断开，未找到U盘综合功能包数据。\n终止下载！"}, {2055, "新工程数据拷贝失败!\n升级工程失败!"},
    {2056, "新工程数据拷贝结束!\n正在校验OPX中新工程数据..."}, {2057, "OPX中新工程数据校验失败!\n升级工程失败!"}, {2058, "OPX中新工程数据校验结束!\n更新工程成功!"}, {2059, "升级工程结束!"}, {2060, "下载过程中被用户终止。"}, {2061, "%1秒钟后自动重启..."},
    {2062, "运行环境已更新，需要重启系统，请确认!"}, {2063, "确认"}, {2064, "运行环境:切换路径 %1 失败。"}, {2065, "运行环境校验:U盘包中的kavo_app/update.ini文件不正确..."}, {2066, "运行环境校验:U盘包中的 %1 文件不存在，不能升级，请检查后重试！"},
    {2067, "运行环境校验:打开U盘包中的 %1 文件失败，不能升级，请检查后重试！"}, {2068, "运行环境校验:校验U盘包中的 %1 文件失败，不能升级，请检查后重试！"}, {2069, "正在删除配方数据..."}, {2070, "删除配方数据成功"}, {2071, "删除配方数据失败!"}, {2072, "正在删除历史数据..."},
    {2073, "删除历史数据成功"}, {2074, "删除历史数据失败!"}, {2075, "正在删除报警数据..."}, {2076, "删除报警数据成功"}, {2077, "删除报警数据失败!"}, {2078, "正在删除初值数据..."}, {2079, "删除初值数据成功"}, {2080, "删除初值数据失败!"},
    {2081, "更新运行环境失败，请检查：\n1、U盘是否松动；\n2、升级包是否正确；\n3、确认后重试。"}, {2082, "警告"}, {2083, "正在退出到系统设置界面，请稍候..."}, {2084, "正在退出应用程序，请稍候..."}, {2085, "系统重启失败!%1"}, {2086, "OPX密码输入"},
    {2087, "密码最大长度为20个字符!"}, {2088, "密码输入错误!"}, {2089, "请输入密码:"}, {2090, "上传过程中请不要断电或拔掉U盘，否则工程将上传失败！"}, {2091, "U盘中已包含一个名为“%1”的文件，是否覆盖？"}, {2092, "正在上传工程..."}, {2093, "上传工程成功。"},
    {2094, "即将解压工程，请不要断电或拔掉U盘否则工程将解压失败..."}, {2095, "上传工程失败！"}, {2096, "解压工程失败，请检查后重试！"}, {2097, "解压工程成功。"}, {2098, "工程文件已成功上传至U盘：opxbackup\\%1。"}, {2099, "正在解压工程..."}, {2100, "下载工程列表"},
    {2101, "请注意：下载过程中不能断电或拔出U盘！"}, {2102, "上传"}, {2103, "返回"}, {2104, "工程上传"}, {2105, "[开始]\n"}, {2106, "[成功]\n"}, {2107, "[失败]\n"}, {2108, "当前下位机运行环境为 %1，需要升级运行环境到%2，否则不能升级工程。请确认！"},
    {2109, "当前下位机运行环境为 %1，不能升级 %2 的工程！请升级 %3 的运行环境后重试！"}, {2110, "正在获取工程与下位机系列..."}, {2111, "工程与下位机系列获取成功！"}, {2112, "正在校验下位机硬件条件..."}, {2113, "下位机硬件条件检验不通过，错误码：%1，%2 版本工程无法在此屏上运行！"},
    {2114, "下位机硬件条件已校验通过。"}, {2115, "下位机运行环境损坏，不能升级工程，请先升级运行环境！"}, {2116, "下位机运行环境损坏，请升级运行环境，否则不能升级工程！"}, {2117, "正在校验下位机运行环境完整性..."}, {2118, "下位机运行环境完整性校验已完成。"}, {2119, "OPX上传工程"},
    {2120, "工程配置文件损坏，请重新做包后重试！"},
};

// Ids whose default text nobody quotes; the built-in file still carries them.
const QList<int> kUnquotedIds = {1002, 1006, 1007, 1009, 2003, 2004, 2024, 2025, 2027, 2029};
constexpr int kBuiltinCount = 140;

MultilingualManager* table() { return MultilingualManager::GetInstance(); }

} // namespace

class TestText : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void defaultTexts();
    void builtinFileLayout();
    void loading_data();
    void loading();

private:
    QTemporaryDir m_dir;
};

void TestText::initTestCase()
{
    initKavoResources();
    // LF ends; two texts replaced, an id added, a list value, a group not a number.
    QVERIFY(testenv::writeFile(m_dir.filePath("0001.lan"), "[2005] \nstring = 项目下载\n[1000]\nstring = Achtung\n"
                               "[2010]\nstring = eins, zwei\n[abc]\nstring = 非数字\n[3000]\nstring = \"额外\"\n"));
    QVERIFY(testenv::readFile(":/new/prefix1/resource/img/downarrow.png").startsWith("\x89PNG\r\n\x1a\n"));
}

void TestText::defaultTexts()
{
    QVERIFY(table()->loadMultilingualFile(m_dir.filePath("0099.lan"), kBuiltinLanguageFile));
    for (auto it = kQuotedTexts.cbegin(); it != kQuotedTexts.cend(); ++it)
        QCOMPARE(table()->getMultilingualValue(it.key()), it.value());
    for (int id : kUnquotedIds)
        QVERIFY2(!table()->getMultilingualValue(id).isEmpty(), qPrintable(QString::number(id)));
    QCOMPARE(table()->count(), kBuiltinCount); // every id was there: nothing added
    // An unknown id reads empty and gets an entry of its own.
    for (int id : {2999, 2999, -5})
        QCOMPARE(table()->getMultilingualValue(id), QString());
    QCOMPARE(table()->count(), kBuiltinCount + 2);
}

// CR LF, no BOM, two headers, ids in order, quoted only 2108-2120, 2006's blank, 2098's "\\".
void TestText::builtinFileLayout()
{
    QByteArray raw = testenv::readFile(kBuiltinLanguageFile);
    QVERIFY(!raw.startsWith("\xEF\xBB\xBF") && raw.endsWith("\r\n"));
    QVERIFY(raw.count("\r\n") == raw.count('\n') && raw.count('\r') == raw.count('\n'));
    QVERIFY(raw.contains("\r\nstring = 上传工程到U盘 \r\n") && raw.contains("opxbackup\\\\%1"));
    QStringList expected{"#工具公共 1000~1999"};
    for (int id = 1000; id <= 2120; id = id == 1018 ? 2000 : id + 1) {
        if (id == 2000)
            expected << "" << "" << "#U盘综合功能包 2000~2999";
        expected << QString("[%1]").arg(id) << (id >= 2108 ? "string = \"" : "string = ");
    }
    QStringList lines = QString::fromUtf8(raw).split("\r\n");
    QCOMPARE(lines.takeLast(), QString());
    QCOMPARE(lines.size(), expected.size());
    for (int i = 0; i < lines.size(); ++i) {
        const QString value = lines.at(i).mid(expected.at(i).size());
        QVERIFY2(lines.at(i).startsWith(expected.at(i)) && !value.contains(',') && value.endsWith('"') == expected.at(i).endsWith('"')
                     && (!value.isEmpty() || !expected.at(i).startsWith("string")), qPrintable(lines.at(i)));
    }
}

void TestText::loading_data()
{
    QTest::addColumn<QString>("languageFile");
    QTest::addColumn<QString>("defaultFile");
    QTest::addColumn<bool>("loaded");
    QTest::addColumn<int>("count");
    QTest::addColumn<QStringList>("texts"); // "ID=text" afterwards

    const QString partial = m_dir.filePath("0001.lan");
    const QString missing = m_dir.filePath("0099.lan");
    const QString builtin = kBuiltinLanguageFile;
    const QStringList overlaid{"2005=项目下载", "1000=Achtung", "2010=", "0=非数字", "3000=额外", "2045=OPX磁盘空间不足!\n升级工程失败!"};
    QTest::newRow("language missing, built-in") << missing << builtin << true << kBuiltinCount << QStringList{"2005=用户工程下载"};
    QTest::newRow("no language, built-in") << QString() << builtin << true << kBuiltinCount << QStringList{"1000=警告"};
    QTest::newRow("language missing, no default") << missing << QString() << false << 0 << QStringList();
    QTest::newRow("language only") << partial << QString() << true << 5 << QStringList{"2005=项目下载"};
    QTest::newRow("language, default missing") << partial << missing << true << 5 << QStringList{"3000=额外"};
    QTest::newRow("language over built-in") << partial << builtin << true << kBuiltinCount + 2 << overlaid;
}

void TestText::loading()
{
    QFETCH(QString, languageFile);
    QFETCH(QString, defaultFile);
    QFETCH(QStringList, texts);
    // Each load starts from an empty table, whatever the one before held.
    QVERIFY(table()->loadMultilingualFile(m_dir.filePath("0001.lan"), kBuiltinLanguageFile));
    QTEST(table()->loadMultilingualFile(languageFile, defaultFile), "loaded");
    QTEST(table()->count(), "count");
    for (const QString& text : texts)
        QCOMPARE(table()->getMultilingualValue(text.section('=', 0, 0).toInt()), text.section('=', 1));
    QTEST(table()->count(), "count");

    // Same size, rewritten at once: the file's size and time stamp do not tell the versions apart.
    for (int round = 0; round < 5 && languageFile.isNull(); ++round) {
        const QString text = QStringLiteral("文本%1").arg(round);
        QVERIFY(testenv::writeFile(m_dir.filePath("0002.lan"), "[2005]\r\nstring = " + text.toUtf8() + "\r\n"));
        QVERIFY(table()->loadMultilingualFile(m_dir.filePath("0002.lan"), kBuiltinLanguageFile));
        QCOMPARE(table()->getMultilingualValue(2005), text);
    }
}

QTEST_GUILESS_MAIN(TestText)
#include "tst_text.moc"
