/*
 * Host stand-in for libprocessgroup's scheduling-policy interface, for builds
 * outside an Android tree. A workstation has no Android cgroup hierarchy, so
 * moving a thread into a group only checks that the thread exists in this
 * process. Same path, names and signature as the platform header.
 */
#pragma once

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    SP_DEFAULT = -1,
    SP_BACKGROUND = 0,
    SP_FOREGROUND = 1,
    SP_SYSTEM = 2,
    SP_AUDIO_APP = 3,
    SP_AUDIO_SYS = 4,
    SP_TOP_APP = 5,
    SP_RT_APP = 6,
    SP_RESTRICTED = 7,
    SP_CNT,
    SP_MAX = SP_CNT - 1,
    SP_SYSTEM_DEFAULT = SP_FOREGROUND,
} SchedPolicy;

// Returns 0 on success, -1 with errno set when the thread or policy is unknown.
static inline int set_sched_policy(int tid, SchedPolicy policy) {
    if (policy < SP_DEFAULT || policy > SP_MAX) {
        errno = EINVAL;
        return -1;
    }
    if (tid == 0) {
        return 0; // the calling thread
    }
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d", tid);
    struct stat st;
    if (tid < 0 || stat(path, &st) != 0) {
        errno = ESRCH;
        return -1;
    }
    return 0;
}

#ifdef __cplusplus
}
#endif
