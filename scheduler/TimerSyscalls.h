#pragma once

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <sys/types.h>

#include <cstddef>

namespace android::scheduler {

// The kernel calls that PeltoTimer makes on its descriptors. The timer goes through one of
// these tables for every such call, so that a test can make a single call fail and watch the
// timer recover; only close() is left out, as base::unique_fd makes it. realTimerSyscalls() is
// the platform's own set, used in production.
struct TimerSyscalls {
    int (*timerfd_create)(int clockId, int flags);
    int (*timerfd_settime)(int fd, int flags, const itimerspec* newValue, itimerspec* oldValue);
    int (*epoll_create1)(int flags);
    int (*epoll_ctl)(int epollFd, int op, int fd, epoll_event* event);
    int (*epoll_wait)(int epollFd, epoll_event* events, int maxEvents, int timeout);
    int (*pipe2)(int fds[2], int flags);
    ssize_t (*read)(int fd, void* buffer, size_t count);
    ssize_t (*write)(int fd, const void* buffer, size_t count);
};

// The platform's calls, unchanged.
const TimerSyscalls& realTimerSyscalls();

} // namespace android::scheduler
