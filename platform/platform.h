// The package's own entry points into the platform layer.
//
// panelPath() is where every panel-side absolute path enters the program: on a
// simulated panel (KAVO_PANEL_ROOT set) it is moved under the panel root, on the
// panel it stays as it is. Stick-side paths (found from the executable, the
// working directory, the command line) never go through it.
#pragma once

#include <QString>

#include <string>

namespace platform {

// KAVO_PANEL_ROOT + path for an absolute panel-side path when the variable is
// set and not empty; "/proc" paths, relative paths and empty texts unchanged.
QString panelPath(const QString& path);
std::string panelPath(const char* path);

// The panel root in use ("" on the panel itself).
QString panelRoot();

// Creates the directories that a simulated panel writes into ("/tmp", "/var/run")
// when they are missing. Does nothing on the panel itself.
void preparePanelRoot();

// Restarts the panel as reboot(RB_AUTOBOOT) would: on success it does not
// return; on failure it returns -1 with errno set.
int rebootPanel();

} // namespace platform
