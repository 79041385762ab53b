#include "tools/kit/toolcli.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QStringList>

#include <cstdio>

namespace kit {

QString quoted(const QString& text)
{
    return QLatin1Char('\'') + text + QLatin1Char('\'');
}

ParseOutcome usage(const QString& message)
{
    return {ParseStatus::Usage, message};
}

bool isNumber(const QString& text)
{
    static const QRegularExpression number(QStringLiteral("^[0-9]{1,9}$"));
    return number.match(text).hasMatch();
}

std::optional<ParseOutcome> openCommandLine(QCommandLineParser& parser, const QCommandLineOption& help,
                                            const QStringList& arguments)
{
    if (!parser.parse(arguments))
        return usage(parser.errorText());
    if (parser.isSet(help))
        return ParseOutcome{ParseStatus::Help, parser.helpText()};
    if (!parser.positionalArguments().isEmpty())
        return usage(QStringLiteral("unexpected argument ") + quoted(parser.positionalArguments().constFirst()));
    return std::nullopt;
}

int answerCommandLine(const QString& tool, const ParseOutcome& parsed, QTextStream& out, QTextStream& err)
{
    switch (parsed.status) {
    case ParseStatus::Help:
        out << parsed.message;
        out.flush();
        return int(ExitCode::Success);
    case ParseStatus::Usage:
        err << tool << ": " << parsed.message << "\nRun " << tool << " --help for the options.\n";
        err.flush();
        return int(ExitCode::Usage);
    case ParseStatus::Ok:
        break;
    }
    return -1;
}

int runTool(int argc, char** argv, const QString& tool,
            const std::function<int(const QStringList& arguments, QTextStream& out, QTextStream& err)>& run)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(tool);
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return run(QCoreApplication::arguments(), out, err);
}

} // namespace kit
