// A reboot of the simulated panel: the machine is never restarted. The request
// is recorded in ROOT/var/run/reboot-requested and the process ends, which is
// all the package can observe of a real reboot.
#include "platform/platform.h"

#include "platform/sim/simpanel.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#ifdef OPX_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace platform {

int rebootPanel()
{
    sync();
    const long long injected = sim::faultNumber("KAVO_SIM_REBOOT_ERRNO");
    if (injected > 0 && injected <= 4095) {
        errno = int(injected);
        return -1;
    }

    // A request that cannot be recorded is a failed reboot, as reboot() fails
    // for a caller without the right to restart the machine.
    const std::string directory = panelPath("/var/run");
    if (sim::makeDirectories(directory) != 0)
        return -1;
    const int fd = open((directory + "/reboot-requested").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    static const char kLine[] = "reboot\n";
    ssize_t written;
    do {
        written = write(fd, kLine, sizeof kLine - 1);
    } while (written < 0 && errno == EINTR);
    const int writeError = errno;
    close(fd);
    if (written != ssize_t(sizeof kLine - 1)) {
        errno = written < 0 ? writeError : EIO;
        return -1;
    }
    sync();

    // A reboot gives the program no chance to run destructors, atexit handlers
    // or the rest of its event loop, so neither does the simulation: _exit().
    // Only the stdio buffers are flushed, so that diagnostics printed before the
    // request reach whoever watches the simulated panel.
    fflush(nullptr);
#ifdef OPX_COVERAGE
    // A coverage build writes its counters at a normal exit only; a download
    // that ends in the reboot would otherwise count for nothing.
    __gcov_dump();
#endif
    _exit(0);
}

} // namespace platform
