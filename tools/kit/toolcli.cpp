#include "tools/kit/toolcli.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

namespace kit {

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
