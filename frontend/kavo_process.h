// Handing the panel back to its system-settings program.
//
// The package may change the panel's project or runtime only while the
// panel's own runtime application is stopped. backToDovik asks the panel's
// process service to stop it, waits for it silently for about ten seconds and,
// when the runtime is still running, shows the wait dialog app_exit_failed_dlg,
// from which the operator can go on anyway or restart the panel. The texts come
// from kavo_process::_func (text/multilingualmanager.h).
#pragma once

class QWidget;

namespace kavo_process {

// Has the runtime application stopped and returns once the panel's
// system-settings program has the panel, the operator forces the package on,
// or the panel restarts (which does not return). Always returns true: a wait
// dialog closed without a decision starts the whole procedure again, stop
// request included. `code` identifies the caller; the process service is
// always asked with 0. Blocks the GUI thread without processing events for up
// to about ten seconds before the wait dialog shows. `parent` becomes the wait
// dialog's parent.
bool backToDovik(unsigned int code, QWidget* parent);

} // namespace kavo_process
