#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace android::fuzz {

// Drops every liblog line, so that a run spends its time in the code under test.
void silenceLog();

// A rule file of this process's own (under $TMPDIR, else /dev/shm, else /tmp, named after the
// pid), which the fuzzers hand to every configuration and controller they build.
// The file is removed when the process exits normally.
const std::string& ruleFilePath();

// Replaces the rule file's content; a null `data` removes the file.
void writeRuleFile(const uint8_t* data, size_t size);

// Prints `what` and aborts when `condition` is false: a broken invariant is a
// finding, which libFuzzer saves as a crash input.
void check(bool condition, const char* what);

} // namespace android::fuzz
