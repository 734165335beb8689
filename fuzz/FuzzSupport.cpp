#include "fuzz/FuzzSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <android/log.h>

namespace android::fuzz {
namespace {

void dropLine(const struct __android_logger_data*, const char*) {}

void removeRuleFile() {
    std::remove(ruleFilePath().c_str());
}

std::string makeRuleFilePath() {
    // Every input rewrites the file: on a disk that costs milliseconds, in
    // memory microseconds.
    const char* dir = std::getenv("TMPDIR");
    std::string path = dir != nullptr && dir[0] != '\0' ? dir
            : access("/dev/shm", W_OK | X_OK) == 0      ? "/dev/shm"
                                                        : "/tmp";
    path += "/pelto_fuzz_" + std::to_string(getpid()) + ".json";
    std::atexit(removeRuleFile);
    return path;
}

} // namespace

void silenceLog() {
    __android_log_set_logger(dropLine);
}

const std::string& ruleFilePath() {
    // Never destroyed: the exit handler that removes the file still reads it.
    static const std::string* path = new std::string(makeRuleFilePath());
    return *path;
}

void writeRuleFile(const uint8_t* data, size_t size) {
    const std::string& path = ruleFilePath();
    if (data == nullptr) {
        std::remove(path.c_str());
        return;
    }
    FILE* file = std::fopen(path.c_str(), "wb");
    check(file != nullptr, "cannot create the rule file");
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    check(std::fclose(file) == 0 && written, "cannot write the rule file");
}

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

} // namespace android::fuzz
