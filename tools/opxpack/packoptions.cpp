#include "tools/opxpack/packoptions.h"

#include "app/constants.h"
#include "tools/kit/runtime.h"
#include "tools/kit/stick.h"

#include <QCommandLineParser>
#include <QRegularExpression>

#include <algorithm>

#include <fnmatch.h>

namespace opxpack {
namespace {

using kit::isNumber;
using kit::quoted;
using kit::usage;

const char kDescription[] =
    "Builds a USB stick for the panel's maintenance package: writes the package\n"
    "(opxupdateu/) onto STICK and turns the plain project directory DIR into the\n"
    "project directory STICK/NAME that the package downloads into a panel.\n"
    "\n"
    "Every regular file below DIR becomes a package file; DIR must hold\n"
    "context.dat. Files below DIR/DownLoadFile go to the panel's user file area\n"
    "(by default /data/userfile) without their DownLoadFile/ prefix; all others\n"
    "go to /usr/kavo_app/project unless a --dest rule says otherwise. A file keeps\n"
    "its relative path below its destination: with --dest 'pages/*=/usr/app',\n"
    "pages/p1.scr lands at /usr/app/pages/p1.scr. Fonts belong at the top of DIR\n"
    "(--dest '*.ttf=/usr/kavo_app/font'): the panel keeps only the fonts that the\n"
    "new project brings by name.\n"
    "\n"
    "Without --executable (--helper), opxupdateu_proj.bin (opxupdateu_helper.bin)\n"
    "is looked for beside opxpack, one and two directories up, and in a helper/\n"
    "directory there: a build tree finds its own package that way.\n"
    "\n"
    "Exit status: 0 packed; 1 the input, the runtime or the stick cannot be used,\n"
    "or writing failed (nothing is left behind); 2 the command line is wrong.";

const QRegularExpression kProduct(QStringLiteral("^[A-Za-z0-9_.-]+$"));

// A panel directory as DESPATH carries it: absolute or "$" + variable, without
// the trailing "/" the package adds itself.
bool panelDirectory(QString text, QString* result)
{
    while (text.size() > 1 && text.endsWith(QLatin1Char('/')))
        text.chop(1);
    if (text == QLatin1String("/") || (!text.startsWith(QLatin1Char('/')) && !text.startsWith(QLatin1Char('$'))))
        return false;
    if (text.contains(QLatin1Char('\n')) || text.contains(QLatin1Char('\r')))
        return false;
    *result = text;
    return true;
}

} // namespace

bool hasControlCharacter(const QString& text)
{
    return std::any_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7f; });
}

bool isProjectName(const QString& name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.')) && !name.contains(QLatin1Char('/'))
           && name != s_opxupdateuDir && name != QLatin1String("opxbackup") && !hasControlCharacter(name);
}

QString destinationFor(const QList<Destination>& rules, const QString& relativePath)
{
    const QByteArray path = relativePath.toUtf8();
    for (const Destination& rule : rules)
        if (fnmatch(rule.glob.toUtf8().constData(), path.constData(), 0) == 0)
            return rule.panelDir;
    if (relativePath.startsWith(downFileDir + QLatin1Char('/')))
        return QStringLiteral("/data/userfile");
    return QStringLiteral("/usr/kavo_app/project");
}

