#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace android::fuzz {

// A second thread kept for the whole run, so that an input can drive the
// controller from two threads without paying for a thread per input.
// start() hands it a job; wait() returns once the job has run.
class FuzzWorker {
public:
    FuzzWorker();
    ~FuzzWorker();
    FuzzWorker(const FuzzWorker&) = delete;
    FuzzWorker& operator=(const FuzzWorker&) = delete;

    void start(std::function<void()> job);
    void wait();

private:
    void loop();

    std::mutex mMutex;
    std::condition_variable mCondition;
    std::function<void()> mJob;
    bool mBusy = false;
    bool mExit = false;
    std::thread mThread;
};

} // namespace android::fuzz
