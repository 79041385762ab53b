// The text table: the built-in language file byte for byte, and language files laid over it.
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

using Texts = QMap<int, QString>;
MultilingualManager* table() { return MultilingualManager::GetInstance(); }

} // namespace

class TestText : public QObject
{
    Q_OBJECT

private slots:
    void builtinFile();
    void loading_data();
    void loading();

private:
    QTemporaryDir m_dir;
};

// CR LF, no BOM, two headers, ids in order, escapes, quotes from 2108 on; unquoted ids hold their header's name.
void TestText::builtinFile()
{
    QVERIFY(testenv::loadBuiltinTexts());
    QStringList expected{"#工具公共 1000~1999"};
    for (int id = 1000; id <= 2120; id = id == 1018 ? 2000 : id + 1) {
        if (id == 2000)
            expected << "" << "" << "#U盘综合功能包 2000~2999";
        QString value = kQuotedTexts.value(id, id < 2000 ? "工具公共" : "U盘综合功能包") + (id == 2006 ? " " : "");
        value.replace('\\', "\\\\").replace('\n', "\\n");
        expected << QString("[%1]").arg(id) << "string = " + (id >= 2108 ? '"' + value + '"' : value);
    }
    QCOMPARE(QString::fromUtf8(testenv::readFile(kBuiltinLanguageFile)).split("\r\n"), expected << "");
}

void TestText::loading_data()
{
    QTest::addColumn<QString>("languageFile");
    QTest::addColumn<QString>("defaultFile");
    QTest::addColumn<Texts>("texts"); // afterwards
    QTest::addColumn<int>("count");   // then, unknown ids asked for included; 0: not loaded
    const QString partial = m_dir.filePath("0001.lan"), missing = m_dir.filePath("0099.lan");
    const QString builtin = kBuiltinLanguageFile;
    // LF ends; two texts replaced, an id added, a list value, a group not a number.
    QVERIFY(testenv::writeFile(partial, "[2005] \nstring = 项目下载\n[1000]\nstring = Achtung\n"
                                        "[2010]\nstring = eins, zwei\n[abc]\nstring = 非数字\n[3000]\nstring = \"额外\"\n"));
    const Texts overlaid{{2005, "项目下载"}, {1000, "Achtung"}, {2010, ""}, {0, "非数字"}, {3000, "额外"},
                         {2045, "OPX磁盘空间不足!\n升级工程失败!"}};
    QTest::newRow("language missing, built-in") << missing << builtin << kQuotedTexts << 140;
    QTest::newRow("no language, built-in, unknown ids") << QString() << builtin << Texts{{2999, ""}, {-5, ""}} << 142;
    QTest::newRow("language missing, no default") << missing << QString() << Texts() << 0;
    QTest::newRow("language only") << partial << QString() << Texts{{2005, "项目下载"}} << 5;
    QTest::newRow("language over built-in") << partial << builtin << overlaid << 142;
}

void TestText::loading()
{
    QFETCH(QString, languageFile);
    QFETCH(QString, defaultFile);
    QFETCH(Texts, texts);
    QFETCH(int, count);
    // Each load starts from an empty table, whatever the one before held.
    QVERIFY(testenv::loadBuiltinTexts());
    QCOMPARE(table()->loadMultilingualFile(languageFile, defaultFile), count > 0);
    for (auto it = texts.cbegin(); it != texts.cend(); ++it)
        QCOMPARE(table()->getMultilingualValue(it.key()), it.value());
    QCOMPARE(table()->count(), count);

    // Same size, rewritten at once: the file's size and time stamp do not tell the versions apart.
    for (int round = 0; round < 5 && languageFile.isNull(); ++round) {
        const QString text = QStringLiteral("文本%1").arg(round), lan = m_dir.filePath("0002.lan");
        QVERIFY(testenv::writeFile(lan, "[2005]\nstring = " + text.toUtf8()) && table()->loadMultilingualFile(lan, {}));
        QCOMPARE(table()->getMultilingualValue(2005), text);
    }
}

QTEST_GUILESS_MAIN(TestText)
#include "tst_text.moc"
