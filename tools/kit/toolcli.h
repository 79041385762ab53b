// What the integrators' command-line tools (opxpack, opxpanel) share: their
// exit codes, the outcome of reading a command line, and the frame of main().
#pragma once

#include <QString>
#include <QTextStream>

#include <functional>
#include <optional>

class QCommandLineOption;
class QCommandLineParser;

namespace kit {

// The process status of a tool.
enum class ExitCode : int {
    Success = 0,
    Failure = 1, // the input is not usable, or writing failed
    Usage = 2,   // the command line is malformed
};

enum class ParseStatus {
    Ok,
    Help,  // `message` is the help text
    Usage, // `message` says what is wrong
};

struct ParseOutcome
{
    ParseStatus status = ParseStatus::Ok;
    QString message;
};

// `text` in single quotes, as the tools cite a value they refuse.
QString quoted(const QString& text);

// The outcome of a malformed command line, saying `message`.
ParseOutcome usage(const QString& message);

// True for 1 to 9 decimal digits: a number that fits the package's 32-bit fields.
bool isNumber(const QString& text);

// Parses `arguments` with `parser`, whose options are all added and whose help
// option is `help`. The outcome to give at once when the command line is
// malformed, asks for help or carries an argument that is no option; nothing
// when the tool goes on to read the option values.
std::optional<ParseOutcome> openCommandLine(QCommandLineParser& parser, const QCommandLineOption& help,
                                            const QStringList& arguments);

// Answers a command line that asked for help or was wrong, on `out` or `err`
// with the name of `tool`. Returns the exit code for those; -1 when the
// command line is fine and the tool goes on.
int answerCommandLine(const QString& tool, const ParseOutcome& parsed, QTextStream& out, QTextStream& err);

// The main() of a tool named `tool`: a Qt core application, standard output and
// error as UTF-8 streams, then `run` with the arguments (program name first).
// Returns what `run` returns.
int runTool(int argc, char** argv, const QString& tool,
            const std::function<int(const QStringList& arguments, QTextStream& out, QTextStream& err)>& run);

} // namespace kit
