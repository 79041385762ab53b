// opxpanel as a function, so that the tests run it without a process.
#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

namespace opxpanel {

// Runs opxpanel with `arguments` (the program name first). The help, the
// stand-in's pid and the --print listing go to `out`, errors to `err`. Returns
// the process status (ExitCode): 0 made, 1 unusable root, runtime or backup or
// a failed write, 2 a malformed command line.
int run(const QStringList& arguments, QTextStream& out, QTextStream& err);

} // namespace opxpanel