ParseOutcome parseOptions(const QStringList& arguments, PackOptions* options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption project(QStringLiteral("project"), QStringLiteral("The plain project directory to pack."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption name(QStringLiteral("name"),
                                  QStringLiteral("Project directory name on the stick (default: DIR's name)."),
                                  QStringLiteral("NAME"));
    const QCommandLineOption out(QStringLiteral("out"), QStringLiteral("The stick's root directory (created)."),
                                 QStringLiteral("STICK"));
    const QCommandLineOption force(QStringLiteral("force"),
                                   QStringLiteral("Replace a project of the same name on the stick."));
    const QCommandLineOption dest(
        QStringLiteral("dest"),
        QStringLiteral("Send project files whose relative path matches GLOB (a shell pattern on the whole path; "
                       "* also matches /) to PANELDIR, an absolute panel directory or $VARIABLE/... "
                       "Repeatable; the first matching rule wins."),
        QStringLiteral("GLOB=PANELDIR"));
    const QCommandLineOption platform(QStringLiteral("platform"),
                                      QStringLiteral("Panel platform code: 10 (OPX7), 5 (OPX5) or another (default 10)."),
                                      QStringLiteral("CODE"));
    const QCommandLineOption platformName(
        QStringLiteral("platform-name"),
        QStringLiteral("Platform name shown when the platform does not fit (default OPX7 for 10, OPX5 for 5, "
                       "else OPX and the code)."),
        QStringLiteral("NAME"));
    const QCommandLineOption product(QStringLiteral("product"),
                                     QStringLiteral("Runtime product series of the project (default KavoPro)."),
                                     QStringLiteral("PRODUCT"));
    const QCommandLineOption setVersion(QStringLiteral("set-version"),
                                        QStringLiteral("Design environment version (default 7.2.1)."),
                                        QStringLiteral("VERSION"));
    const QCommandLineOption minRunVersion(QStringLiteral("min-run-version"),
                                           QStringLiteral("Lowest runtime version the project runs on (default 7.0.0)."),
                                           QStringLiteral("VERSION"));
    const QCommandLineOption diskCapacity(QStringLiteral("disk-capacity"),
                                          QStringLiteral("Data file system size the project needs, in MiB."),
                                          QStringLiteral("MIB"));
    const QCommandLineOption hwPlatform(QStringLiteral("hw-platform"),
                                        QStringLiteral("Comma-separated platform codes the project may run on."),
                                        QStringLiteral("LIST"));
    const QCommandLineOption cpuCore(QStringLiteral("cpu-core"),
                                     QStringLiteral("Processor cores the project needs."), QStringLiteral("N"));
    const QCommandLineOption clear(QStringLiteral("clear"),
                                   QStringLiteral("Data the download clears: a comma-separated choice of recipe, "
                                                  "history, alarm, initvalue, userdir. Repeatable."),
                                   QStringLiteral("LIST"));
    const QCommandLineOption variant(
        QStringLiteral("variant"),
        QStringLiteral("Panel family directory of the project files: auto (v7 for platform 10, v5 for 5, else "
                       "none), none, v5 or v7 (default auto)."),
        QStringLiteral("VARIANT"));
    const QCommandLineOption scramble(QStringLiteral("scramble"), QStringLiteral("Store project.ini scrambled."));
    const QCommandLineOption runtime(
        QStringLiteral("runtime"),
        QStringLiteral("A plain runtime directory with a plain update.ini to carry as the runtime copy; its "
                       "[PREPARE] product must be the project's."),
        QStringLiteral("DIR"));
    const QCommandLineOption executable(QStringLiteral("executable"),
                                        QStringLiteral("The package executable to copy (opxupdateu_proj.bin)."),
                                        QStringLiteral("PATH"));
    const QCommandLineOption helper(
        QStringLiteral("helper"),
        QStringLiteral("The runtime updater to copy (opxupdateu_helper.bin); needed with --runtime."),
        QStringLiteral("PATH"));
    const QCommandLineOption languageId(QStringLiteral("language-id"),
                                        QStringLiteral("The package's own language number (default 0)."),
                                        QStringLiteral("N"));
    const QCommandLineOption version(QStringLiteral("version"),
                                     QStringLiteral("Package version shown in the start note (default V1.0.0.0)."),
                                     QStringLiteral("TEXT"));
    parser.addOptions({project, name, out, force, dest, platform, platformName, product, setVersion, minRunVersion,
                       diskCapacity, hwPlatform, cpuCore, clear, variant, scramble, runtime, executable, helper,
                       languageId, version});

    if (const std::optional<ParseOutcome> answer = kit::openCommandLine(parser, help, arguments))
        return *answer;
    if (!parser.isSet(project))
        return usage(QStringLiteral("no project directory given (--project DIR)"));
    if (!parser.isSet(out))
        return usage(QStringLiteral("no stick given (--out STICK)"));

    PackOptions o;
    o.projectDir = parser.value(project);
    o.stickRoot = parser.value(out);
    if (o.projectDir.isEmpty())
        return usage(QStringLiteral("--project: the project directory is empty"));
    if (o.stickRoot.isEmpty())
        return usage(QStringLiteral("--out: the stick directory is empty"));
    o.force = parser.isSet(force);
    if (parser.isSet(name)) {
        o.name = parser.value(name);
        if (!isProjectName(o.name))
            return usage(QStringLiteral("--name: ") + quoted(o.name) + QStringLiteral(" cannot name a project directory"));
    }

    for (const QString& rule : parser.values(dest)) {
        const int eq = rule.indexOf(QLatin1Char('='));
        Destination d;
        if (eq <= 0)
            return usage(QStringLiteral("--dest: ") + quoted(rule) + QStringLiteral(" is not GLOB=PANELDIR"));
        d.glob = rule.left(eq);
        if (!panelDirectory(rule.mid(eq + 1), &d.panelDir))
            return usage(QStringLiteral("--dest: ") + quoted(rule.mid(eq + 1))
                         + QStringLiteral(" is not a panel directory (absolute, or $VARIABLE)"));
        o.destinations << d;
    }

    if (parser.isSet(platform)) {
        o.platform = parser.value(platform);
        if (!isNumber(o.platform))
            return usage(QStringLiteral("--platform: ") + quoted(o.platform)
                         + QStringLiteral(" is not a platform code (a number such as 10 or 5)"));
    }
    if (parser.isSet(platformName))
        o.platformName = parser.value(platformName);
    else if (o.platform == s_platform_v5)
        o.platformName = QStringLiteral("OPX5");
    else if (o.platform != s_platform_v7)
        o.platformName = QStringLiteral("OPX") + o.platform;
    if (o.platformName.trimmed().isEmpty())
        return usage(QStringLiteral("--platform-name: the name is empty"));

    if (parser.isSet(product)) {
        o.product = parser.value(product);
        if (!kProduct.match(o.product).hasMatch() || o.product == QLatin1String(".")
            || o.product == QLatin1String(".."))
            return usage(QStringLiteral("--product: ") + quoted(o.product)
                         + QStringLiteral(" is not a product name (letters, digits, '.', '_', '-')"));
    }
    if (parser.isSet(setVersion))
        o.setVersion = parser.value(setVersion);
    if (parser.isSet(minRunVersion))
        o.minRunVersion = parser.value(minRunVersion);
    for (const auto& [option, text] : {std::pair<const char*, QString>{"--set-version", o.setVersion},
                                       std::pair<const char*, QString>{"--min-run-version", o.minRunVersion}})
        if (!kit::isDottedVersion(text))
            return usage(QLatin1String(option) + QStringLiteral(": ") + quoted(text)
                         + QStringLiteral(" is not a version such as 7.2.1 (digits and dots, at least three parts)"));

    if (parser.isSet(diskCapacity)) {
        o.diskCapacity = parser.value(diskCapacity);
        if (!isNumber(o.diskCapacity))
            return usage(QStringLiteral("--disk-capacity: ") + quoted(o.diskCapacity)
                         + QStringLiteral(" is not a number of MiB"));
    }
    if (parser.isSet(hwPlatform)) {
        for (const QString& code : parser.value(hwPlatform).split(QLatin1Char(','))) {
            if (!isNumber(code.trimmed()))
                return usage(QStringLiteral("--hw-platform: ") + quoted(code.trimmed())
                             + QStringLiteral(" is not a platform code"));
            o.hardwarePlatforms << code.trimmed();
        }
    }
    if (parser.isSet(cpuCore)) {
        o.cpuCore = parser.value(cpuCore);
        if (!isNumber(o.cpuCore))
            return usage(QStringLiteral("--cpu-core: ") + quoted(o.cpuCore)
                         + QStringLiteral(" is not a number of cores"));
    }

    for (const QString& list : parser.values(clear)) {
        for (const QString& word : list.split(QLatin1Char(','))) {
            const QString w = word.trimmed();
            if (w == QLatin1String("recipe"))
                o.clearRecipe = true;
            else if (w == QLatin1String("history"))
                o.clearHistory = true;
            else if (w == QLatin1String("alarm"))
                o.clearAlarm = true;
            else if (w == QLatin1String("initvalue"))
                o.clearInitValue = true;
            else if (w == QLatin1String("userdir"))
                o.clearUserDir = true;
            else
                return usage(QStringLiteral("--clear: unknown data area ") + quoted(w)
                             + QStringLiteral(" (recipe, history, alarm, initvalue, userdir)"));
        }
    }

    // The package takes v7/ on a platform-10 panel and v5/ on a platform-5 one
    // whichever of the two the project holds, so another pairing is never found.
    const QString autoVariant = kit::panelFamily(o.platform);
    const QString variantText = parser.isSet(variant) ? parser.value(variant) : QStringLiteral("auto");
    if (variantText == QLatin1String("auto"))
        o.variant = autoVariant;
    else if (variantText == QLatin1String("none"))
        o.variant.clear();
    else if (variantText == QLatin1String("v5") || variantText == QLatin1String("v7"))
        o.variant = variantText;
    else
        return usage(QStringLiteral("--variant: ") + quoted(variantText)
                     + QStringLiteral(" is not one of auto, none, v5, v7"));
    if (!o.variant.isEmpty() && o.variant != autoVariant)
        return usage(QStringLiteral("--variant %1 does not fit platform %2: a panel of that platform never looks "
                                    "into %1/")
                         .arg(o.variant, o.platform));

    o.scramble = parser.isSet(scramble);
    o.runtimeDir = parser.value(runtime);
    o.executable = parser.value(executable);
    o.helper = parser.value(helper);
    if (parser.isSet(runtime) && o.runtimeDir.isEmpty())
        return usage(QStringLiteral("--runtime: the runtime directory is empty"));
    if ((parser.isSet(executable) && o.executable.isEmpty()) || (parser.isSet(helper) && o.helper.isEmpty()))
        return usage(QStringLiteral("--executable and --helper need a path"));
    if (parser.isSet(languageId)) {
        const QString text = parser.value(languageId);
        if (!isNumber(text))
            return usage(QStringLiteral("--language-id: ") + quoted(text) + QStringLiteral(" is not a language number"));
        o.languageId = text.toInt();
    }
    if (parser.isSet(version)) {
        o.packageVersion = parser.value(version);
        if (o.packageVersion.trimmed().isEmpty())
            return usage(QStringLiteral("--version: the package version is empty"));
    }
    *options = o;
    return {};
}

} // namespace opxpack
