#include "controller/FenceThreadCalls.h"

#include <sched.h>
#include <sys/resource.h>

#include <atomic>

namespace android {
namespace {

const FenceThreadCalls kPlatformCalls = {
        [](pthread_t thread, const char* name) { return pthread_setname_np(thread, name); },
        [](pthread_t thread, int priority) {
            sched_param param{};
            param.sched_priority = priority;
            return pthread_setschedparam(thread, SCHED_FIFO, &param);
        },
        [](int tid, int nice) { return setpriority(PRIO_PROCESS, tid, nice); },
        [](int tid, SchedPolicy policy) { return set_sched_policy(tid, policy); },
};

std::atomic<const FenceThreadCalls*> sCalls{&kPlatformCalls};

} // namespace

const FenceThreadCalls& fenceThreadCalls() {
    return *sCalls.load();
}

namespace pelto_testing {
void setFenceThreadCalls(const FenceThreadCalls* calls) {
    sCalls.store(calls != nullptr ? calls : &kPlatformCalls);
}
} // namespace pelto_testing

} // namespace android
