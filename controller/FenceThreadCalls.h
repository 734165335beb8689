#pragma once

#include <pthread.h>

#include <processgroup/sched_policy.h>

namespace android {

// The platform calls that name the fence thread and raise its priority. The
// controller makes them through the table it was built with, so that a test
// can make any of them fail. Each returns what the platform call returns.
struct FenceThreadCalls {
    int (*setName)(pthread_t thread, const char* name);
    int (*setFifoPriority)(pthread_t thread, int priority);
    int (*setNice)(int tid, int nice);
    int (*setSchedPolicy)(int tid, SchedPolicy policy);
};

// The platform's calls, unchanged.
const FenceThreadCalls& realFenceThreadCalls();

} // namespace android
