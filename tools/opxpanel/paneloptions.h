// The command line of opxpanel, the maker of simulated panels: a directory laid
// out as a panel's file system, on which the package runs with KAVO_PANEL_ROOT.
#pragma once

#include "tools/kit/panel.h"
#include "tools/kit/toolcli.h"

#include <QString>
#include <QStringList>

namespace opxpanel {

using kit::ExitCode;
using kit::ParseOutcome;
using kit::ParseStatus;

struct PanelOptions
{
    QString root;
    bool force = false;        // lay the panel over a directory that is not empty
    kit::PanelSpec panel;      // everything the panel holds; runtimeSourceDir and backupProjectFile as given
    bool running = false;      // start a stand-in runtime application
    bool print = false;        // list what was made
};

// Reads `arguments` (the program name first) into `options`. Usage when an
// option is unknown, --root is missing, a value has the wrong form, or --runtime
// is combined with the options that describe the kit's own runtime.
ParseOutcome parseOptions(const QStringList& arguments, PanelOptions* options);

// True for a password the panel's on-screen keyboard can type: 1 to 20 digits
// and letters.
bool isTypablePassword(const QString& password);

} // namespace opxpanel
