#include "tools/sim/DriverMarks.h"

namespace android::tools::sim {
namespace {

// Where each tracepoint keeps the mark's parts (0: not there). `type` holds
// an ASCII letter ('B', 'E', 'C'); `begin` is non-zero for a begin and zero
// for an end; `flags` has bit 0 for a begin, bit 1 an end, bit 2 a counter.
struct Layout {
    uint32_t event;
    uint32_t pid;
    uint32_t name;
    uint32_t type;
    uint32_t value;
    uint32_t begin;
    uint32_t flags;
};

constexpr Layout kLayouts[] = {
        {80, 1, 2, 0, 0, 3, 0},  // mdss
        {331, 3, 2, 0, 4, 0, 1}, // systrace "0"
        {333, 1, 2, 3, 4, 5, 0}, // sde: the type letter when set, else begin
        {348, 1, 4, 5, 6, 0, 0}, // dpu
        {349, 1, 4, 5, 6, 0, 0}, // g2d
        {350, 2, 1, 3, 4, 0, 0}, // mali
        {467, 3, 4, 2, 5, 0, 0}, // lwis: the slice is the function's name
        {484, 1, 2, 4, 5, 3, 0}, // samsung
};

const Layout* layoutOf(uint32_t eventField) {
    for (const Layout& layout : kLayouts) {
        if (layout.event == eventField) return &layout;
    }
    return nullptr;
}

struct Parts {
    int32_t pid = 0;
    std::string name;
    uint64_t type = 0;
    int64_t value = 0;
    bool hasBegin = false;
    uint64_t begin = 0;
    uint64_t flags = 0;
};

char kindOf(const Layout& layout, const Parts& parts) {
    if (layout.flags != 0) {
        if (parts.flags & 1) return 'B';
        if (parts.flags & 2) return 'E';
        if (parts.flags & 4) return 'C';
        return 0;
    }
    if (layout.type != 0 && parts.type != 0) return static_cast<char>(parts.type);
    if (layout.begin != 0 && parts.hasBegin) return parts.begin != 0 ? 'B' : 'E';
    return 0;
}

} // namespace

bool isDriverMark(uint32_t eventField) {
    return layoutOf(eventField) != nullptr;
}

bool driverMarkText(uint32_t eventField, const proto::Field& payload, std::string* text,
                    const char** damage) {
    text->clear();
    const Layout* layout = layoutOf(eventField);
    if (layout == nullptr) return true;
    Parts parts;
    proto::Reader reader(payload.data, payload.size);
    proto::Field f;
    while (reader.next(&f)) {
        const bool varint = f.wire == proto::kVarint;
        if (f.number == layout->pid && varint) parts.pid = f.asInt32();
        if (f.number == layout->name && f.wire == proto::kBytes) parts.name = f.asString();
        if (f.number == layout->type && varint) parts.type = f.value;
        if (f.number == layout->value && varint) parts.value = f.asInt64();
        if (f.number == layout->begin && varint) {
            parts.hasBegin = true;
            parts.begin = f.value;
        }
        if (f.number == layout->flags && varint) parts.flags = f.value;
    }
    if (reader.error() != nullptr) {
        *damage = reader.error();
        return false;
    }
    const std::string pid = std::to_string(parts.pid);
    switch (kindOf(*layout, parts)) {
        case 'B':
            if (!parts.name.empty()) *text = "B|" + pid + "|" + parts.name;
            break;
        case 'E':
            *text = "E|" + pid;
            break;
        case 'C':
            if (!parts.name.empty()) {
                *text = "C|" + pid + "|" + parts.name + "|" + std::to_string(parts.value);
            }
            break;
        default:
            break;
    }
    return true;
}

} // namespace android::tools::sim
