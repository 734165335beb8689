#pragma once

#include <memory>
#include <string>

#include "tools/sim/LineReader.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Streams the measured frame times of one layer, in nanoseconds of scenario
// time (offset applied), checking that they are numbers, not negative and
// strictly increasing. A `#` line is a comment; the first other line may be a
// header of column names.
class FrameTimesReader {
public:
    explicit FrameTimesReader(const FrameTimes& source) : mSource(source) {}

    bool open(std::string* error);
    // The next time; false at the end, or on an error (then error() says where).
    bool next(SimTime* at);
    const std::string& error() const { return mError; }

private:
    bool parseLine(const std::string& line, SimTime* at);
    bool accept(SimTime at, const std::string& where);

    const FrameTimes& mSource;
    LineReader mLines;
    size_t mInlineIndex = 0;
    bool mHeaderSeen = false;
    size_t mColumn = 0; // the named column's index
    bool mHavePrevious = false;
    SimTime mPrevious = 0;
    std::string mPreviousWhere;
    std::string mError;
};

// Reads all of a layer's times once: fills count, first and last, or says
// what is wrong and where.
bool scanFrameTimes(FrameTimes* source, std::string* error);

} // namespace android::tools::sim
