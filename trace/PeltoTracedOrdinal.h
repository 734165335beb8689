#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <type_traits>

#include <android-base/stringprintf.h>
#include <android-base/thread_annotations.h>
#include <cutils/trace.h>

namespace android {

// A value that publishes itself as a graphics trace counter whenever it is
// assigned. Negative values go to a companion counter "<name>Negative", since
// counters are shown as unsigned magnitudes; once a value has been negative,
// every later non-negative value also sets that companion back to 0.
//
// Assignment and trace() are safe from several threads at once: each takes the
// value's own lock, so the stored value, everNegative and the lazily built
// negativeName are never torn. Reads are lock-free.
template <typename T>
class PeltoTracedOrdinal {
    static_assert(std::is_same_v<T, bool> || std::is_same_v<T, int32_t> ||
                          std::is_same_v<T, int64_t>,
                  "PeltoTracedOrdinal supports bool, int32_t and int64_t");

public:
    PeltoTracedOrdinal(std::string name, T initial) : name(std::move(name)), value(initial) {
        trace();
    }

    PeltoTracedOrdinal(const PeltoTracedOrdinal&) = delete;
    PeltoTracedOrdinal& operator=(const PeltoTracedOrdinal&) = delete;

    PeltoTracedOrdinal& operator=(T v) EXCLUDES(mMutex) {
        std::lock_guard lock(mMutex);
        value.store(v, std::memory_order_relaxed);
        if (isNegative(v)) {
            everNegative = true;
        }
        traceLocked();
        return *this;
    }

    T get() const { return value.load(std::memory_order_relaxed); }
    operator T() const { return get(); }

    // Publishes the current value again.
    void trace() EXCLUDES(mMutex) {
        std::lock_guard lock(mMutex);
        traceLocked();
    }

private:
    static constexpr bool isNegative(T v) {
        if constexpr (std::is_signed_v<T>) {
            return v < 0;
        } else {
            return false;
        }
    }

    void traceLocked() REQUIRES(mMutex) {
        if (!ATRACE_ENABLED()) {
            return;
        }
        if (negativeName.empty()) {
            negativeName = base::StringPrintf("%sNegative", name.c_str());
        }
        const T v = value.load(std::memory_order_relaxed);
        if (!isNegative(v)) {
            ATRACE_INT64(name.c_str(), static_cast<int64_t>(v));
            if (everNegative) {
                ATRACE_INT64(negativeName.c_str(), 0);
            }
        } else {
            // Negated after widening; done on unsigned bits so that the most
            // negative int64_t does not overflow.
            const auto magnitude =
                    static_cast<int64_t>(0ULL - static_cast<uint64_t>(static_cast<int64_t>(v)));
            ATRACE_INT64(negativeName.c_str(), magnitude);
            ATRACE_INT64(name.c_str(), 0);
        }
    }

    const std::string name;
    mutable std::mutex mMutex;
    std::string negativeName GUARDED_BY(mMutex);
    bool everNegative GUARDED_BY(mMutex) = false;
    std::atomic<T> value;
};

} // namespace android
