#include "fuzz/FuzzWorker.h"

namespace android::fuzz {

FuzzWorker::FuzzWorker() : mThread([this] { loop(); }) {}

FuzzWorker::~FuzzWorker() {
    {
        std::lock_guard lock(mMutex);
        mExit = true;
    }
    mCondition.notify_all();
    mThread.join();
}

void FuzzWorker::start(std::function<void()> job) {
    {
        std::lock_guard lock(mMutex);
        mJob = std::move(job);
        mBusy = true;
    }
    mCondition.notify_all();
}

void FuzzWorker::wait() {
    std::unique_lock lock(mMutex);
    mCondition.wait(lock, [this] { return !mBusy; });
}

void FuzzWorker::loop() {
    std::unique_lock lock(mMutex);
    for (;;) {
        mCondition.wait(lock, [this] { return mBusy || mExit; });
        if (mExit) return;
        std::function<void()> job = std::move(mJob);
        lock.unlock();
        job();
        lock.lock();
        mBusy = false;
        mCondition.notify_all();
    }
}

} // namespace android::fuzz
