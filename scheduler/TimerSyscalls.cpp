#include "scheduler/TimerSyscalls.h"

#include <fcntl.h>
#include <unistd.h>

namespace android::scheduler {
namespace {

// Plain forwarders rather than the libc symbols themselves: a C library may declare these
// calls as fortified overloads whose address cannot be taken.
int realTimerfdCreate(int clockId, int flags) {
    return ::timerfd_create(clockId, flags);
}

int realTimerfdSettime(int fd, int flags, const itimerspec* newValue, itimerspec* oldValue) {
    return ::timerfd_settime(fd, flags, newValue, oldValue);
}

int realEpollCreate1(int flags) {
    return ::epoll_create1(flags);
}

int realEpollCtl(int epollFd, int op, int fd, epoll_event* event) {
    return ::epoll_ctl(epollFd, op, fd, event);
}

int realEpollWait(int epollFd, epoll_event* events, int maxEvents, int timeout) {
    return ::epoll_wait(epollFd, events, maxEvents, timeout);
}

int realPipe2(int fds[2], int flags) {
    return ::pipe2(fds, flags);
}

ssize_t realRead(int fd, void* buffer, size_t count) {
    return ::read(fd, buffer, count);
}

ssize_t realWrite(int fd, const void* buffer, size_t count) {
    return ::write(fd, buffer, count);
}

constexpr TimerSyscalls kRealTimerSyscalls = {
        realTimerfdCreate, realTimerfdSettime, realEpollCreate1, realEpollCtl,
        realEpollWait,     realPipe2,          realRead,         realWrite,
};

} // namespace

const TimerSyscalls& realTimerSyscalls() {
    return kRealTimerSyscalls;
}

} // namespace android::scheduler
