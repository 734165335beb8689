/*
 * Host stand-in for libui's Fence, for builds outside an Android tree.
 * A fence owns one file descriptor and signals when that descriptor becomes
 * readable; on the host any pollable descriptor (a pipe, an eventfd) serves as
 * a sync fence. Same path, names and signatures as the platform header.
 */
#pragma once

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <utils/Errors.h>
#include <utils/LightRefBase.h>
#include <utils/StrongPointer.h>

namespace android {

class Fence : public LightRefBase<Fence> {
public:
    static const sp<Fence> NO_FENCE;

    // An invalid fence, which counts as already signalled.
    Fence() = default;

    // Takes ownership of fenceFd; it is closed when the fence is destroyed.
    explicit Fence(int fenceFd) : mFenceFd(fenceFd) {}

    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;

    ~Fence() {
        if (mFenceFd >= 0) {
            ::close(mFenceFd);
        }
    }

    bool isValid() const { return mFenceFd != -1; }

    int get() const { return mFenceFd; }

    // Blocks until the fence signals. Returns NO_ERROR, or a negative errno
    // value when the descriptor cannot be waited on.
    status_t waitForever(const char* /*logname*/) {
        if (mFenceFd == -1) {
            return NO_ERROR;
        }
        pollfd pfd{mFenceFd, POLLIN, 0};
        for (;;) {
            const int ret = ::poll(&pfd, 1, -1);
            if (ret < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return -errno;
            }
            if (pfd.revents & POLLNVAL) {
                return -EINVAL;
            }
            return NO_ERROR;
        }
    }

private:
    int mFenceFd = -1;
};

inline const sp<Fence> Fence::NO_FENCE = sp<Fence>(new Fence);

} // namespace android
