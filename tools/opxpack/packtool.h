// opxpack as a function, so that the tests run it without a process.
#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

namespace opxpack {

// Runs opxpack with `arguments` (the program name first); default executables
// are looked for from `applicationDir`. The result, the help and hints go to
// `out`, errors to `err`. Returns the process status (ExitCode): 0 packed,
// 1 unusable input or stick, or a failed write, 2 a malformed command line.
int run(const QStringList& arguments, const QString& applicationDir, QTextStream& out, QTextStream& err);

} // namespace opxpack
