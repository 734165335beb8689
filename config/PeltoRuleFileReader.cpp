#define LOG_TAG "PeltoConfig"

#include "config/PeltoRuleFileReader.h"

#include "config/JsonNesting.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <android-base/unique_fd.h>
#include <log/log.h>

namespace android {

bool readRuleFile(const std::string& path, std::string& text) {
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)));
    if (fd.get() < 0) {
        ALOGW("failed to open %s", path.c_str());
        return false;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        ALOGE("failed to stat %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        ALOGE("%s is not a regular file", path.c_str());
        return false;
    }
    const auto tooLarge = [&path] {
        ALOGE("%s is larger than %zu bytes", path.c_str(), kMaxRuleFileBytes);
        return false;
    };
    if (static_cast<unsigned long long>(st.st_size) > kMaxRuleFileBytes) {
        return tooLarge();
    }

    // The size is read again as the file is: it may grow after the stat.
    text.clear();
    text.resize(static_cast<size_t>(st.st_size) + 1);
    size_t used = 0;
    for (;;) {
        if (used == text.size()) {
            if (text.size() > kMaxRuleFileBytes) {
                return tooLarge();
            }
            text.resize(std::min(text.size() * 2, kMaxRuleFileBytes + 1));
        }
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), &text[used], text.size() - used));
        if (n < 0) {
            ALOGE("failed to read %s: %s", path.c_str(), strerror(errno));
            return false;
        }
        if (n == 0) {
            break;
        }
        used += static_cast<size_t>(n);
    }
    if (used > kMaxRuleFileBytes) {
        return tooLarge();
    }
    text.resize(used);
    return true;
}

bool nestsTooDeep(const std::string& text) {
    return jsonNestsDeeperThan(text, kMaxRuleFileNesting);
}

} // namespace android
