#include "platform/platform.h"

#include <sys/reboot.h>
#include <unistd.h>

namespace platform {

int rebootPanel()
{
    sync();
    return reboot(RB_AUTOBOOT);
}

} // namespace platform
