#pragma once

#include <pthread.h>

#include <processgroup/sched_policy.h>

namespace android {

// The platform calls that name the fence thread and raise its priority, behind
// a table so that tests can make them fail. Each returns what the platform
// call returns.
struct FenceThreadCalls {
    int (*setName)(pthread_t thread, const char* name);
    int (*setFifoPriority)(pthread_t thread, int priority);
    int (*setNice)(int tid, int nice);
    int (*setSchedPolicy)(int tid, SchedPolicy policy);
};

// The calls the controller uses: the platform's unless a test replaced them.
const FenceThreadCalls& fenceThreadCalls();

namespace pelto_testing {
// Replaces the calls for controllers constructed from now on; null restores
// the platform's. The table must outlive those constructions.
void setFenceThreadCalls(const FenceThreadCalls* calls);
} // namespace pelto_testing

} // namespace android
