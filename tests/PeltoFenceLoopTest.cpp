#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeClock.h"
#include "support/FakeCompositor.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"

namespace android {
namespace {

using test::begin;
using test::counter;
using test::end;
using test::FakeCompositor;
using test::FakeTrace;
using test::LogCapture;
using test::ScopedFakeTrace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A fence backed by a pipe: it signals once a byte is written.
struct PipeFence {
    PipeFence() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        fence = new Fence(fds[0]);
        writeFd = fds[1];
    }
    ~PipeFence() { close(writeFd); }
    void signal() { EXPECT_EQ(write(writeFd, "s", 1), 1); }

    sp<Fence> fence;
    int writeFd = -1;
};

TEST(PeltoFenceLoopTest, waitsForEachQueuedFenceThenRequestsAVsyncCallback) {
    ScopedFakeTrace trace(true);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    FakeTrace::instance().clear();

    PipeFence first;
    PipeFence second;
    controller->queueFence(first.fence);
    controller->queueFence(nullptr); // skipped without a word
    controller->queueFence(second.fence);
    EXPECT_THAT(host.vsyncCallbacks(), IsEmpty());

    first.signal();
    ASSERT_TRUE(host.waitForVsyncCallbacks(1));
    second.signal();
    ASSERT_TRUE(host.waitForVsyncCallbacks(2));
    EXPECT_THAT(host.vsyncCallbacks(), ElementsAre(true, true));

    const std::string firstName = "Pelto: wait fence " + std::to_string(first.fence->get()) + "\n";
    const std::string secondName =
            "Pelto: wait fence " + std::to_string(second.fence->get()) + "\n";
    controller.reset(); // joins the loop, so its trace is complete

    // The fence loop's sections, without the timer thread's iteration marks.
    std::vector<test::TraceEvent> fenceEvents;
    bool inTimerSection = false;
    for (const auto& e : FakeTrace::instance().events()) {
        if (e.kind == test::TraceEvent::Kind::Begin && e.name.rfind("TimerIteration", 0) == 0) {
            inTimerSection = true;
        } else if (inTimerSection && e.kind == test::TraceEvent::Kind::End) {
            inTimerSection = false;
        } else {
            fenceEvents.push_back(e);
        }
    }
    EXPECT_THAT(fenceEvents, ElementsAre(begin(firstName), end(), begin(secondName), end()));
}

TEST(PeltoFenceLoopTest, teardownWaitsForFencesAlreadyQueued) {
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    PipeFence first;
    PipeFence second;
    first.signal();
    second.signal();
    controller->queueFence(first.fence);
    controller->queueFence(second.fence);
    controller.reset();
    EXPECT_THAT(host.vsyncCallbacks(), ElementsAre(true, true));
}

TEST(PeltoFenceLoopTest, aFailedWaitIsLoggedAndStillRequestsOneCallback) {
    LogCapture log;
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    // A descriptor number far above any this process opens, and not open:
    // the wait fails with EINVAL.
    const int closedFd = fcntl(0, F_DUPFD_CLOEXEC, 1000);
    ASSERT_GE(closedFd, 0);
    close(closedFd);
    // Held here until the fence thread has been joined: the last reference
    // then goes on this thread. LightRefBase orders the delete with a fence,
    // which ThreadSanitizer does not model, so a last release on the fence
    // thread racing this one is reported as a data race.
    const sp<Fence> fence = new Fence(closedFd);
    controller->queueFence(fence);
    ASSERT_TRUE(host.waitForVsyncCallbacks(1));
    controller.reset();

    EXPECT_THAT(host.vsyncCallbacks(), ElementsAre(true));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "PeltoController",
                             "Failed to wait for fence of acquire buffer: Invalid argument (-22)"));
}

TEST(PeltoFenceLoopTest, hintsAreStoredAndClearedByResetFps) {
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    PipeFence present;
    controller->setPreviousPresentFence(present.fence);
    controller->setPreviousPresentFence(present.fence); // the same fence: no extra reference
    EXPECT_EQ(present.fence->getStrongCount(), 2);
    controller->setPreviousPresentFence(nullptr);
    EXPECT_EQ(present.fence->getStrongCount(), 1);

    controller->setPreviousPresentFence(present.fence);
    controller->setSFInProgress(true);
    controller->onActiveModeUpdated(); // resetFps releases the stored fence
    EXPECT_EQ(present.fence->getStrongCount(), 1);
}

TEST(PeltoFenceLoopTest, timeoutIsOneVsyncPeriodAndItsCallbackRequestsVsync) {
    ScopedFakeTrace trace(true);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    FakeTrace::instance().clear();

    EXPECT_EQ(controller->calculateTimeout(), 16'666'666);
    host.setVsyncPeriod(8'333'333);
    EXPECT_EQ(controller->calculateTimeout(), 8'333'333);
    EXPECT_THAT(
            FakeTrace::instance().counters("PeltoTimeout"),
            ElementsAre(counter("PeltoTimeout", 16'666'666), counter("PeltoTimeout", 8'333'333)));

    controller->timeoutCallback();
    controller->timeoutCallback();
    EXPECT_THAT(host.vsyncCallbacks(), ElementsAre(true, true));
}

} // namespace
} // namespace android
