/*
 * Preloaded into every ARM program that runs under qemu-user from a sysroot
 * made by tools/make-sysroot.sh (through the sysroot's /etc/ld.so.preload,
 * which only the target's dynamic loader reads).
 *
 * Qt 5.15 starts child processes with clone(CLONE_PIDFD) as soon as
 * waitid(P_PIDFD) answers the way a kernel with process file descriptors does.
 * qemu-user 7.2 passes that waitid through to the kernel but refuses
 * CLONE_PIDFD, and Qt then takes the failed clone for a started child with
 * pid -1: no QProcess of an emulated program would ever start anything.
 * Answering the probe as a kernel without P_PIDFD makes Qt fork and wait the
 * classic way, which qemu emulates. Every other system call goes through.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/syscall.h>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

long syscall(long number, ...)
{
    static long (*next)(long, ...);
    long a[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; ++i)
        a[i] = va_arg(list, long);
    va_end(list);
    if (number == SYS_waitid && a[0] == P_PIDFD) {
        errno = EINVAL;
        return -1;
    }
    if (next == NULL)
        next = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
