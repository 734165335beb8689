#include "tools/sim/InputFile.h"

#include "config/JsonNesting.h"
#include "config/PeltoRuleFileReader.h"
#include "tools/host/RegularFile.h"

namespace android::tools::sim {

bool checkRuleFile(const std::string& path, std::string* error) {
    std::string text;
    if (!readRegularFile(path, kMaxRuleFileBytes, &text, error)) return false;
    if (jsonNestsDeeperThan(text, kMaxRuleFileNesting)) {
        *error = path + ": arrays and objects nest more than " +
                std::to_string(kMaxRuleFileNesting) + " levels deep";
        return false;
    }
    return true;
}

} // namespace android::tools::sim
