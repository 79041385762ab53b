// The package's entry and its three run modes.
//
// startPackage() runs start-up (startup.h), creates the application with its
// font, icon, window decoration and text lookup, and hands over to one mode:
//   interactive         no "-project", no "-s"   -> runStartNote()
//   direct download     "-s" without "-project"  -> runDirectDownload()
//   resume after update "-project"               -> runResumeFailed() when the
//                                                   update failed, else runResumeDownload()
// The process ends with what the mode returns.
#pragma once

#include "app/startup.h"

namespace runmodes {

// The whole process: start-up, then the mode the options choose. Returns the
// process's exit status; -1 when the executable's own path cannot be read.
int startPackage(int argc, char* argv[]);

// Interactive use: the start note, then the main window. Returns the event
// loop's result.
int runStartNote(const startup::StartupOptions& options);

// Unattended download of options.projectArg: starts the result report at
// options.resultDir with the start marker (message 2105), then runs the
// download dialog without its list and buttons, modally, and the event loop.
// Returns the event loop's result once the dialog has closed; after a
// successful download the reboot at the end of the countdown ends the process
// instead.
int runDirectDownload(const startup::StartupOptions& options);

// The runtime updater came back with success: the download of
// options.projectArg goes on in the download dialog, run modally with its
// list hidden and its buttons disabled, then the event loop. Returns the event
// loop's result once the dialog has closed (the reboot usually ends the
// process first).
int runResumeDownload(const startup::StartupOptions& options);

// The runtime updater reported a failure: shows message 2081 in an
// information box and returns `exePathLength` unchanged, the status the
// process has always ended with on this path (the byte count of its own path).
int runResumeFailed(int exePathLength);

} // namespace runmodes
