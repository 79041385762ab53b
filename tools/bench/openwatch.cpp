// When a program first opens a file in a directory, seen from outside:
//
//   opxbench_watch DIR
//
// prints "ready" once it watches DIR, then the wall-clock time (seconds since
// the epoch, in nanoseconds) at which some process opened a file directly in
// DIR, and ends. The download benchmark takes it for the moment the download
// sequence begins: its first step reads the panel's C library.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, argv[1], IN_OPEN) < 0) {
        std::perror(argv[1]);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);

    char events[4096];
    for (;;) {
        pollfd ready = {watch, POLLIN, 0};
        if (poll(&ready, 1, 120 * 1000) <= 0) {
            std::fprintf(stderr, "%s: nothing opened\n", argv[1]);
            return 1;
        }
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        const ssize_t got = read(watch, events, sizeof events);
        for (ssize_t at = 0; at < got;) {
            inotify_event event;
            std::memcpy(&event, events + at, sizeof event);
            if (!(event.mask & IN_ISDIR)) {
                std::printf("%ld.%09ld\n", static_cast<long>(now.tv_sec), now.tv_nsec);
                return 0;
            }
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}
