#include "frontend/kavo_process.h"

#include "frontend/app_exit_failed_dlg.h"
#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"

#include <unistd.h>

namespace kavo_process {
namespace {

// The silent wait: kStopPolls checks kStopPollMicroseconds apart before the
// operator is shown the wait dialog.
constexpr int kStopPolls = 100;
constexpr useconds_t kStopPollMicroseconds = 100000;

// The process service has two states that both mean the runtime has let go of
// the panel; either one will do.
bool runtimeStopped()
{
    return __check_application_state(1) != 0 || __check_application_state(0) != 0;
}

// Asks the process service to stop the runtime and waits for it without
// processing events. True when the runtime stopped in time; false when the
// request was refused or the wait ran out.
bool requestStopAndWait()
{
    if (__notify_stop_application(0) != 0)
        return false;
    for (int poll = 0; poll < kStopPolls; ++poll) {
        usleep(kStopPollMicroseconds);
        if (runtimeStopped())
            return true;
    }
    return false;
}

} // namespace

bool backToDovik([[maybe_unused]] unsigned int code, QWidget* parent)
{
    // Closing the wait dialog without a decision leaves the runtime as it was,
    // so the whole procedure starts over, a new stop request included.
    for (;;) {
        if (runtimeStopped())
            return true;
        if (requestStopAndWait())
            return true;

        app_exit_failed_dlg dialog(parent, _func);
        // Here either state of the process service ends the wait.
        dialog.setPollMode(false);
        dialog.setPromptText(_func ? _func(1008) : QStringLiteral("正在退出到系统设置界面，请稍候..."));
        dialog.exec();
        if (!dialog.retry())
            return true;
    }
}

} // namespace kavo_process
