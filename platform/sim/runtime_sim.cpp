// The panel's process service on a simulated panel: the runtime application is
// whatever process ROOT/var/run/kavo_app.pid names, and the system-settings
// program takes over the moment it has gone.
#include "platform/kavo_api.h"

#include "platform/sim/simpanel.h"

#include <csignal>

extern "C" {

int __check_application_state(int)
{
    // Both states the package asks about, "runtime stopped" and "settings
    // program in front", come about together here.
    return platform::sim::runningRuntimePid() == 0 ? 1 : 0;
}

int __notify_stop_application(int)
{
    if (platform::sim::faultFlag("KAVO_SIM_REFUSE_STOP"))
        return -1;
    const pid_t runtime = platform::sim::runningRuntimePid();
    if (runtime != 0 && kill(runtime, SIGTERM) != 0)
        return -1;
    return 0;
}

} // extern "C"
