#include "tools/opxpanel/paneloptions.h"

#include "tools/kit/runtime.h"

#include <QCommandLineParser>
#include <QCryptographicHash>
#include <QRegularExpression>

namespace opxpanel {
namespace {

using kit::isNumber;
using kit::quoted;
using kit::usage;

const char kDescription[] =
    "Makes a simulated panel: a directory laid out as the panel's file system\n"
    "(C library stand-in, installed runtime with its md5 list, current project,\n"
    "fonts, data areas). Run the package on it with KAVO_PANEL_ROOT=ROOT.\n"
    "\n"
    "Exit status: 0 made; 1 the root, the runtime or the backup cannot be used,\n"
    "or writing failed; 2 the command line is wrong.";

const QRegularExpression kName(QStringLiteral("^[A-Za-z0-9_.-]+$"));

} // namespace

bool isTypablePassword(const QString& password)
{
    static const QRegularExpression typable(QStringLiteral("^[A-Za-z0-9]{1,20}$"));
    return typable.match(password).hasMatch();
}

ParseOutcome parseOptions(const QStringList& arguments, PanelOptions* options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption root(QStringLiteral("root"), QStringLiteral("The panel's root directory (created)."),
                                  QStringLiteral("DIR"));
    const QCommandLineOption force(
        QStringLiteral("force"),
        QStringLiteral("Use a root that is not empty: its usr/kavo_app, data, tmp and var/run are made anew, the "
                       "rest stays."));
    const QCommandLineOption arch(QStringLiteral("arch"),
                                  QStringLiteral("Tag_CPU_arch of the C library stand-in: 10 (ARMv7, the default), "
                                                 "5 (ARMv5TEJ) or another number."),
                                  QStringLiteral("N"));
    const QCommandLineOption runtimeVersion(QStringLiteral("runtime-version"),
                                            QStringLiteral("Installed runtime version (default 7.2.1); words after "
                                                           "the version are allowed."),
                                            QStringLiteral("VERSION"));
    const QCommandLineOption minSetVersion(
        QStringLiteral("min-set-version"),
        QStringLiteral("Lowest design environment version the runtime accepts (default 7.0.0)."),
        QStringLiteral("VERSION"));
    const QCommandLineOption product(QStringLiteral("product"),
                                     QStringLiteral("Runtime product series (default KavoPro); an empty value leaves "
                                                    "the key out."),
                                     QStringLiteral("PRODUCT"));
    const QCommandLineOption runtime(QStringLiteral("runtime"),
                                     QStringLiteral("Install this plain runtime directory (with a plain update.ini) "
                                                    "instead of the default one."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption password(QStringLiteral("password"),
                                      QStringLiteral("Protect the panel with this access password (1 to 20 digits "
                                                     "and letters)."),
                                      QStringLiteral("TEXT"));
    const QCommandLineOption suffix(QStringLiteral("suffix"),
                                    QStringLiteral("Project file suffix the panel's project_setup.ini names."),
                                    QStringLiteral("EXT"));
    const QCommandLineOption language(QStringLiteral("language"),
                                      QStringLiteral("The panel's language number (lan_setup.ini); default none."),
                                      QStringLiteral("N"));
    const QCommandLineOption backup(QStringLiteral("backup"),
                                    QStringLiteral("The project file packed into #BKCompreProj.bin (default a short "
                                                   "sample text)."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption running(QStringLiteral("running"),
                                     QStringLiteral("Start a stand-in runtime application and record its pid in "
                                                    "var/run/kavo_app.pid; the pid is printed."));
    const QCommandLineOption print(QStringLiteral("print"), QStringLiteral("List what was made."));
    parser.addOptions({root, force, arch, runtimeVersion, minSetVersion, product, runtime, password, suffix, language,
                       backup, running, print});

    if (const std::optional<ParseOutcome> answer = kit::openCommandLine(parser, help, arguments))
        return *answer;
    if (!parser.isSet(root) || parser.value(root).isEmpty())
        return usage(QStringLiteral("no panel root given (--root DIR)"));

    PanelOptions o;
    o.root = parser.value(root);
    o.force = parser.isSet(force);
    o.running = parser.isSet(running);
    o.print = parser.isSet(print);

    if (parser.isSet(arch)) {
        const QString text = parser.value(arch);
        if (!isNumber(text))
            return usage(QStringLiteral("--arch: ") + quoted(text)
                         + QStringLiteral(" is not an architecture number such as 10 or 5"));
        o.panel.cpuArch = text.toInt();
    }

    if (parser.isSet(runtime)) {
        for (const QCommandLineOption* own : {&runtimeVersion, &minSetVersion, &product})
            if (parser.isSet(*own))
                return usage(QStringLiteral("--runtime brings its own update.ini; --%1 cannot be combined with it")
                                 .arg(own->names().constFirst()));
        o.panel.runtimeSourceDir = parser.value(runtime);
        if (o.panel.runtimeSourceDir.isEmpty())
            return usage(QStringLiteral("--runtime: the runtime directory is empty"));
    }
    if (parser.isSet(runtimeVersion)) {
        const QString text = parser.value(runtimeVersion);
        const QString first = text.trimmed().section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
        if (!kit::isDottedVersion(first) || text.contains(QLatin1Char('\n')))
            return usage(QStringLiteral("--runtime-version: ") + quoted(text)
                         + QStringLiteral(" does not begin with a version such as 7.2.1"));
        o.panel.runtime.version = text;
    }
    if (parser.isSet(minSetVersion)) {
        o.panel.runtime.minSetVersion = parser.value(minSetVersion);
        if (!kit::isDottedVersion(o.panel.runtime.minSetVersion))
            return usage(QStringLiteral("--min-set-version: ") + quoted(o.panel.runtime.minSetVersion)
                         + QStringLiteral(" is not a version such as 7.0.0"));
    }
    if (parser.isSet(product)) {
        o.panel.runtime.product = parser.value(product);
        if (!o.panel.runtime.product.isEmpty() && !kName.match(o.panel.runtime.product).hasMatch())
            return usage(QStringLiteral("--product: ") + quoted(o.panel.runtime.product)
                         + QStringLiteral(" is not a product name (letters, digits, '.', '_', '-')"));
    }

    if (parser.isSet(password)) {
        const QString text = parser.value(password);
        if (!isTypablePassword(text))
            return usage(QStringLiteral("--password: the panel's keyboard types only 1 to 20 digits and letters"));
        o.panel.passwordDigest = QString::fromLatin1(
            QCryptographicHash::hash(text.toLatin1(), QCryptographicHash::Md5).toHex());
    }
    if (parser.isSet(suffix)) {
        o.panel.projectSuffix = parser.value(suffix);
        if (!kName.match(o.panel.projectSuffix).hasMatch())
            return usage(QStringLiteral("--suffix: ") + quoted(o.panel.projectSuffix)
                         + QStringLiteral(" is not a file suffix (letters, digits, '.', '_', '-')"));
    }
    if (parser.isSet(language)) {
        const QString text = parser.value(language);
        if (!isNumber(text))
            return usage(QStringLiteral("--language: ") + quoted(text) + QStringLiteral(" is not a language number"));
        o.panel.language = text.toInt();
    }
    if (parser.isSet(backup)) {
        o.panel.backupProjectFile = parser.value(backup);
        if (o.panel.backupProjectFile.isEmpty())
            return usage(QStringLiteral("--backup: the file name is empty"));
    }
    *options = o;
    return {};
}

} // namespace opxpanel
