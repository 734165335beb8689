#include "controller/FenceThreadCalls.h"

#include <sched.h>
#include <sys/resource.h>

namespace android {

const FenceThreadCalls& realFenceThreadCalls() {
    static const FenceThreadCalls kCalls = {
            [](pthread_t thread, const char* name) { return pthread_setname_np(thread, name); },
            [](pthread_t thread, int priority) {
                sched_param param{};
                param.sched_priority = priority;
                return pthread_setschedparam(thread, SCHED_FIFO, &param);
            },
            [](int tid, int nice) { return setpriority(PRIO_PROCESS, tid, nice); },
            [](int tid, SchedPolicy policy) { return set_sched_policy(tid, policy); },
    };
    return kCalls;
}

} // namespace android
