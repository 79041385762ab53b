// Pieces shared by the simulated panel's functions: the fault switches that let
// tests reach every failure branch of the package, file-tree helpers with the
// errno behaviour of the calls they stand in for, and the simulated runtime
// application.
//
// The runtime application "runs" while ROOT/var/run/kavo_app.pid names a live
// process; stopping it is a SIGTERM to that process. A simulated reboot leaves
// the line "reboot" in ROOT/var/run/reboot-requested and ends the process.
#pragma once

#include <string>

#include <sys/types.h>

namespace platform {
namespace sim {

// True when the fault variable `name` is set to something other than "" and "0".
bool faultFlag(const char* name);

// The fault variable `name` read as an integer (decimal, 0x hexadecimal or
// 0 octal); 0 when it is unset, empty or not a number.
long long faultNumber(const char* name);

// Creates `path` and every missing parent (mode 0777 before the umask).
// 0 when `path` is a directory afterwards; -1 with errno set otherwise.
int makeDirectories(const std::string& path);

// Removes whatever is at `path`: a directory with everything below it, or a
// single file or link. Links are removed, never followed. 0 when nothing is
// left at `path` (also when nothing was there); -1 with errno set at the
// first entry that could not be removed (what was removed stays removed).
int removeTree(const std::string& path);

// Removes everything inside the directory `path` and keeps the directory.
// 0 when it is empty afterwards or does not exist; -1 with errno set when it
// is not a directory, cannot be listed, or an entry could not be removed.
int emptyDirectory(const std::string& path);

// The simulated runtime application's pid file, ROOT/var/run/kavo_app.pid.
std::string runtimePidFile();

// The pid the pid file names when that process is alive (zombies count as
// gone), else 0. Pids 0 and 1 and unreadable or malformed files give 0, so a
// damaged pid file can never aim a signal at a process group or at init.
pid_t runningRuntimePid();

} // namespace sim
} // namespace platform
