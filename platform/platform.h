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
// set and not empty; "/proc" paths (also spelled "//proc/..."), relative paths
// and empty texts unchanged. The path itself is not cleaned: a trailing "/"
// and doubled separators stay. Call it once per path, where the path enters
// the program: a relocated path would be relocated again. The char overload
// works on UTF-8 bytes and gives "" for nullptr.
//
// A simulated panel is never left: a path whose ".." components climb above
// "/" (as in "/../x" or "/usr/kavo_app/project/../../../../x") is refused and
// becomes "/dev/null/outside-panel-root" (with a trailing "/" when the path had
// one). Nothing can be created, opened or removed below a device file, so a
// refused destination fails like an unwritable one, and the text is absolute,
// so it never turns into a place on the stick or in the working directory.
// ".." that stays inside the panel root is kept as written. On the panel
// itself (no root) every absolute path is kept, ".." included.
QString panelPath(const QString& path);
std::string panelPath(const char* path);

// A path built on top of a relocated one (a destination directory and a file
// name from the package): `path` itself while it stays inside the panel root,
// else the refused form above. On the panel itself every path is kept.
QString confinedPanelPath(const QString& path);

// The panel root in use: KAVO_PANEL_ROOT made absolute (a relative value
// against the working directory of its first use) and without trailing "/";
// "" on the panel itself.
QString panelRoot();

// Creates the directories that a simulated panel writes into ("/tmp", "/var/run")
// when they are missing. Does nothing on the panel itself.
void preparePanelRoot();

// Restarts the panel as reboot(RB_AUTOBOOT) would: on success it does not
// return; on failure it returns -1 with errno set. On a simulated panel it
// never restarts the machine: it records the line "reboot" in
// ROOT/var/run/reboot-requested and ends the process with status 0 (no
// destructors or exit handlers run, as on a real reboot; stdio is flushed).
// KAVO_SIM_REBOOT_ERRNO=N makes it fail with errno N; an unwritable record
// makes it fail with that write's errno.
int rebootPanel();

} // namespace platform
