// The input is a Perfetto trace, or anything at all, for pelto-sim's reader.
// The first byte sets how many bytes each read hands over (1 to 64, so
// packets straddle reads at every offset) and whether the source fails after
// the last byte instead of ending. The reader must end with a trace or with
// an error that names the input, within its limits, and what it keeps must
// be in time order and in range.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "tools/sim/PerfettoReader.h"

namespace android::fuzz {
namespace {

using tools::sim::PerfettoLimits;
using tools::sim::PerfettoTrace;
using tools::sim::ReadBytes;

template <typename List>
bool inTimeOrder(const List& list) {
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i].time < 0 || list[i].time >= int64_t{1} << 62) return false;
        if (i > 0 && list[i].time < list[i - 1].time) return false;
    }
    return true;
}

} // namespace
} // namespace android::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::fuzz;
    if (size == 0) return 0;
    const size_t chunk = 1 + (data[0] & 0x3f);
    const bool failAtEnd = (data[0] & 0x80) != 0;
    ++data;
    --size;
    android::tools::sim::looksLikePerfetto(data, size);
    size_t pos = 0;
    const ReadBytes read = [&](uint8_t* buffer, size_t n, std::string* error) -> long {
        if (pos == size && failAtEnd) {
            *error = "fuzz: a read error";
            return -1;
        }
        const size_t count = std::min({n, chunk, size - pos});
        std::copy(data + pos, data + pos + count, buffer);
        pos += count;
        return static_cast<long>(count);
    };
    // Small limits, so that inputs reach them.
    PerfettoLimits limits;
    limits.maxBytes = 4 << 20;
    limits.maxPacket = 1 << 20;
    limits.maxKept = 256 << 10;
    PerfettoTrace trace;
    std::string error;
    const bool ok = android::tools::sim::readPerfetto(read, "fuzz", &trace, &error, limits);
    check(ok == error.empty(), "an error exactly when the read fails");
    if (!ok) {
        check(error.rfind("fuzz", 0) == 0, "the error names the input");
        return 0;
    }
    check(!failAtEnd, "a read error is reported");
    check(pos == size, "a trace read whole");
    check(trace.bytes >= static_cast<int64_t>(size) && trace.bytes <= limits.maxBytes,
          "the byte count covers the input and stays within the limit");
    check(inTimeOrder(trace.marks) && inTimeOrder(trace.displayFrames) &&
                  inTimeOrder(trace.surfaceFrames),
          "everything kept is in time order and in range");
    for (const PerfettoTrace::Mark& m : trace.marks) {
        check(m.text.size() >= 2 && (m.text[0] == 'B' || m.text[0] == 'C') && m.text[1] == '|',
              "only B and C marks are kept");
        check(m.text.back() != '\n' && m.text.back() != '\0', "marks lose their line end");
    }
    return 0;
}
